// The operator, the content file and the index file, read around the end of the file.
#include "file/fileoperator.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "file/file_test_support.h"

namespace {

TEST(FileOperatorTest, ReadAroundTheEndOfAFile) {
  nuvtest::TempDir dir;
  const std::string data = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGH";  // 44 bytes
  ASSERT_TRUE(nuvtest::WriteFile(dir.Sub("f"), data));
  CFileOperator op;
  ASSERT_TRUE(op.InitOperator(dir.Sub("f")).IsSuccess());
  const struct {
    int offset, length, code, next;
    std::string out;
  } cases[] = {
      {0, 22, 0, 22, data.substr(0, 22)}, {22, 22, 209, 44, data.substr(22)},
      {30, 30, 209, 44, data.substr(30)},  // a short read that reaches the end
      {44, 22, 208, 44, "untouched"},     {-1, 1, 208, 44, "untouched"},
      // A corrupt index entry naming 2 GiB: only what the file holds is read (and allocated).
      {40, INT_MAX, 209, 44, data.substr(40)},
  };
  for (const auto& c : cases) {
    std::string out = "untouched";
    int next = -7;
    EXPECT_EQ(op.ReadFile(c.offset, c.length, out, next).code, c.code) << c.offset;
    EXPECT_EQ(next, c.next) << c.offset << "+" << c.length;
    EXPECT_EQ(out, c.out) << c.offset << "+" << c.length;
  }
}

TEST(FileOperatorTest, WritesAppendVisibleAtOnceAndCutsKeepAppending) {
  nuvtest::TempDir dir;
  ASSERT_TRUE(nuvtest::WriteFile(dir.Sub("plain"), "x"));
  CFileOperator op;
  int offset = -1;
  EXPECT_EQ(op.WriteFile("x", offset).code, 203);  // not opened
  EXPECT_EQ(op.InitOperator("").code, 102);
  EXPECT_EQ(op.InitOperator(dir.Sub("plain/sub/f")).code, 203);  // a component is a file
  const std::string path = dir.Sub("deep/er/f");  // the directory is created on open
  ASSERT_TRUE(op.InitOperator(path).IsSuccess());
  ASSERT_TRUE(op.WriteFile("hello", offset).IsSuccess());
  EXPECT_EQ(op.GetFileOffset(), 5);
  ASSERT_TRUE(op.WriteFile(" world\n", offset).IsSuccess());
  EXPECT_EQ(offset, 5);
  EXPECT_EQ(op.GetFileLines(), 1);
  ASSERT_TRUE(op.Truncate(3).IsSuccess());
  ASSERT_TRUE(op.WriteFile("p", offset).IsSuccess());
  EXPECT_EQ(offset, 3);
  op.Flush();
  EXPECT_EQ(nuvtest::ReadFile(path), "help");
  // Reopened on a file with data, the first record lands at its end, and is reported there.
  CFileOperator again;
  ASSERT_TRUE(again.InitOperator(path).IsSuccess());
  ASSERT_TRUE(again.WriteFile("!", offset).IsSuccess());
  EXPECT_EQ(offset, 4);
  EXPECT_EQ(nuvtest::ReadFile(path), "help!");
}

TEST(FileContentTest, RecordsAreTextAndReadWholeOnlyToTheEnd) {
  nuvtest::TempDir dir;
  const std::string path = dir.Sub("c");
  CFileContent content;
  ASSERT_TRUE(content.InitFilePath(path).IsSuccess());
  int offset = -1;
  EXPECT_EQ(content.WriteContent("", offset).code, 102);
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
  } cases[] = {
      {{{0, 3}, {3, 4}, {7, 2}}, 209, 209, {"aaa", "bbbb", "cc"}},
      {{{0, 3}, {3, 4}}, 0, 102, {}},  // ReadAll insists on reaching the end
      {{{7, 2}, {0, 3}}, 0, 102, {}},
      {{{0, 3}, {3, 0}}, 102, 102, {}},
      {{{0, 3}, {9, 1}}, 204, 204, {}},
      {{}, 102, 102, {}},
  };
  for (const auto& c : cases) {
    std::vector<IndexData> entries = c.entries;
    std::vector<std::string> batch, all;
    EXPECT_EQ(content.ReadBatchContent(entries, batch).code, c.batchCode) << entries.size();
    EXPECT_EQ(content.ReadAllContent(entries, all).code, c.allCode) << entries.size();
    EXPECT_EQ(all, c.records);
  }
  IndexData beyond(2, 10);  // runs past the end: the bytes that are there, with 209
  std::string out;
  EXPECT_EQ(content.ReadContent(beyond, out).code, 209);
  EXPECT_EQ(out, "abbbbcc");
}

TEST(FileIndexTest, LinesAreTwentyTwoBytes) {
  EXPECT_EQ(IndexData(17, 5).ToString(), "0000000017 0000000005\n");
  // Digits written by hand up to the largest int; past it, the negative int the format shows.
  EXPECT_EQ(IndexData(2147483647u, 0).ToString(), "2147483647 0000000000\n");
  EXPECT_EQ(IndexData(4294967295u, 2147483648u).ToString(), "-000000001 -2147483648\n");
  for (const char* line : {"0000000017 0000000005\n", "0000000017  0000000005\n",
                           " 0000000017 0000000005\n", "00000000x7 0000000005\n",
                           "0000000017 \n", "0000000017\n", ""}) {
    const bool ok = line == std::string("0000000017 0000000005\n");
    IndexData entry(99, 98);
    EXPECT_EQ(entry.StringToIndex(line), ok) << line;
    EXPECT_EQ(entry.offset * 1000 + entry.length, ok ? 17005u : 99098u) << line;
  }
}

TEST(FileIndexTest, ReadByNumberAndBatchAroundTheEnd) {
  nuvtest::TempDir dir;
  CFileIndex index;
  ASSERT_TRUE(index.InitFilePath(dir.Sub("index-x-1-2")).IsSuccess());
  std::vector<IndexData> out;
  EXPECT_EQ(index.ReadAllIndex(out).code, 208);  // an empty index cannot be read whole
  IndexData empty(5, 0);
  EXPECT_EQ(index.WriteIndex(empty).code, 102);
  for (unsigned int i = 1; i <= 5; ++i) {
    IndexData entry(i * 100, i);
    ASSERT_TRUE(index.WriteIndex(entry).IsSuccess());
  }
  index.Flush();
  const struct {
    unsigned int n;
    int code;  // the last line carries the end signal; beyond it nothing is read
  } single[] = {{1, 0}, {5, 209}, {6, 204}, {4000000000u, 204}, {0, 102}};
  for (const auto& c : single) {
    IndexData entry;
    EXPECT_EQ(index.ReadIndex(c.n, entry).code, c.code) << c.n;
    EXPECT_EQ(entry.length, c.n <= 5 ? c.n : 0) << c.n;
  }
  const struct {
    unsigned int start, count;
    int code;
    unsigned int next;
    std::vector<unsigned int> lengths;
  } batches[] = {
      {4, 10, 209, 6, {4, 5}}, {5, 1, 209, 6, {5}}, {1, 2, 0, 3, {1, 2}},
      {3, 0, 0, 3, {}},        {6, 1, 102, 0, {}},  {0, 2, 102, 0, {}},
  };
  for (const auto& c : batches) {
    unsigned int next = 77;
    out.clear();
    EXPECT_EQ(index.ReadBatchIndexs(c.start, c.count, next, out).code, c.code) << c.start;
    EXPECT_EQ(next, c.next) << c.start << "," << c.count;
    std::vector<unsigned int> lengths;
    for (const IndexData& entry : out) lengths.push_back(entry.length);
    EXPECT_EQ(lengths, c.lengths) << c.start << "," << c.count;
  }
  // Reading the whole index skips lines that do not parse.
  const std::string other = dir.Sub("index-y-1-2");
  ASSERT_TRUE(nuvtest::WriteFile(other, IndexData(0, 4).ToString() + "garbage garbage garbag\n" +
                                            IndexData(4, 6).ToString()));
  CFileIndex garbled;
  ASSERT_TRUE(garbled.InitFilePath(other).IsSuccess());
  EXPECT_TRUE(garbled.ReadAllIndex(out).IsSuccess());
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[1].ToString(), IndexData(4, 6).ToString());
}

}  // namespace
