#include <fcntl.h>
#include <sys/stat.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "nuv_file.h"
#include "nuv_syscall.h"
#include "testutil/testutil.h"

namespace {

unsigned CurrentUmask() {
  mode_t old = umask(0);
  umask(old);
  return old;
}

unsigned FileMode(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

// How many descriptors of ours point at `path`, and whether all of them are close-on-exec.
bool AllDescriptorsOfPathAreCloexec(const std::string& path, int* found) {
  bool all = true;
  for (int fd = 0; fd < 1024; ++fd) {
    char link[64], target[4096];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, target, sizeof target - 1);
    if (n < 0 || path != std::string(target, n)) continue;
    ++*found;
    all = all && (fcntl(fd, F_GETFD) & FD_CLOEXEC);
  }
  return all;
}

TEST(File, WriteSeekReadTruncateOnTwoHandles) {
  nuvtest::TempDir dir;
  std::string path = dir.Sub("data.bin");
  nuv_file_t* w = nuv_file_open(path.c_str(), "ab+");
  nuv_file_t* r = nuv_file_open(path.c_str(), "rb+");
  ASSERT_NE(w, nullptr);
  ASSERT_NE(r, nullptr);
  int found = 0;
  EXPECT_TRUE(AllDescriptorsOfPathAreCloexec(path, &found));
  EXPECT_EQ(found, 2);

  std::string rec("ab\0cd", 5);
  EXPECT_EQ(nuv_file_write(w, rec.data(), rec.size()), 5u);
  EXPECT_EQ(nuv_file_size(path.c_str()), 5u);  // written through, no flush needed
  EXPECT_EQ(nuv_file_handle_size(r), 5u);
  EXPECT_EQ(FileMode(path) & 0777, 0640u & ~CurrentUmask());
  EXPECT_EQ(nuv_file_ftell(w), 5);
  char buf[8] = {};
  ASSERT_EQ(nuv_file_fseek(r, 3, SEEK_SET), 0);
  EXPECT_EQ(nuv_file_read(r, buf, sizeof buf), 2u);  // short read only at the end
  EXPECT_EQ(std::string(buf, 2), "cd");
  ASSERT_EQ(nuv_file_fseek(r, 0, SEEK_SET), 0);
  EXPECT_EQ(nuv_file_read(r, buf, 5), 5u);
  EXPECT_EQ(std::string(buf, 5), rec);

  ASSERT_EQ(nuv_file_truncate(path.c_str(), 2), 0);  // beside the open handles
  ASSERT_EQ(nuv_file_write(w, "XY", 2), 2u);          // appends at the new end
  EXPECT_EQ(nuv_file_close(w), 0);
  EXPECT_EQ(nuv_file_close(r), 0);
  EXPECT_EQ(nuvtest::ReadFile(path), "abXY");
}

// A disk that fills in the middle of a write: the write reports what reached the file, and
// that is all the file holds.
ssize_t g_space_left = 0;
ssize_t WriteIntoShrinkingDisk(int fd, const void* buf, size_t size) {
  if (g_space_left <= 0) {
    errno = ENOSPC;
    return -1;
  }
  size_t n = std::min(size, static_cast<size_t>(g_space_left));
  g_space_left -= static_cast<ssize_t>(n);
  return reinterpret_cast<nuv_sys_write_fn>(nuv_sys_real(NUV_SYS_WRITE))(fd, buf, n);
}

TEST(File, ShortWriteReportsExactlyWhatReachedTheFile) {
  nuvtest::TempDir dir;
  std::string path = dir.Sub("full");
  nuv_file_t* w = nuv_file_open(path.c_str(), "ab+");
  ASSERT_NE(w, nullptr);
  g_space_left = 3;
  nuv_sys_override(NUV_SYS_WRITE, reinterpret_cast<nuv_sys_fn>(WriteIntoShrinkingDisk));
  errno = 0;
  EXPECT_EQ(nuv_file_write(w, "abcdef", 6), 3u);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(nuv_file_write(w, "gh", 2), 0u);  // no retry turns a full disk into success
  nuv_sys_override(NUV_SYS_WRITE, nullptr);
  EXPECT_EQ(nuv_sys_get(NUV_SYS_WRITE), nuv_sys_real(NUV_SYS_WRITE));
  EXPECT_EQ(nuv_file_write(w, "XY", 2), 2u);
  EXPECT_EQ(nuv_file_close(w), 0);
  EXPECT_EQ(nuvtest::ReadFile(path), "abcXY");
  EXPECT_EQ(nuv_sys_override(NUV_SYS_COUNT, nullptr), nullptr);
}

TEST(File, MissingFilesAndBadArguments) {
  nuvtest::TempDir dir;
  std::string missing = dir.Sub("nope/missing.txt");
  errno = 0;
  EXPECT_EQ(nuv_file_size(missing.c_str()), NUV_FILE_SIZE_UNKNOWN);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(nuv_file_open(missing.c_str(), "rb"), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(nuv_file_open(missing.c_str(), "ab+"), nullptr);  // parent missing
  EXPECT_EQ(nuv_file_truncate(missing.c_str(), 0), -1);
  EXPECT_EQ(nuv_file_remove(missing.c_str()), -1);
  EXPECT_EQ(nuv_file_getlines(nullptr), -1);
  EXPECT_EQ(nuv_file_open(missing.c_str(), "x"), nullptr);
  EXPECT_EQ(errno, EINVAL);
  std::string present = dir.Sub("x");
  ASSERT_TRUE(nuvtest::WriteFile(present, "x"));
  EXPECT_EQ(is_file_exist(present.c_str()), 1);
  EXPECT_EQ(nuv_file_remove(present.c_str()), 0);
  EXPECT_EQ(is_file_exist(present.c_str()), 0);
}

TEST(File, GetLinesCountsUnflushedWritesAndLeavesPositionAlone) {
  nuvtest::TempDir dir;
  std::string path = dir.Sub("index");
  std::string body;
  for (int i = 0; i < 20000; ++i) body += std::to_string(i) + "\n";  // several 64 KiB blocks
  ASSERT_TRUE(nuvtest::WriteFile(path, body + "tail"));
  for (const char* mode : {"ab+", "ab"}) {
    nuv_file_t* f = nuv_file_open(path.c_str(), mode);
    ASSERT_NE(f, nullptr) << mode;
    int64_t before = nuv_file_getlines(f);
    ASSERT_EQ(nuv_file_write(f, "\n", 1), 1u);  // ends "tail", or the line the last pass left
    EXPECT_EQ(nuv_file_getlines(f), before + 1) << mode;
    ASSERT_EQ(nuv_file_write(f, "part", 4), 4u);  // a partial line is not a line
    int64_t pos = nuv_file_ftell(f);
    EXPECT_EQ(nuv_file_getlines(f), before + 1) << mode;
    EXPECT_EQ(nuv_file_ftell(f), pos) << mode;
    EXPECT_EQ(nuv_file_close(f), 0);
  }
  EXPECT_EQ(nuvtest::ReadLines(path).size(), 20003u);
}

}  // namespace
