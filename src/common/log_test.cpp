#include "common/log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "testutil/testutil.h"

namespace {

// Runs `emit` with the platform log writing to a fresh file at `threshold`; returns its lines.
template <typename Fn>
std::vector<std::string> Capture(int threshold, Fn emit) {
  nuvtest::TempDir dir;
  const std::string path = dir.Sub("zor.log");
  nuv_log_set_file(path.c_str());
  const int oldLevel = nuv_log_get_level();
  nuv_log_set_level(threshold);
  EXPECT_EQ(nuv_log_start(0), 0);
  emit();
  nuv_log_stop();
  nuv_log_set_level(oldLevel);
  nuv_log_set_file(nullptr);
  return nuvtest::ReadLines(path);
}

std::string Prefix(const std::string& word, int line) {
  std::string pid = std::to_string(static_cast<long>(getpid()));
  while (pid.size() < 5) {
    pid.push_back(' ');
  }
  return "[PID:" + pid + "]\t" + word + "\t[ZOR]      [common/log_test.cpp(" +
         std::to_string(line) + ")] ";
}

}  // namespace

TEST(LogTest, LineCarriesPaddedPidTagSourceAndMessage) {
  int lineA = 0;
  int lineB = 0;
  std::vector<std::string> lines = Capture(3, [&] {
    lineA = __LINE__ + 1;
    ZLOG_INFO("[ConfigMgr]::LoadConfig start.");
    lineB = __LINE__ + 1;
    ZLOG_INFO("[ConfigMgr]::LoadConfig failed, code = %d, desc = %s, 100%%.", 104, "x y");
  });
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], Prefix("[INFO]", lineA) + "[ConfigMgr]::LoadConfig start.");
  EXPECT_EQ(lines[1], Prefix("[INFO]", lineB) +
                          "[ConfigMgr]::LoadConfig failed, code = 104, desc = x y, 100%.");
}

TEST(LogTest, LevelWordAgreesWithNumericLevel) {
  // The platform drops lines above its threshold, so at threshold t exactly the macros whose
  // numeric level is <= t must appear, each with its own word.
  const char* words[] = {"[ERROR]", "[WARN]", "[INFO]", "[DEBUG]"};
  for (int threshold = 0; threshold <= 3; ++threshold) {
    int line[4] = {0, 0, 0, 0};
    std::vector<std::string> lines = Capture(threshold, [&] {
      line[0] = __LINE__ + 1;
      ZLOG_ERROR("level %d", 0);
      line[1] = __LINE__ + 1;
      ZLOG_WARN("level %d", 1);
      line[2] = __LINE__ + 1;
      ZLOG_INFO("level %d", 2);
      line[3] = __LINE__ + 1;
      ZLOG_DEBUG("level %d", 3);
    });
    ASSERT_EQ(lines.size(), static_cast<size_t>(threshold + 1)) << "threshold " << threshold;
    for (int level = 0; level <= threshold; ++level) {
      EXPECT_EQ(lines[level], Prefix(words[level], line[level]) + "level " + std::to_string(level));
    }
  }
}
