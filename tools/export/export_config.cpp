#include "export_config.h"
#include "paths.h"

#include <jansson.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace nuvexport {
namespace {

struct JsonFree {
  void operator()(json_t* value) const { json_decref(value); }
};
using JsonPtr = std::unique_ptr<json_t, JsonFree>;

std::string DirOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

std::string Resolve(const std::string& base, const std::string& path) {
  return !path.empty() && path[0] == '/' ? path : base + "/" + path;
}

bool GetString(json_t* object, const char* key, std::string& out, std::string& error) {
  json_t* value = json_object_get(object, key);
  if (value == nullptr) return true;
  if (!json_is_string(value)) {
    error = std::string("\"") + key + "\" must be a string";
    return false;
  }
  out = json_string_value(value);
  return true;
}

bool GetNumber(json_t* object, const char* key, long min, long max, long& out,
               std::string& error) {
  json_t* value = json_object_get(object, key);
  if (value == nullptr) return true;
  if (!json_is_integer(value) || json_integer_value(value) < min ||
      json_integer_value(value) > max) {
    error = std::string("\"") + key + "\" must be a whole number from " + std::to_string(min) +
            " to " + std::to_string(max);
    return false;
  }
  out = static_cast<long>(json_integer_value(value));
  return true;
}

bool GetUnsigned(json_t* object, const char* key, long min, long max, unsigned int& out,
                 std::string& error) {
  long value = static_cast<long>(out);
  if (!GetNumber(object, key, min, max, value, error)) return false;
  out = static_cast<unsigned int>(value);
  return true;
}

bool ParseKafka(json_t* kafka, ExportConfig& out, std::string& error) {
  if (kafka == nullptr) return true;
  if (!json_is_object(kafka)) {
    error = "\"kafka\" must be an object";
    return false;
  }
  std::string brokers;
  if (!GetString(kafka, "topic", out.topic, error) ||
      !GetString(kafka, "brokers", brokers, error)) {
    return false;
  }
  // A property given as such wins over the short form.
  if (!brokers.empty()) out.properties.emplace_back("bootstrap.servers", brokers);
  json_t* byType = json_object_get(kafka, "topic_by_type");
  const char* key = nullptr;
  json_t* value = nullptr;
  if (byType != nullptr) {
    if (!json_is_object(byType)) {
      error = "\"topic_by_type\" must map record types to topics";
      return false;
    }
    json_object_foreach(byType, key, value) {
      char* end = nullptr;
      const unsigned long type = std::strtoul(key, &end, 10);
      if (*key == '\0' || *end != '\0' || type == 0 || type > 0xffffffffUL ||
          !json_is_string(value)) {
        error = std::string("\"topic_by_type\": \"") + key + "\" must be a record type naming a topic";
        return false;
      }
      out.topicByType[static_cast<unsigned int>(type)] = json_string_value(value);
    }
  }
  json_t* properties = json_object_get(kafka, "properties");
  if (properties != nullptr && !json_is_object(properties)) {
    error = "\"properties\" must be an object of librdkafka properties";
    return false;
  }
  json_object_foreach(properties, key, value) {
    if (!json_is_string(value)) {
      error = std::string("property \"") + key + "\" must be a string";
      return false;
    }
    auto same = std::find_if(out.properties.begin(), out.properties.end(),
                             [&](const auto& p) { return p.first == key; });
    if (same != out.properties.end()) {
      same->second = json_string_value(value);
    } else {
      out.properties.emplace_back(key, json_string_value(value));
    }
  }
  return true;
}

}  // namespace

bool LoadExportConfig(const std::string& path, ExportConfig& out, std::string& error) {
  out = ExportConfig();
  out.path = path;
  json_error_t parseError;
  JsonPtr root(json_load_file(path.c_str(), 0, &parseError));
  if (root == nullptr) {
    error = parseError.text;
    if (parseError.line > 0) error += " (line " + std::to_string(parseError.line) + ")";
    return false;
  }
  if (!json_is_object(root.get())) {
    error = "the file must hold one JSON object";
    return false;
  }
  json_t* top = root.get();
  const std::string base = DirOf(path);
  std::string storeConfig = "maintenance.json";
  // Outside the store: its clean-up pass would take an unpacked day for one of its own.
  std::string stateDir = "../export";
  if (!GetString(top, "store_config", storeConfig, error) ||
      !GetString(top, "state_dir", stateDir, error) ||
      !GetString(top, "output", out.output, error) ||
      !GetString(top, "ndjson_file", out.ndjsonPath, error) ||
      !GetUnsigned(top, "poll_ms", 10, 60000, out.pollMs, error) ||
      !GetUnsigned(top, "window_records", 1, 1000000, out.windowRecords, error) ||
      !GetUnsigned(top, "window_bytes", 1 << 20, 1 << 30, out.windowBytes, error) ||
      !GetUnsigned(top, "commit_ms", 0, 60000, out.commitMs, error) ||
      !GetNumber(top, "alarm_after_seconds", 1, 10L * 365 * 86400, out.alarmAfterSeconds,
                 error) ||
      !ParseKafka(json_object_get(top, "kafka"), out, error)) {
    return false;
  }
  if (out.output != "kafka" && out.output != "ndjson") {
    error = "\"output\" must be \"kafka\" or \"ndjson\", not \"" + out.output + "\"";
    return false;
  }
  out.storeConfig = Resolve(base, storeConfig);
  out.stateDir = Resolve(base, stateDir);
  if (out.ndjsonPath != "-") out.ndjsonPath = Resolve(base, out.ndjsonPath);
  return true;
}

std::string ExportConfigPathFor(const std::string& exePath) {
  return nuvtools::ConfigPathFor(exePath, "exportd.json");
}

std::string StatePath(const ExportConfig& config) { return config.stateDir + "/cursor.json"; }

}  // namespace nuvexport
