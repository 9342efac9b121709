// What every nuvctl subcommand shares: its entry point's shape, the exit codes, and where the
// running nuvctl and its default configuration are.
#ifndef NUV_TOOLS_NUVCTL_COMMAND_H
#define NUV_TOOLS_NUVCTL_COMMAND_H

#include <map>
#include <string>
#include <vector>

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

// Prints "nuvctl COMMAND: MESSAGE" and a pointer to its --help on stderr; returns kExitUsage.
int UsageError(const char* command, const std::string& message);

// One option of a command: "--name" and, when shortName is not 0, "-c".
struct OptionSpec {
  const char* name;
  char shortName;
  bool hasValue;
};

// The one parser of every command (getopt_long): options anywhere among the operands, "--name
// value", "--name=value", "-c value", "-cVALUE", bundled flags ("-fn5"), "--" ends the options,
// "-h"/"--help" prints `usage`. Each option given lands in `values` under "--name" (flags with
// ""; a repeated option keeps the last value); operands in order. Returns -1 when the command
// should go on, else the exit code to return (0 after --help, kExitUsage after an error it
// printed in the one style of UsageError).
int ParseCommandLine(const char* command, const char* usage, int argc, char** argv,
                     const std::vector<OptionSpec>& specs,
                     std::map<std::string, std::string>& values,
                     std::vector<std::string>& operands);

// ParseCommandLine for commands of valued options and flags and no operands: `values` holds
// the valued options known (as "--name", their values the defaults) and gets the values given,
// marked in `given`; `flags` holds the flags known, each set true when given.
int ParseOptions(const char* command, const char* usage, int argc, char** argv,
                 std::map<std::string, std::string>& values, std::map<std::string, bool>& given,
                 std::map<std::string, bool>& flags);

}  // namespace nuvctl

#endif
