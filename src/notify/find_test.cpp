// The finder against real running children: copies of /bin/sleep under names of their own.
#include "notify/find.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "file/file_test_support.h"

namespace {

using filetest::Sleeper;
using Pids = std::vector<unsigned int>;

TEST(ProcessFinder, MatchesExactLowerCasedImagePathsOfItsSnapshot) {
  nuvtest::TempDir dir;
  // Upper-case letters in the names: the snapshot's paths differ from the real ones. The
  // second name extends the first, so a prefix match would show.
  const std::string exe =
      std::filesystem::canonical(dir.path()).string() + "/NuvFind" + std::to_string(getpid());
  Sleeper a(exe), b(exe), c(exe + "X");
  ASSERT_TRUE(a.pid > 0 && b.pid > 0 && c.pid > 0);
  CProcessFinder finder;
  Sleeper late(exe);  // after the snapshot
  ASSERT_GT(late.pid, 0);

  std::string image = a.image, otherImage = c.image;
  Pids pids = {1, 2, 3};
  ASSERT_TRUE(finder.FindProcess(image, pids));
  // In snapshot order, which is ascending pid order.
  EXPECT_EQ(pids, (Pids{std::min(a.id(), b.id()), std::max(a.id(), b.id())}));
  ASSERT_TRUE(finder.FindProcess(otherImage, pids));
  EXPECT_EQ(pids, Pids{c.id()});
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
