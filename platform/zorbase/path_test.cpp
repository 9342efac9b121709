#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include <string>

#include "nuv_dir.h"
#include "nuv_path.h"

namespace {

TEST(Path, FormatNormalisesLexicallyAndRemoveNameCuts) {
  const struct { const char *in, *out; } format[] = {
      {"/a//b/./c/", "/a/b/c"}, {"/a/b/../c", "/a/c"},  {"/../..", "/"},     {"//", "/"},
      {"a/../..", ".."},        {"../../x/..", "../.."}, {"./", "."},        {"a/..", "."},
      {"", ""},                 {"..a/b", "..a/b"},      {"/x/.../y", "/x/.../y"},
  };
  for (const auto& c : format) {
    char buf[64];
    snprintf(buf, sizeof buf, "%s", c.in);
    EXPECT_EQ(nuv_path_format_a(buf), 0);
    EXPECT_STREQ(buf, c.out) << "input: " << c.in;
  }
  const struct { const char* in; int rc; const char* out; } cut[] = {
      {"/a/b/c", 0, "/a/b"}, {"/c", 0, "/"}, {"name", -1, "name"}, {"a/b", 0, "a"}};
  for (const auto& c : cut) {
    char buf[32];
    snprintf(buf, sizeof buf, "%s", c.in);
    EXPECT_EQ(nuv_path_remove_name_a(buf), c.rc) << c.in;
    EXPECT_STREQ(buf, c.out) << c.in;
  }
  const char* p = "/usr/bin/agent";
  EXPECT_EQ(nuv_path_get_name_u(p), p + 9);  // a pointer into the argument
  EXPECT_EQ(nuv_path_get_name_u("/usr/bin/"), nullptr);
}

TEST(Path, RelativePathsResolveAgainstTheExecutableDirectoryWithinTheBuffer) {
  char exe[4096], expected[4096];
  ASSERT_EQ(nuv_path_get_cur_proc_a(exe, sizeof exe), 0);
  ssize_t n = readlink("/proc/self/exe", expected, sizeof expected - 1);
  ASSERT_GT(n, 0);
  EXPECT_EQ(std::string(exe), std::string(expected, n));
  std::string dir(exe, std::string(exe).rfind('/'));
  std::string parent = dir.substr(0, dir.rfind('/'));
  char out[4096];
  ASSERT_EQ(nuv_path_absolute("../data", out, sizeof out), 0);
  EXPECT_EQ(std::string(out), parent + "/data");
  ASSERT_EQ(nuv_dirutils_path_transform("../data/./x", out, sizeof out), 0);
  EXPECT_EQ(std::string(out), parent + "/data/x");
  ASSERT_EQ(nuv_dirutils_path_transform("/abs//p", out, sizeof out), 0);
  EXPECT_STREQ(out, "/abs/p");
  char tiny[8];
  EXPECT_EQ(nuv_path_absolute("../data", tiny, sizeof tiny), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(nuv_path_get_cur_proc_a(tiny, sizeof tiny), -1);
  EXPECT_EQ(tiny[sizeof tiny - 1], '\0');
  EXPECT_TRUE(nuv_path_is_exist_a(exe));
  EXPECT_FALSE(nuv_path_is_exist_a("/definitely/not/here"));
}

TEST(Path, ResolveFollowsLinksAndFindsCapitalsThatWereLowerCased) {
  char base[] = "/tmp/nuvpathXXXXXX";
  ASSERT_NE(mkdtemp(base), nullptr);
  const std::string dir = base;
  ASSERT_EQ(mkdir((dir + "/App").c_str(), 0755), 0);
  ASSERT_EQ(mkdir((dir + "/app").c_str(), 0755), 0);  // exact spelling wins over case folding
  FILE* f = fopen((dir + "/App/Bin").c_str(), "w");
  ASSERT_NE(f, nullptr);
  fclose(f);
  ASSERT_EQ(symlink("App/Bin", (dir + "/link").c_str()), 0);
  const std::pair<std::string, std::string> resolved[] = {
      {dir + "/App/Bin", dir + "/App/Bin"},
      {dir + "/APP/BIN", dir + "/App/Bin"},
      {dir + "/link", dir + "/App/Bin"},
      {dir + "/LINK", dir + "/App/Bin"},
      {dir + "/app/../App/./bin", dir + "/App/Bin"},
  };
  char out[4096];
  for (const auto& [in, want] : resolved) {
    ASSERT_EQ(nuv_path_resolve_nocase(in.c_str(), out, sizeof out), 0) << in;
    EXPECT_EQ(std::string(out), want) << in;
  }
  for (const std::string& missing : {dir + "/app/bin", dir + "/App/Bin2", std::string("rel/x")}) {
    errno = 0;
    EXPECT_EQ(nuv_path_resolve_nocase(missing.c_str(), out, sizeof out), -1) << missing;
    EXPECT_EQ(errno, ENOENT) << missing;
  }
  char tiny[8];
  EXPECT_EQ(nuv_path_resolve_nocase((dir + "/link").c_str(), tiny, sizeof tiny), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  nuv_dirutils_rmdir(base);
}

}  // namespace
