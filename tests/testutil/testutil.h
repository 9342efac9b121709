// Helpers for tests: per-test temporary directories and small file utilities.
#ifndef NUV_TESTS_TESTUTIL_H
#define NUV_TESTS_TESTUTIL_H

#include <unistd.h>

#include <string>
#include <vector>

#include "nuv_log.h"

namespace nuvtest {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + rel
  std::string Sub(const std::string& rel) const;

 private:
  std::string path_;
};

// Writes `data` to `path` (creating or truncating it); false on failure.
bool WriteFile(const std::string& path, const std::string& data);
// The whole file, or "" when it cannot be read.
std::string ReadFile(const std::string& path);
// The lines of a file, without their line feeds.
std::vector<std::string> ReadLines(const std::string& path);
// True when /proc/<pid> exists (the process or zombie is still there).
bool ProcessExists(int pid);
// Pids of the children of `ppid`, read from /proc/*/stat.
std::vector<int> ChildPids(int ppid);

// The build directory of a test that runs from <build>/tests.
std::string BuildDir();

// Lays `root` out as an installation made from the build tree: bin/ with a copy of each of
// `tools` (a copy, so that each finds bin/../config and bin/../lib of `root`), lib/ linking
// every shared library of the build, and an empty config/. False when something is missing.
bool MakeInstallTree(const TempDir& root, const std::vector<std::string>& tools);

// Starts `argv` with exactly the environment `env` ("NAME=value"), standard input from
// `in` ("" for /dev/null) and standard output and error to the files `out` and `err`.
// The pid, or -1.
int Spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env,
          const std::string& in, const std::string& out, const std::string& err);
// Waits for `pid`: its exit status, or 128 + the signal that ended it; -1 when it cannot wait.
int WaitExit(int pid);

// What a finished process left: its exit status (as WaitExit) and standard output and error.
struct RunResult {
  int code = -1;
  std::string out;
  std::string err;
};
// Runs `argv` to its end with exactly the environment `env`, `input` on its standard input and
// its output and error collected through files in `dir`.
RunResult Run(const std::vector<std::string>& argv, const std::vector<std::string>& env,
              const TempDir& dir, const std::string& input = "");

// An installation tree (see MakeInstallTree) holding `tools` and the shipped configuration, in
// which nuv_maintd runs with a private bus (NUV_COMM_DIR=<tree>/comm) and log (<tree>/maint.log),
// and nuvctl runs with that same environment. A daemon still running is stopped on destruction.
class DaemonTree {
 public:
  explicit DaemonTree(const std::vector<std::string>& tools = {"nuv_maintd", "nuvctl"});
  ~DaemonTree();
  DaemonTree(const DaemonTree&) = delete;
  DaemonTree& operator=(const DaemonTree&) = delete;

  bool ok() const { return ok_; }  // laid out and configured
  std::string Sub(const std::string& rel) const { return dir_.Sub(rel); }
  std::string ConfigPath() const { return dir_.Sub("config/maintenance.json"); }
  // Starts nuv_maintd with `args`, standard output and error to <tree>/daemon.{out,err}; its pid.
  int Start(const std::vector<std::string>& args);
  // Starts it at log level 3 and waits up to 5 s until it reports that it serves.
  bool StartServing();
  int Wait();  // the started daemon's exit status; -1 when none was started
  int Stop();  // SIGTERM, then Wait()
  int pid() const { return pid_; }
  // Sets "NAME=value" in the environment of later starts; "NAME" alone removes NAME.
  void SetEnv(const std::string& entry);
  // SIGTERM, then its exit status if it ends within `ms`; else SIGKILL and -2.
  int StopWithin(int ms);
  // The started daemon still runs (neither exited nor killed).
  bool Alive() const;
  // Waits up to `ms` until at least `count` lines of Messages() start with `prefix`.
  bool WaitForMessage(const std::string& prefix, int ms, int count = 1) const;
  std::string DaemonOut() const { return ReadFile(dir_.Sub("daemon.out")); }
  std::string DaemonErr() const { return ReadFile(dir_.Sub("daemon.err")); }
  RunResult Nuvctl(std::vector<std::string> args, const std::string& input = "") const;
  // The daemon log's lines, each from after its "[file(line)] " source.
  std::vector<std::string> Messages() const;
  int Count(const std::string& message) const;  // lines of Messages() equal to `message`

 private:
  TempDir dir_;
  std::vector<std::string> env_;
  int pid_ = -1;
  bool ok_ = false;
};

// A platform log line reduced to "[LEVEL] message": the "[PID:...]\t", the "\t[ZOR]" tag and
// the "[file(line)] " source are dropped. A line without that shape is returned whole.
std::string Message(const std::string& line);


// The lines the platform log writes to a fresh file at threshold `level` while `emit` runs.
template <typename Fn>
std::vector<std::string> CaptureLog(Fn emit, int level = NUV_LOG_DEBUG) {
  TempDir dir;
  const std::string path = dir.Sub("zor.log");
  nuv_log_set_file(path.c_str());
  const int oldLevel = nuv_log_get_level();
  nuv_log_set_level(level);
  const int started = nuv_log_start(0);
  emit();
  nuv_log_stop();
  nuv_log_set_level(oldLevel);
  nuv_log_set_file(nullptr);
  std::vector<std::string> lines = ReadLines(path);
  if (started != 0) lines.insert(lines.begin(), "nuv_log_start failed");
  return lines;
}

// Polls `done` until it holds (true) or 20 seconds have passed (false).
template <typename Fn>
bool Eventually(Fn done) {
  for (int i = 0; i < 4000 && !done(); ++i) usleep(5000);
  return done();
}

// CaptureLog's lines, each reduced by Message.
template <typename Fn>
std::vector<std::string> CaptureMessages(Fn emit) {
  std::vector<std::string> out;
  for (const std::string& line : CaptureLog(emit)) out.push_back(Message(line));
  return out;
}

}  // namespace nuvtest

#endif
