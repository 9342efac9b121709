// nuvctl post: sends any bytes to a bus topic and shows the result word the handler answered,
// so an operator can try a record against the running daemon exactly as a component would.
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "bus_dir.h"
#include "command.h"
#include "local_check.h"
#include "nuv_comm.h"
#include "result_word.h"

namespace nuvctl {

const char kPostUsage[] =
    "usage: nuvctl post [--no-check] [--each-line] TOPIC [FILE|-]\n"
    "\n"
    "Posts the bytes of FILE, or of standard input when FILE is '-' or missing, to TOPIC on\n"
    "the message bus and prints the handler's result word and its meaning, e.g.\n"
    "  0x84CE0004 (burying point invalid)\n"
    "Before posting, bodies for maintenance:POST (burying points), maintenance:register\n"
    "(monitor definitions) and maintenance:unregister are checked here with the library's own\n"
    "code; a refused body is not posted and the reason is printed (JSON errors with line and\n"
    "column, the field refused, a condition's refused token and position).\n"
    "The bus's socket directory is taken from NUV_COMM_DIR as by the daemon; when nobody\n"
    "answers, the directory tried and what is in it are named.\n"
    "\n"
    "options:\n"
    "  --no-check   post without the local check (to see what the daemon answers)\n"
    "  --each-line  post every non-empty line as a message of its own, many in flight at\n"
    "               once on one connection; prints each refused line as\n"
    "                 line N: 0x84CE0004 (burying point invalid)\n"
    "               (or 'line N: not posted: REASON' when the local check refused it),\n"
    "               then 'S stored, R refused' (lines answered 0 count as stored)\n"
    "  --help       print this help\n"
    "\n"
    "exit codes: 0 the result was 0 (every line's, with --each-line), 1 any other result, a\n"
    "            refused body, or the input cannot be read, 2 usage error\n";

int PostEachLine(const std::string& topic, FILE* in, const char* source,
                 bool check);  // post_lines.cpp

// Posts `bytes` to `topic` and prints the result; the exit code follows the result. Shared
// with the commands that build what they post.
int PostBytes(const char* command, const std::string& topic, const std::string& bytes,
              bool check) {
  std::string reason;
  if (check && !CheckBeforePost(topic, bytes, reason)) {
    std::fprintf(stderr, "nuvctl %s: not posted: %s\n", command, reason.c_str());
    return kExitFailure;
  }
  if (nuv_comm_init() != 0) {
    std::fprintf(stderr, "nuvctl %s: cannot join the message bus\n", command);
    return kExitFailure;
  }
  int result = NUV_COMM_E_SYSTEM;
  comm_data* data = nuv_comm_new_data(bytes.data(), static_cast<unsigned int>(bytes.size()));
  if (data != nullptr) {
    result = nuv_comm_post(topic.c_str(), data);
    nuv_comm_delete_data(data);
  }
  nuv_comm_uninit();
  std::printf("%s\n", nuvtools::DescribeResult(static_cast<uint32_t>(result)).c_str());
  if (nuvtools::BusResultMeaning(static_cast<uint32_t>(result)) != nullptr) {
    std::fprintf(stderr, "nuvctl %s: %s: bus directory %s\n", command, topic.c_str(),
                 nuvtools::DescribeBusDir(nuvtools::FindBusDir()).c_str());
  } else if (result != 0) {
    std::fprintf(stderr, "nuvctl %s: the daemon's log names the reason\n", command);
  }
  return result == 0 ? kExitOk : kExitFailure;
}

namespace {

// The whole of `path`, or of standard input when it is null.
bool ReadAll(const char* path, std::string& out) {
  FILE* file = path == nullptr ? stdin : std::fopen(path, "rb");
  if (file == nullptr) return false;
  char buffer[65536];
  size_t n = 0;
  while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) out.append(buffer, n);
  const bool ok = std::ferror(file) == 0;
  if (file != stdin) std::fclose(file);
  return ok;
}

}  // namespace

int PostMain(int argc, char** argv) {
  std::map<std::string, std::string> values;
  std::vector<std::string> operands;
  const int parsed = ParseCommandLine("post", kPostUsage, argc, argv,
                                      {{"no-check", 0, false}, {"each-line", 0, false}}, values,
                                      operands);
  if (parsed != -1) return parsed;
  if (operands.empty()) return UsageError("post", "a TOPIC is needed");
  if (operands.size() > 2) return UsageError("post", "unexpected argument '" + operands[2] + "'");
  const bool fromStdin = operands.size() == 1 || operands[1] == "-";
  const char* source = fromStdin ? "standard input" : operands[1].c_str();
  const bool check = values.count("--no-check") == 0;
  if (values.count("--each-line") != 0) {
    FILE* in = fromStdin ? stdin : std::fopen(source, "rb");
    if (in == nullptr) {
      std::fprintf(stderr, "nuvctl post: cannot read %s\n", source);
      return kExitFailure;
    }
    const int code = PostEachLine(operands[0], in, source, check);
    if (in != stdin) std::fclose(in);
    return code;
  }
  std::string bytes;
  if (!ReadAll(fromStdin ? nullptr : operands[1].c_str(), bytes)) {
    std::fprintf(stderr, "nuvctl post: cannot read %s\n", source);
    return kExitFailure;
  }
  return PostBytes("post", operands[0], bytes, check);
}

}  // namespace nuvctl
