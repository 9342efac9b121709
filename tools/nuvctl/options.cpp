#include <cstdio>

#include "command.h"

namespace nuvctl {

int UsageError(const char* command, const std::string& message) {
  std::fprintf(stderr, "nuvctl %s: %s\nrun 'nuvctl %s --help' for usage\n", command,
               message.c_str(), command);
  return kExitUsage;
}

int ParseOptions(const char* command, const char* usage, int argc, char** argv,
                 std::map<std::string, std::string>& values, std::map<std::string, bool>& given,
                 bool* echo) {
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::fputs(usage, stdout);
      return kExitOk;
    }
    if (arg == "--echo") {
      *echo = true;
      continue;
    }
    std::string value;
    const std::string::size_type equals = arg.find('=');
    const bool inlineValue = arg.compare(0, 2, "--") == 0 && equals != std::string::npos;
    if (inlineValue) {
      value = arg.substr(equals + 1);
      arg.erase(equals);
    }
    if (values.count(arg) == 0) {
      return UsageError(command, arg.compare(0, 1, "-") == 0 ? "unknown option '" + arg + "'"
                                                             : "unexpected argument '" + arg + "'");
    }
    if (!inlineValue) {
      if (i + 1 >= argc) return UsageError(command, arg + " needs a value");
      value = argv[++i];
    }
    values[arg] = value;
    given[arg] = true;
  }
  return -1;
}

}  // namespace nuvctl
