// nuvctl status / monitors: what the running daemon says about itself and its monitors, asked
// on its status topic, together with what this side sees of the bus directory.
#include <jansson.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bus_dir.h"
#include "command.h"
#include "daemon_query.h"
#include "table.h"

namespace nuvctl {
namespace {

using JsonPtr = std::unique_ptr<json_t, decltype(&json_decref)>;

const char kStatusUsage[] =
    "usage: nuvctl status [--json]\n"
    "\n"
    "Asks the daemon on maintenance:status and shows whether it answers, its pid and start\n"
    "time, the bus directory used and how it was chosen (NUV_COMM_DIR, the default for root,\n"
    "XDG_RUNTIME_DIR), the topics served there, the store's directories with their files and\n"
    "bytes, and the streams the daemon holds open.\n"
    "\n"
    "options:\n"
    "  --json  one JSON object instead of the text\n"
    "  --help  print this help\n"
    "\n"
    "exit codes: 0 the daemon answered, 1 it did not, 2 usage error\n";

const char kMonitorsUsage[] =
    "usage: nuvctl monitors [--json]\n"
    "\n"
    "Asks the daemon for every registered monitor: its kind (exact, exact-dependent, template,\n"
    "template-dependent; 'gone' for an unregistered one that fired), where it came from\n"
    "(config, bus, api), focus and condition, the targets running it now (none: pending), how\n"
    "often it fired since the daemon started, when it last fired and that record's evidence.\n"
    "\n"
    "options:\n"
    "  --json  the daemon's JSON array instead of the table\n"
    "  --help  print this help\n"
    "\n"
    "exit codes: 0 the daemon answered, 1 it did not, 2 usage error\n";

std::string Text(json_t* object, const char* key) {
  const char* value = json_string_value(json_object_get(object, key));
  return value ? value : "";
}

long long Number(json_t* object, const char* key) {
  return static_cast<long long>(json_integer_value(json_object_get(object, key)));
}

// --json alone; -1 to go on, else the exit code.
int ParseJsonFlag(const char* command, const char* usage, int argc, char** argv, bool& json) {
  std::map<std::string, std::string> values;
  std::vector<std::string> operands;
  const int rc = ParseCommandLine(command, usage, argc, argv, {{"json", 0, false}}, values, operands);
  if (rc != -1) return rc;
  if (!operands.empty()) return UsageError(command, "unexpected argument '" + operands[0] + "'");
  json = values.count("--json") != 0;
  return -1;
}

json_t* BusDirJson(const nuvtools::BusDir& dir) {
  json_t* out = json_object();
  json_object_set_new(out, "path", json_string(dir.path.c_str()));
  json_object_set_new(out, "chosen_by", json_string(dir.source.c_str()));
  json_object_set_new(out, "exists", json_boolean(dir.exists));
  json_t* topics = json_array();
  for (const std::string& socket : dir.sockets) json_array_append_new(topics, json_string(socket.c_str()));
  json_object_set_new(out, "topics", topics);
  return out;
}

void PrintStatus(const nuvtools::BusDir& dir, json_t* daemon) {
  std::printf("daemon:        running, pid %lld, uid %lld, since %s\n", Number(daemon, "pid"),
              Number(daemon, "uid"), Text(daemon, "started").c_str());
  std::printf("bus directory: %s (%s)\n", dir.path.c_str(), dir.source.c_str());
  std::printf("topics served:");
  for (const std::string& socket : dir.sockets) std::printf(" %s", socket.c_str());
  std::printf("\n");
  json_t* store = json_object_get(daemon, "store");
  for (size_t i = 0; i < json_array_size(store); ++i) {
    json_t* row = json_array_get(store, i);
    std::printf("%s%s  %lld files, %lld bytes\n", i == 0 ? "store:         " : "               ",
                Text(row, "path").c_str(), Number(row, "files"), Number(row, "bytes"));
  }
  json_t* streams = json_object_get(daemon, "open_streams");
  std::printf("open streams:  %zu\n", json_array_size(streams));
  for (size_t i = 0; i < json_array_size(streams); ++i) {
    json_t* row = json_array_get(streams, i);
    std::printf("  %s %s %lld %lld\n", Text(row, "day").c_str(), Text(row, "name").c_str(),
                Number(row, "pid"), Number(row, "type"));
  }
}

}  // namespace

int StatusMain(int argc, char** argv) {
  bool json = false;
  const int parsed = ParseJsonFlag("status", kStatusUsage, argc, argv, json);
  if (parsed != -1) return parsed;
  const nuvtools::BusDir dir = nuvtools::FindBusDir();
  std::string answer, error;
  const bool alive = AskDaemon("status", answer, error);
  JsonPtr daemon(alive ? json_loads(answer.c_str(), 0, nullptr) : nullptr, json_decref);
  if (json) {
    JsonPtr out(json_object(), json_decref);
    json_object_set_new(out.get(), "alive", json_boolean(daemon != nullptr));
    json_object_set_new(out.get(), "bus_dir", BusDirJson(dir));
    if (daemon) json_object_set(out.get(), "daemon", daemon.get());
    else json_object_set_new(out.get(), "error", json_string(error.c_str()));
    char* text = json_dumps(out.get(), JSON_COMPACT);
    std::printf("%s\n", text ? text : "{}");
    free(text);
  } else if (daemon) {
    PrintStatus(dir, daemon.get());
  } else {
    std::printf("daemon:        not answering\n");
    std::fprintf(stderr, "nuvctl status: %s\n", alive ? "unreadable answer" : error.c_str());
  }
  return daemon ? kExitOk : kExitFailure;
}

int MonitorsMain(int argc, char** argv) {
  bool json = false;
  const int parsed = ParseJsonFlag("monitors", kMonitorsUsage, argc, argv, json);
  if (parsed != -1) return parsed;
  std::string answer, error;
  if (!AskDaemon("monitors", answer, error)) {
    std::fprintf(stderr, "nuvctl monitors: %s\n", error.c_str());
    return kExitFailure;
  }
  if (json) {
    std::printf("%s\n", answer.c_str());
    return kExitOk;
  }
  JsonPtr list(json_loads(answer.c_str(), 0, nullptr), json_decref);
  if (!json_is_array(list.get())) {
    std::fprintf(stderr, "nuvctl monitors: unreadable answer\n");
    return kExitFailure;
  }
  if (json_array_size(list.get()) == 0) {
    std::fprintf(stderr, "nuvctl monitors: no monitors registered\n");
    return kExitOk;
  }
  std::vector<std::vector<std::string>> rows = {
      {"ID", "KIND", "SOURCE", "FOCUS", "CONDITION", "TARGETS", "FIRED", "LAST FIRED"}};
  std::vector<std::string> evidence;
  for (size_t i = 0; i < json_array_size(list.get()); ++i) {
    json_t* m = json_array_get(list.get(), i);
    json_t* targets = json_object_get(m, "targets");
    std::string where;
    for (size_t t = 0; t < json_array_size(targets); ++t)
      where += (t ? "," : "") + std::to_string(Number(json_array_get(targets, t), "pid"));
    if (json_is_true(json_object_get(m, "pending"))) where = "pending";
    rows.push_back({Text(m, "id"), Text(m, "kind"), Text(m, "source"), Text(m, "focus"),
                    Text(m, "condition"), where.empty() ? "-" : where,
                    std::to_string(Number(m, "fired")),
                    Text(m, "last_fired").empty() ? "never" : Text(m, "last_fired")});
    std::string why = Text(m, "evidence");
    while (!why.empty() && (why.back() == '\n' || why.back() == ' ')) why.pop_back();
    evidence.push_back(why.empty() ? "" : "evidence: " + why);
  }
  PrintTable(rows, {false, false, false, false, false, false, true, false}, evidence);
  return kExitOk;
}

}  // namespace nuvctl
