#include "compress/compress_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>

#include "file/file_test_support.h"

namespace {

using filetest::Lines;

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
      {true, 60000,
       "start process failed(umask 027 && tar -zcvf '" + day + ".tgz.part' -C '" + day + "' . && tar -tzf '" +
           day + ".tgz.part' >/dev/null && mv -f '" + day + ".tgz.part' '" + day + ".tgz')"},
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
    EXPECT_FALSE(is_file_exist((day + ".tgz").c_str()) || is_file_exist((day + ".tgz.part").c_str()));
  }
}

// Runs `body` with PATH set to `path`.
template <typename Body>
void WithPath(const std::string& path, Body body) {
  const std::string saved = std::getenv("PATH") ? std::getenv("PATH") : "";
  ::setenv("PATH", path.c_str(), 1);
  body();
  ::setenv("PATH", saved.c_str(), 1);
}

TEST(CompressTest, ATarThatIsMissingOrFailsPutsNoArchiveInPlace) {
  nuvtest::TempDir root;
  const std::string day = root.Sub("20240309");
  ASSERT_TRUE(CreateDirectory(day) && nuvtest::WriteFile(day + "/app-1-512", "hello"));
  ASSERT_TRUE(nuvtest::WriteFile(day + ".tgz", "an earlier archive"));
  // A tar that writes a broken archive and fails, as on a full disk.
  const std::string bin = root.Sub("bin");
  ASSERT_TRUE(CreateDirectory(bin) &&
              nuvtest::WriteFile(bin + "/tar", "#!/bin/sh\necho junk > \"$2\"; exit 2\n"));
  ASSERT_EQ(::chmod((bin + "/tar").c_str(), 0755), 0);
  const std::string saved = std::getenv("PATH");
  const std::pair<std::string, int> paths[] = {{bin + ":" + saved, 2}, {root.Sub("none"), 127}};
  for (const auto& [path, status] : paths) {
    uint32_t result = 0;
    Lines lines;
    WithPath(path, [&] {
      lines = filetest::CaptureLog(
          [&] { result = GenCompressFile(day.c_str(), day.c_str(), "tgz", 60000); });
    });
    EXPECT_EQ(result, 0x84CE0001u) << path;
    const Lines messages = filetest::Messages(lines, "compress/compress_file.cpp");
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].rfind("[ERROR] archive not written(umask 027 && tar -zcvf '"), 0u)
        << messages[0];
    EXPECT_NE(messages[0].find("), exit status " + std::to_string(status)), std::string::npos)
        << messages[0];
    EXPECT_EQ(nuvtest::ReadFile(day + ".tgz"), "an earlier archive");
    EXPECT_FALSE(is_file_exist((day + ".tgz.part").c_str()));
  }
}

TEST(CompressTest, PathsWithBlanksAndQuotesArePacked) {
  nuvtest::TempDir root;
  const std::string day = root.Sub("my store's/20240309");
  ASSERT_TRUE(CreateDirectory(day + "/app") && nuvtest::WriteFile(day + "/app/app-1-512", "hello"));
  EXPECT_EQ(GenCompressFile(day.c_str(), day.c_str(), "tgz", 60000), 0u);
  EXPECT_EQ(filetest::Output("tar -xzOf \"" + day + ".tgz\" ./app/app-1-512"), "hello");
  EXPECT_FALSE(is_file_exist((day + ".tgz.part").c_str()));
  struct stat st {};
  ASSERT_EQ(::stat((day + ".tgz").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0007, 0u);
}

}  // namespace
