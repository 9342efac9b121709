// nuv_maintd: the host daemon. Starts the maintenance library, waits for SIGINT or SIGTERM,
// stops it.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#if NUV_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

#include "config/config_check.h"
#include "nuv_log.h"
#include "nuv_maintenance.h"
#include "paths.h"
#include "result_word.h"

namespace {

const char kUsage[] =
    "usage: nuv_maintd [--log-level N] [--log-file PATH]\n"
    "       nuv_maintd --check-config [FILE]\n"
    "\n"
    "Runs the maintenance library until SIGINT (Ctrl-C) or SIGTERM; SIGHUP reopens the\n"
    "log file (after logrotate moved it) and the daemon goes on.\n"
    "The configuration is read from <dir of nuv_maintd>/../config/maintenance.json and checked\n"
    "before the library starts: a value the library cannot run with stops the daemon (exit 1).\n"
    "\n"
    "options:\n"
    "  --check-config [FILE]  check FILE (default: the configuration above) the way start reads\n"
    "                   it, print each problem with its key path, exit 0 when it is usable, 1\n"
    "                   when not\n"
    "  --log-level N    0 error, 1 warn, 2 info (default), 3 debug; also NUV_LOG_LEVEL\n"
    "  --log-file PATH  append the log to PATH instead of stderr; also NUV_LOG_FILE\n"
    "  --version        print the version and exit\n"
    "  --help           print this help and exit\n";

int Usage(const char* error) {
  std::fprintf(stderr, "nuv_maintd: %s\n%s", error, kUsage);
  return 2;
}

// Each open stream of the store holds descriptors until its day is packed; a host's default
// soft limit would refuse new streams long before the hard limit is reached.
void RaiseDescriptorLimit() {
  struct rlimit limit {};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
      std::fprintf(stderr, "nuv_maintd: cannot raise the descriptor limit: %s\n",
                   std::strerror(errno));
    }
  }
}

// Readiness and stopping for a Type=notify unit; nothing when not run by one.
void Notify(const char* state) {
#if NUV_HAVE_SYSTEMD
  sd_notify(0, state);
#else
  (void)state;
#endif
}

std::string ExePath() { return nuvtools::ExePath("nuv_maintd"); }

// Prints the problems of `path` to `out`, each line prefixed with `prefix`.
void PrintProblems(FILE* out, const std::string& prefix, const std::vector<ConfigProblem>& problems) {
  for (const ConfigProblem& p : problems) std::fprintf(out, "%s%s\n", prefix.c_str(), p.ToString().c_str());
}

int CheckConfigCommand(const std::string& path) {
  const std::vector<ConfigProblem> problems = CheckConfigFile(path);
  PrintProblems(stdout, path + ": ", problems);
  if (HasConfigErrors(problems)) {
    std::printf("%s: not usable\n", path.c_str());
    return 1;
  }
  std::printf("%s: ok\n", path.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const char* env_log = std::getenv("NUV_LOG_FILE");
  std::string log_file = env_log ? env_log : "";
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (arg == "--version") {
      std::printf("nuv_maintd %s\n", NUV_VERSION);
      return 0;
    }
    if (arg == "--check-config") {
      if (i + 2 < argc) return Usage("--check-config takes at most one FILE");
      return CheckConfigCommand(i + 1 < argc ? argv[i + 1] : nuvtools::ConfigPathFor(ExePath()));
    }
    if (arg == "--log-level" || arg == "--log-file") {
      if (i + 1 >= argc) return Usage((arg + " needs a value").c_str());
      std::string value = argv[++i];
      if (arg == "--log-file") {
        nuv_log_set_file(value.c_str());
        log_file = value;
        continue;
      }
      char* end = nullptr;
      long level = std::strtol(value.c_str(), &end, 10);
      if (value.empty() || *end != '\0' || level < 0 || level > 3)
        return Usage(("--log-level takes 0, 1, 2 or 3, not '" + value + "'").c_str());
      nuv_log_set_level(static_cast<int>(level));
      continue;
    }
    return Usage(("unknown argument '" + arg + "'").c_str());
  }

  // Blocked before start so that every thread the library starts inherits the mask and the
  // signals reach sigwait below.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  RaiseDescriptorLimit();
  std::string config = nuvtools::ConfigPathFor(ExePath());
  // The library aborts on some values it loads (sizes and ages whose conversion overflows):
  // those stop the daemon here, with their key. A file that the library refuses by itself
  // (missing, not JSON, a key missing) is left to it, so its own result and log lines stay.
  const std::vector<ConfigProblem> problems = CheckConfigFile(config);
  PrintProblems(stderr, "nuv_maintd: " + config + ": ", problems);
  if (HasConfigRangeErrors(problems)) {
    std::fprintf(stderr,
                 "nuv_maintd: the configuration %s has values the library cannot run with; "
                 "not starting (check it with nuv_maintd --check-config)\n",
                 config.c_str());
    return 1;
  }
  uint32_t rc = nuv_start_perf_manager();
  if (rc != NUV_MAINT_OK) {
    std::fprintf(stderr, "nuv_maintd: start failed: %s\n", nuvtools::DescribeResult(rc).c_str());
    if (rc == NUV_MAINT_START_FAILED)
      std::fprintf(stderr,
                   "nuv_maintd: the configuration %s could not be loaded or the library could "
                   "not start; the reason is in %s.\n",
                   config.c_str(),
                   log_file.empty() ? "the log lines above" : ("the log " + log_file).c_str());
    return 1;
  }
  std::fprintf(stderr, "nuv_maintd: started (pid %ld) with %s; stop with Ctrl-C or SIGTERM\n",
               static_cast<long>(getpid()), config.c_str());

  Notify("READY=1");

  int sig = 0;
  for (;;) {
    if (sigwait(&stop_signals, &sig) != 0) continue;
    if (sig != SIGHUP) break;
    if (nuv_log_start(0) == 0)
      nuv_log_output(NUV_LOG_INFO, "nuv_maintd: SIGHUP received, log reopened");
  }
  Notify("STOPPING=1");
  std::fprintf(stderr, "nuv_maintd: %s received, stopping\n", strsignal(sig));
  nuv_stop_perf_manager();
  return 0;
}
