// The exported entry points, called as a host calls them. The test binary lives in build/tests,
// so the library finds the shipped configuration at build/config/maintenance.json.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>
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
  // Log lines with their "[PID:...]\t[LEVEL]\t[ZOR]      [source(line)] " prefix checked and cut.
  std::vector<std::string> Messages() {
    std::vector<std::string> out;
    char prefix[32];
    snprintf(prefix, sizeof prefix, "[PID:%-5ld]\t", static_cast<long>(getpid()));
    for (const auto& line : nuvtest::ReadLines(log_)) {
      EXPECT_EQ(line.rfind(prefix, 0), 0u) << line;
      size_t tag = line.find("\t[ZOR]      [");
      size_t src = line.find(")] ", tag);
      if (tag == std::string::npos || src == std::string::npos) {
        ADD_FAILURE() << "malformed line: " << line;
        continue;
      }
      out.push_back(line.substr(strlen(prefix), tag - strlen(prefix)) + " " + line.substr(src + 3));
    }
    return out;
  }
  nuvtest::TempDir dir_;
  std::string log_;
};

TEST_F(Export, StartLoadsConfigurationOnceAndStopIsIdempotent) {
  nuv_stop_perf_manager();  // before start: touches nothing, the log is not even opened
  EXPECT_EQ(nuv_start_perf_manager(), NUV_MAINT_OK);
  size_t after_first = Messages().size();
  EXPECT_EQ(nuv_start_perf_manager(), NUV_MAINT_OK);  // already started: nothing logged
  auto lines = Messages();
  EXPECT_EQ(lines.size(), after_first);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines.front(), "[INFO] [ConfigMgr]::LoadConfig start.");
  std::string debug;
  for (const auto& l : lines)
    if (l.rfind("[DEBUG] [nuv_maintain]", 0) == 0) debug = l;
  EXPECT_EQ(debug.rfind("[DEBUG] [nuv_maintain] maintain log file path is: [/", 0), 0u) << debug;
  EXPECT_EQ(debug.substr(debug.size() - 6), "/data]") << debug;

  nuv_stop_perf_manager();
  size_t after_stop = Messages().size();
  nuv_stop_perf_manager();
  // The log was stopped: further lines no longer reach the file.
  nuv_log_output(NUV_LOG_ERROR, "after stop");
  EXPECT_EQ(Messages().size(), after_stop);
}

TEST_F(Export, RegisterValidatesBeforeAnythingElse) {
  ASSERT_EQ(nuv_log_start(0), 0);
  EXPECT_EQ(nuv_register_perf_monitor(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                      nullptr, nullptr, nullptr, nullptr),
            NUV_MAINT_INVALID_PARAMETER);
  EXPECT_EQ(nuv_register_perf_monitor("cpu", "", "n", "s", "p", "1", "no-colon", "h:t", "C>1/60",
                                      ""),
            NUV_MAINT_INVALID_PARAMETER);
  // Valid: the manager takes monitors before start too.
  EXPECT_EQ(nuv_register_perf_monitor("cpu", "", "n", "s", "p", "1", "system:0",
                                      "maintenance:reciver", "C>90/60", ""),
            NUV_MAINT_OK);
  // A file that no process runs: filed and waiting, so the same id again is refused.
  const std::string focus = nuvtest::BuildDir() + "/lib/libnuv_maintaince.so:999999999";
  for (uint32_t expected : {NUV_MAINT_OK, NUV_MAINT_REFUSED}) {
    EXPECT_EQ(nuv_register_perf_monitor("Waiting", "", "n", "s", "p", "1", focus.c_str(),
                                        "maintenance:reciver", "C>90/60", ""),
              expected);
  }
  nuv_unregister_perf_monitor(nullptr);
  nuv_unregister_perf_monitor(" WAITING ");
  nuv_unregister_perf_monitor("cpu");
  // Both are gone: the waiting one registers afresh.
  EXPECT_EQ(nuv_register_perf_monitor("waiting", "", "n", "s", "p", "1", focus.c_str(),
                                      "maintenance:reciver", "C>90/60", ""),
            NUV_MAINT_OK);
  nuv_unregister_perf_monitor("waiting");
  auto lines = Messages();
  std::multiset<std::string> errors;
  for (const auto& l : lines)
    if (l.rfind("[ERROR] [nuv_maintenance]", 0) == 0) errors.insert(l);
  EXPECT_EQ(errors.count("[ERROR] [nuv_maintenance]::nuv_register_perf_monitor invalid parameters."),
            2u);
  EXPECT_EQ(errors.count(
                "[ERROR] [nuv_maintenance]::nuv_register_perf_monitor register monitor failed."),
            1u);
  std::vector<std::string> unregistered;
  for (const auto& l : lines)
    if (l.rfind("[DEBUG] [nuv_maintain] unregister", 0) == 0) unregistered.push_back(l);
  EXPECT_EQ(unregistered,
            (std::vector<std::string>{
                "[DEBUG] [nuv_maintain] unregister monitor [waiting] succeeded, exactly num: 0, "
                "nonexactly num: 0",
                "[DEBUG] [nuv_maintain] unregister monitor [cpu] succeeded, exactly num: 0, "
                "nonexactly num: 0",
                "[DEBUG] [nuv_maintain] unregister monitor [waiting] succeeded, exactly num: 0, "
                "nonexactly num: 0"}));
}

TEST(ExportSymbols, ExactlyTheFourEntryPoints) {
  char exe[4096];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  ASSERT_GT(n, 0);
  exe[n] = '\0';
  std::string dir(exe);
  dir = dir.substr(0, dir.rfind('/'));
  std::string cmd =
      "nm -D --defined-only " + dir.substr(0, dir.rfind('/')) + "/lib/libnuv_maintaince.so";
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
  std::set<std::string> expected = {"nuv_register_perf_monitor", "nuv_start_perf_manager",
                                    "nuv_stop_perf_manager", "nuv_unregister_perf_monitor"};
  EXPECT_EQ(names, expected);
}

}  // namespace
