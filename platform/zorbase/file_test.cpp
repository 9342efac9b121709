#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "nuv_file.h"
#include "testutil/testutil.h"

namespace {

// Close-on-exec, read from /proc so the handle stays opaque.
bool AllOpenDescriptorsOfPathAreCloexec(const std::string& path, int* found) {
  *found = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    char link[64], target[4096];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, target, sizeof target - 1);
    if (n < 0) continue;
    target[n] = '\0';
    if (path != target) continue;
    ++*found;
    if (!(fcntl(fd, F_GETFD) & FD_CLOEXEC)) return false;
  }
  return true;
}

TEST(File, WriteSeekReadRoundTripOnTwoHandles) {
  nuvtest::TempDir dir;
  std::string path = dir.Sub("data.bin");
  nuv_file_t* w = nuv_file_open(path.c_str(), "ab+");
  nuv_file_t* r = nuv_file_open(path.c_str(), "rb+");
  ASSERT_NE(w, nullptr);
  ASSERT_NE(r, nullptr);
  int found = 0;
  EXPECT_TRUE(AllOpenDescriptorsOfPathAreCloexec(path, &found));
  EXPECT_EQ(found, 2);

  std::string rec("ab\0cd", 5);
  EXPECT_EQ(nuv_file_write(w, rec.data(), rec.size()), 5u);
  // Buffered: not on disk yet, so readers by size do not see it.
  EXPECT_EQ(nuv_file_size(path.c_str()), 0u);
  ASSERT_EQ(nuv_file_fflush(w), 0);
  EXPECT_EQ(nuv_file_size(path.c_str()), 5u);
  EXPECT_EQ(nuv_file_ftell(w), 5);

  char buf[8] = {};
  ASSERT_EQ(nuv_file_fseek(r, 3, SEEK_SET), 0);
  EXPECT_EQ(nuv_file_read(r, buf, sizeof buf), 2u);  // short read only at the end
  EXPECT_EQ(std::string(buf, 2), "cd");
  ASSERT_EQ(nuv_file_fseek(r, 0, SEEK_SET), 0);
  EXPECT_EQ(nuv_file_read(r, buf, 5), 5u);
  EXPECT_EQ(std::string(buf, 5), rec);

  EXPECT_EQ(nuv_file_close(w), 0);
  EXPECT_EQ(nuv_file_close(r), 0);
  EXPECT_EQ(nuv_file_close(nullptr), 0);
}

TEST(File, MissingFilesAndBadArguments) {
  nuvtest::TempDir dir;
  std::string missing = dir.Sub("nope/missing.txt");
  EXPECT_EQ(nuv_file_size(missing.c_str()), NUV_FILE_SIZE_UNKNOWN);
  EXPECT_EQ(nuv_file_size(missing.c_str()), ~0ull);
  EXPECT_EQ(nuv_file_size(nullptr), NUV_FILE_SIZE_UNKNOWN);
  EXPECT_EQ(nuv_file_open(missing.c_str(), "rb"), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(nuv_file_open(missing.c_str(), "ab+"), nullptr);  // parent missing
  EXPECT_EQ(nuv_file_open(nullptr, "rb"), nullptr);
  EXPECT_EQ(nuv_file_remove(missing.c_str()), -1);
  EXPECT_EQ(is_file_exist(missing.c_str()), 0);
  EXPECT_EQ(is_file_exist(dir.path().c_str()), 1);
  EXPECT_EQ(is_file_exist(nullptr), 0);
  EXPECT_EQ(nuv_file_read(nullptr, nullptr, 0), 0u);
  EXPECT_EQ(nuv_file_ftell(nullptr), -1);
  EXPECT_EQ(nuv_file_getlines(nullptr), -1);

  std::string present = dir.Sub("x");
  ASSERT_TRUE(nuvtest::WriteFile(present, "x"));
  EXPECT_EQ(is_file_exist(present.c_str()), 1);
  EXPECT_EQ(nuv_file_remove(present.c_str()), 0);
  EXPECT_EQ(is_file_exist(present.c_str()), 0);
}

TEST(File, GetLinesCountsUnflushedWritesOfItsOwnHandle) {
  nuvtest::TempDir dir;
  std::string path = dir.Sub("index");
  ASSERT_TRUE(nuvtest::WriteFile(path, "0000000000 0000000010\n"));
  for (const char* mode : {"ab+", "ab"}) {
    nuv_file_t* w = nuv_file_open(path.c_str(), mode);
    ASSERT_NE(w, nullptr) << mode;
    int64_t before = nuv_file_getlines(w);
    const char* line = "0000000010 0000000020\n";
    ASSERT_EQ(nuv_file_write(w, line, 22), 22u);
    EXPECT_EQ(nuv_file_getlines(w), before + 1) << mode;
    // A partial line is not a line.
    ASSERT_EQ(nuv_file_write(w, "00000", 5), 5u);
    EXPECT_EQ(nuv_file_getlines(w), before + 1) << mode;
    ASSERT_EQ(nuv_file_write(w, "\n", 1), 1u);
    EXPECT_EQ(nuv_file_close(w), 0);
  }
  EXPECT_EQ(nuvtest::ReadLines(path).size(), 5u);
}

TEST(File, TruncateCutsBesideOpenHandles) {
  nuvtest::TempDir dir;
  std::string path = dir.Sub("content");
  ASSERT_TRUE(nuvtest::WriteFile(path, "recordApartial"));
  nuv_file_t* w = nuv_file_open(path.c_str(), "ab+");
  ASSERT_NE(w, nullptr);
  ASSERT_EQ(nuv_file_truncate(path.c_str(), 7), 0);
  EXPECT_EQ(nuv_file_size(path.c_str()), 7u);
  ASSERT_EQ(nuv_file_write(w, "recordB", 7), 7u);  // appends at the new end
  nuv_file_close(w);
  EXPECT_EQ(nuvtest::ReadFile(path), "recordArecordB");
  EXPECT_EQ(nuv_file_truncate(dir.Sub("missing").c_str(), 0), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(File, GetLinesOverManyBlocksLeavesPositionAlone) {
  nuvtest::TempDir dir;
  std::string path = dir.Sub("big");
  std::string body;
  for (int i = 0; i < 20000; ++i) body += std::to_string(i) + "\n";  // several 64 KiB blocks
  ASSERT_TRUE(nuvtest::WriteFile(path, body + "tail"));
  nuv_file_t* f = nuv_file_open(path.c_str(), "rb+");
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(nuv_file_fseek(f, 7, SEEK_SET), 0);
  EXPECT_EQ(nuv_file_getlines(f), 20000);
  EXPECT_EQ(nuv_file_ftell(f), 7);
  nuv_file_close(f);
}

}  // namespace
