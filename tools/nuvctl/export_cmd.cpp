// nuvctl export status: how far nuv_exportd has shipped the store, read from its cursor file
// and the store itself, so it answers whether or not the exporter runs.
#include <jansson.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "export_config.h"
#include "export_state.h"
#include "nuv_time.h"
#include "store_view.h"

namespace nuvctl {
namespace {

const char kUsage[] =
    "usage: nuvctl export [--config PATH] status [--json]\n"
    "\n"
    "How far nuv_exportd has shipped the store: per stream the records stored, the records the\n"
    "broker confirmed (shipped), and the lag in records and in seconds. The lag in seconds is\n"
    "the most an unshipped record can have waited: the time since the stream was last fully\n"
    "shipped, or since its day began. Archives the exporter has not opened yet are listed too.\n"
    "\n"
    "options:\n"
    "  --config PATH  the exporter's configuration; default\n"
    "                 <dir of nuvctl>/../config/exportd.json\n"
    "  --json         one JSON object instead of the table\n"
    "  --help         print this help\n"
    "\n"
    "exit codes: 0 nothing at risk; 1 the exporter reports an alarm (nothing confirmed for\n"
    "longer than the store keeps its days), a lag longer than that keep period, or the status\n"
    "cannot be read; 2 usage error\n";

constexpr int64_t kAliveSeconds = 30;  // the exporter rewrites its state every 5 s

struct Row {
  nuvexport::StreamId id;
  uint64_t stored = 0;
  uint64_t shipped = 0;
  int64_t lagSeconds = 0;
};

int Fail(const std::string& message) {
  std::fprintf(stderr, "nuvctl export: %s\n", message.c_str());
  return kExitFailure;
}

std::vector<Row> Rows(const nuvexport::StoreLayout& layout, const nuvexport::ExportState& state,
                      int64_t now) {
  std::map<nuvexport::StreamId, Row> rows;
  for (const auto& entry : state.streams) {
    Row& row = rows[entry.first];
    row.id = entry.first;
    row.stored = entry.second.stored;
  }
  for (const std::string& base : layout.bases) {
    for (const nuvexport::StoredStream& stream : nuvexport::ListStreams(base)) {
      Row& row = rows[stream.id];
      row.id = stream.id;
      row.stored = nuvexport::WholeLines(stream.indexPath);
    }
  }
  std::vector<Row> out;
  for (auto& entry : rows) {
    Row& row = entry.second;
    auto cursor = state.streams.find(row.id);
    int64_t since = nuvexport::DayStart(row.id.day);
    if (cursor != state.streams.end()) {
      row.shipped = std::min(cursor->second.shipped, row.stored);
      since = std::max(since, cursor->second.caughtUpAt);
    }
    row.lagSeconds = row.shipped < row.stored ? std::max<int64_t>(now - since, 0) : 0;
    out.push_back(row);
  }
  return out;
}

std::vector<std::string> PendingArchives(const nuvexport::StoreLayout& layout,
                                         const nuvexport::ExportState& state) {
  std::vector<std::string> pending;
  for (const std::string& base : layout.bases) {
    for (const nuvexport::DayArchive& archive : nuvexport::ListArchives(base)) {
      if (state.archivesDone.count(archive.path) == 0 &&
          !std::filesystem::exists(base + "/" + archive.day)) {
        pending.push_back(archive.path);
      }
    }
  }
  return pending;
}

void PrintJson(const std::vector<Row>& rows, const std::vector<std::string>& archives,
               const nuvexport::ExportState& state, bool running, int64_t keep, bool ok) {
  json_t* root = json_object();
  json_t* exporter = json_object();
  json_object_set_new(exporter, "pid", json_integer(state.pid));
  json_object_set_new(exporter, "running", json_boolean(running));
  json_object_set_new(exporter, "updated_at", json_integer(state.updatedAt));
  json_object_set_new(exporter, "unconfirmed_since", json_integer(state.unconfirmedSince));
  json_object_set_new(exporter, "alarm", json_string(state.alarm.c_str()));
  json_object_set_new(root, "exporter", exporter);
  json_object_set_new(root, "keep_seconds", json_integer(keep));
  json_t* streams = json_array();
  for (const Row& row : rows) {
    json_t* item = json_object();
    json_object_set_new(item, "day", json_string(row.id.day.c_str()));
    json_object_set_new(item, "name", json_string(row.id.name.c_str()));
    json_object_set_new(item, "pid", json_integer(row.id.pid));
    json_object_set_new(item, "type", json_integer(row.id.type));
    json_object_set_new(item, "stored", json_integer(static_cast<json_int_t>(row.stored)));
    json_object_set_new(item, "shipped", json_integer(static_cast<json_int_t>(row.shipped)));
    json_object_set_new(item, "lag_records",
                        json_integer(static_cast<json_int_t>(row.stored - row.shipped)));
    json_object_set_new(item, "lag_seconds", json_integer(row.lagSeconds));
    json_array_append_new(streams, item);
  }
  json_object_set_new(root, "streams", streams);
  json_t* pending = json_array();
  for (const std::string& archive : archives) json_array_append_new(pending, json_string(archive.c_str()));
  json_object_set_new(root, "archives_pending", pending);
  json_object_set_new(root, "ok", json_boolean(ok));
  char* text = json_dumps(root, JSON_INDENT(2));
  if (text != nullptr) std::printf("%s\n", text);
  std::free(text);
  json_decref(root);
}

void PrintTable(const std::vector<Row>& rows, const std::vector<std::string>& archives,
                const nuvexport::ExportState& state, bool running) {
  std::printf("exporter: %s", running ? "running" : "not running");
  if (state.pid != 0) std::printf(" (pid %ld)", state.pid);
  std::printf("\n");
  if (!state.alarm.empty()) std::printf("ALARM: %s\n", state.alarm.c_str());
  std::printf("%-8s  %-20s %10s %6s %10s %10s %10s %10s\n", "DAY", "NAME", "PID", "TYPE",
              "STORED", "SHIPPED", "LAG", "LAG_S");
  for (const Row& row : rows) {
    std::printf("%-8s  %-20s %10u %6u %10llu %10llu %10llu %10lld\n", row.id.day.c_str(),
                row.id.name.c_str(), row.id.pid, row.id.type,
                static_cast<unsigned long long>(row.stored),
                static_cast<unsigned long long>(row.shipped),
                static_cast<unsigned long long>(row.stored - row.shipped),
                static_cast<long long>(row.lagSeconds));
  }
  for (const std::string& archive : archives) {
    std::printf("archive not yet shipped: %s\n", archive.c_str());
  }
}

}  // namespace

int ExportMain(int argc, char** argv) {
  std::map<std::string, std::string> values;
  std::vector<std::string> operands;
  const int parsed = ParseCommandLine("export", kUsage, argc, argv,
                                      {{"config", 0, true}, {"json", 0, false}}, values, operands);
  if (parsed != -1) return parsed;
  if (operands.empty()) return UsageError("export", "an action is needed: status");
  if (operands[0] != "status") return UsageError("export", "unknown action '" + operands[0] + "'");
  if (operands.size() > 1) return UsageError("export", "unexpected argument '" + operands[1] + "'");
  const bool json = values.count("--json") != 0;
  const std::string given = values.count("--config") != 0 ? values.at("--config") : "";

  const std::string configPath =
      given.empty() ? nuvexport::ExportConfigPathFor(ExePath()) : given;
  nuvexport::ExportConfig config;
  nuvexport::StoreLayout layout;
  nuvexport::ExportState state;
  std::string error;
  if (!nuvexport::LoadExportConfig(configPath, config, error)) {
    return Fail("cannot load " + configPath + ": " + error);
  }
  if (!nuvexport::LoadStoreLayout(config.storeConfig, layout, error)) return Fail(error);
  if (!nuvexport::LoadState(nuvexport::StatePath(config), state, error)) return Fail(error);

  const int64_t now = nuv_time();
  const std::vector<Row> rows = Rows(layout, state, now);
  const std::vector<std::string> archives = PendingArchives(layout, state);
  const bool running = state.pid > 0 && ::kill(static_cast<pid_t>(state.pid), 0) == 0 &&
                       now - state.updatedAt <= kAliveSeconds;
  bool ok = state.alarm.empty();
  for (const Row& row : rows) ok = ok && row.lagSeconds < layout.keepSeconds;
  if (json) {
    PrintJson(rows, archives, state, running, layout.keepSeconds, ok);
  } else {
    PrintTable(rows, archives, state, running);
  }
  return ok ? kExitOk : kExitFailure;
}

}  // namespace nuvctl
