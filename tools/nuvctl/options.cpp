#include <getopt.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "command.h"

namespace nuvctl {

int UsageError(const char* command, const std::string& message) {
  std::fprintf(stderr, "nuvctl %s: %s\nrun 'nuvctl %s --help' for usage\n", command,
               message.c_str(), command);
  return kExitUsage;
}

int ParseCommandLine(const char* command, const char* usage, int argc, char** argv,
                     const std::vector<OptionSpec>& specs,
                     std::map<std::string, std::string>& values,
                     std::vector<std::string>& operands) {
  std::vector<option> longOptions;
  std::string shortOptions = ":h";  // ':' first: a missing value is told apart from an unknown
  for (size_t i = 0; i < specs.size(); ++i) {
    longOptions.push_back({specs[i].name, specs[i].hasValue ? required_argument : no_argument,
                           nullptr, static_cast<int>(256 + i)});
    if (specs[i].shortName != 0) {
      shortOptions += specs[i].shortName;
      if (specs[i].hasValue) shortOptions += ':';
    }
  }
  longOptions.push_back({"help", no_argument, nullptr, 'h'});
  longOptions.push_back({nullptr, 0, nullptr, 0});
  opterr = 0;
  optind = 0;  // a fresh scan: glibc re-initialises on 0
  for (;;) {
    const int c = getopt_long(argc, argv, shortOptions.c_str(), longOptions.data(), nullptr);
    if (c == -1) break;
    if (c == 'h') {
      std::fputs(usage, stdout);
      return kExitOk;
    }
    // getopt moves operands behind the options: the word just read is the one before optind.
    const std::string given = optind >= 1 && optind - 1 < argc ? argv[optind - 1] : "";
    if (c == '?') {
      const std::string name = optopt != 0 ? std::string("-") + static_cast<char>(optopt)
                                           : given.substr(0, given.find('='));
      return UsageError(command, "unknown option '" + name + "'");
    }
    if (c == ':') {
      const std::string name = optopt != 0 && optopt < 256
                                   ? std::string("-") + static_cast<char>(optopt)
                                   : given.substr(0, given.find('='));
      return UsageError(command, "option " + name + " needs a value");
    }
    const OptionSpec* option = nullptr;
    if (c >= 256) {
      option = &specs[static_cast<size_t>(c - 256)];
    } else {
      for (const OptionSpec& s : specs) {
        if (s.shortName == c) option = &s;
      }
    }
    if (option == nullptr) return UsageError(command, "unknown option '" + given + "'");
    values[std::string("--") + option->name] = option->hasValue ? optarg : "";
  }
  for (int i = optind; i < argc; ++i) operands.push_back(argv[i]);
  return -1;
}

int ParseOptions(const char* command, const char* usage, int argc, char** argv,
                 std::map<std::string, std::string>& values, std::map<std::string, bool>& given,
                 std::map<std::string, bool>& flags) {
  std::vector<OptionSpec> specs;
  for (const auto& value : values) specs.push_back({value.first.c_str() + 2, 0, true});
  for (const auto& flag : flags) specs.push_back({flag.first.c_str() + 2, 0, false});
  std::map<std::string, std::string> parsed;
  std::vector<std::string> operands;
  const int rc = ParseCommandLine(command, usage, argc, argv, specs, parsed, operands);
  if (rc != -1) return rc;
  if (!operands.empty()) return UsageError(command, "unexpected argument '" + operands[0] + "'");
  for (const auto& option : parsed) {
    if (flags.count(option.first) != 0) {
      flags[option.first] = true;
      continue;
    }
    values[option.first] = option.second;
    given[option.first] = true;
  }
  return -1;
}

}  // namespace nuvctl
