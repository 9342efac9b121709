// nuvctl bp: builds one valid burying point from its options and posts it to the daemon, so an
// operator can check the collection path end to end without writing JSON by hand.
#include <jansson.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "command.h"
#include "common/utils.h"
#include "nuv_path.h"
#include "nuv_time.h"

namespace nuvctl {

int PostBytes(const char* command, const std::string& topic, const std::string& bytes,
              bool check);  // post_cmd.cpp

namespace {

const char kTopic[] = "maintenance:POST";
constexpr int kTimingType = 256;

const char kUsage[] =
    "usage: nuvctl bp --type N --focus PATH:PID [OPTIONS]\n"
    "\n"
    "Builds a valid burying point and posts it to maintenance:POST, then prints the result\n"
    "word like 'nuvctl post'. It is stored under the last component of PATH, pid 0, type N.\n"
    "\n"
    "required:\n"
    "  --type N                record type, 1 or more; 256 is a timing point\n"
    "  --focus PATH:PID        the process the point is about, e.g. /usr/bin/agent:1234\n"
    "\n"
    "header members (defaults in brackets):\n"
    "  --id TEXT               [a new UUID]\n"
    "  --name TEXT             [manual]\n"
    "  --module TEXT           [nuvctl]\n"
    "  --function TEXT         [bp]\n"
    "  --product TEXT          [maintenance]\n"
    "  --product-version TEXT  [the version of nuvctl]\n"
    "  --agent-id TEXT         [empty]\n"
    "  --time TEXT             [now, YYYY/MM/DD hh:mm:ss]\n"
    "\n"
    "timing body, written for type 256 or when either is given (Unix seconds):\n"
    "  --time-start S          [the end, or now]\n"
    "  --time-end E            [now]; time_diff is E - S\n"
    "\n"
    "other options:\n"
    "  --echo                  print the posted document before the result\n"
    "  --help                  print this help\n"
    "\n"
    "exit codes: 0 the result was 0, 1 any other result, 2 usage error\n";

int UsageError(const std::string& message) { return nuvctl::UsageError("bp", message); }

// A decimal number in 0 .. INT_MAX (what the library reads as a 32-bit integer).
bool ParseNumber(const std::string& text, long long& out) {
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  char* end = nullptr;
  errno = 0;
  out = std::strtoll(text.c_str(), &end, 10);
  return errno == 0 && *end == '\0' && out <= INT_MAX;
}

// True when the text before the last ":" names a process, as the collector requires.
bool FocusNamesProcess(const std::string& focus) {
  const std::string::size_type colon = focus.rfind(':');
  return colon != std::string::npos &&
         nuv_path_get_name_u(focus.substr(0, colon).c_str()) != nullptr;
}

std::string Dump(json_t* root) {
  char* text = json_dumps(root, 0);
  std::string out(text != nullptr ? text : "");
  std::free(text);
  return out;
}

}  // namespace

int BpMain(int argc, char** argv) {
  std::map<std::string, std::string> values = {
      {"--id", ""},
      {"--name", "manual"},
      {"--module", "nuvctl"},
      {"--function", "bp"},
      {"--product", "maintenance"},
      {"--product-version", NUV_VERSION},
      {"--agent-id", ""},
      {"--time", ""},
      {"--type", ""},
      {"--focus", ""},
      {"--time-start", ""},
      {"--time-end", ""},
  };
  std::map<std::string, bool> given;
  std::map<std::string, bool> flags = {{"--echo", false}};
  const int parsed = ParseOptions("bp", kUsage, argc, argv, values, given, flags);
  if (parsed >= 0) return parsed;

  long long type = 0;
  if (!given["--type"]) return UsageError("--type is needed");
  if (!ParseNumber(values["--type"], type) || type == 0) {
    return UsageError("--type takes a record type from 1, not '" + values["--type"] + "'");
  }
  if (!given["--focus"]) return UsageError("--focus is needed");
  if (!FocusNamesProcess(values["--focus"])) {
    return UsageError("--focus takes PATH:PID with a process name at the end of PATH, not '" +
                      values["--focus"] + "'");
  }
  long long end = static_cast<long long>(nuv_time());
  if (given["--time-end"] && !ParseNumber(values["--time-end"], end)) {
    return UsageError("--time-end takes Unix seconds, not '" + values["--time-end"] + "'");
  }
  long long start = end;
  if (given["--time-start"] && !ParseNumber(values["--time-start"], start)) {
    return UsageError("--time-start takes Unix seconds, not '" + values["--time-start"] + "'");
  }
  if (end < start) return UsageError("--time-end is before --time-start");
  if (!given["--id"]) values["--id"] = CreateUUID();
  if (!given["--time"]) values["--time"] = GenerateLocalTime();

  json_t* header =
      json_pack("{s:I, s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:s}", "type",
                static_cast<json_int_t>(type), "version", "1.0", "focus", values["--focus"].c_str(),
                "id", values["--id"].c_str(), "name", values["--name"].c_str(), "module",
                values["--module"].c_str(), "function", values["--function"].c_str(), "time",
                values["--time"].c_str(), "product", values["--product"].c_str(), "product_version",
                values["--product-version"].c_str(), "agent_id", values["--agent-id"].c_str());
  if (header == nullptr) {
    std::fprintf(stderr, "nuvctl bp: the values must be UTF-8 text\n");
    return kExitUsage;
  }
  json_t* root = json_pack("{s:o}", "header", header);
  if (type == kTimingType || given["--time-start"] || given["--time-end"]) {
    json_object_set_new(
        root, "body",
        json_pack("{s:I, s:I, s:I}", "time_start", static_cast<json_int_t>(start), "time_end",
                  static_cast<json_int_t>(end), "time_diff", static_cast<json_int_t>(end - start)));
  }
  const std::string document = Dump(root);
  json_decref(root);
  if (flags["--echo"]) std::printf("%s\n", document.c_str());
  std::fflush(stdout);
  return PostBytes("bp", kTopic, document, true);
}

}  // namespace nuvctl
