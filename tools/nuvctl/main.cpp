// nuvctl: the operator's command line. Each subcommand lives in its own file; adding one is
// that file plus its row (and declaration) below.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "command.h"
#include "nuv_log.h"
#include "paths.h"
#include "result_word.h"

namespace nuvctl {

int StoreMain(int argc, char** argv);  // store_cmd.cpp
int PostMain(int argc, char** argv);   // post_cmd.cpp
int ExportMain(int argc, char** argv);  // export_cmd.cpp
int BpMain(int argc, char** argv);     // bp_cmd.cpp
int TopMain(int argc, char** argv);    // top_cmd.cpp
int RegisterMain(int argc, char** argv);    // register_cmd.cpp
int UnRegisterMain(int argc, char** argv);  // register_cmd.cpp
int StatusMain(int argc, char** argv);      // status_cmd.cpp
int MonitorsMain(int argc, char** argv);    // status_cmd.cpp

namespace {

const Command kCommands[] = {
    {"status", "is the daemon up: pid, bus directory, topics, store, open streams", StatusMain},
    {"monitors", "registered monitors, their targets, when they last fired and why", MonitorsMain},
    {"store", "list, read, check and clean the on-disk store", StoreMain},
    {"post", "post a file's bytes to a bus topic and show the result word", PostMain},
    {"bp", "build a valid burying point and post it to the daemon", BpMain},
    {"top", "one sample of the system and the busiest processes, as monitors see it", TopMain},
    {"register", "build a monitor definition and register it with the daemon", RegisterMain},
    {"unregister", "unregister a monitor from the daemon by its id", UnRegisterMain},
    {"export", "how far nuv_exportd has shipped the store", ExportMain},
};

void PrintUsage(FILE* out) {
  std::fputs(
      "usage: nuvctl COMMAND [ARGS...]\n"
      "       nuvctl help COMMAND | COMMAND --help\n"
      "\n"
      "commands:\n",
      out);
  for (const Command& command : kCommands) {
    std::fprintf(out, "  %-10s %s\n", command.name, command.summary);
  }
  std::fputs(
      "\n"
      "The library's own log lines go to stderr (errors and warnings unless NUV_LOG_LEVEL\n"
      "says otherwise; NUV_LOG_FILE sends them to a file).\n"
      "exit codes: 0 success, 1 failure or problems found, 2 usage error\n",
      out);
}

const Command* Find(const char* name) {
  for (const Command& command : kCommands) {
    if (std::strcmp(command.name, name) == 0) return &command;
  }
  return nullptr;
}

int UnknownCommand(const char* name) {
  std::fprintf(stderr, "nuvctl: unknown command '%s'\n\n", name);
  PrintUsage(stderr);
  return kExitUsage;
}

}  // namespace

std::string ExePath() { return nuvtools::ExePath("nuvctl"); }

std::string DefaultConfigPath() { return nuvtools::ConfigPathFor(ExePath()); }

}  // namespace nuvctl

int main(int argc, char** argv) {
  using namespace nuvctl;
  // A command line tool speaks through its own output; the library's INFO chatter stays out
  // unless the operator asks for it.
  if (std::getenv("NUV_LOG_LEVEL") == nullptr) {
    nuv_log_set_level(NUV_LOG_WARN);
  }
  if (argc < 2) {
    PrintUsage(stderr);
    return kExitUsage;
  }
  const std::string first = argv[1];
  if (first == "--help" || first == "-h") {
    PrintUsage(stdout);
    return kExitOk;
  }
  if (first == "--version") {
    std::printf("nuvctl %s\n", NUV_VERSION);
    return kExitOk;
  }
  if (first == "help") {
    if (argc < 3) {
      PrintUsage(stdout);
      return kExitOk;
    }
    const Command* command = Find(argv[2]);
    if (command == nullptr) return UnknownCommand(argv[2]);
    char help[] = "--help";
    char* helpArgv[] = {argv[2], help, nullptr};
    return command->run(2, helpArgv);
  }
  const Command* command = Find(argv[1]);
  if (command == nullptr) return UnknownCommand(argv[1]);
  return command->run(argc - 1, argv + 1);
}
