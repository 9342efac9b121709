// The exported entry points, called as a host calls them. The test binary lives in build/tests, so
// the library finds the shipped configuration at build/config/maintenance.json.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "nuv_log.h"
#include "nuv_maintenance.h"
#include "testutil/testutil.h"

namespace {

class Export : public ::testing::Test {
 protected:
  void SetUp() override {
    // The library serves bus topics once started; keep them away from the machine's own.
    setenv("NUV_COMM_DIR", dir_.Sub("bus").c_str(), 1);
    log_ = dir_.Sub("maint.log");
    nuv_log_set_file(log_.c_str());
    nuv_log_set_level(NUV_LOG_DEBUG);
  }
  void TearDown() override {
    nuv_stop_perf_manager();
    nuv_log_stop();
    nuv_log_set_file(nullptr);
  }
  // The log's lines, each as "[LEVEL] message".
  std::vector<std::string> Messages() {
    std::vector<std::string> out;
    for (const auto& line : nuvtest::ReadLines(log_)) out.push_back(nuvtest::Message(line));
    return out;
  }
  size_t Count(const std::string& message) {
    const std::vector<std::string> lines = Messages();
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), message));
  }
  nuvtest::TempDir dir_;
  std::string log_;
};

TEST_F(Export, StartLoadsConfigurationOnceAndStopIsIdempotent) {
  nuv_stop_perf_manager();  // before start: touches nothing, the log is not even opened
  EXPECT_EQ(nuv_start_perf_manager(), NUV_MAINT_OK);
  const size_t afterFirst = Messages().size();
  EXPECT_EQ(nuv_start_perf_manager(), NUV_MAINT_OK);  // already started: nothing logged
  const std::vector<std::string> lines = Messages();
  EXPECT_EQ(lines.size(), afterFirst);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines.front(), "[INFO] [ConfigMgr]::LoadConfig start.");
  // "../data" resolved against build/tests, the test binary's directory.
  EXPECT_EQ(
      Count("[DEBUG] [nuv_maintain] maintain log file path is: [" + nuvtest::BuildDir() + "/data]"),
      1u);

  nuv_stop_perf_manager();
  const size_t afterStop = Messages().size();
  nuv_stop_perf_manager();
  // The log was stopped: further lines no longer reach the file.
  nuv_log_output(NUV_LOG_ERROR, "after stop");
  EXPECT_EQ(Messages().size(), afterStop);
}

TEST_F(Export, RegisterValidatesBeforeAnythingElse) {
  ASSERT_EQ(nuv_log_start(0), 0);
  EXPECT_EQ(nuv_register_perf_monitor(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                      nullptr, nullptr, nullptr),
            NUV_MAINT_INVALID_PARAMETER);
  // A file that no process runs: filed and waiting, so the same id again is refused.
  const std::string waiting = nuvtest::BuildDir() + "/lib/libnuv_maintaince.so:999999999";
  const struct {
    const char* id;
    std::string focus;
    uint32_t result;
  } rows[] = {
      {"cpu", "no-colon", NUV_MAINT_INVALID_PARAMETER},
      {"cpu", "system:0", NUV_MAINT_OK},  // the manager takes monitors before start too
      {"Waiting", waiting, NUV_MAINT_OK},
      {"Waiting", waiting, NUV_MAINT_REFUSED},
  };
  for (const auto& r : rows) {
    EXPECT_EQ(nuv_register_perf_monitor(r.id, "", "n", "s", "p", "1", r.focus.c_str(),
                                        "maintenance:reciver", "C>90/60", ""),
              r.result)
        << r.id << " " << r.focus;
  }
  nuv_unregister_perf_monitor(nullptr);
  nuv_unregister_perf_monitor(" WAITING ");
  nuv_unregister_perf_monitor("cpu");
  // Both are gone: the waiting one registers afresh.
  EXPECT_EQ(nuv_register_perf_monitor("waiting", "", "n", "s", "p", "1", waiting.c_str(),
                                      "maintenance:reciver", "C>90/60", ""),
            NUV_MAINT_OK);
  const std::string unregistered = "] succeeded, exactly num: 0, nonexactly num: 0";
  EXPECT_EQ(Count("[ERROR] [nuv_maintenance]::nuv_register_perf_monitor invalid parameters."), 2u);
  EXPECT_EQ(Count("[ERROR] [nuv_maintenance]::nuv_register_perf_monitor register monitor failed."),
            1u);
  EXPECT_EQ(Count("[DEBUG] [nuv_maintain] unregister monitor [waiting" + unregistered), 1u);
  EXPECT_EQ(Count("[DEBUG] [nuv_maintain] unregister monitor [cpu" + unregistered), 1u);
}

// A host thread whose duplicate was refused keeps the manager's lock; the host's other threads
// still register, and stop still completes, within the platform lock's bound.
TEST_F(Export, AHostStaysLiveAfterARefusedDuplicate) {
  ASSERT_EQ(nuv_start_perf_manager(), NUV_MAINT_OK);
  const std::string waiting = nuvtest::BuildDir() + "/lib/libnuv_maintaince.so:999999999";
  auto reg = [](const char* id, const std::string& focus) {
    return nuv_register_perf_monitor(id, "", "n", "s", "p", "1", focus.c_str(),
                                     "maintenance:reciver", "C>90/60", "");
  };
  std::thread([&] {
    EXPECT_EQ(reg("dup", waiting), NUV_MAINT_OK);
    EXPECT_EQ(reg("dup", waiting), NUV_MAINT_REFUSED);
  }).join();
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  EXPECT_EQ(reg("later", "system:0"), NUV_MAINT_OK);
  nuv_unregister_perf_monitor("later");
  nuv_unregister_perf_monitor("dup");
  nuv_stop_perf_manager();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
}

TEST(ExportSymbols, ExactlyTheFourEntryPoints) {
  const std::string cmd =
      "nm -D --defined-only " + nuvtest::BuildDir() + "/lib/libnuv_maintaince.so";
  FILE* p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::set<std::string> names;
  char line[512];
  while (fgets(line, sizeof line, p)) {
    std::string s(line);
    s = s.substr(s.rfind(' ') + 1);
    s.pop_back();
    names.insert(s);
  }
  EXPECT_EQ(pclose(p), 0);
  EXPECT_EQ(names, (std::set<std::string>{"nuv_register_perf_monitor", "nuv_start_perf_manager",
                                          "nuv_stop_perf_manager", "nuv_unregister_perf_monitor"}));
}

}  // namespace
