#include "file/fileclassify.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <tuple>

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
    CFileClassify classify = filetest::Classify("proc", 42, c.type);
    const std::string dir = c.base + "//20240229/proc";
    const std::string suffix = "proc-42-" + std::to_string(c.type);
    EXPECT_EQ(classify.GetTimePath(), c.base + "//20240229") << c.type;
    EXPECT_EQ(classify.GetIndexPath(), dir + "/index-" + suffix) << c.type;
    EXPECT_EQ(classify.GetContentPath(), dir + "/" + suffix) << c.type;
    EXPECT_EQ(classify.GetKey(), "proc:42:" + std::to_string(c.type));
  }
  for (const auto& [name, type] : {std::make_pair("", 256u), std::make_pair("proc", 0u)}) {
    CFileClassify classify = filetest::Classify("other", 3, 256);
    EXPECT_FALSE(classify.InitFileClassify(name, 7, type));  // and nothing stale is left
    EXPECT_EQ(classify.GetName() + classify.GetContentPath() + classify.GetKey(), "");
    EXPECT_EQ(classify.GetHashKey(), 0u);
  }
}

// Paths read as "%s/%s/%s" and "%s/%s-%d-%d" into 1024 bytes did: numbers as ints, the key's
// as unsigned, and every path cut to 1023 characters.
TEST_F(FileClassifyTest, PathsKeepTheirFormattedShapeAndBound) {
  ClockAt clock(2024, 2, 29);
  CFileClassify classify = filetest::Classify("proc", 4294967295u, 3000000000u);
  EXPECT_EQ(classify.GetKey(), "proc:4294967295:3000000000");
  classify.ConstructPath("/b");
  EXPECT_EQ(classify.GetContentPath(), "/b//20240229/proc/proc--1--1294967296");
  EXPECT_EQ(classify.GetIndexPath(), "/b//20240229/proc/index-proc--1--1294967296");
  const std::string base(1010, 'd');
  classify.ConstructPath(base);
  EXPECT_EQ(classify.GetPath(), (base + "//20240229/proc").substr(0, 1023));
  EXPECT_EQ(classify.GetContentPath(), classify.GetPath());
  const std::string shorter(1000, 'd');
  classify.ConstructPath(shorter);
  const std::string dir = shorter + "//20240229/proc/";
  EXPECT_EQ(classify.GetContentPath(), (dir + "proc--1--1294967296").substr(0, 1023));
  EXPECT_EQ(classify.GetIndexPath(), (dir + "index-proc--1--1294967296").substr(0, 1023));
}

std::string Fields(const CFileClassify& c) {
  return c.GetName() + "|" + std::to_string(c.GetPid()) + "|" + std::to_string(c.GetType()) +
         "|" + c.GetTime() + "|" + c.GetIndexPath() + "|" + c.GetContentPath() + "|" +
         std::to_string(c.GetHashKey());
}

// A bus thread classifies record after record into one object: whatever differs from the last
// classification (stream, day, configured base, a path built by hand) must show in the next.
TEST_F(FileClassifyTest, AReusedClassificationFollowsEveryChange) {
  ClockAt clock(2024, 2, 29);
  CFileClassify reused;
  auto expectFresh = [&](const char* name, unsigned int pid, unsigned int type) {
    ASSERT_TRUE(reused.InitFileClassify(name, pid, type));
    const CFileClassify fresh = filetest::Classify(name, pid, type);
    EXPECT_EQ(Fields(reused), Fields(fresh));
    EXPECT_EQ(reused.GetKey(), fresh.GetKey());
    EXPECT_EQ(reused.GetPath(), fresh.GetPath());
  };
  expectFresh("proc", 42, 256);
  expectFresh("proc", 42, 256);
  expectFresh("proc", 43, 256);
  expectFresh("proc", 43, filetest::kSmallType);
  expectFresh("other", 43, filetest::kSmallType);
  clock.Set(2024, 3, 1);
  expectFresh("other", 43, filetest::kSmallType);
  expectFresh("other", 43, 256);
  ASSERT_TRUE(filetest::LoadStoreConfig(root_, 10, root_.Sub("elsewhere")).IsSuccess());
  expectFresh("other", 43, 256);
  EXPECT_EQ(reused.GetTimePath(), root_.Sub("elsewhere") + "//20240301");
  reused.ConstructPath("/b");
  expectFresh("other", 43, 256);
  EXPECT_FALSE(reused.InitFileClassify("..", 43, 256));
  expectFresh("other", 43, 256);
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
      {2024, 3, 1, "20240301", "my-proc", 5, 256},       // "-" names parse by their directory
      {2024, 3, 2, "20240302", "index", 5, 256},
      {2024, 3, 3, "20240303", "index-x-1", 5, 256},
  };
  for (const auto& c : cases) {
    ClockAt clock(c.year, c.month, c.day);
    CFileClassify made = filetest::Classify(c.name, c.pid, c.type);
    ASSERT_EQ(made.GetTime(), c.dayText);
    for (const std::string& file : {made.GetIndexPath(), made.GetContentPath()}) {
      CFileClassify parsed = filetest::Classify("stale", 1, 256);
      EXPECT_TRUE(CFileClassify::ParseFilePath(file, parsed)) << file;
      EXPECT_EQ(Fields(parsed), Fields(made));
    }
    // The key holds no day: a stream keeps its hash across days, and only across days.
    const bool sameStream = previous.GetName() == c.name && previous.GetType() == c.type;
    EXPECT_EQ(previous.GetHashKey() == made.GetHashKey(), sameStream) << c.dayText;
    previous = made;
  }
}

TEST(FileClassifyPathTest, PathsAndDaysAreChecked) {
  const std::pair<const char*, bool> paths[] = {
      {"/a//20240229/x/x-1-2", true},    {"/a//20240229/x/index-x-1-2", true},
      {"/20240229/x/x-1-2", true},       {"/a//20240230/x/x-1-2", false},
      {"/a//2024022/x/x-1-2", false},    {"/a//20240229/x/idx-x-1-2", false},
      {"/a//20240229/x/x-y-1-2", false}, {"/a//20240229/x/x-1-b", false},
      {"/a//20240229/x/x-a-2", false},   {"/a//20240229/x/x-1", false},
      {"20240229/x-1-2", false},         {"", false},
      {"/a//20240229/php-fpm/php-fpm-0-512", true},
      {"/a//20240229/php-fpm/index-php-fpm-0-512", true},
      {"/a//20240229/php-fpm/php-fpm-0", false}};
  for (const auto& [file, valid] : paths) {
    EXPECT_EQ(CFileClassify::CheckFilePathValid(file), valid) << file;
  }
  // "2024022a" passes the date check (the day reads as 2) but is not a number.
  CFileClassify parsed;
  EXPECT_TRUE(CFileClassify::CheckFilePathValid("/a//2024022a/x/x-1-2"));
  EXPECT_FALSE(CFileClassify::ParseFilePath("/a//2024022a/x/x-1-2", parsed));

  for (const char* day : {"20240229", "20000229", "20241231"}) {
    EXPECT_TRUE(CFileClassify::CheckDataTime(day)) << day;
  }
  for (const char* day : {"20230229", "21000229", "20240431", "20240100", "20241301", "2024123",
                          "202412311", "abcdefgh"}) {
    EXPECT_FALSE(CFileClassify::CheckDataTime(day)) << day;
  }
  const std::pair<const char*, const char*> archives[] = {
      {"/base//20240131.tgz", "20240131"}, {"C:\\base\\20240131.tgz", "20240131"},
      {"/a/20241301.tgz", ""}, {"/a/x.tgz.bak", ""}, {"/a/20240131.tar", ""},
      {"20240131.tgz", ""}, {"/a.tgz/20240131", ""}};
  for (const auto& [file, day] : archives) {
    EXPECT_EQ(CFileClassify::GetCompressFileTime(file, ".tgz"), day) << file;
  }
}

TEST(FileClassifyPathTest, NamesThatWouldLeaveTheirDayDirectoryAreRefused) {
  for (const std::string& name : {std::string(), std::string("."), std::string(".."),
                                  std::string("../../etc/x"), std::string("a/b"),
                                  std::string("a\0b", 3), std::string(201, 'n')}) {
    CFileClassify classify;
    EXPECT_FALSE(classify.InitFileClassify(name, 1, 512)) << name;
    EXPECT_EQ(classify.GetHashKey(), 0u);
  }
  CFileClassify longest;
  EXPECT_TRUE(longest.InitFileClassify(std::string(200, 'n'), 4294967295u, 4294967295u));
}

TEST(FileClassifyPathTest, DifferTime) {
  // The month is taken one too high on both sides: 20240131 reads as 31 February, which
  // normalises to 2 March, one day after 20240201 (1 March).
  const std::tuple<const char*, const char*, int> cases[] = {
      {"20240101", "20240102", 1}, {"20230101", "20240101", 365}, {"20240131", "20240201", -1}};
  for (const auto& [from, to, days] : cases) {
    double seconds = 0;
    ASSERT_TRUE(CFileClassify::DifferTime(from, to, seconds)) << from;
    EXPECT_DOUBLE_EQ(seconds, days * 86400.0) << from << " " << to;
  }
  double untouched = 12.5;
  EXPECT_FALSE(CFileClassify::DifferTime("2024010", "20240102", untouched));
  EXPECT_FALSE(CFileClassify::DifferTime("20240101", "202401021", untouched));
  EXPECT_EQ(untouched, 12.5);
}

}  // namespace
