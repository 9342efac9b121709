// The trigger over the real provider: real notifications, real child processes, and the real
// store whose per-process stream it closes when a process ends.
#include "notify/trigger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "file/file_test_support.h"

namespace {

namespace fs = std::filesystem;
using filetest::Lines;

// Every call that reached the interface as text: "R image pid", "P pid", "L pid...",
// "S procnum", "U image pid".
class Recorder : public CPerfInterface {
 public:
  bool RegisterMonitor(const std::string& image, unsigned int pid) override {
    return Add("R " + image + " " + std::to_string(pid));
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
  // The calls of the given kinds, in order.
  Lines Calls(const std::string& kinds) {
    std::lock_guard<std::mutex> lock(mu_);
    Lines out;
    for (const std::string& c : calls_) {
      if (kinds.find(c[0]) != std::string::npos) out.push_back(c);
    }
    return out;
  }
  // Waits for a call whose text is `call`, or, with a one-letter `call`, of that kind.
  bool WaitFor(const std::string& call) {
    return nuvtest::Eventually([&] {
      const Lines calls = Calls(call.substr(0, 1));
      return call.size() == 1 ? !calls.empty() : std::count(calls.begin(), calls.end(), call) > 0;
    });
  }

 private:
  bool Add(const std::string& call) {
    std::lock_guard<std::mutex> lock(mu_);
    calls_.push_back(call);
    return true;
  }
  std::mutex mu_;
  Lines calls_;
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
  // Samples every second; the recorder attached.
  void SetUp() override {
    ASSERT_TRUE(filetest::LoadStoreConfig(root_, 10, "", 1).IsSuccess());
    trigger_.SetPerfMonitor(&recorder_);
  }
  // Unsubscribed before the recorder the callbacks write to goes.
  void TearDown() override { trigger_.StopTrigger(); }

  nuvtest::TempDir root_;
  const std::string dir_ = fs::canonical(root_.path()).string();  // as the kernel spells it
  Recorder recorder_;
  CTrigger trigger_;
};

TEST_F(TriggerTest, SubscribesOnceAndDeliversEachProcessThenTheListThenTheSystem) {
  bool started = false;
  const Lines lines = nuvtest::CaptureMessages([&] {
    trigger_.StopTrigger();  // not started: nothing
    started = trigger_.StartTrigger() && trigger_.StartTrigger();
    EXPECT_TRUE(recorder_.WaitFor("S"));
    trigger_.StopTrigger();
    trigger_.StopTrigger();
  });
  EXPECT_TRUE(started);
  EXPECT_EQ(filetest::Matching(lines, "[CTrigger]"),
            (Lines{"[INFO] [CTrigger]::StartTrigger register success.",
                   "[INFO] [CTrigger]::StopTrigger success."}));
  // The first notification: P...P L S, the list holding the singles in the same order, and
  // our own process among them.
  const Lines calls = recorder_.Calls("PLS");
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
  _sys_info sys = {};
  procs[0].pid = 11, procs[1].pid = 12, sys.procnum = 2;
  _perf_information both = {&sys, nullptr, procs, 2};
  _perf_information none = {nullptr, nullptr, nullptr, 0};
  trigger_.SetPerfMonitor(nullptr);  // keeps the recorder
  for (unsigned int type : {0, 4}) CTrigger::PerfMonTrigger(type, &both, &trigger_);
  CTrigger::PerfMonTrigger(3, nullptr, &trigger_);
  CTrigger::PerfMonTrigger(NUV_PERF_TYPE_PROCESS, &none, &trigger_);  // no process: empty list
  CTrigger::PerfMonTrigger(3, &both, &trigger_);
  trigger_.ClearnPerfMonitor();
  CTrigger::PerfMonTrigger(3, &both, &trigger_);
  EXPECT_EQ(recorder_.Calls("RPLSU"), (Lines{"L", "P 11", "P 12", "L 11 12", "S 2"}));
}

TEST_F(TriggerTest, ProcessStartAndExitReachTheMonitorAndExitClosesItsStream) {
  ASSERT_TRUE(trigger_.StartTrigger());
  // The stream of a process is named after its executable without the extension.
  const std::string stem = "nuvtrig" + std::to_string(getpid());
  filetest::Sleeper child(dir_ + "/" + stem + ".bin");
  const std::string exit = "U " + child.image + " " + std::to_string(child.pid);
  ASSERT_TRUE(child.pid > 0 && recorder_.WaitFor(child.Started())) << child.Started();
  const Lines exits = recorder_.Calls("U");
  EXPECT_EQ(std::count(exits.begin(), exits.end(), exit), 0);

  CFileClassify classify = filetest::Classify(stem, child.id(), 100);
  ASSERT_EQ(CSingleton<CFileManager>::GetInstance().WriteFile(classify, "{\"cpu\": 1}").code, 0);
  const fs::path content = fs::canonical(classify.GetContentPath());  // the kernel's spelling
  ASSERT_TRUE(HoldsOpen(content));

  child.Kill();
  ASSERT_TRUE(recorder_.WaitFor(exit)) << exit;
  // Events are handled one after another: once a later start is in, the exit is done.
  filetest::Sleeper marker(dir_ + "/" + stem + "marker");
  ASSERT_TRUE(recorder_.WaitFor(marker.Started())) << marker.Started();
  EXPECT_FALSE(HoldsOpen(content) || HoldsOpen(fs::canonical(classify.GetIndexPath())));
  EXPECT_EQ(nuvtest::ReadFile(content), "{\"cpu\": 1}");  // closed, not dropped
}

}  // namespace
