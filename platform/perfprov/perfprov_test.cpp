// The provider against real processes: children with known images, threads, descriptors and
// load, and the system's own /proc to compare with.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "nuv_perfprov.h"
#include "testutil/testutil.h"

namespace {

using namespace std::chrono_literals;

std::string RealPath(const std::string& p) {
  char buf[PATH_MAX];
  return realpath(p.c_str(), buf) ? std::string(buf) : p;
}

// A child process, killed and reaped on destruction. A perf_child prints "ready" once its
// threads, descriptors and load are in place.
class Child {
 public:
  explicit Child(const std::vector<std::string>& argv)
      : spawned(time(nullptr)), pid(nuvtest::Spawn(argv, {}, "", out_.Sub("out"), "/dev/null")) {}
  ~Child() { Kill(); }
  bool Ready() {  // waits up to 10 s
    for (int i = 0; pid > 0 && i < 1000; ++i) {
      if (nuvtest::ReadFile(out_.Sub("out")) == "ready\n") return true;
      std::this_thread::sleep_for(10ms);
    }
    return false;
  }
  void Kill() {
    if (pid > 0) kill(pid, SIGKILL);
    nuvtest::WaitExit(pid);
    pid = -1;
  }
  nuvtest::TempDir out_;
  const time_t spawned;
  pid_t pid;
};

// A copy of `exe` under a name no other process has.
std::string CopyExe(const nuvtest::TempDir& dir, const std::string& exe, const std::string& tag) {
  std::string path = RealPath(dir.path()) + "/nuvpp_" + std::to_string(getpid()) + tag;
  EXPECT_TRUE(nuvtest::WriteFile(path, nuvtest::ReadFile(exe)));
  chmod(path.c_str(), 0755);
  return path;
}

std::string Basename(const std::string& p) { return p.substr(p.rfind('/') + 1); }

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
    if (self->hook) self->hook();
    std::lock_guard<std::mutex> lock(self->mu_);
    self->events_.push_back({event, mon->pid, mon->name ? mon->name : "", mon->path ? mon->path : ""});
    self->cv_.notify_all();
    return 0;
  }
  // Waits up to 10 s for an event of `pid`.
  bool WaitFor(int event, uint32_t pid) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, 10s, [&] { return Count(events_, event, pid) > 0; });
  }
  std::vector<Event> Events() {
    std::lock_guard<std::mutex> lock(mu_);
    return events_;
  }
  static int Count(const std::vector<Event>& v, int event, uint32_t pid) {
    int n = 0;
    for (const auto& e : v) n += e.event == event && e.pid == pid;
    return n;
  }
  std::function<void()> hook;

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<Event> events_;
};

// Declared after the recorders, so they unsubscribe before what the callbacks use goes.
struct ProcUnsubscriber {
  ~ProcUnsubscriber() { nuv_proc_unregsiter_notifier(); }
};
struct PerfUnsubscriber {
  ~PerfUnsubscriber() { nuv_perf_unregsiter_notifier(NUV_PERF_MONITOR_ALL); }
};

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
  // Events are handled in order: once a process started now is announced, all before it were.
  void Flush(EventRecorder* rec) {
    Child marker({PERF_CHILD_PATH});
    ASSERT_TRUE(marker.Ready());
    ASSERT_TRUE(rec->WaitFor(NUV_PROC_EVENT_START, marker.pid));
  }
  void TearDown() override { nuv_proc_set_event_source(NUV_PROC_EVENTS_AUTO); }
};

TEST_P(ProcEvents, OneStartAndOneExitPerProcessWithTheRememberedPath) {
  nuvtest::TempDir dir;
  std::string exe = CopyExe(dir, PERF_CHILD_PATH, "_" + std::to_string(GetParam()));
  EventRecorder rec;
  ProcUnsubscriber unsubscribe;
  if (!Subscribe(&rec)) GTEST_SKIP() << "netlink process connector not available here";
  // Three threads start and end before it is ready, four more live with it.
  Child child({exe, "--threads", "5", "--transient", "3"});
  ASSERT_TRUE(child.Ready());
  const uint32_t pid = static_cast<uint32_t>(child.pid);
  std::set<uint32_t> tids;
  for (int tries = 0; tries < 200 && tids.size() != 5u; ++tries) {  // transient ones may linger
    if (!tids.empty()) std::this_thread::sleep_for(10ms);
    tids.clear();
    DIR* d = opendir(("/proc/" + std::to_string(pid) + "/task").c_str());
    ASSERT_NE(d, nullptr);
    while (struct dirent* e = readdir(d))
      if (e->d_name[0] != '.') tids.insert(static_cast<uint32_t>(atoi(e->d_name)));
    closedir(d);
  }
  ASSERT_EQ(tids.size(), 5u);
  ASSERT_TRUE(rec.WaitFor(NUV_PROC_EVENT_START, pid)) << "no start event for " << exe;
  Flush(&rec);
  EXPECT_EQ(EventRecorder::Count(rec.Events(), NUV_PROC_EVENT_EXIT, pid), 0)
      << "a thread's end was taken for the process's";

  // Once the file is gone the process can no longer tell its path: the exit must carry the
  // remembered one, and the /proc source must not take the unlinked file for a new image.
  ASSERT_EQ(unlink(exe.c_str()), 0);
  child.Kill();
  ASSERT_TRUE(rec.WaitFor(NUV_PROC_EVENT_EXIT, pid));
  Flush(&rec);
  auto events = rec.Events();
  EXPECT_EQ(EventRecorder::Count(events, NUV_PROC_EVENT_START, pid), 1);
  EXPECT_EQ(EventRecorder::Count(events, NUV_PROC_EVENT_EXIT, pid), 1);
  for (const auto& e : events) {
    EXPECT_TRUE(e.pid == pid || !tids.count(e.pid)) << "event for thread " << e.pid;
    if (e.pid != pid) continue;
    EXPECT_EQ(e.path, exe) << "event " << e.event;
    EXPECT_EQ(e.name, Basename(exe)) << "event " << e.event;
  }
}

// A pre-forked worker runs its parent's program without executing one: it is a process of that
// image all the same, whichever source reports it.
TEST_P(ProcEvents, AChildThatNeverExecutesStartsAsItsParentsImage) {
  EventRecorder rec;
  ProcUnsubscriber unsubscribe;
  if (!Subscribe(&rec)) GTEST_SKIP() << "netlink process connector not available here";
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    pause();
    _exit(0);
  }
  const uint32_t pid = static_cast<uint32_t>(child);
  EXPECT_TRUE(rec.WaitFor(NUV_PROC_EVENT_START, pid));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(rec.WaitFor(NUV_PROC_EVENT_EXIT, pid));
  const auto events = rec.Events();
  EXPECT_EQ(EventRecorder::Count(events, NUV_PROC_EVENT_START, pid), 1);
  for (const auto& e : events) {
    if (e.pid != pid) continue;
    EXPECT_EQ(e.path, RealPath("/proc/self/exe")) << "event " << e.event;
  }
}

TEST_P(ProcEvents, UnsubscribeWaitsForCallbackInFlight) {
  EventRecorder rec;
  std::atomic<bool> entered{false}, left{false};
  ProcUnsubscriber unsubscribe;
  rec.hook = [&] {
    if (entered.exchange(true)) return;
    std::this_thread::sleep_for(300ms);
    left = true;
  };
  if (!Subscribe(&rec)) GTEST_SKIP() << "netlink process connector not available here";
  Child child({PERF_CHILD_PATH});  // an event for the callback to be busy with
  for (int i = 0; i < 10000 && !entered; ++i) std::this_thread::sleep_for(1ms);
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
                           return info.param == NUV_PROC_EVENTS_NETLINK ? "Netlink" : "Proc";
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
    Sample s{type, info->sys_info != nullptr, {}, info->process_count, {}};
    if (info->sys_info) s.sys = *info->sys_info;
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
  // The first `n` samples, waiting up to 10 s for them; fewer when they did not come.
  std::vector<Sample> Wait(size_t n) {
    std::unique_lock<std::mutex> lock(mu_);
    cv_.wait_for(lock, 10s, [&] { return samples_.size() >= n; });
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

uint64_t ProcField(const std::string& file, const std::string& key) {
  std::string text = nuvtest::ReadFile(file);
  size_t at = text.find(key);
  return at == std::string::npos ? 0 : strtoull(text.c_str() + at + key.size(), nullptr, 10);
}

TEST_F(Perf, FirstNotificationCoversAWholePeriodOfRealProcesses) {
  nuvtest::TempDir dir;
  Child busy({PERF_CHILD_PATH, "--busy"}), idle({PERF_CHILD_PATH});
  Child loaded({PERF_CHILD_PATH, "--threads", "5", "--fds", "50"});
  Child writer({PERF_CHILD_PATH, "--write", RealPath(dir.path())});
  ASSERT_TRUE(busy.Ready() && idle.Ready() && loaded.Ready() && writer.Ready());
  PerfRecorder rec;
  PerfUnsubscriber unsubscribe;
  ASSERT_EQ(nuv_perf_regsiter_notifier(3, PerfRecorder::Callback, &rec), 0);
  auto samples = rec.Wait(1);
  ASSERT_FALSE(samples.empty());
  const Sample& s = samples[0];  // every rate must already cover a whole period
  ASSERT_EQ(s.type, 3u);
  ASSERT_TRUE(s.has_sys);
  ASSERT_EQ(s.count, s.procs.size());
  for (pid_t pid : {busy.pid, idle.pid, loaded.pid, writer.pid}) ASSERT_TRUE(s.procs.count(pid));

  const _process_info& b = s.procs.at(busy.pid).rec;
  EXPECT_GT(b.cpu, 0.5f);
  EXPECT_LE(b.cpu, 100.0f);
  EXPECT_GT(b.usertime, 0u);
  EXPECT_EQ(b.cputime, b.usertime + b.kerneltime);
  EXPECT_LT(s.procs.at(idle.pid).rec.cpu, std::min(1.0f, b.cpu));

  const ProcCopy& l = s.procs.at(loaded.pid);
  EXPECT_EQ(l.rec.threads, 5u);
  EXPECT_GE(l.rec.handles, 50u);
  EXPECT_EQ(l.rec.parentid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(l.image, "perf_child");
  EXPECT_EQ(l.path, RealPath(PERF_CHILD_PATH));
  EXPECT_NE(l.cmdline.find("--threads 5 --fds 50"), std::string::npos) << l.cmdline;
  // Units: KiB of memory, ms since start, Unix seconds.
  EXPECT_GT(l.rec.memory, 0u);
  EXPECT_LT(l.rec.memory, ProcField("/proc/meminfo", "MemTotal:"));
  EXPECT_GE(l.rec.memorycommit, l.rec.memory);
  EXPECT_GE(l.rec.totaltime, 900u);
  EXPECT_LE(l.rec.totaltime, 60000u);
  EXPECT_LE(std::labs(static_cast<long>(l.rec.createtime) - loaded.spawned), 2L);

  const _process_info& w = s.procs.at(writer.pid).rec;
  std::string io = "/proc/" + std::to_string(writer.pid) + "/io";
  if (ProcField(io, "write_bytes: ") == 0) GTEST_SKIP() << "no written bytes accounted here";
  EXPECT_GT(w.writebytes, 0u);
  EXPECT_GT(w.iowspeed, 0u);
  EXPECT_LE(w.writebytes, ProcField(io, "write_bytes: "));
}

TEST_F(Perf, SystemFiguresAreConsistent) {
  PerfRecorder rec;
  PerfUnsubscriber unsubscribe;
  ASSERT_EQ(nuv_perf_regsiter_notifier(3, PerfRecorder::Callback, &rec), 0);
  auto samples = rec.Wait(2);
  ASSERT_EQ(samples.size(), 2u);
  for (const Sample& s : samples) {
    ASSERT_TRUE(s.has_sys);
    const _sys_info& y = s.sys;
    EXPECT_TRUE(y.cpu >= 0 && y.cpu <= 100 && y.cpu_iowait_percent >= 0) << y.cpu;
    EXPECT_EQ(y.memtotal, ProcField("/proc/meminfo", "MemTotal:"));
    EXPECT_LE(y.memavai, y.memtotal);
    EXPECT_LE(y.swap_used, y.swap_total);
    EXPECT_EQ(y.cpunum, static_cast<uint32_t>(sysconf(_SC_NPROCESSORS_ONLN)));
    EXPECT_EQ(y.procnum, s.count);
    EXPECT_GE(y.threadnum, y.procnum);
    EXPECT_GT(y.handlenum, 0u);
    // Our own process is listed, with at least its main and sampler threads.
    ASSERT_TRUE(s.procs.count(getpid()));
    EXPECT_EQ(s.procs.at(getpid()).path, RealPath("/proc/self/exe"));
    EXPECT_GE(s.procs.at(getpid()).rec.threads, 2u);
  }
}

TEST_F(Perf, UnsubscribeWaitsForCallbacksAndMayBeCalledFromOne) {
  PerfRecorder rec;
  std::atomic<bool> entered{false}, left{false};
  rec.hook = [&] {
    if (entered.exchange(true)) return;
    std::this_thread::sleep_for(300ms);
    left = true;
  };
  PerfUnsubscriber unsubscribe;
  ASSERT_EQ(nuv_perf_regsiter_notifier(3, PerfRecorder::Callback, &rec), 0);
  for (int i = 0; i < 10000 && !entered; ++i) std::this_thread::sleep_for(1ms);
  ASSERT_TRUE(entered.load());
  nuv_perf_unregsiter_notifier(NUV_PERF_MONITOR_ALL);
  EXPECT_TRUE(left.load()) << "unsubscribe returned while the callback still ran";

  std::atomic<int> calls{0};
  auto self_stop = [](unsigned int, _perf_information*, void* context) {
    static_cast<std::atomic<int>*>(context)->fetch_add(1);
    nuv_perf_unregsiter_notifier(NUV_PERF_MONITOR_ALL);
  };
  ASSERT_EQ(nuv_perf_regsiter_notifier(3, self_stop, &calls), 0);
  for (int i = 0; i < 2000 && calls == 0; ++i) std::this_thread::sleep_for(5ms);
  ASSERT_EQ(calls.load(), 1);
  // A new subscription keeps working, and outlives two periods of the old one.
  PerfRecorder again;
  PerfUnsubscriber unsubscribe_again;
  ASSERT_EQ(nuv_perf_regsiter_notifier(3, PerfRecorder::Callback, &again), 0);
  EXPECT_EQ(again.Wait(2).size(), 2u);
  EXPECT_EQ(calls.load(), 1);
}

// ---- Process queries.

TEST(Query, ListsEachProcessOnceWithoutThreadsOrZombiesPerThread) {
  nuvtest::TempDir dir;
  std::string exe = CopyExe(dir, "/bin/sleep", "query");
  Child sleeper({exe, "60"});
  pid_t zombie = fork();  // ended but not reaped: not running
  if (zombie == 0) _exit(0);
  ASSERT_GT(zombie, 0);
  while (nuvtest::ReadFile("/proc/" + std::to_string(zombie) + "/stat").find(") Z ") ==
         std::string::npos)
    std::this_thread::sleep_for(1ms);
  while (RealPath("/proc/" + std::to_string(sleeper.pid) + "/exe") != exe)  // exec has happened
    std::this_thread::sleep_for(1ms);
  std::atomic<uint32_t> helper_tid{0};
  std::atomic<bool> done{false};
  std::thread helper([&] {  // a thread of ours that must not be listed
    helper_tid = static_cast<uint32_t>(gettid());
    while (!done) std::this_thread::sleep_for(1ms);
  });
  while (helper_tid == 0) std::this_thread::yield();

  // Two threads hold results at once: neither query touches the other's result.
  std::atomic<int> queried{0};
  const _process_mon_info* lists[2] = {};
  auto check = [&](int t) {
    _process_mon_list r{};
    ASSERT_EQ(nuv_query_proc_info(&r), 0);
    lists[t] = r.info;
    for (++queried; queried < 2;) std::this_thread::yield();
    int found = 0;
    for (uint32_t i = 0; i < r.count; i++) {
      const _process_mon_info& m = r.info[i];
      EXPECT_NE(m.pid, static_cast<uint32_t>(zombie));
      EXPECT_NE(m.pid, helper_tid.load());
      EXPECT_TRUE(i == 0 || r.info[i - 1].pid < m.pid) << "not ascending at " << m.pid;
      EXPECT_TRUE(m.pid != static_cast<uint32_t>(getpid()) || m.path == RealPath("/proc/self/exe"));
      if (std::string(m.name) != Basename(exe)) continue;
      found++;
      EXPECT_EQ(m.pid, static_cast<uint32_t>(sleeper.pid));
      EXPECT_STREQ(m.path, exe.c_str());
    }
    EXPECT_EQ(found, 1);
    nuv_clean_query_proc_info();
  };
  std::thread other(check, 1);
  check(0);
  other.join();
  EXPECT_NE(lists[0], lists[1]) << "results shared between threads";
  done = true;
  helper.join();
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
  EXPECT_EQ(nuvtest::WaitExit(child), 0);
}

}  // namespace
