// Monitors registered with the running daemon from another process, as an operator does with
// nuvctl, and what the daemon makes of them: workers, fired records in its store.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "testutil/testutil.h"

namespace {

const char kSuccess[] = "0x00000000 (success)\n";

class RegisterEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(nuvtest::MakeInstallTree(tree_, {"nuv_maintd", "nuvctl"}));
    // The shipped configuration, sampling every second so that a monitor fires quickly.
    std::string config = nuvtest::ReadFile(nuvtest::BuildDir() + "/config/maintenance.json");
    const std::string frequency = "\"frequency\": 5";
    ASSERT_NE(config.find(frequency), std::string::npos);
    config.replace(config.find(frequency), frequency.size(), "\"frequency\": 1");
    ASSERT_TRUE(nuvtest::WriteFile(tree_.Sub("config/maintenance.json"), config));
    env_ = {"NUV_COMM_DIR=" + tree_.Sub("comm"), "NUV_LOG_FILE=" + tree_.Sub("maint.log")};
    daemon_ = nuvtest::Spawn({tree_.Sub("bin/nuv_maintd"), "--log-level", "3"}, env_, "",
                             tree_.Sub("daemon.out"), tree_.Sub("daemon.err"));
    for (int i = 0; i < 500 && Stderr().find("started") == std::string::npos; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_NE(Stderr().find("started"), std::string::npos) << Stderr();
  }

  void TearDown() override {
    if (daemon_ > 0) StopDaemon();
  }

  std::string Stderr() { return nuvtest::ReadFile(tree_.Sub("daemon.err")); }

  void StopDaemon() {
    kill(daemon_, SIGTERM);
    EXPECT_EQ(nuvtest::WaitExit(daemon_), 0) << Stderr();
    daemon_ = -1;
  }

  std::pair<int, std::string> Nuvctl(std::vector<std::string> args) {
    args.insert(args.begin(), tree_.Sub("bin/nuvctl"));
    const int code = nuvtest::WaitExit(
        nuvtest::Spawn(args, env_, "", tree_.Sub("nuvctl.out"), tree_.Sub("nuvctl.err")));
    return {code, nuvtest::ReadFile(tree_.Sub("nuvctl.out"))};
  }

  // Log lines whose message is `message`.
  int Count(const std::string& message) {
    const std::string tail = ")] " + message;
    int count = 0;
    for (const std::string& line : nuvtest::ReadLines(tree_.Sub("maint.log"))) {
      count += line.size() >= tail.size() &&
               line.compare(line.size() - tail.size(), tail.size(), tail) == 0;
    }
    return count;
  }
  bool Logged(const std::string& message) { return Count(message) > 0; }

  nuvtest::TempDir tree_;
  std::vector<std::string> env_;
  int daemon_ = -1;
};

TEST_F(RegisterEndToEnd, RegisteredMonitorFiresIntoTheStoreUntilUnregistered) {
  const std::vector<std::string> system = {"register",  "--id",        "E2E-Sys",
                                           "--focus",   "system:0",    "--condition",
                                           "C>=0/2",    "--handler",   "maintenance:reciver"};
  EXPECT_EQ(Nuvctl(system), std::make_pair(0, std::string(kSuccess)));
  // Its worker runs already: the daemon refuses to make another.
  EXPECT_EQ(Nuvctl(system),
            std::make_pair(1, std::string("0x84CE0001 (refused, or a process could not be "
                                          "started)\n")));
  EXPECT_EQ(Nuvctl({"register", "--id", "bad", "--focus", "no-colon", "--condition", "C>1/60",
                    "--handler", "maintenance:reciver"}),
            std::make_pair(1, std::string("0x84CE0002 (invalid parameters or data)\n")));
  EXPECT_EQ(Nuvctl({"register", "--id", "only-id"}).first, 2);

  // The window holds two samples; once both were evaluated, the record was posted on the same
  // thread right after.
  for (int i = 0; i < 100 && Count("[CSlidingWindow]::EvalExpress success. condition = C>=0.") < 2;
       ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));

  EXPECT_EQ(Nuvctl({"unregister", "e2e-sys"}), std::make_pair(0, std::string(kSuccess)));
  EXPECT_EQ(Nuvctl({"unregister", "never-registered"}), std::make_pair(0, std::string(kSuccess)));
  EXPECT_EQ(Nuvctl({"unregister"}).first, 2);
  StopDaemon();

  const std::pair<int, std::string> stored = Nuvctl({"store", "cat", "system", "0", "100"});
  EXPECT_EQ(stored.first, 0);
  EXPECT_EQ(stored.second.rfind("{", 0), 0u) << stored.second;
  EXPECT_TRUE(Logged("[CommonPerfMgr]::CreateMonitor success, id = e2e-sys, code = 0, desc = "
                     "success."));
  EXPECT_TRUE(Logged("[nuv_maintain] unregister monitor [e2e-sys] succeeded, exactly num: 0, "
                     "nonexactly num: 0"));
  EXPECT_TRUE(Logged("[CMonitorData]::CheckFocus focus invalid, not find `:`, id = bad."));
}

}  // namespace
