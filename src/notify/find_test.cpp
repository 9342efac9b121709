// The finder against real running children: copies of /bin/sleep under names of their own.
#include "notify/find.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "common/utils.h"
#include "testutil/testutil.h"

namespace {

// Runs `exe 60` (spawning returns once the exec is done); killed and reaped on destruction.
struct Sleeper {
  explicit Sleeper(const std::string& exe)
      : pid(nuvtest::Spawn({exe, "60"}, {}, "", "/dev/null", "/dev/null")) {}
  ~Sleeper() {
    if (pid > 0 && kill(pid, SIGKILL) == 0) nuvtest::WaitExit(pid);
  }
  unsigned int id() const { return static_cast<unsigned int>(pid); }
  int pid;
};

TEST(ProcessFinder, MatchesExactLowerCasedImagePathsOfItsSnapshot) {
  nuvtest::TempDir dir;
  // Upper-case letters in the names: the snapshot's paths differ from the real ones. The
  // second name extends the first, so a prefix match would show.
  const std::string exe =
      std::filesystem::canonical(dir.path()).string() + "/NuvFind" + std::to_string(getpid());
  const std::string other = exe + "X";
  for (const std::string& path : {exe, other}) {
    ASSERT_TRUE(nuvtest::WriteFile(path, nuvtest::ReadFile("/bin/sleep")));
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
  }
  Sleeper a(exe), b(exe), c(other);
  ASSERT_TRUE(a.pid > 0 && b.pid > 0 && c.pid > 0);
  CProcessFinder finder;
  Sleeper late(exe);  // after the snapshot
  ASSERT_GT(late.pid, 0);

  std::string image = exe, otherImage = other;
  CorrectLowerString(image);
  CorrectLowerString(otherImage);
  std::vector<unsigned int> pids = {1, 2, 3};
  ASSERT_TRUE(finder.FindProcess(image, pids));
  // In snapshot order, which is ascending pid order.
  EXPECT_EQ(pids, (std::vector<unsigned int>{std::min(a.id(), b.id()), std::max(a.id(), b.id())}));
  ASSERT_TRUE(finder.FindProcess(otherImage, pids));
  EXPECT_EQ(pids, std::vector<unsigned int>{c.id()});

  // Exact bytes only: the real mixed-case path, a prefix, padded paths.
  for (std::string miss : {exe, image.substr(0, image.size() - 1), " " + image, image + " "}) {
    pids = {7};
    EXPECT_FALSE(finder.FindProcess(miss, pids)) << miss;
    EXPECT_TRUE(pids.empty()) << miss;
  }

  EXPECT_TRUE(finder.IsProcessExist(image, a.id()));
  EXPECT_TRUE(finder.IsProcessExist(otherImage, c.id()));
  EXPECT_FALSE(finder.IsProcessExist(otherImage, a.id()));
  EXPECT_FALSE(finder.IsProcessExist(image, late.id()));
  std::string mixed = exe;
  EXPECT_FALSE(finder.IsProcessExist(mixed, a.id()));
}

}  // namespace
