#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "nuv_dir.h"
#include "nuv_path.h"
#include "testutil/testutil.h"

namespace {

using Entries = std::vector<std::pair<std::string, int>>;

Entries Walk(const std::string& dir, int recursive, int follow) {
  Entries out;
  nuv_dirwalk_t* w = nuv_dirwalk_create(dir.c_str(), recursive, follow);
  EXPECT_NE(w, nullptr) << dir;
  int is_dir = -1;
  while (const char* p = w ? nuv_dirwalk_read(w, &is_dir) : nullptr) out.emplace_back(p, is_dir);
  nuv_dirwalk_destroy(w);
  return out;
}

TEST(Dir, MkdirMakesParentsAndRmdirRemovesTreesButNotLinkTargets) {
  nuvtest::TempDir dir;
  EXPECT_EQ(nuv_dirutils_mkdir(dir.Sub("tree/b//c/d/").c_str(), 0700), 0);
  EXPECT_EQ(nuv_dirutils_mkdir(dir.Sub("tree/b/c/d").c_str(), 0700), 0);  // exists already
  struct stat st;
  ASSERT_EQ(stat(dir.Sub("tree/b/c/d").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  ASSERT_TRUE(nuvtest::WriteFile(dir.Sub("file"), "1"));
  EXPECT_EQ(nuv_dirutils_mkdir(dir.Sub("file/sub").c_str(), 0755), -1);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(nuv_dirutils_mkdir(dir.Sub("file").c_str(), 0755), -1);

  ASSERT_TRUE(nuvtest::WriteFile(dir.Sub("tree/b/c/d/f"), "2"));
  ASSERT_TRUE(nuvtest::WriteFile(dir.Sub("tree/g"), "3"));
  ASSERT_EQ(symlink(dir.path().c_str(), dir.Sub("tree/b/link").c_str()), 0);
  EXPECT_EQ(nuv_dirutils_rmdir(dir.Sub("tree").c_str()), 0);
  EXPECT_FALSE(nuv_path_is_exist_a(dir.Sub("tree").c_str()));
  EXPECT_EQ(nuvtest::ReadFile(dir.Sub("file")), "1");
  EXPECT_EQ(nuv_dirutils_rmdir(dir.Sub("tree").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(nuv_dirutils_rmdir(dir.Sub("file").c_str()), -1);
  EXPECT_EQ(errno, ENOTDIR);
}

TEST(Dir, WalkReportsFullPathsDepthFirstInNameOrder) {
  nuvtest::TempDir dir;
  ASSERT_EQ(nuv_dirutils_mkdir(dir.Sub("b/inner").c_str(), 0755), 0);
  ASSERT_EQ(nuv_dirutils_mkdir(dir.Sub("a").c_str(), 0755), 0);
  for (const char* f : {"b/inner/deep.txt", "b/z.txt", "c.txt"})
    ASSERT_TRUE(nuvtest::WriteFile(dir.Sub(f), ""));
  ASSERT_EQ(symlink(dir.Sub("b").c_str(), dir.Sub("d-link").c_str()), 0);
  const std::string& r = dir.path();
  const Entries expected = {
      {r + "/a", 1},       {r + "/b", 1},      {r + "/b/inner", 1}, {r + "/b/inner/deep.txt", 0},
      {r + "/b/z.txt", 0}, {r + "/c.txt", 0},
      {r + "/d-link", 1},  // a link to a directory is flagged but not entered
  };
  EXPECT_EQ(Walk(r, 1, 0), expected);
  EXPECT_EQ(Walk(r + "/", 1, 0), expected);  // no doubled separator
  EXPECT_EQ(Walk(r, 0, 0), (Entries{expected[0], expected[1], expected[5], expected[6]}));
  Entries followed = Walk(r, 1, 1);
  ASSERT_EQ(followed.size(), expected.size() + 3);
  EXPECT_EQ(followed.back(), std::make_pair(r + "/d-link/z.txt", 0));
  EXPECT_EQ(nuv_dirwalk_create(dir.Sub("missing").c_str(), 1, 0), nullptr);
  EXPECT_EQ(nuv_dirwalk_create(dir.Sub("c.txt").c_str(), 1, 0), nullptr);

  ASSERT_EQ(symlink("..", dir.Sub("a/up").c_str()), 0);  // a cycle: the walk still ends
  EXPECT_GT(Walk(r, 1, 1).size(), followed.size());
}

}  // namespace
