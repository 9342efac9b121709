#include "handler/topicposter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "testutil/testutil.h"

namespace {

std::atomic<bool> reporting{false};
std::atomic<int> reported{0};

// A failure report that takes a while, as its log line does on a slow disk.
void SlowReport(const std::string&) {
  reporting = true;
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  ++reported;
}

// Drain called while a lane reports its last failure: the tests that count a lane's ERROR
// lines stop capturing the log when Drain returns.
TEST(CTopicPoster, DrainWaitsForTheLastFailureReport) {
  CTopicPoster poster;
  // No bus here: the post fails at once and the lane reports it.
  poster.Post("topicposter:nobody", "record", SlowReport);
  ASSERT_TRUE(nuvtest::Eventually([] { return reporting.load(); }));
  poster.Drain();
  EXPECT_EQ(reported.load(), 1);
}

}  // namespace
