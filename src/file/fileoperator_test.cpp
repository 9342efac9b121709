// The operator, the content file and the index file, read around the end of the file.
#include "file/fileoperator.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "file/file_test_support.h"
#include "file/filecontent.h"
#include "file/fileindex.h"

namespace {

TEST(FileOperatorTest, ReadAroundTheEndOfAFile) {
  nuvtest::TempDir dir;
  const std::string path = dir.Sub("f");
  const std::string data = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGH";  // 44 bytes
  ASSERT_TRUE(nuvtest::WriteFile(path, data));
  CFileOperator op;
  ASSERT_TRUE(op.InitOperator(path).IsSuccess());
  const struct {
    int offset, length, code, next;
    std::string out;
  } cases[] = {
      {0, 22, 0, 22, data.substr(0, 22)}, {22, 22, 209, 44, data.substr(22)},
      {30, 30, 209, 44, data.substr(30)},  // a short read that reaches the end
      {44, 22, 208, 44, "untouched"},     {-1, 1, 208, 44, "untouched"},
  };
  for (const auto& c : cases) {
    std::string out = "untouched";
    int next = -7;
    CError result = op.ReadFile(c.offset, c.length, out, next);
    EXPECT_EQ(result.code, c.code) << c.offset << "+" << c.length;
    EXPECT_EQ(next, c.next) << c.offset << "+" << c.length;
    EXPECT_EQ(out, c.out) << c.offset << "+" << c.length;
  }
  std::string out;
  int next = 0;
  EXPECT_EQ(op.ReadFile(44, 1, out, next).desc, "file offset exceed range, path = " + path);
  EXPECT_EQ(op.ReadFile(22, 22, out, next).desc, "file read end, path = " + path);
}

TEST(FileOperatorTest, WritesAppendUnseenUntilFlushedAndCutsKeepAppending) {
  nuvtest::TempDir dir;
  const std::string path = dir.Sub("deep/er/f");  // the directory is created on open
  CFileOperator op;
  int offset = -1;
  EXPECT_EQ(op.WriteFile("x", offset).desc, "open file failed, path = ");
  ASSERT_TRUE(op.InitOperator(path).IsSuccess());
  ASSERT_TRUE(op.WriteFile("hello", offset).IsSuccess());
  EXPECT_EQ(op.GetFileOffset(), 0);
  op.Flush();
  ASSERT_TRUE(op.WriteFile(" world\n", offset).IsSuccess());
  EXPECT_EQ(offset, 5);
  EXPECT_EQ(op.GetFileLines(), 1);  // counting flushes the handle
  ASSERT_TRUE(op.Truncate(3).IsSuccess());
  ASSERT_TRUE(op.WriteFile("p", offset).IsSuccess());
  op.Flush();
  EXPECT_EQ(nuvtest::ReadFile(path), "help");
}

TEST(FileOperatorTest, OpenFailures) {
  nuvtest::TempDir dir;
  ASSERT_TRUE(nuvtest::WriteFile(dir.Sub("plain"), "x"));
  CFileOperator op;
  EXPECT_EQ(op.InitOperator("").desc, "parameters invalid, ");

  const std::string blocked = dir.Sub("plain/sub/f");  // a component is a regular file
  CError result;
  std::vector<std::string> log = filetest::CaptureLog([&] { result = op.InitOperator(blocked); });
  EXPECT_EQ(result.desc, "open file failed, path = " + blocked);
  const std::vector<std::string> lines = filetest::Matching(log, "[file/fileoperator.cpp(");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("\t[ERROR]\t"), std::string::npos);
  EXPECT_NE(lines[0].find("] [CFileoperator]::InitOperator create dir failed. dir = " +
                          dir.Sub("plain/sub")),
            std::string::npos)
      << lines[0];
}

TEST(FileContentTest, RecordsAreTextAndReadWholeOnlyToTheEnd) {
  nuvtest::TempDir dir;
  const std::string path = dir.Sub("c");
  CFileContent content;
  ASSERT_TRUE(content.InitFilePath(path).IsSuccess());
  int offset = -1;
  EXPECT_EQ(content.WriteContent("", offset).desc, "parameters invalid, index data len = 0");
  ASSERT_TRUE(content.WriteContent("aaabbbb", offset).IsSuccess());
  content.Flush();
  ASSERT_TRUE(content.WriteContent(std::string("cc\0dd", 5), offset).IsSuccess());
  EXPECT_EQ(offset, 7);
  content.Flush();
  ASSERT_EQ(nuvtest::ReadFile(path), "aaabbbbcc");

  const struct {
    std::vector<IndexData> entries;
    int batchCode, allCode;
    std::vector<std::string> records;  // what ReadAllContent returns
    std::string allDesc;
  } cases[] = {
      {{{0, 3}, {3, 4}, {7, 2}}, 209, 209, {"aaa", "bbbb", "cc"}, "file read end, path = " + path},
      {{{0, 3}, {3, 4}}, 0, 102, {}, "parameters invalid, indexs missing part"},
      {{{7, 2}, {0, 3}}, 0, 102, {}, "parameters invalid, indexs missing part"},
      {{{0, 3}, {3, 0}}, 102, 102, {}, "parameters invalid, index data invalid"},
      {{{0, 3}, {9, 1}}, 204, 204, {}, "read file failed, path = " + path},
      {{}, 102, 102, {}, "parameters invalid, indexs invalid"},
  };
  for (const auto& c : cases) {
    std::vector<IndexData> entries = c.entries;
    std::vector<std::string> batch;
    std::vector<std::string> all;
    EXPECT_EQ(content.ReadBatchContent(entries, batch).code, c.batchCode) << c.allDesc;
    CError result = content.ReadAllContent(entries, all);
    EXPECT_EQ(result.code, c.allCode) << c.allDesc;
    EXPECT_EQ(result.desc, c.allDesc);
    EXPECT_EQ(all, c.records) << c.allDesc;
  }
  IndexData beyond(2, 10);  // runs past the end: the bytes that are there, with 209
  std::string out;
  EXPECT_EQ(content.ReadContent(beyond, out).code, 209);
  EXPECT_EQ(out, "abbbbcc");
}

TEST(FileIndexTest, LinesAreTwentyTwoBytes) {
  EXPECT_EQ(IndexData(17, 5).ToString(), "0000000017 0000000005\n");
  const struct {
    const char* line;
    bool ok;
  } cases[] = {
      {"0000000017 0000000005\n", true},
      {"0000000017  0000000005\n", false},
      {" 0000000017 0000000005\n", false},
      {"00000000x7 0000000005\n", false},
      {"0000000017 \n", false},
      {"0000000017\n", false},
      {"", false},
  };
  for (const auto& c : cases) {
    IndexData entry(99, 98);
    EXPECT_EQ(entry.StringToIndex(c.line), c.ok) << c.line;
    EXPECT_EQ(entry.offset, c.ok ? 17u : 99u) << c.line;
    EXPECT_EQ(entry.length, c.ok ? 5u : 98u) << c.line;
  }
}

class FileIndexFileTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(index_.InitFilePath(path_).IsSuccess()); }
  void Fill(unsigned int entries) {
    for (unsigned int i = 1; i <= entries; ++i) {
      IndexData entry(i * 100, i);
      ASSERT_TRUE(index_.WriteIndex(entry).IsSuccess());
    }
    index_.Flush();
  }

  nuvtest::TempDir dir_;
  const std::string path_ = dir_.Sub("index-x-1-2");
  CFileIndex index_;
};

TEST_F(FileIndexFileTest, ReadIndexAroundTheEnd) {
  IndexData empty(5, 0);
  EXPECT_EQ(index_.WriteIndex(empty).desc, "parameters invalid, index data len = 0");
  Fill(3);
  const struct {
    unsigned int n;
    int code;
    unsigned int length;
    std::string desc;
  } cases[] = {
      {1, 0, 1, "success"},
      {3, 209, 3, "file read end, path = " + path_},     // the last line carries the end signal
      {4, 204, 0, "read file failed, path = " + path_},  // beyond the end nothing is read
      {4000000000u, 204, 0, "read file failed, path = " + path_},
      {0, 102, 0, "parameters invalid, read index = 0"},
  };
  for (const auto& c : cases) {
    IndexData entry;
    CError result = index_.ReadIndex(c.n, entry);
    EXPECT_EQ(result.code, c.code) << c.n;
    EXPECT_EQ(result.desc, c.desc) << c.n;
    EXPECT_EQ(entry.length, c.length) << c.n;
  }
}

TEST_F(FileIndexFileTest, ReadBatchIndexsClampsToTheLastEntry) {
  unsigned int next = 9;
  std::vector<IndexData> out;
  EXPECT_EQ(index_.ReadBatchIndexs(0, 5, next, out).desc, "parameters invalid, read index = 0");
  EXPECT_EQ(next, 0u);
  Fill(5);
  const struct {
    unsigned int start, count;
    int code;
    unsigned int next;
    std::vector<unsigned int> lengths;
  } cases[] = {
      {4, 10, 209, 6, {4, 5}}, {5, 1, 209, 6, {5}}, {1, 2, 0, 3, {1, 2}},
      {3, 0, 0, 3, {}},        {6, 1, 102, 0, {}},  {0, 2, 102, 0, {}},
  };
  for (const auto& c : cases) {
    next = 77;
    out.clear();
    CError result = index_.ReadBatchIndexs(c.start, c.count, next, out);
    EXPECT_EQ(result.code, c.code) << c.start << "," << c.count;
    EXPECT_EQ(next, c.next) << c.start << "," << c.count;
    std::vector<unsigned int> lengths;
    for (const IndexData& entry : out) {
      lengths.push_back(entry.length);
    }
    EXPECT_EQ(lengths, c.lengths) << c.start << "," << c.count;
  }
  EXPECT_EQ(index_.ReadBatchIndexs(6, 1, next, out).desc,
            "parameters invalid, read batch indexs invalid");
}

TEST_F(FileIndexFileTest, ReadAllIndexSkipsLinesThatDoNotParse) {
  std::vector<IndexData> out;
  EXPECT_EQ(index_.ReadAllIndex(out).code, 208);  // an empty index cannot be read whole
  ASSERT_TRUE(nuvtest::WriteFile(
      path_, IndexData(0, 4).ToString() + "garbage garbage garbag\n" + IndexData(4, 6).ToString()));
  CError result = index_.ReadAllIndex(out);
  EXPECT_EQ(result.desc, "success");
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[1].ToString(), IndexData(4, 6).ToString());
}

}  // namespace
