#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "nuv_path.h"
#include "nuv_thread.h"
#include "nuv_time.h"
#include "testutil/testutil.h"

namespace {

struct Knobs {
  ~Knobs() {
    nuv_time_set_offset(0);
    nuv_time_set_tick_scale(1);
  }
};

TEST(Time, OffsetShiftsTheWallClock) {
  Knobs k;
  for (int64_t offset : {int64_t{0}, int64_t{86400 * 3}, int64_t{-86400}}) {
    nuv_time_set_offset(offset);
    EXPECT_LE(std::llabs(nuv_time() - (time(nullptr) + offset)), 1) << offset;
  }
}

TEST(Time, TickScaleSpeedsTicksAndShortensSleeps) {
  Knobs k;
  uint64_t a = nuv_time_get_tick_cout();
  nuv_msleep(50, 0);
  uint64_t b = nuv_time_get_tick_cout();
  EXPECT_GE(b - a, 50u);
  nuv_time_set_tick_scale(100);
  uint64_t c = nuv_time_get_tick_cout();
  EXPECT_GE(c, b);  // never back
  nuv_sleep(10, 0);  // 10 s of ticks in about 100 ms: a test that hangs here has failed
  uint64_t d = nuv_time_get_tick_cout();
  EXPECT_GE(d - c, 10000u);
  nuv_time_set_tick_scale(0);  // clamped to 1
  EXPECT_EQ(nuv_time_get_tick_scale(), 1u);
  EXPECT_GE(nuv_time_get_tick_cout(), d);
}

// The environment knobs are read when the library loads, so this test binary re-runs itself
// with them set.
TEST(Time, EnvironmentKnobsAreReadAtLoad) {
  if (std::getenv("NUV_TICK_SCALE")) {
    EXPECT_LE(std::llabs(nuv_time() - (time(nullptr) - 172800)), 1);
    EXPECT_EQ(nuv_time_get_tick_scale(), 7u);
    return;
  }
  char exe[4096];
  ASSERT_EQ(nuv_path_get_cur_proc_a(exe, sizeof exe), 0);
  int pid = nuvtest::Spawn({exe, "--gtest_filter=Time.EnvironmentKnobsAreReadAtLoad"},
                           {"NUV_TIME_OFFSET=-172800", "NUV_TICK_SCALE=7"}, "", "/dev/null",
                           "/dev/null");
  EXPECT_EQ(nuvtest::WaitExit(pid), 0);
}

}  // namespace
