#include "file/fileclassify.h"

#include <gtest/gtest.h>

#include <string>

#include "file/file_test_support.h"

namespace {

using filetest::ClockAt;

class FileClassifyTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(filetest::LoadStoreConfig(root_).IsSuccess()); }

  nuvtest::TempDir root_;
};

TEST_F(FileClassifyTest, InitBuildsPathsUnderTheBaseOfTheType) {
  ClockAt clock(2024, 2, 29);
  const std::string logDir = filetest::LogDir(root_);
  const struct {
    unsigned int type;
    std::string base, configured;
  } cases[] = {
      {256, logDir, logDir},
      {4096, logDir, logDir + "/"},  // a trailing "/" on the base changes nothing
      {100, logDir, logDir},         // no entry of its own: the default directory
      {filetest::kSmallType, filetest::SmallDir(root_), logDir},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(filetest::LoadStoreConfig(root_, 10, c.configured).IsSuccess());
    CFileClassify classify;
    ASSERT_TRUE(classify.InitFileClassify("proc", 42, c.type)) << c.type;
    const std::string dir = c.base + "//20240229/proc";
    const std::string suffix = "proc-42-" + std::to_string(c.type);
    EXPECT_EQ(classify.GetPath(), dir) << c.type;
    EXPECT_EQ(classify.GetTimePath(), c.base + "//20240229");
    EXPECT_EQ(classify.GetIndexPath(), dir + "/index-" + suffix);
    EXPECT_EQ(classify.GetContentPath(), dir + "/" + suffix);
    EXPECT_EQ(classify.GetKey(), "proc:42:" + std::to_string(c.type));
  }
}

TEST_F(FileClassifyTest, InvalidInitLeavesAnEmptyUnusableObject) {
  const struct {
    std::string name;
    unsigned int type;
  } cases[] = {{"", 256}, {"proc", 0}};
  for (const auto& c : cases) {
    CFileClassify classify;
    ASSERT_TRUE(classify.InitFileClassify("other", 3, 256));
    EXPECT_FALSE(classify.InitFileClassify(c.name, 7, c.type));
    EXPECT_EQ(classify.GetName() + classify.GetContentPath() + classify.GetKey(), "");
    EXPECT_EQ(classify.GetPid() + classify.GetType(), 0u);
    EXPECT_EQ(classify.GetHashKey(), 0u);
  }
}

TEST_F(FileClassifyTest, ConstructionAndParsingAreInverse) {
  CFileClassify previous;
  const struct {
    int year, month, day;
    const char* dayText;
    std::string name;
    unsigned int pid, type;
  } cases[] = {
      {2024, 2, 29, "20240229", "proc", 1234, 256},
      {2000, 2, 29, "20000229", "a.b_c", 0, 100},
      {2100, 2, 28, "21000228", "agent", 1, filetest::kSmallType},
      {2100, 3, 1, "21000301", "agent", 1, filetest::kSmallType},
      {2023, 12, 31, "20231231", "n", 4194304, 4096},  // the largest Linux pid
  };
  for (const auto& c : cases) {
    ClockAt clock(c.year, c.month, c.day);
    CFileClassify made;
    ASSERT_TRUE(made.InitFileClassify(c.name, c.pid, c.type)) << c.dayText;
    ASSERT_EQ(made.GetTime(), c.dayText);
    for (const std::string& file : {made.GetIndexPath(), made.GetContentPath()}) {
      CFileClassify parsed;
      ASSERT_TRUE(CFileClassify::ParseFilePath(file, parsed)) << file;
      EXPECT_EQ(parsed.GetName(), c.name) << file;
      EXPECT_EQ(parsed.GetPid(), c.pid) << file;
      EXPECT_EQ(parsed.GetType(), c.type) << file;
      EXPECT_EQ(parsed.GetTime(), c.dayText) << file;
      EXPECT_EQ(parsed.GetPath(), made.GetPath()) << file;
      EXPECT_EQ(parsed.GetIndexPath(), made.GetIndexPath()) << file;
      EXPECT_EQ(parsed.GetContentPath(), made.GetContentPath()) << file;
      EXPECT_EQ(parsed.GetHashKey(), made.GetHashKey()) << file;
    }
    // The key holds no day: a stream keeps its hash across days, and only across days.
    const bool sameStream = previous.GetName() == c.name && previous.GetType() == c.type;
    EXPECT_EQ(previous.GetHashKey() == made.GetHashKey(), sameStream) << c.dayText;
    previous = made;
  }
}

TEST_F(FileClassifyTest, NamesWithHyphensDoNotParseBack) {
  CFileClassify made;
  ASSERT_TRUE(made.InitFileClassify("my-proc", 5, 256));
  CFileClassify parsed;
  ASSERT_TRUE(parsed.InitFileClassify("stale", 1, 256));
  EXPECT_FALSE(CFileClassify::ParseFilePath(made.GetContentPath(), parsed));
  EXPECT_EQ(parsed.GetName(), "");  // a failed parse resets its output
  EXPECT_FALSE(CFileClassify::ParseFilePath(made.GetIndexPath(), parsed));
}

TEST(FileClassifyPathTest, CheckFilePathValid) {
  const struct {
    const char* file;
    bool valid;
  } cases[] = {
      {"/a//20240229/x/x-1-2", true},
      {"/a//20240229/x/index-x-1-2", true},
      {"/a//20240230/x/x-1-2", false},  // 30 February
      {"/a//21000229/x/x-1-2", false},  // 2100 is no leap year
      {"/a//20000229/x/x-1-2", true},
      {"/a//2024022/x/x-1-2", false},
      {"/a//20240229/x/idx-x-1-2", false},  // four pieces need "index" first
      {"/a//20240229/x/x-y-1-2", false},    // a name holding "-"
      {"/a//20240229/x/x-1-b", false},      // non-numeric type
      {"/a//20240229/x/x-a-2", false},      // non-numeric pid
      {"/a//20240229/x/x-1", false},
      {"/20240229/x/x-1-2", true},
      {"20240229/x-1-2", false},  // no name directory above the file
      {"", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CFileClassify::CheckFilePathValid(c.file), c.valid) << c.file;
  }
  // "2024022a" passes the date check (the day reads as 2) but is not a number.
  CFileClassify parsed;
  EXPECT_TRUE(CFileClassify::CheckFilePathValid("/a//2024022a/x/x-1-2"));
  EXPECT_FALSE(CFileClassify::ParseFilePath("/a//2024022a/x/x-1-2", parsed));
}

TEST(FileClassifyPathTest, CheckDataTime) {
  const struct {
    const char* day;
    bool valid;
  } cases[] = {
      {"20240229", true}, {"20230229", false},  {"21000229", false}, {"20000229", true},
      {"20241231", true}, {"20240431", false},  {"20240100", false}, {"20241301", false},
      {"2024123", false}, {"202412311", false}, {"abcdefgh", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CFileClassify::CheckDataTime(c.day), c.valid) << c.day;
  }
}

TEST(FileClassifyPathTest, DifferTime) {
  const struct {
    const char* from;
    const char* to;
    double seconds;
  } cases[] = {
      {"20240101", "20240102", 86400.0},
      {"20230101", "20240101", 365 * 86400.0},
      // The month is taken one too high on both sides: 20240131 reads as 31 February, which
      // normalises to 2 March, one day after 20240201 (1 March).
      {"20240131", "20240201", -86400.0},
  };
  for (const auto& c : cases) {
    double seconds = 0;
    ASSERT_TRUE(CFileClassify::DifferTime(c.from, c.to, seconds)) << c.from;
    EXPECT_DOUBLE_EQ(seconds, c.seconds) << c.from << " " << c.to;
  }
  double untouched = 12.5;
  EXPECT_FALSE(CFileClassify::DifferTime("2024010", "20240102", untouched));
  EXPECT_FALSE(CFileClassify::DifferTime("20240101", "202401021", untouched));
  EXPECT_EQ(untouched, 12.5);
}

TEST(FileClassifyPathTest, GetCompressFileTime) {
  const struct {
    const char* file;
    const char* day;
  } cases[] = {
      {"/base//20240131.tgz", "20240131"},
      {"C:\\base\\20240131.tgz", "20240131"},
      {"/a/20241301.tgz", ""},
      {"/a/x.tgz.bak", ""},
      {"/a/20240131.tar", ""},
      {"20240131.tgz", ""},
      {"/a.tgz/20240131", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CFileClassify::GetCompressFileTime(c.file, ".tgz"), c.day) << c.file;
  }
}

}  // namespace
