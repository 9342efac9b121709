// What every nuvctl subcommand shares: its entry point's shape, the exit codes, and where the
// running nuvctl and its default configuration are.
#ifndef NUV_TOOLS_NUVCTL_COMMAND_H
#define NUV_TOOLS_NUVCTL_COMMAND_H

#include <string>

namespace nuvctl {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  // the operation failed, or it found problems
constexpr int kExitUsage = 2;

// A subcommand's entry point. argv[0] is the subcommand's own name and argv[argc] is null.
// It handles its own "--help", prints results on stdout and errors on stderr, and returns an
// exit code above.
using CommandMain = int (*)(int argc, char** argv);

struct Command {
  const char* name;
  const char* summary;  // one line for "nuvctl --help"
  CommandMain run;
};

// The full path of the running nuvctl, or "nuvctl" when it cannot be had.
std::string ExePath();
// <dir of nuvctl>/../config/maintenance.json: the file the daemon beside it reads.
std::string DefaultConfigPath();

}  // namespace nuvctl

#endif
