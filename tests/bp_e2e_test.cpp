// Burying points from other processes into the running daemon's store: posted over the bus by
// this test process and by nuvctl, read back from the store as an operator would.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "nuv_comm.h"
#include "testutil/testutil.h"

namespace {

const char kTopic[] = "maintenance:POST";

std::string Point(const std::string& focus, const std::string& agentId = "\"a-1\"") {
  return R"({"header":{"type":256,"version":"1.0","focus":")" + focus +
         R"(","id":"x1","name":"n","module":"m","function":"f","time":"t","product":"p",)"
         R"("product_version":"1","agent_id":)" +
         agentId + R"(},"body":{"time_start":1,"time_end":3,"time_diff":2}})";
}

int Post(const std::string& text) {
  comm_data* data = nuv_comm_new_data(text.data(), static_cast<unsigned int>(text.size()));
  const int result = nuv_comm_post(kTopic, data);
  nuv_comm_delete_data(data);
  return result;
}

class BpEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(nuvtest::MakeInstallTree(tree_, {"nuv_maintd", "nuvctl"}));
    // The default configuration keeps the store in "../data": beside bin/ of the tree.
    ASSERT_TRUE(
        nuvtest::WriteFile(tree_.Sub("config/maintenance.json"),
                           nuvtest::ReadFile(nuvtest::BuildDir() + "/config/maintenance.json")));
    env_ = {"NUV_COMM_DIR=" + tree_.Sub("comm"), "NUV_LOG_FILE=" + tree_.Sub("maint.log")};
    setenv("NUV_COMM_DIR", tree_.Sub("comm").c_str(), 1);
    ASSERT_EQ(nuv_comm_init(), 0);
    daemon_ = nuvtest::Spawn({tree_.Sub("bin/nuv_maintd"), "--log-level", "3"}, env_, "",
                             tree_.Sub("daemon.out"), tree_.Sub("daemon.err"));
    for (int i = 0; i < 500 && Stderr().find("started") == std::string::npos; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_NE(Stderr().find("started"), std::string::npos) << Stderr();
  }

  void TearDown() override {
    if (daemon_ > 0) StopDaemon();
    nuv_comm_uninit();
  }

  std::string Stderr() { return nuvtest::ReadFile(tree_.Sub("daemon.err")); }

  // SIGTERM; the daemon's exit writes out what the store still buffers.
  void StopDaemon() {
    kill(daemon_, SIGTERM);
    EXPECT_EQ(nuvtest::WaitExit(daemon_), 0) << Stderr();
    daemon_ = -1;
  }

  // nuvctl's exit code and standard output.
  std::pair<int, std::string> Nuvctl(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), tree_.Sub("bin/nuvctl"));
    nuvtest::WriteFile(tree_.Sub("nuvctl.in"), input);
    const int code = nuvtest::WaitExit(nuvtest::Spawn(
        args, env_, tree_.Sub("nuvctl.in"), tree_.Sub("nuvctl.out"), tree_.Sub("nuvctl.err")));
    EXPECT_NE(code, 2) << nuvtest::ReadFile(tree_.Sub("nuvctl.err"));
    return {code, nuvtest::ReadFile(tree_.Sub("nuvctl.out"))};
  }

  bool Logged(const std::string& message) {
    const std::string tail = ")] " + message;
    for (const std::string& line : nuvtest::ReadLines(tree_.Sub("maint.log"))) {
      if (line.size() >= tail.size() &&
          line.compare(line.size() - tail.size(), tail.size(), tail) == 0) {
        return true;
      }
    }
    return false;
  }

  nuvtest::TempDir tree_;
  std::vector<std::string> env_;
  int daemon_ = -1;
};

TEST_F(BpEndToEnd, PointsFromOtherProcessesAreStoredAsPosted) {
  const std::string direct = Point("/usr/bin/e2eagent:4321");
  EXPECT_EQ(Post(direct), 0);
  EXPECT_EQ(Post(Point("/usr/bin/e2eagent:1", "7")), static_cast<int>(0x84CE0004u));

  auto [code, out] = Nuvctl({"bp", "--type", "256", "--focus", "/opt/e2eagent:99", "--echo"});
  const std::string built = out.substr(0, out.find('\n'));
  EXPECT_EQ(code, 0);
  EXPECT_EQ(out, built + "\n0x00000000 (success)\n");

  // Layout and spacing of the posted text are kept.
  const std::string fromFile = "{ \"extra\": 1,\n" + Point("e2eagent:0").substr(1);
  ASSERT_TRUE(nuvtest::WriteFile(tree_.Sub("point.json"), fromFile));
  EXPECT_EQ(Nuvctl({"post", kTopic, tree_.Sub("point.json")}),
            std::make_pair(0, std::string("0x00000000 (success)\n")));
  std::string unsupported = Point("/bin/e2eagent:1");
  unsupported.replace(unsupported.find("\"1.0\""), 5, "\"1.00\"");
  EXPECT_EQ(Nuvctl({"post", kTopic, "-"}, unsupported),
            std::make_pair(1, std::string("0x84CE0004 (burying point invalid)\n")));

  StopDaemon();
  EXPECT_EQ(Nuvctl({"store", "cat", "e2eagent", "0", "256"}),
            std::make_pair(0, direct + "\n" + built + "\n" + fromFile + "\n"));
  char day[16];
  const std::time_t now = std::time(nullptr);
  std::strftime(day, sizeof day, "%Y%m%d", std::localtime(&now));
  EXPECT_EQ(nuvtest::ReadFile(tree_.Sub("data/") + day + "/e2eagent/e2eagent-0-256"),
            direct + built + fromFile);

  EXPECT_TRUE(Logged("[bpmgr]start buryingpoint mgr success."));
  EXPECT_TRUE(Logged("[bpmgr] check bp data failed with error:102-bp header/agent_id is invalid"));
  EXPECT_TRUE(
      Logged("[bpmgr] check bp data failed with error:102-BP header/type:1.00 is not support"));
  EXPECT_TRUE(Logged("[bpmgr]stop buryingpoint mgr."));
}

TEST_F(BpEndToEnd, ConcurrentPostersLoseNothing) {
  constexpr int kThreads = 4;
  constexpr int kEach = 25;
  std::vector<std::thread> posters;
  std::vector<int> failures(kThreads, 0);
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([t, &failures] {
      for (int i = 0; i < kEach; ++i)
        failures[t] += Post(Point("/bin/crowd:" + std::to_string(t * 100 + i))) != 0;
    });
  }
  for (std::thread& poster : posters) poster.join();
  EXPECT_EQ(failures, std::vector<int>(kThreads, 0));
  StopDaemon();

  const auto [code, out] = Nuvctl({"store", "cat", "crowd", "0", "256"});
  ASSERT_EQ(code, 0);
  std::vector<std::string> expected;
  std::vector<std::string> records;
  std::istringstream lines(out);
  for (std::string record; std::getline(lines, record);) records.push_back(record);
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kEach; ++i)
      expected.push_back(Point("/bin/crowd:" + std::to_string(t * 100 + i)));
  }
  std::sort(records.begin(), records.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(records, expected);
}

}  // namespace
