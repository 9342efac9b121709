// The provider against real processes: children with known images, threads, descriptors and
// load, and the system's own /proc to compare with.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "nuv_perfprov.h"
#include "testutil/testutil.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;

std::string RealPath(const std::string& p) {
  char buf[PATH_MAX];
  return realpath(p.c_str(), buf) ? std::string(buf) : p;
}

// A child process with a pipe on its standard input (closing it ends a perf_child) and one on
// its standard output (where a perf_child says "ready"). Killed and reaped on destruction.
class Child {
 public:
  Child(const std::vector<std::string>& args, bool wait_ready) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0) return;
    if (pipe2(out, O_CLOEXEC) != 0) {
      close(in[0]);
      close(in[1]);
      return;
    }
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, in[0], 0);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    spawned_wall_ = time(nullptr);
    if (posix_spawn(&pid_, argv[0], &fa, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&fa);
    close(in[0]);
    close(out[1]);
    in_ = in[1];
    out_ = out[0];
    if (pid_ > 0 && wait_ready) ready_ = ReadReady();
  }
  ~Child() { Kill(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  bool ready() const { return ready_; }
  time_t spawned_wall() const { return spawned_wall_; }

  // Ends a perf_child the polite way and reaps it.
  void Finish() {
    if (in_ >= 0) close(in_);
    in_ = -1;
    Reap();
  }
  void Kill() {
    if (pid_ > 0) kill(pid_, SIGKILL);
    Finish();
    if (out_ >= 0) close(out_);
    out_ = -1;
  }

 private:
  bool ReadReady() {
    std::string got;
    while (got.find('\n') == std::string::npos) {
      struct pollfd p = {out_, POLLIN, 0};
      if (poll(&p, 1, 10000) <= 0) return false;
      char buf[64];
      ssize_t n = read(out_, buf, sizeof buf);
      if (n <= 0) return false;
      got.append(buf, static_cast<size_t>(n));
    }
    return got == "ready\n";
  }
  void Reap() {
    if (pid_ <= 0) return;
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
  }

  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  bool ready_ = false;
  time_t spawned_wall_ = 0;
};

// A copy of /bin/sleep under a name no other process has.
std::string CopySleep(const nuvtest::TempDir& dir, const std::string& tag) {
  std::string path = RealPath(dir.path()) + "/nuvpp_" + std::to_string(getpid()) + "_" + tag;
  std::string data = nuvtest::ReadFile("/bin/sleep");
  EXPECT_FALSE(data.empty());
  EXPECT_TRUE(nuvtest::WriteFile(path, data));
  chmod(path.c_str(), 0755);
  return path;
}

std::string Basename(const std::string& p) { return p.substr(p.rfind('/') + 1); }

// Unsubscribes when a test's locals go, before the recorders the callbacks write to.
struct ProcUnsubscriber {
  ~ProcUnsubscriber() { nuv_proc_unregsiter_notifier(); }
};
struct PerfUnsubscriber {
  ~PerfUnsubscriber() { nuv_perf_unregsiter_notifier(NUV_PERF_MONITOR_ALL); }
};

// ---- Process events.

struct Event {
  int event;
  uint32_t pid;
  std::string name, path;
};

class EventRecorder {
 public:
  static int Callback(int event, void* info, void* context) {
    auto* self = static_cast<EventRecorder*>(context);
    auto* mon = static_cast<_process_mon_info*>(info);
    Event e{event, mon->pid, mon->name ? mon->name : "", mon->path ? mon->path : ""};
    if (self->hook) self->hook(e);
    std::lock_guard<std::mutex> lock(self->mu_);
    self->events_.push_back(e);
    self->cv_.notify_all();
    return 0;
  }
  // Waits until pred holds for the events so far; false after `limit`.
  bool WaitFor(const std::function<bool(const std::vector<Event>&)>& pred,
               std::chrono::milliseconds limit = 10s) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, limit, [&] { return pred(events_); });
  }
  std::vector<Event> Events() {
    std::lock_guard<std::mutex> lock(mu_);
    return events_;
  }
  std::function<void(const Event&)> hook;

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<Event> events_;
};

const Event* Find(const std::vector<Event>& v, int event, uint32_t pid,
                  const std::string& path = "") {
  for (const auto& e : v) {
    if (e.event == event && e.pid == pid && (path.empty() || e.path == path)) return &e;
  }
  return nullptr;
}

class ProcEvents : public ::testing::TestWithParam<int> {
 protected:
  // Subscribes with the source under test; false (test skipped) when it cannot be used.
  bool Subscribe(EventRecorder* rec) {
    EXPECT_EQ(nuv_proc_set_event_source(GetParam()), 0);
    int rc = nuv_proc_regsiter_notifier(EventRecorder::Callback, rec);
    if (GetParam() == NUV_PROC_EVENTS_NETLINK && rc != 0) return false;
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(nuv_proc_event_source(), GetParam());
    return rc == 0;
  }
  void TearDown() override { nuv_proc_set_event_source(NUV_PROC_EVENTS_AUTO); }
};

TEST_P(ProcEvents, StartAndExitCarryImageAndRememberedPath) {
  nuvtest::TempDir dir;
  std::string exe = CopySleep(dir, "ev" + std::to_string(GetParam()));
  EventRecorder rec;
  ProcUnsubscriber unsubscribe;  // before what the callbacks use goes
  if (!Subscribe(&rec)) GTEST_SKIP() << "netlink process connector not available here";

  Child child({exe, "60"}, false);
  ASSERT_GT(child.pid(), 0);
  uint32_t pid = static_cast<uint32_t>(child.pid());
  ASSERT_TRUE(rec.WaitFor([&](const auto& v) { return Find(v, 1, pid, exe) != nullptr; }))
      << "no start event for " << exe;
  const Event start = *Find(rec.Events(), NUV_PROC_EVENT_START, pid, exe);
  EXPECT_EQ(start.name, Basename(exe));

  // Once the file is gone the process can no longer tell its path: the exit must carry the
  // remembered one.
  ASSERT_EQ(unlink(exe.c_str()), 0);
  child.Kill();
  ASSERT_TRUE(rec.WaitFor([&](const auto& v) { return Find(v, 0, pid) != nullptr; }))
      << "no exit event";
  const Event exit_ev = *Find(rec.Events(), NUV_PROC_EVENT_EXIT, pid);
  EXPECT_EQ(exit_ev.path, exe);
  EXPECT_EQ(exit_ev.name, Basename(exe));
  // Exactly one exit: the /proc source must not read the unlinked file as a new image.
  int exits = 0;
  for (const auto& e : rec.Events()) exits += e.pid == pid && e.event == NUV_PROC_EVENT_EXIT;
  EXPECT_EQ(exits, 1);
}

// Events are handled in order: once a process started now is announced, everything before
// it has been handled.
void Flush(EventRecorder* rec) {
  Child marker({PERF_CHILD_PATH}, true);
  ASSERT_TRUE(marker.ready());
  uint32_t mpid = static_cast<uint32_t>(marker.pid());
  ASSERT_TRUE(rec->WaitFor([&](const auto& v) { return Find(v, 1, mpid) != nullptr; }));
}

TEST_P(ProcEvents, ThreadsAreNotReported) {
  EventRecorder rec;
  ProcUnsubscriber unsubscribe;  // before what the callbacks use goes
  if (!Subscribe(&rec)) GTEST_SKIP() << "netlink process connector not available here";
  std::set<uint32_t> tids;
  // Three threads start and end while the process lives on.
  Child child({PERF_CHILD_PATH, "--threads", "5", "--transient", "3"}, true);
  ASSERT_TRUE(child.ready());
  uint32_t pid = static_cast<uint32_t>(child.pid());
  // The transient threads may take a moment to be gone after the child says it is ready.
  for (int tries = 0; tries < 200 && tids.size() != 5u; ++tries) {
    if (!tids.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    tids.clear();
    DIR* d = opendir(("/proc/" + std::to_string(pid) + "/task").c_str());
    ASSERT_NE(d, nullptr);
    while (struct dirent* e = readdir(d)) {
      if (e->d_name[0] != '.') tids.insert(static_cast<uint32_t>(atoi(e->d_name)));
    }
    closedir(d);
  }
  ASSERT_EQ(tids.size(), 5u);
  // Announced (the /proc source needs to have seen it) before it ends.
  ASSERT_TRUE(rec.WaitFor([&](const auto& v) {
    return Find(v, 1, pid, RealPath(PERF_CHILD_PATH)) != nullptr;
  }));
  Flush(&rec);
  EXPECT_EQ(Find(rec.Events(), 0, pid), nullptr) << "a thread's end was taken for the process's";

  child.Finish();  // reaped: every thread has ended
  ASSERT_TRUE(rec.WaitFor([&](const auto& v) { return Find(v, 0, pid) != nullptr; }));
  Flush(&rec);
  int exits = 0, starts = 0;
  for (const auto& e : rec.Events()) {
    if (e.pid != pid) {
      EXPECT_EQ(tids.count(e.pid), 0u) << "event for thread " << e.pid;
    }
    exits += e.pid == pid && e.event == NUV_PROC_EVENT_EXIT;
    starts += e.pid == pid && e.event == NUV_PROC_EVENT_START &&
              e.path == RealPath(PERF_CHILD_PATH);
  }
  EXPECT_EQ(exits, 1);
  EXPECT_EQ(starts, 1);
  EXPECT_EQ(Find(rec.Events(), 0, pid)->path, RealPath(PERF_CHILD_PATH));
}

TEST_P(ProcEvents, UnsubscribeWaitsForCallbackInFlight) {
  EventRecorder rec;
  std::atomic<bool> entered{false}, left{false};
  ProcUnsubscriber unsubscribe;  // before what the callbacks use goes
  rec.hook = [&](const Event&) {
    if (entered.exchange(true)) return;
    std::this_thread::sleep_for(300ms);
    left = true;
  };
  if (!Subscribe(&rec)) GTEST_SKIP() << "netlink process connector not available here";
  Child child({PERF_CHILD_PATH}, true);  // an event for the callback to be busy with
  auto deadline = std::chrono::steady_clock::now() + 10s;
  while (!entered.load() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(1ms);
  ASSERT_TRUE(entered.load());
  nuv_proc_unregsiter_notifier();
  EXPECT_TRUE(left.load()) << "unsubscribe returned while the callback still ran";
  EXPECT_EQ(nuv_proc_event_source(), 0);
  size_t count = rec.Events().size();
  child.Kill();  // its exit must not be reported any more
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(rec.Events().size(), count);
}

INSTANTIATE_TEST_SUITE_P(Sources, ProcEvents,
                         ::testing::Values(NUV_PROC_EVENTS_NETLINK, NUV_PROC_EVENTS_PROC),
                         [](const auto& info) {
                           return std::string(info.param == NUV_PROC_EVENTS_NETLINK ? "Netlink"
                                                                                   : "Proc");
                         });

// ---- Performance notifications.

struct ProcCopy {
  _process_info rec;
  std::string image, path, cmdline;
};

struct Sample {
  unsigned type = 0;
  bool has_sys = false;
  _sys_info sys{};
  uint32_t count = 0;
  std::map<uint32_t, ProcCopy> procs;
};

class PerfRecorder {
 public:
  static void Callback(unsigned int type, _perf_information* info, void* context) {
    auto* self = static_cast<PerfRecorder*>(context);
    Sample s;
    s.type = type;
    if (info->sys_info) {
      s.has_sys = true;
      s.sys = *info->sys_info;
    }
    s.count = info->process_count;
    for (uint32_t i = 0; info->process_info && i < info->process_count; i++) {
      const _process_info& p = info->process_info[i];
      s.procs[p.pid] = {p, p.image ? p.image : "", p.path ? p.path : "",
                        p.commandline ? p.commandline : ""};
    }
    if (self->hook) self->hook();
    std::lock_guard<std::mutex> lock(self->mu_);
    self->samples_.push_back(std::move(s));
    self->cv_.notify_all();
  }
  bool WaitCount(size_t n, std::chrono::milliseconds limit = 10s) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, limit, [&] { return samples_.size() >= n; });
  }
  std::vector<Sample> Samples() {
    std::lock_guard<std::mutex> lock(mu_);
    return samples_;
  }
  std::function<void()> hook;

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<Sample> samples_;
};

class Perf : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(nuv_config_data_source(NUV_PERF_MONITOR_ALL, 1), 0); }
  void TearDown() override { nuv_config_data_source(NUV_PERF_MONITOR_ALL, 5); }
};

uint64_t ProcIoField(pid_t pid, const std::string& key) {
  std::string io = nuvtest::ReadFile("/proc/" + std::to_string(pid) + "/io");
  size_t at = io.find(key + ": ");
  return at == std::string::npos ? 0 : strtoull(io.c_str() + at + key.size() + 2, nullptr, 10);
}

uint64_t MemTotalKiB() {
  std::string m = nuvtest::ReadFile("/proc/meminfo");
  return strtoull(m.c_str() + m.find("MemTotal:") + 9, nullptr, 10);
}

TEST_F(Perf, FirstNotificationCoversAWholePeriodOfRealProcesses) {
  nuvtest::TempDir dir;
  Child busy({PERF_CHILD_PATH, "--busy"}, true);
  Child idle({PERF_CHILD_PATH}, true);
  Child loaded({PERF_CHILD_PATH, "--threads", "5", "--fds", "50"}, true);
  std::string wdir = RealPath(dir.path());
  Child writer({PERF_CHILD_PATH, "--write", wdir}, true);
  ASSERT_TRUE(busy.ready() && idle.ready() && loaded.ready() && writer.ready());

  PerfRecorder rec;
  PerfUnsubscriber unsubscribe;  // before what the callbacks use goes
  ASSERT_EQ(nuv_perf_regsiter_notifier(3, PerfRecorder::Callback, &rec), 0);
  ASSERT_TRUE(rec.WaitCount(1));
  // The first notification: every rate must already cover a whole period.
  const Sample s = rec.Samples()[0];
  ASSERT_EQ(s.type, 3u);
  ASSERT_TRUE(s.has_sys);
  ASSERT_EQ(s.count, s.procs.size());

  ASSERT_TRUE(s.procs.count(busy.pid()));
  const _process_info& b = s.procs.at(busy.pid()).rec;
  EXPECT_GT(b.cpu, 0.5f);
  EXPECT_LE(b.cpu, 100.0f);
  EXPECT_GT(b.usertime, 0u);
  EXPECT_EQ(b.cputime, b.usertime + b.kerneltime);

  ASSERT_TRUE(s.procs.count(idle.pid()));
  EXPECT_LT(s.procs.at(idle.pid()).rec.cpu, 1.0f);
  EXPECT_LT(s.procs.at(idle.pid()).rec.cpu, b.cpu);

  ASSERT_TRUE(s.procs.count(loaded.pid()));
  const ProcCopy& l = s.procs.at(loaded.pid());
  EXPECT_EQ(l.rec.threads, 5u);
  EXPECT_GE(l.rec.handles, 50u);
  EXPECT_EQ(l.rec.parentid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(l.image, "perf_child");
  EXPECT_EQ(l.path, RealPath(PERF_CHILD_PATH));
  EXPECT_NE(l.cmdline.find("--threads 5 --fds 50"), std::string::npos) << l.cmdline;
  // Units: KiB of memory, ms since start, Unix seconds.
  EXPECT_GT(l.rec.memory, 0u);
  EXPECT_LT(l.rec.memory, MemTotalKiB());
  EXPECT_GE(l.rec.memorycommit, l.rec.memory);
  EXPECT_GE(l.rec.totaltime, 900u);
  EXPECT_LE(l.rec.totaltime, 60000u);
  EXPECT_LE(std::labs(static_cast<long>(l.rec.createtime) - loaded.spawned_wall()), 2L);

  ASSERT_TRUE(s.procs.count(writer.pid()));
  const _process_info& w = s.procs.at(writer.pid()).rec;
  if (ProcIoField(writer.pid(), "write_bytes") == 0) {
    GTEST_SKIP() << "this file system does not account written bytes";
  }
  EXPECT_GT(w.writebytes, 0u);
  EXPECT_GT(w.iowspeed, 0u);
  EXPECT_LE(w.writebytes, ProcIoField(writer.pid(), "write_bytes"));
}

TEST_F(Perf, SystemFiguresAreConsistent) {
  PerfRecorder rec;
  PerfUnsubscriber unsubscribe;  // before what the callbacks use goes
  ASSERT_EQ(nuv_perf_regsiter_notifier(3, PerfRecorder::Callback, &rec), 0);
  ASSERT_TRUE(rec.WaitCount(2));
  for (const Sample& s : rec.Samples()) {
    ASSERT_TRUE(s.has_sys);
    const _sys_info& y = s.sys;
    EXPECT_GE(y.cpu, 0.0f);
    EXPECT_LE(y.cpu, 100.0f);
    EXPECT_GE(y.cpu_iowait_percent, 0.0f);
    EXPECT_LE(y.cpu_iowait_percent, y.cpu + 100.0f);
    EXPECT_EQ(y.memtotal, MemTotalKiB());
    EXPECT_GT(y.memavai, 0u);
    EXPECT_LE(y.memavai, y.memtotal);
    EXPECT_LE(y.swap_used, y.swap_total);
    EXPECT_GE(y.swap_usage, 0.0f);
    EXPECT_LE(y.swap_usage, 100.0f);
    EXPECT_EQ(y.cpunum, static_cast<uint32_t>(sysconf(_SC_NPROCESSORS_ONLN)));
    EXPECT_EQ(y.procnum, s.count);
    EXPECT_GE(y.threadnum, y.procnum);
    EXPECT_GT(y.handlenum, 0u);
    // Our own process is listed, with as many threads as /proc shows for it.
    ASSERT_TRUE(s.procs.count(getpid()));
    EXPECT_EQ(s.procs.at(getpid()).path, RealPath("/proc/self/exe"));
    EXPECT_GE(s.procs.at(getpid()).rec.threads, 2u);  // at least main and the sampler
  }
}

TEST_F(Perf, MonitorTypeAndMaskSelectWhatIsCarried) {
  Child loaded({PERF_CHILD_PATH, "--threads", "2", "--fds", "10"}, true);
  ASSERT_TRUE(loaded.ready());
  // Processes with handle counts, but no system figures, no I/O, no command lines.
  ASSERT_EQ(nuv_config_data_source(NUV_PERF_MONITOR_PROCESS | NUV_PERF_MONITOR_HANDLES, 1), 0);
  PerfRecorder system_only, processes;
  PerfUnsubscriber unsubscribe;  // before what the callbacks use goes
  ASSERT_EQ(nuv_perf_regsiter_notifier(NUV_PERF_TYPE_SYSTEM, PerfRecorder::Callback,
                                       &system_only), 0);
  ASSERT_EQ(nuv_perf_regsiter_notifier(NUV_PERF_TYPE_PROCESS | NUV_PERF_TYPE_SYSTEM,
                                       PerfRecorder::Callback, &processes), 0);
  ASSERT_TRUE(processes.WaitCount(1));
  const Sample s = processes.Samples()[0];
  EXPECT_EQ(s.type, NUV_PERF_TYPE_PROCESS);
  EXPECT_FALSE(s.has_sys);
  ASSERT_TRUE(s.procs.count(loaded.pid()));
  const ProcCopy& p = s.procs.at(loaded.pid());
  EXPECT_GE(p.rec.handles, 10u);
  EXPECT_EQ(p.rec.threads, 2u);
  EXPECT_EQ(p.cmdline, "");
  EXPECT_EQ(p.rec.readbytes + p.rec.writebytes, 0u);
  // Nothing it asked for is collected: it is never called.
  EXPECT_TRUE(system_only.Samples().empty());
}

TEST_F(Perf, UnsubscribeWaitsForCallbackInFlight) {
  PerfRecorder rec;
  std::atomic<bool> entered{false}, left{false};
  PerfUnsubscriber unsubscribe;  // before what the callbacks use goes
  rec.hook = [&] {
    if (entered.exchange(true)) return;
    std::this_thread::sleep_for(300ms);
    left = true;
  };
  ASSERT_EQ(nuv_perf_regsiter_notifier(3, PerfRecorder::Callback, &rec), 0);
  auto deadline = std::chrono::steady_clock::now() + 10s;
  while (!entered.load() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(1ms);
  ASSERT_TRUE(entered.load());
  nuv_perf_unregsiter_notifier(NUV_PERF_MONITOR_ALL);
  EXPECT_TRUE(left.load()) << "unsubscribe returned while the callback still ran";
}

TEST_F(Perf, UnsubscribeFromItsOwnCallbackStopsFurtherCalls) {
  std::atomic<int> calls{0};
  PerfUnsubscriber unsubscribe;  // before what the callbacks use goes
  auto self_stop = [](unsigned int, _perf_information*, void* context) {
    static_cast<std::atomic<int>*>(context)->fetch_add(1);
    nuv_perf_unregsiter_notifier(NUV_PERF_MONITOR_ALL);
  };
  ASSERT_EQ(nuv_perf_regsiter_notifier(3, self_stop, &calls), 0);
  // A new subscription keeps working, and outlives two periods of the old one.
  auto deadline = std::chrono::steady_clock::now() + 10s;
  while (calls.load() == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(5ms);
  ASSERT_EQ(calls.load(), 1);
  PerfRecorder rec;
  PerfUnsubscriber unsubscribe_again;
  ASSERT_EQ(nuv_perf_regsiter_notifier(3, PerfRecorder::Callback, &rec), 0);
  ASSERT_TRUE(rec.WaitCount(2));
  EXPECT_EQ(calls.load(), 1);
}

// ---- Process queries.

TEST(Query, FindsProcessesPerThreadWithoutThreadsOrZombies) {
  nuvtest::TempDir dir;
  std::string exe = CopySleep(dir, "query");
  Child sleeper({exe, "60"}, false);
  ASSERT_GT(sleeper.pid(), 0);
  // A child that has ended but is not reaped: a zombie, which is not running.
  pid_t zombie = fork();
  if (zombie == 0) _exit(0);
  ASSERT_GT(zombie, 0);
  while (nuvtest::ReadFile("/proc/" + std::to_string(zombie) + "/stat").find(") Z ") ==
         std::string::npos)
    std::this_thread::sleep_for(1ms);
  // exec has happened once /proc shows the new image.
  std::string link = "/proc/" + std::to_string(sleeper.pid()) + "/exe";
  while (RealPath(link) != exe) std::this_thread::sleep_for(1ms);

  std::set<uint32_t> own_threads;
  {
    DIR* d = opendir("/proc/self/task");
    ASSERT_NE(d, nullptr);
    while (struct dirent* e = readdir(d)) {
      if (e->d_name[0] != '.' && atoi(e->d_name) != getpid())
        own_threads.insert(static_cast<uint32_t>(atoi(e->d_name)));
    }
    closedir(d);
  }

  constexpr int kThreads = 4;
  std::vector<const _process_mon_info*> lists(kThreads);
  std::atomic<int> queried{0};
  std::vector<std::string> failures(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      _process_mon_list r{};
      if (nuv_query_proc_info(&r) != 0) {
        failures[t] = "query failed";
        queried++;
        return;
      }
      lists[t] = r.info;
      queried++;
      // Other threads' queries must not touch this thread's result.
      while (queried.load() < kThreads) std::this_thread::yield();
      _process_mon_list again{};
      if (t % 2 == 0 && nuv_query_proc_info(&again) != 0) failures[t] = "second query failed";
      if (t % 2 == 0) r = again;
      int found = 0;
      for (uint32_t i = 0; i < r.count; i++) {
        const _process_mon_info& m = r.info[i];
        if (m.pid == static_cast<uint32_t>(zombie)) failures[t] += " zombie listed;";
        if (own_threads.count(m.pid)) failures[t] += " thread listed;";
        if (i && r.info[i - 1].pid >= m.pid) failures[t] += " not ascending;";
        if (std::string(m.name) == Basename(exe)) {
          found++;
          if (m.pid != static_cast<uint32_t>(sleeper.pid())) failures[t] += " wrong pid;";
          if (std::string(m.path) != exe) failures[t] += " wrong path;";
        }
        if (m.pid == static_cast<uint32_t>(getpid()) &&
            std::string(m.path) != RealPath("/proc/self/exe"))
          failures[t] += " own path wrong;";
      }
      if (found != 1) failures[t] += " sleeper found " + std::to_string(found) + " times;";
      nuv_clean_query_proc_info();
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < kThreads; t++) EXPECT_EQ(failures[t], "") << "thread " << t;
  std::set<const _process_mon_info*> distinct(lists.begin(), lists.end());
  EXPECT_EQ(distinct.size(), static_cast<size_t>(kThreads)) << "results shared between threads";
  waitpid(zombie, nullptr, 0);
}

TEST(Query, UnreadableExecutableHasEmptyPathButAName) {
  // As an unprivileged user, the executable of pid 1 (another user's) cannot be read.
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(10);
    _process_mon_list r{};
    if (nuv_query_proc_info(&r) != 0) _exit(11);
    int rc = 12;  // pid 1 not listed
    for (uint32_t i = 0; i < r.count; i++) {
      if (r.info[i].pid == 1) rc = r.info[i].path[0] == '\0' && r.info[i].name[0] ? 0 : 13;
      if (r.info[i].pid == static_cast<uint32_t>(getpid()) && r.info[i].path[0] == '\0')
        rc = 14;  // its own executable is readable
    }
    _exit(rc);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// ---- Exports.

TEST(Exports, OnlyNuvCallsAreExported) {
  std::string cmd = std::string("nm -D --defined-only ") + NUV_PERFPROV_LIB_PATH;
  FILE* p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  char line[512];
  std::set<std::string> names;
  while (fgets(line, sizeof line, p)) {
    std::string name(line);
    name = name.substr(name.rfind(' ') + 1);
    if (!name.empty() && name.back() == '\n') name.pop_back();
    names.insert(name);
    EXPECT_EQ(name.rfind("nuv_", 0), 0u) << "exports " << name;
  }
  EXPECT_EQ(pclose(p), 0) << cmd;
  for (const char* call :
       {"nuv_config_data_source", "nuv_perf_regsiter_notifier", "nuv_perf_unregsiter_notifier",
        "nuv_proc_regsiter_notifier", "nuv_proc_unregsiter_notifier", "nuv_query_proc_info",
        "nuv_clean_query_proc_info"})
    EXPECT_EQ(names.count(call), 1u) << call;
}

}  // namespace
