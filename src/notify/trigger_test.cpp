// The trigger over the real provider: real notifications, real child processes, and the real
// store whose per-process stream it closes when a process ends.
#include "notify/trigger.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "common/singleton.h"
#include "common/utils.h"
#include "config/config_mgr.h"
#include "file/filemanager.h"
#include "testutil/testutil.h"
#include "worker/worker_test_support.h"

namespace {

namespace fs = std::filesystem;

// Every call that reached the interface as text: "R image pid", "P pid", "L pid...",
// "S procnum", "U image pid".
class Recorder : public CPerfInterface {
 public:
  bool RegisterMonitor(const std::string& image, unsigned int pid) override {
    Add("R " + image + " " + std::to_string(pid));
    return true;
  }
  void Dispatch(const ProcessInfo& info) override { Add("P " + std::to_string(info.pid)); }
  void Dispatch(const SystemInfo& info) override { Add("S " + std::to_string(info.procnum)); }
  void Dispatch(const std::vector<ProcessInfo>& infos) override {
    std::string call = "L";
    for (const ProcessInfo& info : infos) call += " " + std::to_string(info.pid);
    Add(call);
  }
  void UnRegisterMonitor(const std::string& image, unsigned int pid) override {
    Add("U " + image + " " + std::to_string(pid));
  }

  // Waits for a call whose text is `call`, or, with a one-letter `call`, of that kind.
  bool WaitFor(const std::string& call) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, std::chrono::seconds(20), [&] {
      return std::any_of(calls_.begin(), calls_.end(), [&](const std::string& c) {
        return c == call || (call.size() == 1 && c[0] == call[0]);
      });
    });
  }
  // The calls of the given kinds, in order.
  std::vector<std::string> Calls(const std::string& kinds) {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<std::string> out;
    std::copy_if(calls_.begin(), calls_.end(), std::back_inserter(out),
                 [&](const std::string& c) { return kinds.find(c[0]) != std::string::npos; });
    return out;
  }

 private:
  void Add(const std::string& call) {
    std::lock_guard<std::mutex> lock(mu_);
    calls_.push_back(call);
    cv_.notify_all();
  }
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<std::string> calls_;
};

// A copy of /bin/sleep at `path` running "60"; killed and reaped on destruction. `image` is the
// path as the trigger reports it (lower-cased).
struct Sleeper {
  explicit Sleeper(const std::string& exe) : path(exe), image(exe) {
    CorrectLowerString(image);
    if (nuvtest::WriteFile(path, nuvtest::ReadFile("/bin/sleep")) &&
        chmod(path.c_str(), 0755) == 0) {
      pid = nuvtest::Spawn({path, "60"}, {}, "", "/dev/null", "/dev/null");
    }
  }
  ~Sleeper() { Kill(); }
  void Kill() {
    if (pid > 0 && kill(pid, SIGKILL) == 0) nuvtest::WaitExit(pid);
    pid = -1;
  }
  std::string Start() const { return "R " + image + " " + std::to_string(pid); }
  std::string path;
  std::string image;
  int pid = -1;
};

// Whether this process holds a descriptor on `path`.
bool HoldsOpen(const fs::path& path) {
  std::error_code ec;
  for (const fs::directory_entry& fd : fs::directory_iterator("/proc/self/fd", ec)) {
    if (fs::read_symlink(fd.path(), ec) == path) return true;
  }
  return false;
}

class TriggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Samples every second, the store under a temporary directory.
    ASSERT_TRUE(nuvtest::WriteFile(root_.Sub("maintenance.json"), R"({"default": {
        "cache": {"size": 100},
        "collect_sdk": {"frequency": 1, "monitor_type": 31, "hit_rate": 80},
        "perf_monitor": [], "file": {"cahce": 1024, "path": ")" + dir_ +
                                                                      R"(/store"},
        "clearn": {"day": 7, "file_size": 10}}, "addition": {}})"));
    ConfigMgr loader;
    ASSERT_EQ(loader.LoadConfig(root_.Sub("maintenance.json")).code, 0);
  }
  // Unsubscribed before the recorder the callbacks write to goes.
  void TearDown() override { trigger_.StopTrigger(); }

  nuvtest::TempDir root_;
  const std::string dir_ = fs::canonical(root_.path()).string();
  Recorder recorder_;
  CTrigger trigger_;
};

TEST_F(TriggerTest, SubscribesOnceAndLogsOnlyRealTransitions) {
  trigger_.SetPerfMonitor(&recorder_);
  bool first = false, second = false;
  const auto lines = workertest::CaptureMessages([&] {
    trigger_.StopTrigger();  // not started: nothing
    first = trigger_.StartTrigger();
    second = trigger_.StartTrigger();
    trigger_.StopTrigger();
    trigger_.StopTrigger();
  });
  EXPECT_TRUE(first && second);
  EXPECT_EQ(lines, (std::vector<std::string>{"[INFO] [CTrigger]::StartTrigger register success.",
                                             "[INFO] [CTrigger]::StopTrigger success."}));
}

TEST_F(TriggerTest, NotificationDeliversEachProcessThenTheListThenTheSystem) {
  trigger_.SetPerfMonitor(&recorder_);
  ASSERT_TRUE(trigger_.StartTrigger());
  ASSERT_TRUE(recorder_.WaitFor("S"));
  trigger_.StopTrigger();

  // The first notification: P...P L S, the list holding the singles in the same order, and
  // our own process among them.
  const std::vector<std::string> calls = recorder_.Calls("PLS");
  std::string list = "L";
  size_t at = 0;
  for (; at < calls.size() && calls[at][0] == 'P'; ++at) list += calls[at].substr(1);
  ASSERT_LT(at + 1, calls.size());
  EXPECT_EQ(calls[at], list);
  EXPECT_EQ(calls[at + 1], "S " + std::to_string(at));
  EXPECT_NE((list + " ").find(" " + std::to_string(getpid()) + " "), std::string::npos);
}

TEST_F(TriggerTest, TypeBitsAndTheAttachedMonitorDecideWhatIsDelivered) {
  _process_info procs[2] = {};
  procs[0].pid = 11;
  procs[1].pid = 12;
  _sys_info sys = {};
  sys.procnum = 2;
  _perf_information both = {&sys, nullptr, procs, 2};
  _perf_information none = {nullptr, nullptr, nullptr, 0};

  trigger_.SetPerfMonitor(&recorder_);
  trigger_.SetPerfMonitor(nullptr);  // keeps the recorder
  CTrigger::PerfMonTrigger(0, &both, &trigger_);
  CTrigger::PerfMonTrigger(4, &both, &trigger_);
  CTrigger::PerfMonTrigger(3, nullptr, &trigger_);
  CTrigger::PerfMonTrigger(NUV_PERF_TYPE_PROCESS, &none, &trigger_);  // no process: empty list
  CTrigger::PerfMonTrigger(3, &both, &trigger_);
  trigger_.ClearnPerfMonitor();
  CTrigger::PerfMonTrigger(3, &both, &trigger_);
  EXPECT_EQ(recorder_.Calls("RPLSU"),
            (std::vector<std::string>{"L", "P 11", "P 12", "L 11 12", "S 2"}));
}

TEST_F(TriggerTest, ProcessStartAndExitReachTheMonitorAndExitClosesItsStream) {
  trigger_.SetPerfMonitor(&recorder_);
  ASSERT_TRUE(trigger_.StartTrigger());
  // The stream of a process is named after its executable without the extension.
  const std::string stem = "nuvtrig" + std::to_string(getpid());
  Sleeper child(dir_ + "/" + stem + ".bin");
  ASSERT_GT(child.pid, 0);
  const std::string exit = "U " + child.image + " " + std::to_string(child.pid);
  ASSERT_TRUE(recorder_.WaitFor(child.Start())) << child.Start();
  const std::vector<std::string> exits = recorder_.Calls("U");
  EXPECT_EQ(std::count(exits.begin(), exits.end(), exit), 0);

  CFileClassify classify;
  ASSERT_TRUE(classify.InitFileClassify(stem, static_cast<unsigned int>(child.pid), 100));
  ASSERT_EQ(CSingleton<CFileManager>::GetInstance().WriteFile(classify, "{\"cpu\": 1}").code, 0);
  const fs::path content = fs::canonical(classify.GetContentPath());  // the kernel's spelling
  ASSERT_TRUE(HoldsOpen(content));

  child.Kill();
  ASSERT_TRUE(recorder_.WaitFor(exit)) << exit;
  // Events are handled one after another: once a later start is in, the exit is done.
  Sleeper marker(dir_ + "/" + stem + "marker");
  ASSERT_TRUE(recorder_.WaitFor(marker.Start())) << marker.Start();
  EXPECT_FALSE(HoldsOpen(content));
  EXPECT_FALSE(HoldsOpen(fs::canonical(classify.GetIndexPath())));
  EXPECT_EQ(nuvtest::ReadFile(content), "{\"cpu\": 1}");  // closed, not dropped
}

}  // namespace
