#include "common/log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "testutil/testutil.h"

namespace {

std::string Prefix(const std::string& word, int line) {
  std::string pid = std::to_string(static_cast<long>(getpid()));
  pid.resize(std::max<size_t>(pid.size(), 5), ' ');
  return "[PID:" + pid + "]\t" + word + "\t[ZOR]      [common/log_test.cpp(" +
         std::to_string(line) + ")] ";
}

}  // namespace

// At threshold t exactly the macros whose numeric level is <= t write, each with its own word,
// the padded pid, the tag and the source; the message goes through printf formatting.
TEST(LogTest, LinesCarryPrefixAndFollowTheThreshold) {
  const char* words[] = {"[ERROR]", "[WARN]", "[INFO]", "[DEBUG]"};
  for (int threshold = 0; threshold <= 3; ++threshold) {
    int line[4] = {0, 0, 0, 0};
    std::vector<std::string> lines = nuvtest::CaptureLog(
        [&] {
          line[0] = __LINE__ + 1;
          ZLOG_ERROR("level %d", 0);
          line[1] = __LINE__ + 1;
          ZLOG_WARN("level %d", 1);
          line[2] = __LINE__ + 1;
          ZLOG_INFO("level %d, desc = %s, 100%%.", 2, "x y");
          line[3] = __LINE__ + 1;
          ZLOG_DEBUG("level 3");  // no arguments: the other expansion
        },
        threshold);
    ASSERT_EQ(lines.size(), static_cast<size_t>(threshold + 1)) << "threshold " << threshold;
    for (int level = 0; level <= threshold; ++level) {
      const std::string text =
          level == 2 ? "level 2, desc = x y, 100%." : "level " + std::to_string(level);
      EXPECT_EQ(lines[level], Prefix(words[level], line[level]) + text);
      EXPECT_EQ(nuvtest::Message(lines[level]), std::string(words[level]) + " " + text);
    }
  }
}
