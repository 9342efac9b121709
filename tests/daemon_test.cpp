// The daemon run as an operator runs it, from a copy of the build tree laid out as installed.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "testutil/testutil.h"

namespace {

std::string BuildDir() {
  char exe[4096];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  exe[n > 0 ? n : 0] = '\0';
  std::string dir(exe);
  dir = dir.substr(0, dir.rfind('/'));  // <build>/tests
  return dir.substr(0, dir.rfind('/'));
}

class Daemon : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string build = BuildDir();
    for (const char* d : {"bin", "lib", "config"}) mkdir(tree_.Sub(d).c_str(), 0755);
    ASSERT_TRUE(nuvtest::WriteFile(tree_.Sub("bin/nuv_maintd"),
                                   nuvtest::ReadFile(build + "/bin/nuv_maintd")));
    chmod(tree_.Sub("bin/nuv_maintd").c_str(), 0755);
    // Every library the build made, so a new platform library needs no change here.
    DIR* libs = opendir((build + "/lib").c_str());
    ASSERT_NE(libs, nullptr);
    while (struct dirent* e = readdir(libs)) {
      std::string name = e->d_name;
      if (name.size() < 3 || name.compare(name.size() - 3, 3, ".so") != 0) continue;
      ASSERT_EQ(symlink((build + "/lib/" + name).c_str(), tree_.Sub("lib/" + name).c_str()), 0);
    }
    closedir(libs);
    config_ = nuvtest::ReadFile(build + "/config/maintenance.json");
    ASSERT_FALSE(config_.empty());
  }

  // Starts the daemon with stderr to a file and the log to another.
  pid_t Spawn(std::vector<std::string> args) {
    std::string exe = tree_.Sub("bin/nuv_maintd");
    std::vector<char*> argv{exe.data()};
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::string log_env = "NUV_LOG_FILE=" + tree_.Sub("maint.log");
    std::vector<char*> envp{log_env.data(), nullptr};
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 2, tree_.Sub("stderr").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&fa, 1, tree_.Sub("stdout").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    EXPECT_EQ(posix_spawn(&pid, exe.c_str(), &fa, nullptr, argv.data(), envp.data()), 0);
    posix_spawn_file_actions_destroy(&fa);
    return pid;
  }

  int Wait(pid_t pid) {
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

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
