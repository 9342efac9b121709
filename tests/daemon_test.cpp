// The daemon run as an operator runs it, from a copy of the build tree laid out as installed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "testutil/testutil.h"

namespace {

TEST(Daemon, RunsWithTheDefaultConfigurationUntilSigterm) {
  nuvtest::DaemonTree tree({"nuv_maintd"});
  ASSERT_TRUE(tree.ok());
  ASSERT_TRUE(tree.StartServing()) << tree.DaemonErr();
  EXPECT_EQ(tree.Stop(), 0) << tree.DaemonErr();
  const std::vector<std::string> m = tree.Messages();
  ASSERT_GE(m.size(), 3u);
  EXPECT_EQ(m.front(), "[ConfigMgr]::LoadConfig start.");
  // "../data" in the configuration is resolved against the daemon's own directory.
  EXPECT_NE(std::find(m.begin(), m.end(),
                      "[nuv_maintain] maintain log file path is: [" + tree.Sub("data") + "]"),
            m.end());
}

TEST(Daemon, MissingOrBrokenConfigurationAndBadArguments) {
  nuvtest::DaemonTree tree({"nuv_maintd"});
  ASSERT_TRUE(tree.ok());
  ASSERT_EQ(::unlink(tree.ConfigPath().c_str()), 0);
  tree.Start({});
  EXPECT_EQ(tree.Wait(), 1);
  EXPECT_NE(tree.DaemonErr().find("0x84CE000C (start failed)"), std::string::npos);
  EXPECT_NE(tree.DaemonErr().find(tree.ConfigPath()), std::string::npos) << tree.DaemonErr();
  EXPECT_EQ(tree.Messages(), (std::vector<std::string>{
                                 "[ConfigMgr]::LoadConfig start.",
                                 "[ConfigMgr]::LoadConfig faild, not find config file " +
                                     tree.Sub("bin") + "/../config/maintenance.json.",
                                 "[nuv_maintenance]::nuv_start_perf_manager load config failed."}));

  ASSERT_TRUE(nuvtest::WriteFile(tree.ConfigPath(), "{ not json"));
  const struct {
    std::vector<std::string> args;
    int code;
    std::string text;  // in standard output for 0, in standard error otherwise
  } cases[] = {
      {{}, 1, "0x84CE000C (start failed)"},
      {{"--log-level", "9"}, 2, "--log-level takes 0, 1, 2 or 3"},
      {{"--bogus"}, 2, "--bogus"},
      {{"--help"}, 0, "usage: nuv_maintd"},
  };
  for (const auto& c : cases) {
    tree.Start(c.args);
    EXPECT_EQ(tree.Wait(), c.code) << c.text;
    const std::string text = c.code == 0 ? tree.DaemonOut() : tree.DaemonErr();
    EXPECT_NE(text.find(c.text), std::string::npos) << text;
  }
  EXPECT_EQ(tree.Count("[ConfigMgr]::LoadConfig faild, parse config file failed."), 1);
}

}  // namespace
