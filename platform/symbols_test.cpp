// The platform libraries together export exactly the calls their public headers declare, each
// from one library, and nothing else.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>

namespace {

std::set<std::string> DeclaredCalls() {
  const std::string src = __FILE__;
  const std::string inc = src.substr(0, src.rfind('/')) + "/include/";
  const std::regex decl(R"(^NUV_API [^(]*?\b(\w+)\s*\()");
  std::set<std::string> names;
  DIR* d = opendir(inc.c_str());
  EXPECT_NE(d, nullptr) << inc;
  while (dirent* e = d ? readdir(d) : nullptr) {
    std::ifstream in(inc + e->d_name);
    std::smatch m;
    for (std::string line; std::getline(in, line);)
      if (std::regex_search(line, m, decl)) names.insert(m[1]);
  }
  if (d) closedir(d);
  return names;
}

TEST(Symbols, LibrariesExportExactlyTheDeclaredCalls) {
  char exe[4096];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe);
  ASSERT_GT(n, 0);
  std::string lib(exe, static_cast<size_t>(n));
  lib = lib.substr(0, lib.rfind('/'));               // .../build/tests
  lib = lib.substr(0, lib.rfind('/')) + "/lib/";     // .../build/lib
  std::map<std::string, std::string> owner;
  std::set<std::string> exported;
  for (const char* so : {"libzorbase.so", "libzoralgo.so", "libzorutil.so", "libnuv_comm.so",
                         "libnuv_perfprov.so"}) {
    std::string cmd = "nm -D --defined-only " + lib + so;
    FILE* p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    char line[512];
    while (fgets(line, sizeof line, p)) {
      std::string name(line);
      name = name.substr(name.rfind(' ') + 1);
      name.pop_back();
      EXPECT_TRUE(owner.emplace(name, so).second) << name << " also in " << owner[name];
      exported.insert(name);
    }
    EXPECT_EQ(pclose(p), 0) << cmd;
  }
  std::set<std::string> declared = DeclaredCalls();
  EXPECT_GT(declared.size(), 50u);
  EXPECT_EQ(exported, declared);
}

}  // namespace
