#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <string>

#include "nuv_thread.h"
#include "nuv_time.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

struct Knobs {
  ~Knobs() {
    nuv_time_set_offset(0);
    nuv_time_set_tick_scale(1);
  }
};

TEST(Time, WallClockAndOffset) {
  Knobs k;
  int64_t now = time(nullptr);
  EXPECT_LE(std::llabs(nuv_time() - now), 1);
  nuv_time_set_offset(86400 * 3);
  EXPECT_LE(std::llabs(nuv_time() - (now + 86400 * 3)), 1);
  nuv_time_set_offset(-86400);
  EXPECT_LE(std::llabs(nuv_time() - (now - 86400)), 1);

  struct tm tm = {};
  ASSERT_EQ(nuv_time_stamp_to_local(0, &tm), 0);
  struct tm expect = {};
  time_t zero = 0;
  localtime_r(&zero, &expect);
  EXPECT_EQ(tm.tm_year, expect.tm_year);
  EXPECT_EQ(tm.tm_hour, expect.tm_hour);
  EXPECT_EQ(nuv_time_stamp_to_local(0, nullptr), -1);
}

TEST(Time, TickScaleSpeedsTicksAndShortensSleeps) {
  Knobs k;
  uint64_t a = nuv_time_get_tick_cout();
  nuv_msleep(50, 0);
  uint64_t b = nuv_time_get_tick_cout();
  EXPECT_GE(b - a, 50u);

  nuv_time_set_tick_scale(100);
  EXPECT_GE(nuv_time_get_tick_cout(), b);  // never back
  auto t0 = Clock::now();
  uint64_t c = nuv_time_get_tick_cout();
  nuv_sleep(10, 0);  // 10 s of ticks in about 100 ms
  uint64_t d = nuv_time_get_tick_cout();
  auto real = Clock::now() - t0;
  EXPECT_GE(d - c, 10000u);
  EXPECT_LT(real, std::chrono::seconds(5));

  nuv_time_set_tick_scale(0);  // clamped to 1
  EXPECT_EQ(nuv_time_get_tick_scale(), 1u);
  EXPECT_GE(nuv_time_get_tick_cout(), d);
}

// The environment knobs are read when the library loads, so they are checked in a fresh
// process: this test binary re-runs itself with the knobs set.
TEST(Time, EnvironmentKnobsAreReadAtLoad) {
  if (const char* expect = std::getenv("NUV_TEST_EXPECT_OFFSET")) {
    EXPECT_LE(std::llabs(nuv_time() - (time(nullptr) + std::atoll(expect))), 1);
    EXPECT_EQ(nuv_time_get_tick_scale(), 7u);
    return;
  }
  char exe[4096];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  ASSERT_GT(n, 0);
  exe[n] = '\0';
  std::string filter = "--gtest_filter=Time.EnvironmentKnobsAreReadAtLoad";
  char* argv[] = {exe, filter.data(), nullptr};
  std::string e1 = "NUV_TIME_OFFSET=-172800", e2 = "NUV_TICK_SCALE=7",
              e3 = "NUV_TEST_EXPECT_OFFSET=-172800";
  char* envp[] = {e1.data(), e2.data(), e3.data(), nullptr};
  pid_t pid;
  ASSERT_EQ(posix_spawn(&pid, exe, nullptr, nullptr, argv, envp), 0);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
}

}  // namespace
