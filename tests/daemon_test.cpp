// The daemon run as an operator runs it, from a copy of the build tree laid out as installed.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "testutil/testutil.h"

namespace {

class Daemon : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(nuvtest::MakeInstallTree(tree_, {"nuv_maintd"}));
    config_ = nuvtest::ReadFile(nuvtest::BuildDir() + "/config/maintenance.json");
    ASSERT_FALSE(config_.empty());
  }

  // Starts the daemon with stdout and stderr to files, the log to another and a private bus.
  int Spawn(std::vector<std::string> args) {
    args.insert(args.begin(), tree_.Sub("bin/nuv_maintd"));
    return nuvtest::Spawn(args,
                          {"NUV_LOG_FILE=" + tree_.Sub("maint.log"),
                           "NUV_COMM_DIR=" + tree_.Sub("bus")},
                          "", tree_.Sub("stdout"), tree_.Sub("stderr"));
  }

  int Wait(int pid) { return nuvtest::WaitExit(pid); }

  bool WaitForStderr(const std::string& text) {
    for (int i = 0; i < 500; ++i) {
      if (nuvtest::ReadFile(tree_.Sub("stderr")).find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  // The log's messages, without the line prefix up to and including "] ".
  std::vector<std::string> Messages() {
    std::vector<std::string> out;
    for (const auto& l : nuvtest::ReadLines(tree_.Sub("maint.log"))) {
      size_t p = l.find(")] ");
      out.push_back(p == std::string::npos ? l : l.substr(p + 3));
    }
    return out;
  }

  nuvtest::TempDir tree_;
  std::string config_;
};

TEST_F(Daemon, RunsWithTheDefaultConfigurationUntilSigterm) {
  ASSERT_TRUE(nuvtest::WriteFile(tree_.Sub("config/maintenance.json"), config_));
  pid_t pid = Spawn({"--log-level", "3"});
  ASSERT_TRUE(WaitForStderr("started")) << nuvtest::ReadFile(tree_.Sub("stderr"));
  EXPECT_TRUE(nuvtest::ProcessExists(pid));
  kill(pid, SIGTERM);
  EXPECT_EQ(Wait(pid), 0) << nuvtest::ReadFile(tree_.Sub("stderr"));
  auto m = Messages();
  ASSERT_GE(m.size(), 3u);
  EXPECT_EQ(m.front(), "[ConfigMgr]::LoadConfig start.");
  // "../data" in the configuration is resolved against the daemon's own directory.
  EXPECT_NE(std::find(m.begin(), m.end(),
                      "[nuv_maintain] maintain log file path is: [" + tree_.Sub("data") + "]"),
            m.end());
}

TEST_F(Daemon, ExplainsAMissingConfigurationAndExitsOne) {
  pid_t pid = Spawn({});
  EXPECT_EQ(Wait(pid), 1);
  std::string err = nuvtest::ReadFile(tree_.Sub("stderr"));
  EXPECT_NE(err.find("0x84CE000C (start failed)"), std::string::npos) << err;
  EXPECT_NE(err.find(tree_.Sub("config/maintenance.json")), std::string::npos) << err;
  auto m = Messages();
  ASSERT_EQ(m.size(), 3u);
  EXPECT_EQ(m[1], "[ConfigMgr]::LoadConfig faild, not find config file " + tree_.Sub("bin") +
                      "/../config/maintenance.json.");
  EXPECT_EQ(m[2], "[nuv_maintenance]::nuv_start_perf_manager load config failed.");
}

TEST_F(Daemon, BrokenConfigurationAndBadArguments) {
  ASSERT_TRUE(nuvtest::WriteFile(tree_.Sub("config/maintenance.json"), "{ not json"));
  EXPECT_EQ(Wait(Spawn({})), 1);
  EXPECT_EQ(Messages().at(1), "[ConfigMgr]::LoadConfig faild, parse config file failed.");

  EXPECT_EQ(Wait(Spawn({"--log-level", "9"})), 2);
  EXPECT_NE(nuvtest::ReadFile(tree_.Sub("stderr")).find("--log-level takes 0, 1, 2 or 3"),
            std::string::npos);
  EXPECT_EQ(Wait(Spawn({"--bogus"})), 2);
  EXPECT_EQ(Wait(Spawn({"--help"})), 0);
  EXPECT_NE(nuvtest::ReadFile(tree_.Sub("stdout")).find("usage: nuv_maintd"), std::string::npos);
}

}  // namespace
