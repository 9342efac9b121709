// Each platform library exports its platform calls and nothing else.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

std::string LibDir() {
  char exe[4096];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  exe[n > 0 ? n : 0] = '\0';
  std::string dir(exe);
  dir = dir.substr(0, dir.rfind('/'));          // .../build/tests
  return dir.substr(0, dir.rfind('/')) + "/lib";  // .../build/lib
}

TEST(Symbols, OnlyPlatformCallsAreExported) {
  for (const char* lib : {"libzorbase.so", "libzoralgo.so", "libzorutil.so"}) {
    std::string cmd = "nm -D --defined-only " + LibDir() + "/" + lib;
    FILE* p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    char line[512];
    int count = 0;
    while (fgets(line, sizeof line, p)) {
      std::string name(line);
      name = name.substr(name.rfind(' ') + 1);
      name.pop_back();
      ++count;
      EXPECT_TRUE(name.rfind("nuv_", 0) == 0 || name == "is_file_exist")
          << lib << " exports " << name;
    }
    EXPECT_EQ(pclose(p), 0) << cmd;
    EXPECT_GT(count, 0) << lib;
  }
}

}  // namespace
