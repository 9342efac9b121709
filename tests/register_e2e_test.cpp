// Monitors registered with the running daemon from another process, as an operator does with
// nuvctl, and what the daemon makes of them: workers, fired records in its store.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "testutil/testutil.h"

namespace {

TEST(RegisterEndToEnd, RegisteredMonitorFiresIntoTheStoreUntilUnregistered) {
  nuvtest::DaemonTree tree;
  ASSERT_TRUE(tree.ok());
  // The shipped configuration, sampling every second so that a monitor fires quickly.
  std::string config = nuvtest::ReadFile(tree.ConfigPath());
  const std::string frequency = "\"frequency\": 5";
  ASSERT_NE(config.find(frequency), std::string::npos);
  config.replace(config.find(frequency), frequency.size(), "\"frequency\": 1");
  ASSERT_TRUE(nuvtest::WriteFile(tree.ConfigPath(), config));
  ASSERT_TRUE(tree.StartServing()) << tree.DaemonErr();

  const std::vector<std::string> system = {"register", "--id",      "E2E-Sys",
                                           "--focus",  "system:0",  "--condition",
                                           "C>=0/2",   "--handler", "maintenance:reciver"};
  const struct {
    std::vector<std::string> args;
    int code;
    std::string out;
  } registrations[] = {
      {system, 0, "0x00000000 (success)\n"},
      // Its worker runs already: the daemon refuses to make another.
      {system, 1, "0x84CE0001 (refused, or a process could not be started)\n"},
      {{"register", "--id", "bad", "--focus", "no-colon", "--condition", "C>1/60", "--handler",
        "maintenance:reciver", "--no-check"},
       1,
       "0x84CE0002 (invalid parameters or data)\n"},
  };
  for (const auto& r : registrations) {
    const nuvtest::RunResult result = tree.Nuvctl(r.args);
    EXPECT_EQ(result.code, r.code) << result.err;
    EXPECT_EQ(result.out, r.out);
  }

  // Refused here, with the library's reasons, before anything is posted.
  const struct {
    std::string focus, condition, reason;
  } refusals[] = {
      {"no-colon", "C>1/60",
       "not posted: definition refused:\n  [CMonitorData]::CheckFocus focus invalid, not find `:`, "
       "id = local.\n"},
      // What an unquoted C>90 leaves after the shell took ">90" as a redirection.
      {"system:0", "C",
       "not posted: condition 'C' refused:\n  [CSlidingWindow]::check condition split failed. "
       "condition = C.\n  a condition is VALUE/SECONDS"},
      {"system:0", "C>>90/60",
       "\n  [Express]::Exception token = >.\n  [Express]::Exception position = 2.\n"},
  };
  for (const auto& r : refusals) {
    const nuvtest::RunResult result = tree.Nuvctl({"register", "--id", "local", "--focus", r.focus,
                                                   "--condition", r.condition, "--handler",
                                                   "maintenance:reciver"});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find(r.reason), std::string::npos) << result.err;
  }

  // The window holds two samples; once both were evaluated, the record was posted on the same
  // thread right after.
  for (int i = 0;
       i < 100 && tree.Count("[CSlidingWindow]::EvalExpress success. condition = C>=0.") < 2; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  // The daemon's own account: where each monitor came from, its target, that it fired and why.
  const nuvtest::RunResult fired = tree.Nuvctl({"monitors", "--json"});
  EXPECT_EQ(fired.code, 0) << fired.err;
  const std::string filed = R"({"id":"e2e-sys","kind":"exact","source":"bus","focus":"system:0",)"
                            R"("condition":"C>=0/2","handler":"maintenance:reciver",)"
                            R"("dependent_id":"","pending":false,"targets":[{"image":"system",)"
                            R"("pid":0}],"fired":)";
  EXPECT_NE(fired.out.find(filed), std::string::npos) << fired.out;
  EXPECT_EQ(fired.out.find(filed + "0,"), std::string::npos) << fired.out;
  EXPECT_NE(fired.out.find(R"("evidence":"{\"header\": {\"id\": \"e2e-sys\")"), std::string::npos)
      << fired.out;
  EXPECT_NE(fired.out.find(R"({"id":"system-cpu","kind":"exact","source":"config")"),
            std::string::npos);
  const nuvtest::RunResult unregistered = tree.Nuvctl({"unregister", "e2e-sys"});
  EXPECT_EQ(unregistered.code, 0) << unregistered.err;
  EXPECT_EQ(unregistered.out, "0x00000000 (success)\n");
  const nuvtest::RunResult gone = tree.Nuvctl({"monitors"});
  EXPECT_EQ(gone.code, 0) << gone.err;
  EXPECT_NE(gone.out.find("e2e-sys     gone  "), std::string::npos) << gone.out;
  EXPECT_EQ(tree.Stop(), 0) << tree.DaemonErr();

  const nuvtest::RunResult stored = tree.Nuvctl({"store", "cat", "system", "0", "100"});
  EXPECT_EQ(stored.code, 0);
  EXPECT_EQ(stored.out.rfind("{", 0), 0u) << stored.out;
  for (const char* message :
       {"[CommonPerfMgr]::CreateMonitor success, id = e2e-sys, code = 0, desc "
        "= success.",
        "[nuv_maintain] unregister monitor [e2e-sys] succeeded, exactly num: "
        "0, nonexactly num: 0",
        "[CMonitorData]::CheckFocus focus invalid, not find `:`, id = bad."}) {
    EXPECT_EQ(tree.Count(message), 1) << message;
  }
}

}  // namespace
