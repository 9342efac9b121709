// nuvctl post: sends any bytes to a bus topic and shows the result word the handler answered,
// so an operator can try a record against the running daemon exactly as a component would.
#include <cstdint>
#include <cstdio>
#include <string>

#include "command.h"
#include "nuv_comm.h"
#include "result_word.h"

namespace nuvctl {

const char kPostUsage[] =
    "usage: nuvctl post TOPIC [FILE|-]\n"
    "\n"
    "Posts the bytes of FILE, or of standard input when FILE is '-' or missing, to TOPIC on\n"
    "the message bus and prints the handler's result word and its meaning, e.g.\n"
    "  0x84CE0004 (burying point invalid)\n"
    "Burying points go to the topic maintenance:POST; the daemon's log says why one was\n"
    "refused. The bus's socket directory is taken from NUV_COMM_DIR as by the daemon.\n"
    "\n"
    "options:\n"
    "  --help  print this help\n"
    "\n"
    "exit codes: 0 the result was 0, 1 any other result or the input cannot be read,\n"
    "            2 usage error\n";

// Posts `bytes` to `topic` and prints the result; the exit code follows the result. Shared
// with the commands that build what they post.
int PostBytes(const char* command, const std::string& topic, const std::string& bytes) {
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
  if (static_cast<uint32_t>(result) == 0x84CE0004u) {
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
  std::string operands[2];
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::fputs(kPostUsage, stdout);
      return kExitOk;
    }
    if (arg.size() > 1 && arg[0] == '-') {
      std::fprintf(stderr, "nuvctl post: unknown option '%s'\n%s", arg.c_str(), kPostUsage);
      return kExitUsage;
    }
    if (count == 2) {
      std::fprintf(stderr, "nuvctl post: unexpected argument '%s'\n%s", arg.c_str(), kPostUsage);
      return kExitUsage;
    }
    operands[count++] = arg;
  }
  if (count == 0) {
    std::fprintf(stderr, "nuvctl post: a TOPIC is needed\n%s", kPostUsage);
    return kExitUsage;
  }
  const bool fromStdin = count == 1 || operands[1] == "-";
  const char* source = fromStdin ? "standard input" : operands[1].c_str();
  std::string bytes;
  if (!ReadAll(fromStdin ? nullptr : operands[1].c_str(), bytes)) {
    std::fprintf(stderr, "nuvctl post: cannot read %s\n", source);
    return kExitFailure;
  }
  return PostBytes("post", operands[0], bytes);
}

}  // namespace nuvctl
