// The daemon run as an operator runs it, from a copy of the build tree laid out as installed.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
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

std::string Bp(nuvtest::DaemonTree& tree, int n) {
  const nuvtest::RunResult r = tree.Nuvctl(
      {"bp", "--type", "512", "--focus", "/usr/bin/hupagent:" + std::to_string(n), "--echo"});
  EXPECT_EQ(r.code, 0) << r.err;
  return r.out.substr(0, r.out.find('\n'));
}

// logrotate moves the file away and sends SIGHUP: the daemon writes to a new file at the old
// path and goes on serving; a stop by SIGINT afterwards keeps every acknowledged record.
TEST(Daemon, SighupReopensARotatedLogAndLosesNothing) {
  nuvtest::DaemonTree tree;
  ASSERT_TRUE(tree.ok());
  ASSERT_TRUE(tree.StartServing()) << tree.DaemonErr();
  std::string expected;
  for (int i = 0; i < 3; ++i) expected += Bp(tree, i) + "\n";
  const std::string log = tree.Sub("maint.log");
  ASSERT_EQ(::rename(log.c_str(), (log + ".1").c_str()), 0);
  ASSERT_EQ(::kill(tree.pid(), SIGHUP), 0);
  for (int i = 0; i < 200 && tree.Count("nuv_maintd: SIGHUP received, log reopened") == 0; ++i)
    ::usleep(10000);
  EXPECT_EQ(tree.Count("nuv_maintd: SIGHUP received, log reopened"), 1);
  for (int i = 3; i < 5; ++i) expected += Bp(tree, i) + "\n";
  ASSERT_EQ(::kill(tree.pid(), SIGINT), 0);
  EXPECT_EQ(tree.Wait(), 0) << tree.DaemonErr();
  // Lines after the reopen reach the new file only.
  EXPECT_EQ(nuvtest::ReadFile(log + ".1").find("log reopened"), std::string::npos);
  EXPECT_GT(tree.Messages().size(), 1u);
  const nuvtest::RunResult cat = tree.Nuvctl({"store", "cat", "hupagent", "0", "512"});
  EXPECT_EQ(cat.code, 0) << cat.err;
  EXPECT_EQ(cat.out, expected);
}

// Under systemd stderr is the journal's stream: each line starts with its priority. In a log
// file NUV_LOG_TIME puts the local time first. The line's own text is the same either way.
TEST(Daemon, LinesCarryJournalPriorityOrTime) {
  nuvtest::DaemonTree tree({"nuv_maintd"});
  ASSERT_TRUE(tree.ok());
  tree.SetEnv("NUV_LOG_TIME=1");
  ASSERT_TRUE(tree.StartServing()) << tree.DaemonErr();
  EXPECT_EQ(tree.Stop(), 0);
  const std::regex stamped(
      R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d{4} \[PID:\d+ *\]\t\[(INFO|DEBUG|WARN|ERROR)\]\t.*)");
  const std::vector<std::string> timed = nuvtest::ReadLines(tree.Sub("maint.log"));
  ASSERT_GE(timed.size(), 3u);
  for (const std::string& line : timed) EXPECT_TRUE(std::regex_match(line, stamped)) << line;

  // Spawn truncates the existing file, so its inode is the one the daemon's stderr gets.
  const std::string err = tree.Sub("daemon.err");
  ASSERT_TRUE(nuvtest::WriteFile(err, ""));
  struct stat st {};
  ASSERT_EQ(::stat(err.c_str(), &st), 0);
  tree.SetEnv("NUV_LOG_FILE");
  tree.SetEnv("JOURNAL_STREAM=" + std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino));
  ASSERT_TRUE(tree.StartServing()) << tree.DaemonErr();
  EXPECT_EQ(tree.Stop(), 0);
  const std::vector<std::string> journal = nuvtest::ReadLines(err);
  size_t library = 0;
  const char* const priority[][2] = {
      {"<3>", "[ERROR]"}, {"<4>", "[WARN]"}, {"<6>", "[INFO]"}, {"<7>", "[DEBUG]"}};
  for (const std::string& line : journal) {
    if (line.find("[PID:") == std::string::npos) continue;  // the daemon's own words
    ++library;
    bool matched = false;
    for (const auto& p : priority)
      matched |= line.rfind(std::string(p[0]) + "[PID:", 0) == 0 &&
                 line.find(std::string("\t") + p[1] + "\t") != std::string::npos;
    EXPECT_TRUE(matched) << line;
  }
  EXPECT_GE(library, timed.size() - 1);
}

}  // namespace
