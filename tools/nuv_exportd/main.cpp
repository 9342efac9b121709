// nuv_exportd: ships the store's records, at least once and in order per stream, to Kafka or
// as NDJSON, with a durable cursor. Runs beside nuv_maintd and only reads the store.
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "common/log.h"
#include "export_config.h"
#include "nuv_log.h"
#include "paths.h"
#include "shipper.h"
#include "store_view.h"

namespace {

const char kUsage[] =
    "usage: nuv_exportd [--config PATH] [--once] [--log-level N] [--log-file PATH]\n"
    "\n"
    "Follows the store that nuv_maintd writes and ships every record, exactly as stored, to\n"
    "Kafka (one Kafka record per stored record, keyed name:pid:type, with headers day, name,\n"
    "pid and type) or as NDJSON lines. A stream's cursor moves only over records the broker\n"
    "confirmed, so a restart resumes without loss; at most the unconfirmed window is sent\n"
    "twice. Days packed before they were shipped are shipped from their archives.\n"
    "Runs until SIGINT or SIGTERM; SIGHUP reopens the log file.\n"
    "\n"
    "options:\n"
    "  --config PATH    configuration; default <dir of nuv_exportd>/../config/exportd.json\n"
    "  --once           ship what is stored now, wait for its confirmation, then exit\n"
    "  --log-level N    0 error, 1 warn, 2 info (default), 3 debug; also NUV_LOG_LEVEL\n"
    "  --log-file PATH  append the log to PATH instead of stderr; also NUV_LOG_FILE\n"
    "  --version        print the version and exit\n"
    "  --help           print this help and exit\n"
    "\n"
    "exit codes: 0 stopped cleanly, 1 failure, 2 usage error\n";

volatile std::sig_atomic_t g_stop = 0;

void OnSignal(int) { g_stop = 1; }

// The log, open for the life of main and reopened on each SIGHUP (logrotate moved the file
// away) by a thread of its own, as the reopen may not run in a signal handler. SIGHUP must be
// blocked in every thread before any other starts, so that only this one takes it.
class LogSession {
 public:
  explicit LogSession(const sigset_t& hangup)
      : hangup_(hangup), thread_([this] {
          int sig = 0;
          while (sigwait(&hangup_, &sig) == 0 && !stopping_.load()) {
            if (nuv_log_start(0) == 0) ZLOG_INFO("[exportd] SIGHUP received, log reopened");
          }
        }) {
    nuv_log_start(0);
  }
  ~LogSession() {
    stopping_.store(true);
    pthread_kill(thread_.native_handle(), SIGHUP);
    thread_.join();
    nuv_log_stop();
  }
  LogSession(const LogSession&) = delete;
  LogSession& operator=(const LogSession&) = delete;

 private:
  const sigset_t hangup_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

int Usage(const std::string& error) {
  std::fprintf(stderr, "nuv_exportd: %s\nrun 'nuv_exportd --help' for usage\n", error.c_str());
  return 2;
}

std::string ExePath() { return nuvtools::ExePath("nuv_exportd"); }

}  // namespace

int main(int argc, char** argv) {
  std::string configPath;
  bool once = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (arg == "--version") {
      std::printf("nuv_exportd %s\n", NUV_VERSION);
      return 0;
    }
    if (arg == "--once") {
      once = true;
      continue;
    }
    if (arg != "--config" && arg != "--log-level" && arg != "--log-file") {
      return Usage("unknown argument '" + arg + "'");
    }
    if (i + 1 >= argc) return Usage(arg + " needs a value");
    const std::string value = argv[++i];
    if (arg == "--config") {
      configPath = value;
    } else if (arg == "--log-file") {
      nuv_log_set_file(value.c_str());
    } else {
      char* end = nullptr;
      const long level = std::strtol(value.c_str(), &end, 10);
      if (value.empty() || *end != '\0' || level < 0 || level > 3) {
        return Usage("--log-level takes 0, 1, 2 or 3, not '" + value + "'");
      }
      nuv_log_set_level(static_cast<int>(level));
    }
  }
  if (configPath.empty()) configPath = nuvexport::ExportConfigPathFor(ExePath());

  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  // A closed NDJSON reader is a write error to report, not a reason to die.
  signal(SIGPIPE, SIG_IGN);
  sigset_t hangup;
  sigemptyset(&hangup);
  sigaddset(&hangup, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &hangup, nullptr);
  const LogSession log(hangup);

  nuvexport::ExportConfig config;
  nuvexport::StoreLayout layout;
  std::string error;
  if (!nuvexport::LoadExportConfig(configPath, config, error)) {
    ZLOG_ERROR("[exportd] cannot load %s: %s", configPath.c_str(), error.c_str());
    return 1;
  }
  if (!nuvexport::LoadStoreLayout(config.storeConfig, layout, error)) {
    ZLOG_ERROR("[exportd] %s", error.c_str());
    return 1;
  }
  if (!nuvexport::OutsideStore(config.stateDir, layout, error)) {
    ZLOG_ERROR("[exportd] %s", error.c_str());
    return 1;
  }
  int code = 1;
  {
    nuvexport::Shipper shipper(config, layout);
    if (!shipper.Start(error)) {
      ZLOG_ERROR("[exportd] cannot start: %s", error.c_str());
    } else {
      ZLOG_INFO("[exportd] started: shipping the store of %s as %s, cursor in %s",
                config.storeConfig.c_str(), config.output.c_str(),
                nuvexport::StatePath(config).c_str());
      code = shipper.Run(&g_stop, once);
      ZLOG_INFO("[exportd] stopped");
    }
  }
  return code;
}
