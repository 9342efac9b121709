#include "compress/compress_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "file/file_test_support.h"
#include "nuv_file.h"

namespace {

class CompressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::mkdir(day_.c_str(), 0755), 0);
    ASSERT_TRUE(nuvtest::WriteFile(day_ + "/app-1-512", "hello"));
  }

  nuvtest::TempDir root_;
  const std::string day_ = root_.Sub("20240309");
};

TEST_F(CompressTest, BadArgumentsStartNothing) {
  const std::string missing = root_.Sub("missing");
  const char* day = day_.c_str();
  const struct {
    const char* source;
    const char* target;
    const char* suffix;
  } cases[] = {{nullptr, day, "tgz"}, {day, nullptr, "tgz"}, {day, day, nullptr},
               {missing.c_str(), day, "tgz"}};
  for (const auto& c : cases) {
    EXPECT_EQ(GenCompressFile(c.source, c.target, c.suffix, 60000), 0x84CE0002u);
  }
  // tar, had it run, would have written these.
  EXPECT_EQ(is_file_exist((missing + ".tgz").c_str()), 0);
  EXPECT_EQ(is_file_exist((day_ + ".tgz").c_str()), 0);
}

TEST_F(CompressTest, TarThatCannotStartOrOutrunsItsTimeOutIsRefused) {
  const struct {
    bool hugeEnvironment;  // exec refuses it: the shell cannot start
    bool hugeSource;       // a sparse 64 GiB file: tar needs minutes for it
    long long timeout;
    std::string message;
  } cases[] = {
      {true, false, 60000, "start process failed(tar -zcvf " + day_ + ".tgz -C " + day_ + " .)"},
      {false, true, 300, "call nuv_process_wait error ret=110"},  // ETIMEDOUT
  };
  for (const auto& c : cases) {
    if (c.hugeSource) {
      ASSERT_EQ(nuv_file_truncate((day_ + "/app-1-512").c_str(), uint64_t{64} << 30), 0);
    }
    uint32_t result = 0;
    const auto start = std::chrono::steady_clock::now();
    const auto lines = filetest::CaptureLog([&] {
      if (c.hugeEnvironment) ::setenv("NUV_COMPRESS_TEST", std::string(200000, 'x').c_str(), 1);
      result = GenCompressFile(day_.c_str(), day_.c_str(), "tgz", c.timeout);
      ::unsetenv("NUV_COMPRESS_TEST");
    });
    EXPECT_EQ(result, 0x84CE0001u);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    const auto errors = filetest::Matching(lines, "\t[ERROR]\t");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].substr(errors[0].find(")] ") + 3), c.message);
    // Killed with everything it started, and reaped.
    EXPECT_TRUE(nuvtest::ChildPids(static_cast<int>(::getpid())).empty());
  }
}

}  // namespace
