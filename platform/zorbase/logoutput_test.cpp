#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "nuv_log.h"
#include "testutil/testutil.h"

namespace {

class Log : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = dir_.Sub("test.log");
    nuv_log_set_file(path_.c_str());
    nuv_log_set_level(NUV_LOG_DEBUG);
    ASSERT_EQ(nuv_log_start(0), 0);
  }
  void TearDown() override {
    nuv_log_stop();
    nuv_log_set_file(nullptr);
    nuv_log_set_level(NUV_LOG_INFO);
  }
  nuvtest::TempDir dir_;
  std::string path_;
};

TEST_F(Log, LinesFromManyThreadsNeverInterleave) {
  const int kThreads = 8, kLines = 10000;
  std::vector<std::thread> ts;
  for (int t = 0; t < kThreads; ++t) {
    ts.emplace_back([t] {
      for (int i = 0; i < kLines; ++i)
        nuv_log_output(NUV_LOG_INFO, "[PID:%-5ld]\tthread %d line %06d %s", (long)getpid(), t, i,
                       "payload-payload-payload-payload-payload-payload-payload-payload");
    });
  }
  for (auto& th : ts) th.join();
  auto lines = nuvtest::ReadLines(path_);
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
  std::map<int, int> next;
  for (const auto& l : lines) {
    int t = -1, i = -1;
    char tail[128] = {};
    ASSERT_EQ(sscanf(l.c_str(), "[PID:%*d ]\tthread %d line %d %127s", &t, &i, tail), 3) << l;
    ASSERT_STREQ(tail, "payload-payload-payload-payload-payload-payload-payload-payload") << l;
    EXPECT_EQ(i, next[t]++) << "thread " << t << " out of order";
  }
}

TEST_F(Log, LevelFilterLongLinesAndStop) {
  nuv_log_set_level(NUV_LOG_WARN);
  nuv_log_output(NUV_LOG_INFO, "dropped");
  nuv_log_output(NUV_LOG_WARN, "kept %d", 1);
  nuv_log_output(NUV_LOG_ERROR, "kept %d", 2);
  std::string big(100000, 'x');
  nuv_log_output(NUV_LOG_ERROR, "%s", big.c_str());
  errno = 1234;
  nuv_log_output(NUV_LOG_ERROR, "errno survives");
  EXPECT_EQ(errno, 1234);
  nuv_log_stop();
  nuv_log_output(NUV_LOG_ERROR, "to stderr after stop");
  auto lines = nuvtest::ReadLines(path_);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], "kept 1");
  EXPECT_EQ(lines[1], "kept 2");
  EXPECT_EQ(lines[2], big);
  EXPECT_EQ(lines[3], "errno survives");
}

TEST_F(Log, StartAppendsAndFailsCleanlyOnBadPath) {
  nuv_log_output(NUV_LOG_INFO, "first");
  ASSERT_EQ(nuv_log_start(0), 0);  // reopen: appends, nothing lost
  nuv_log_output(NUV_LOG_INFO, "second");
  EXPECT_EQ(nuvtest::ReadFile(path_), "first\nsecond\n");

  nuv_log_set_file(dir_.Sub("no/such/dir/x.log").c_str());
  EXPECT_EQ(nuv_log_start(0), -1);
  nuv_log_output(NUV_LOG_INFO, "goes to stderr");
  EXPECT_EQ(nuvtest::ReadFile(path_), "first\nsecond\n");
}

}  // namespace
