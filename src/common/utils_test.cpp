#include "common/utils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include "nuv_time.h"
#include "testutil/testutil.h"

namespace {
std::wstring Wide(const std::string& s) { return std::wstring(s.begin(), s.end()); }
}  // namespace

TEST(UtilsTest, TrimFoldAndSplit) {
  const struct {
    std::string in, rtrim, ltrim, upper, lower;
  } cases[] = {
      {" \t\r\n", "", "", "", ""},
      {"\t MyProc \n", "\t MyProc", "MyProc \n", "MYPROC", "myproc"},
      {" x\xC3\xA9 ", " x\xC3\xA9", "x\xC3\xA9 ", "X\xC3\xA9", "x\xC3\xA9"},  // non-ASCII stays
  };
  for (const auto& c : cases) {
    std::string r = c.in, l = c.in, up = c.in, low = c.in;
    std::wstring wr = Wide(c.in), wl = Wide(c.in);
    RTrimSpace(r), LTrimSpace(l), CorrectString(up), CorrectLowerString(low);
    RTrimSpaceW(wr), LTrimSpaceW(wl);
    EXPECT_EQ(std::vector<std::string>({r, l, up, low}),
              std::vector<std::string>({c.rtrim, c.ltrim, c.upper, c.lower}));
    EXPECT_EQ(wr + L"|" + wl, Wide(c.rtrim + "|" + c.ltrim));
  }
  std::wstring wide = L" Ab\u00e9\u0416z\t";  // only ASCII letters are folded
  CorrectStringW(wide);
  EXPECT_EQ(wide, L"AB\u00e9\u0416Z");
  ToLowerW(wide);
  EXPECT_EQ(wide, L"ab\u00e9\u0416z");
  std::string utf8 = "old";
  WstringToUtf8(wide, utf8);
  EXPECT_EQ(utf8, "ab\xC3\xA9\xD0\x96z");
  WstringToUtf8(std::wstring(1, static_cast<wchar_t>(0xD800)), utf8);  // not convertible: kept
  EXPECT_EQ(utf8, "ab\xC3\xA9\xD0\x96z");

  const struct {
    std::string in;
    std::vector<std::string> pieces;
  } splits[] = {{"", {}}, {",,,", {}}, {",,a,,b,", {"a", "b"}}, {"a, b", {"a", " b"}}};
  for (const auto& c : splits) {
    EXPECT_EQ(SplitString(c.in, ','), c.pieces) << c.in;
    std::vector<std::wstring> wide;
    for (const std::string& p : c.pieces) wide.push_back(Wide(p));
    EXPECT_EQ(SplitStringW(Wide(c.in), L','), wide) << c.in;
  }
  EXPECT_TRUE(IsStringContainer("", "0123456789") && IsStringContainer("2024", "0123456789"));
  EXPECT_FALSE(IsStringContainer("20x4", "0123456789") || IsWstringContainer(L"17", L"789"));
  EXPECT_TRUE(IsCharContainer('\t', " \t") && !IsWcharContainer(L'x', L" \t"));
}

TEST(UtilsTest, Numbers) {
  const struct {
    const char* text;
    bool number;
  } cases[] = {{"1e3", true}, {" 7", true}, {".5", true}, {"7 ", false}, {"", false},
               {"1.2.3", false}};
  for (const auto& c : cases) {
    EXPECT_EQ(IsNumberA(c.text), c.number) << '"' << c.text << '"';
    EXPECT_EQ(IsNumberW(Wide(c.text)), c.number) << '"' << c.text << '"';
  }
  const struct {
    const char* text;
    long value;
  } conversions[] = {{"42abc", 42}, {"  -17", -17}, {"0x10", 0}, {nullptr, 0}};
  for (const auto& c : conversions) {
    EXPECT_EQ(ConvertStringToNumber(c.text), c.value) << (c.text ? c.text : "null");
    EXPECT_EQ(ConvertWstringToNumber(c.text ? Wide(c.text).c_str() : nullptr), c.value);
  }
}

TEST(UtilsTest, TimeTexts) {
  const auto local = [](std::time_t t, const char* format) {
    std::tm tm{};
    localtime_r(&t, &tm);
    char text[32];
    std::strftime(text, sizeof(text), format, &tm);
    return std::string(text);
  };
  const std::time_t before = std::time(nullptr);
  const std::string now = GenerateLocalTime();
  EXPECT_TRUE(now == local(before, "%Y/%m/%d %H:%M:%S") ||
              now == local(before + 1, "%Y/%m/%d %H:%M:%S"))
      << now;

  // The platform clock, offset included, drives GenerateCurrentTime; `size` characters fit.
  const int64_t kShift = 400LL * 86400;
  nuv_time_set_offset(kShift);
  std::string shifted = GenerateCurrentTime("%Y%m%d", 8);
  nuv_time_set_offset(0);
  EXPECT_EQ(shifted, local(std::time(nullptr) + kShift, "%Y%m%d"));
  EXPECT_EQ(GenerateCurrentTime("%Y", 0), "");
}

TEST(UtilsTest, Keys) {
  // Digests computed outside the code under test (md5sum).
  const struct {
    std::string text;
    unsigned int number;
    const char* md5;
  } cases[] = {
      {"proc", 12, "8c1d11fbdea2ff6ddc35f58d259f395e"},
      {"processpoint", 3, "13214bd5672852d261d909d0f055a8e0"},
      {"img", UINT_MAX, "67909ffaf01eb8d92b214e8441f9a6dd"},  // printed signed: "img:-1"
  };
  for (const auto& c : cases) EXPECT_EQ(CreateKey(c.text, c.number), c.md5) << c.text;
  EXPECT_EQ(CreateKey2("proc:12"), "8c1d11fbdea2ff6ddc35f58d259f395e");
  EXPECT_EQ(CreateKey(std::string(5000, 'p'), 7), CreateKey2(std::string(5000, 'p') + ":7"));

  std::string a = CreateUUID();
  EXPECT_TRUE(std::regex_match(a, std::regex("[0-9a-f]{8}-([0-9a-f]{4}-){3}[0-9a-f]{12}"))) << a;
  EXPECT_NE(a, CreateUUID());
}

TEST(UtilsTest, DirectoriesAndFiles) {
  nuvtest::TempDir dir;
  const std::string root = dir.Sub("root");
  for (const char* rel : {"z.txt", "a.txt", "sub/b.txt", "sub/deep/c.log", "sub/deep/.hidden"}) {
    ASSERT_TRUE(CreateDirectory(GetDirectory(root + "/" + rel)));
    ASSERT_TRUE(nuvtest::WriteFile(root + "/" + rel, rel));
  }
  EXPECT_TRUE(CreateDirectory(root + "/sub"));  // already there
  EXPECT_FALSE(CreateDirectory(root + "/a.txt/x"));
  ASSERT_TRUE(CreateDirectory(root + "/emptydir"));
  ASSERT_TRUE(CreateDirectory(dir.Sub("onlydirs/x/y")));

  std::vector<std::string> files = {"stale"};
  ASSERT_TRUE(EnumFiles(root, files));
  EXPECT_EQ(files, (std::vector<std::string>{root + "/a.txt", root + "/sub/b.txt",
                                             root + "/sub/deep/.hidden", root + "/sub/deep/c.log",
                                             root + "/z.txt"}));
  EXPECT_FALSE(EnumFiles(dir.Sub("onlydirs"), files));
  EXPECT_TRUE(files.empty());
  EXPECT_FALSE(EnumFiles(dir.Sub("missing"), files));

  // Lines longer than any read buffer, and no line feed at the end; appended, not replaced.
  std::string content = std::string(2500, 'a') + "\n\nshort\n" + std::string(1023, 'b') + "\n" +
                        std::string(1024, 'c') + "no line feed at the end";
  ASSERT_TRUE(nuvtest::WriteFile(dir.Sub("f.txt"), content));
  std::string out = "prefix:";
  EXPECT_TRUE(ReadFileContext(dir.Sub("f.txt"), out));
  EXPECT_EQ(out, "prefix:" + content);
  EXPECT_FALSE(ReadFileContext(dir.Sub("missing.txt"), out));

  const struct {
    const char *in, *directory, *process;
  } paths[] = {{"file", "file", "file"}, {"/opt/app/run.sh", "/opt/app", "/opt/app/run"},
               {"libx.so.1", "libx.so.1", "libx.so"}, {"/a.d/agent", "/a.d", "/a"}};
  for (const auto& c : paths) {
    EXPECT_EQ(std::string(GetDirectory(c.in)) + "|" + GetProcessName(c.in),
              std::string(c.directory) + "|" + c.process);
  }
  char exe[1024] = {0};
  ASSERT_GT(readlink("/proc/self/exe", exe, sizeof(exe) - 1), 0);
  std::string expected = std::string(exe);
  expected = expected.substr(0, expected.rfind('/')) + "/../config/maintenance.json";
  struct stat st;
  std::string path;
  EXPECT_EQ(GetConfigFilePath(path), stat(expected.c_str(), &st) == 0);
  EXPECT_EQ(path, expected);
}
