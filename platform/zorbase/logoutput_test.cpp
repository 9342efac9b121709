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
  std::string path_ = dir_.Sub("test.log");
};

TEST_F(Log, LinesFromManyThreadsNeverInterleave) {
  const int kThreads = 8, kLines = 10000;
  const std::string payload(64, 'p');
  std::vector<std::thread> ts;
  for (int t = 0; t < kThreads; ++t) {
    ts.emplace_back([t, &payload] {
      for (int i = 0; i < kLines; ++i)
        nuv_log_output(NUV_LOG_INFO, "thread %d line %06d %s", t, i, payload.c_str());
    });
  }
  for (auto& th : ts) th.join();
  auto lines = nuvtest::ReadLines(path_);
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
  std::map<int, int> next;
  for (const auto& l : lines) {
    int t = -1, i = -1;
    char tail[128] = {};
    ASSERT_EQ(sscanf(l.c_str(), "thread %d line %d %127s", &t, &i, tail), 3) << l;
    ASSERT_EQ(tail, payload) << l;
    EXPECT_EQ(i, next[t]++) << "thread " << t << " out of order";
  }
}

TEST_F(Log, LevelFilterLongLinesReopenAndBadPath) {
  nuv_log_set_level(NUV_LOG_WARN);
  nuv_log_output(NUV_LOG_INFO, "dropped");
  nuv_log_output(NUV_LOG_WARN, "kept %d", 1);
  std::string big(100000, 'x');
  nuv_log_output(NUV_LOG_ERROR, "%s", big.c_str());
  ASSERT_EQ(nuv_log_start(0), 0);  // reopen: appends, nothing lost
  errno = 1234;
  nuv_log_output(NUV_LOG_ERROR, "errno survives");
  EXPECT_EQ(errno, 1234);
  nuv_log_set_file(dir_.Sub("no/such/dir/x.log").c_str());
  EXPECT_EQ(nuv_log_start(0), -1);
  nuv_log_output(NUV_LOG_ERROR, "to stderr");
  EXPECT_EQ(nuvtest::ReadLines(path_), (std::vector<std::string>{"kept 1", big, "errno survives"}));
}

}  // namespace
