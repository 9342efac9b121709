#include "compress/compress_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>

#include "file/file_test_support.h"

namespace {

TEST(CompressTest, BadArgumentsOrATarThatCannotStartOrOutrunsItsTimeOutAreRefused) {
  nuvtest::TempDir root;
  const std::string day = root.Sub("20240309");
  const std::string missing = root.Sub("missing");
  ASSERT_TRUE(CreateDirectory(day) && nuvtest::WriteFile(day + "/app-1-512", "hello"));
  const char* d = day.c_str();
  for (const auto& args : {std::array<const char*, 3>{nullptr, d, "tgz"}, {d, nullptr, "tgz"},
                           {d, d, nullptr}, {missing.c_str(), d, "tgz"}}) {
    EXPECT_EQ(GenCompressFile(args[0], args[1], args[2], 60000), 0x84CE0002u);
  }
  // tar, had it run, would have written these.
  EXPECT_FALSE(is_file_exist((missing + ".tgz").c_str()) || is_file_exist((day + ".tgz").c_str()));

  const struct {
    bool hugeEnvironment;  // exec refuses it: the shell cannot start
    long long timeout;
    std::string message;
  } cases[] = {
      {true, 60000, "start process failed(tar -zcvf " + day + ".tgz -C " + day + " .)"},
      // A sparse 64 GiB file: tar needs minutes for it.
      {false, 300, "call nuv_process_wait error ret=110"},  // ETIMEDOUT
  };
  for (const auto& c : cases) {
    if (!c.hugeEnvironment) {
      ASSERT_EQ(nuv_file_truncate((day + "/app-1-512").c_str(), uint64_t{64} << 30), 0);
    }
    uint32_t result = 0;
    const auto lines = filetest::CaptureLog([&] {
      if (c.hugeEnvironment) ::setenv("NUV_COMPRESS_TEST", std::string(200000, 'x').c_str(), 1);
      result = GenCompressFile(d, d, "tgz", c.timeout);
      ::unsetenv("NUV_COMPRESS_TEST");
    });
    EXPECT_EQ(result, 0x84CE0001u);
    EXPECT_EQ(filetest::Messages(lines, "compress/compress_file.cpp"),
              filetest::Lines{"[ERROR] " + c.message});
    // Killed with everything it started, and reaped.
    EXPECT_TRUE(nuvtest::ChildPids(static_cast<int>(::getpid())).empty());
  }
}

}  // namespace
