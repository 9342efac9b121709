#include "config/config_check.h"

#include <jansson.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "common/utils.h"

namespace {

// The per-member keys of "/addition", in the order the loader reads them.
const char* const kAdditionStrings[] = {"/file/path"};
// The string members of a monitor element.
const char* const kMonitorKeys[] = {"id",      "agent_id",        "name",   "subscriber",
                                    "version", "product",         "product_version",
                                    "focus",   "handler",         "condition",
                                    "dependent_id"};
// Types that get clean-up passes with their own age; 512 uses the default age.
const int kCleanedTypes[] = {8192, 16384, 32768};

class Checker {
 public:
  explicit Checker(std::vector<ConfigProblem>& out) : out_(out) {}

  void Add(ConfigProblem::Kind kind, const std::string& key, const std::string& message) {
    out_.push_back(ConfigProblem{kind, key, message});
  }

  // The JSON type name of a node, for messages.
  static const char* TypeName(const json_t* node) {
    if (node == nullptr) return "missing";
    switch (json_typeof(node)) {
      case JSON_OBJECT: return "an object";
      case JSON_ARRAY: return "an array";
      case JSON_STRING: return "a string";
      case JSON_INTEGER: return "an integer";
      case JSON_REAL: return "a real number";
      case JSON_TRUE:
      case JSON_FALSE: return "a boolean";
      case JSON_NULL: return "null";
    }
    return "of an unknown type";
  }

  // An integer as start reads it (low 32 bits). False (and a problem) when missing, of the
  // wrong type, or wider than 32 bits.
  bool Integer(const JsonUtil& doc, const std::string& key, int* value) {
    json_t* node = doc.JsonGetObject(key);
    if (node == nullptr || !json_is_integer(node)) {
      Add(ConfigProblem::kLoad, key,
          node == nullptr ? "missing (an integer is required)"
                          : std::string("must be an integer, not ") + TypeName(node));
      return false;
    }
    const json_int_t wide = json_integer_value(node);
    if (wide < INT32_MIN || wide > INT32_MAX) {
      Add(ConfigProblem::kRange, key,
          std::to_string(static_cast<long long>(wide)) +
              " does not fit in 32 bits (start would read it as " +
              std::to_string(static_cast<int>(static_cast<uint32_t>(wide))) + ")");
      return false;
    }
    *value = static_cast<int>(wide);
    return true;
  }

  bool String(const JsonUtil& doc, const std::string& key) {
    json_t* node = doc.JsonGetObject(key);
    if (node == nullptr || !json_is_string(node)) {
      Add(ConfigProblem::kLoad, key,
          node == nullptr ? "missing (a string is required)"
                          : std::string("must be a string, not ") + TypeName(node));
      return false;
    }
    return true;
  }

  void Range(const std::string& key, int value, long long low, long long high,
             const std::string& why) {
    if (value < low || value > high) {
      Add(ConfigProblem::kRange, key,
          std::to_string(value) + " is out of range " + std::to_string(low) + ".." +
              std::to_string(high) + " (" + why + ")");
    }
  }

  void FileSize(const std::string& key, int value) {
    Range(key, value, kConfigMinFileSizeMiB, kConfigMaxFileSizeMiB,
          "MiB times 1048576 must fit in 32 bits; the library aborts at start otherwise");
  }

 private:
  std::vector<ConfigProblem>& out_;
};

}  // namespace

std::string ConfigProblem::ToString() const {
  std::string text = IsError() ? "error: " : "warning: ";
  if (!key.empty()) text += key + ": ";
  return text + message;
}

bool HasConfigErrors(const std::vector<ConfigProblem>& problems) {
  for (const ConfigProblem& p : problems) {
    if (p.IsError()) return true;
  }
  return false;
}

bool HasConfigRangeErrors(const std::vector<ConfigProblem>& problems) {
  for (const ConfigProblem& p : problems) {
    if (p.kind == ConfigProblem::kRange) return true;
  }
  return false;
}

namespace {

ConfigProblem NotJson(const std::string& text) {
  json_error_t error;
  json_t* root = json_loads(text.c_str(), JSON_DECODE_ANY, &error);
  json_decref(root);
  return ConfigProblem{ConfigProblem::kLoad, "",
                       std::string("not valid JSON: line ") + std::to_string(error.line) +
                           ", column " + std::to_string(error.column) + ": " + error.text};
}

}  // namespace

std::vector<ConfigProblem> CheckConfigFile(const std::string& path) {
  // Read exactly as start reads it (ReadFileContext drops what follows a NUL byte in a line,
  // so the document start sees can differ from the bytes of the file).
  std::string text;
  if (!ReadFileContext(path, text)) {
    return {ConfigProblem{ConfigProblem::kLoad, "", "cannot read " + path}};
  }
  JsonUtil document;
  if (document.JsonLoadFile(path) != JsonUtil::kOk) return {NotJson(text)};
  return CheckConfigDocument(document);
}

std::vector<ConfigProblem> CheckConfigText(const std::string& text) {
  JsonUtil document;
  if (document.JsonLoadString(text) != JsonUtil::kOk) return {NotJson(text)};
  return CheckConfigDocument(document);
}

std::vector<ConfigProblem> CheckConfigDocument(const JsonUtil& doc) {
  std::vector<ConfigProblem> out;
  Checker c(out);
  int value = 0;

  c.Integer(doc, "/default/cache/size", &value);

  if (c.Integer(doc, "/default/collect_sdk/frequency", &value)) {
    c.Range("/default/collect_sdk/frequency", value, 1, INT32_MAX,
            "seconds between samples; below 1 every monitor is refused and nothing is sampled");
  }
  if (c.Integer(doc, "/default/collect_sdk/monitor_type", &value)) {
    c.Range("/default/collect_sdk/monitor_type", value, 0, INT32_MAX,
            "a bit mask of what to collect; the sampler refuses a negative one");
  }
  if (c.Integer(doc, "/default/collect_sdk/hit_rate", &value)) {
    c.Range("/default/collect_sdk/hit_rate", value, 0, 100,
            "a percentage of the window; above 100 no monitor can ever fire");
  }

  json_t* monitors = doc.JsonGetObject("/default/perf_monitor");
  if (monitors == nullptr || !json_is_array(monitors)) {
    c.Add(ConfigProblem::kLoad, "/default/perf_monitor",
          monitors == nullptr
              ? "missing (an array of monitor objects is required, it may be empty)"
              : std::string("must be an array, not ") + Checker::TypeName(monitors));
  } else {
    for (size_t i = 0; i < json_array_size(monitors); ++i) {
      const std::string base = "/default/perf_monitor/" + std::to_string(i);
      json_t* element = json_array_get(monitors, i);
      if (!json_is_object(element)) {
        c.Add(ConfigProblem::kSkipped, base,
              std::string("must be an object, not ") + Checker::TypeName(element) +
                  "; the loader skips it");
        continue;
      }
      for (const char* key : kMonitorKeys) {
        json_t* member = json_object_get(element, key);
        if (member == nullptr || !json_is_string(member)) {
          c.Add(ConfigProblem::kSkipped, base + "/" + key,
                std::string(member == nullptr ? "missing" : "not a string") +
                    "; the loader skips this monitor");
        }
      }
    }
  }

  c.Integer(doc, "/default/file/cahce", &value);
  c.String(doc, "/default/file/path");

  if (c.Integer(doc, "/default/clearn/day", &value)) {
    // Below 1 means the default of 7 days; above the limit, days times 86400 overflows at
    // the first hourly clean-up pass, which aborts.
    c.Range("/default/clearn/day", value, INT32_MIN, kConfigMaxClearnDay,
            "days times 86400 must fit in 32 bits; the library aborts at the first hourly "
            "clean-up pass otherwise");
  }
  if (c.Integer(doc, "/default/clearn/file_size", &value)) {
    c.FileSize("/default/clearn/file_size", value);
  }

  json_t* addition = doc.JsonGetObject("/addition");
  if (addition == nullptr || !json_is_object(addition)) {
    c.Add(ConfigProblem::kLoad, "/addition",
          addition == nullptr ? "missing (an object is required, it may be empty)"
                              : std::string("must be an object, not ") +
                                    Checker::TypeName(addition));
    return out;
  }
  // The entry that wins for each type: later members overwrite earlier ones.
  std::map<int, std::pair<std::string, int>> dayOfType;
  const char* name = nullptr;
  json_t* member = nullptr;
  json_object_foreach(addition, name, member) {
    const std::string base = std::string("/addition/") + name;
    if (!json_is_object(member)) {
      c.Add(ConfigProblem::kLoad, base,
            std::string("must be an object, not ") + Checker::TypeName(member));
      continue;
    }
    // Member names may hold "/" or digits only; read through a document of the member itself.
    JsonUtil sub;
    char* text = json_dumps(member, JSON_COMPACT);
    const bool loaded = text != nullptr && sub.JsonLoadString(text) == JsonUtil::kOk;
    free(text);
    if (!loaded) continue;
    std::vector<ConfigProblem> inner;
    Checker ci(inner);
    for (const char* key : kAdditionStrings) ci.String(sub, key);
    int day = 0;
    int size = 0;
    int type = 0;
    ci.Integer(sub, "/file/cache", &value);
    const bool hasDay = ci.Integer(sub, "/clearn/day", &day);
    if (ci.Integer(sub, "/clearn/file_size", &size)) ci.FileSize("/clearn/file_size", size);
    const bool hasType = ci.Integer(sub, "/bp_type", &type);
    for (ConfigProblem& p : inner) {
      p.key = base + p.key;
      out.push_back(p);
    }
    if (hasDay && hasType) dayOfType[type] = {base + "/clearn/day", day};
  }
  for (int type : kCleanedTypes) {
    auto it = dayOfType.find(type);
    if (it == dayOfType.end()) continue;
    c.Range(it->second.first, it->second.second, -kConfigMaxClearnDay, kConfigMaxClearnDay,
            "days times 86400 must fit in 32 bits; type " + std::to_string(type) +
                " is cleaned with this age and the library aborts at the first hourly "
                "clean-up pass otherwise");
  }
  return out;
}
