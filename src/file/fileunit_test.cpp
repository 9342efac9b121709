#include "file/fileunit.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/utils.h"
#include "file/file_test_support.h"
#include "nuv_file.h"

namespace {

using filetest::ClockAt;
using Records = std::vector<std::string>;

std::string IndexLines(const Records& records) {
  std::string text;
  unsigned int offset = 0;
  for (const std::string& record : records) {
    text += IndexData(offset, static_cast<unsigned int>(record.size())).ToString();
    offset += static_cast<unsigned int>(record.size());
  }
  return text;
}

std::string Joined(const Records& records) {
  std::string text;
  for (const std::string& record : records) {
    text += record;
  }
  return text;
}

uint64_t SizeOf(const std::string& path) { return nuv_file_size(path.c_str()); }

class FileUnitTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(filetest::LoadStoreConfig(root_).IsSuccess()); }

  CFileClassify Classify(const std::string& name, unsigned int type = 256) {
    CFileClassify classify;
    EXPECT_TRUE(classify.InitFileClassify(name, 7, type));
    return classify;
  }

  // Writes `records` through a unit of its own and closes it.
  void WriteStream(CFileClassify& classify, const Records& records) {
    CFileUnit unit;
    ASSERT_TRUE(unit.InitFileUint(classify).IsSuccess());
    for (const std::string& record : records) {
      ASSERT_TRUE(unit.WriteFile(record).IsSuccess());
    }
    unit.Close();
  }

  nuvtest::TempDir root_;
};

TEST_F(FileUnitTest, WritesAndReadsBackByNumberBatchAndAll) {
  ClockAt clock(2024, 6, 1);
  CFileClassify classify = Classify("proc");
  const Records records = {"alpha", "b", "gamma delta\n", std::string(300, 'z')};
  CFileUnit unit;
  ASSERT_TRUE(unit.InitFileUint(classify).IsSuccess());
  for (const std::string& record : records) {
    ASSERT_TRUE(unit.WriteFile(record).IsSuccess());
  }
  CError refused;
  const std::vector<std::string> log = filetest::CaptureLog([&] { refused = unit.WriteFile(""); });
  EXPECT_EQ(refused.desc, "parameters invalid, index data len = 0");
  const std::vector<std::string> lines =
      filetest::Matching(log, "[nuv_maintain][fileunit] write content failed.");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("\t[ERROR]\t[ZOR]      [file/fileunit.cpp("), std::string::npos);
  Records all;
  EXPECT_EQ(unit.ReadALLFile(all).code, 208);  // readers see only flushed data
  unit.Flush();

  EXPECT_EQ(nuvtest::ReadFile(classify.GetIndexPath()), IndexLines(records));
  EXPECT_EQ(nuvtest::ReadFile(classify.GetContentPath()), Joined(records));
  for (size_t n = 1; n <= records.size(); ++n) {
    std::string out;
    CError result = unit.ReadFile(static_cast<int>(n), out);
    EXPECT_EQ(result.code, n == records.size() ? 209 : 0) << n;
    EXPECT_EQ(out, records[n - 1]) << n;
  }
  std::string out;
  EXPECT_EQ(unit.ReadFile(5, out).code, 204);

  unsigned int next = 0;
  Records batch;
  EXPECT_EQ(unit.ReadBatchFile(2, 2, next, batch).code, 0);
  EXPECT_EQ(batch, Records(records.begin() + 1, records.begin() + 3));
  EXPECT_EQ(next, 4u);

  all.clear();
  EXPECT_EQ(unit.ReadALLFile(all).code, 209);
  EXPECT_EQ(all, records);
}

TEST_F(FileUnitTest, FirstWriteAfterMidnightMovesTheStream) {
  ClockAt clock(2024, 2, 28, 23, 59, 30);
  CFileClassify classify = Classify("proc");
  CFileUnit unit;
  ASSERT_TRUE(unit.InitFileUint(classify).IsSuccess());
  ASSERT_TRUE(unit.WriteFile("before-1").IsSuccess());
  ASSERT_TRUE(unit.WriteFile("before-2").IsSuccess());

  clock.Set(2024, 2, 29, 0, 0, 30);
  ASSERT_TRUE(unit.WriteFile("after").IsSuccess());
  unit.Flush();
  EXPECT_EQ(unit.GetTime(), "20240229");
  CFileClassify today = Classify("proc");
  EXPECT_EQ(unit.GetIndexPath(), today.GetIndexPath());
  EXPECT_NE(today.GetIndexPath(), classify.GetIndexPath());
  EXPECT_EQ(nuvtest::ReadFile(today.GetIndexPath()), IndexData(0, 5).ToString());

  // The old day's pair was closed whole.
  EXPECT_EQ(nuvtest::ReadFile(classify.GetContentPath()), "before-1before-2");
  EXPECT_EQ(nuvtest::ReadFile(classify.GetIndexPath()), IndexLines({"before-1", "before-2"}));
  Records all;
  EXPECT_EQ(unit.ReadALLFile(all).code, 209);
  EXPECT_EQ(all, Records{"after"});
}

TEST_F(FileUnitTest, StreamWhoseNameDoesNotParseCannotMoveToANewDay) {
  ClockAt clock(2024, 3, 1);
  CFileClassify classify = Classify("my-proc");
  CFileUnit unit;
  ASSERT_TRUE(unit.InitFileUint(classify).IsSuccess());
  ASSERT_TRUE(unit.WriteFile("one").IsSuccess());
  clock.Set(2024, 3, 2);
  CError result = unit.WriteFile("two");
  EXPECT_EQ(result.code, 213);
  EXPECT_EQ(result.desc, "reset file failed. index = " + classify.GetIndexPath() +
                             ", content = " + classify.GetContentPath());
  unit.Flush();
  EXPECT_EQ(nuvtest::ReadFile(classify.GetContentPath()), "one");
}

TEST_F(FileUnitTest, FlushesOnceMoreThanHalfAMebibyteIsPending) {
  CFileClassify classify = Classify("proc");
  CFileUnit unit;
  ASSERT_TRUE(unit.InitFileUint(classify).IsSuccess());
  ASSERT_TRUE(unit.WriteFile(std::string(500 * 1024, 'a')).IsSuccess());
  EXPECT_EQ(unit.GetFlushedContentOffset(), 0u);
  EXPECT_EQ(unit.GetContentOffset(), 500u * 1024);
  ASSERT_TRUE(unit.WriteFile(std::string(100 * 1024, 'b')).IsSuccess());
  EXPECT_EQ(unit.GetFlushedContentOffset(), 600u * 1024);
  EXPECT_EQ(unit.GetContentOffset(), 600u * 1024);
  EXPECT_EQ(SizeOf(classify.GetContentPath()), 600u * 1024);
  EXPECT_EQ(SizeOf(classify.GetIndexPath()), 44u);
}

TEST_F(FileUnitTest, LargeUnflushedPairIsReopenedAndContinuesAtItsEnd) {
  ASSERT_TRUE(filetest::LoadStoreConfig(root_, 100).IsSuccess());
  CFileClassify classify = Classify("proc");
  const std::string big(2 * 1024 * 1024, 'x');
  WriteStream(classify, {big});
  CFileUnit unit;
  ASSERT_TRUE(unit.InitFileUint(classify).IsSuccess());
  EXPECT_EQ(unit.GetContentOffset(), big.size());
  ASSERT_TRUE(unit.WriteFile("small").IsSuccess());
  EXPECT_EQ(unit.GetFlushedContentOffset(), big.size() + 5);
  EXPECT_EQ(nuvtest::ReadFile(classify.GetIndexPath()),
            IndexData(0, static_cast<unsigned int>(big.size())).ToString() +
                IndexData(static_cast<unsigned int>(big.size()), 5).ToString());
}

TEST_F(FileUnitTest, StreamPastItsSizeLimitStartsAgainEmpty) {
  const std::string chunkA(600 * 1024, 'a');
  const std::string chunkB(600 * 1024, 'b');
  const struct {
    unsigned int type;
    int defaultLimitMiB;
    bool restarts;
  } cases[] = {
      {filetest::kSmallType, 10, true},  // its own 1 MiB limit
      {256, 10, false},
      {256, 1, true},  // the maintenance-log types use the default limit
      {100, 1, true},  // a type without an entry falls back to it too
  };
  int round = 0;
  for (const auto& c : cases) {
    ASSERT_TRUE(filetest::LoadStoreConfig(root_, c.defaultLimitMiB).IsSuccess());
    CFileClassify classify = Classify("s" + std::to_string(round++), c.type);
    CFileUnit unit;
    ASSERT_TRUE(unit.InitFileUint(classify).IsSuccess());
    ASSERT_TRUE(unit.WriteFile(chunkA).IsSuccess());
    ASSERT_TRUE(unit.WriteFile(chunkB).IsSuccess());
    ASSERT_TRUE(unit.WriteFile("C").IsSuccess());
    unit.Flush();
    const Records expected = c.restarts ? Records{"C"} : Records{chunkA, chunkB, "C"};
    Records all;
    EXPECT_EQ(unit.ReadALLFile(all).code, 209) << c.type;
    EXPECT_EQ(all.size(), expected.size()) << c.type;
    EXPECT_TRUE(all == expected) << c.type;
    EXPECT_EQ(nuvtest::ReadFile(classify.GetIndexPath()), IndexLines(expected)) << c.type;
  }
}

// Cuts the last record of a stream at every byte offset of its index line and of its content,
// as a crash between or inside the two writes would, and reopens the pair each time.
TEST_F(FileUnitTest, OpeningRepairsEveryTornLastRecord) {
  CFileClassify classify = Classify("proc");
  const Records records = {"first record", "second", "the third record, thirty bytes"};
  WriteStream(classify, records);
  const std::string index = nuvtest::ReadFile(classify.GetIndexPath());
  const std::string content = nuvtest::ReadFile(classify.GetContentPath());
  ASSERT_EQ(index.size(), 66u);
  const size_t lastStart = content.size() - records[2].size();
  const Records complete(records.begin(), records.begin() + 2);

  for (size_t indexCut = 44; indexCut <= index.size(); ++indexCut) {
    for (size_t contentCut = lastStart; contentCut <= content.size(); ++contentCut) {
      SCOPED_TRACE("index " + std::to_string(indexCut) + ", content " + std::to_string(contentCut));
      ASSERT_TRUE(nuvtest::WriteFile(classify.GetIndexPath(), index.substr(0, indexCut)));
      ASSERT_TRUE(nuvtest::WriteFile(classify.GetContentPath(), content.substr(0, contentCut)));
      const bool intact = indexCut == index.size() && contentCut == content.size();
      const bool consistent = intact || (indexCut == 44 && contentCut == lastStart);
      const Records expected = intact ? records : complete;

      CFileUnit unit;
      CError opened;
      const std::vector<std::string> log =
          filetest::CaptureLog([&] { opened = unit.InitFileUint(classify); });
      ASSERT_TRUE(opened.IsSuccess());
      const std::vector<std::string> warns = filetest::Matching(log, "\t[WARN]\t");
      EXPECT_EQ(warns.size(), consistent ? 0u : 1u);
      EXPECT_EQ(SizeOf(classify.GetIndexPath()), IndexLines(expected).size());
      EXPECT_EQ(SizeOf(classify.GetContentPath()), Joined(expected).size());

      Records all;
      EXPECT_EQ(unit.ReadALLFile(all).code, 209);
      EXPECT_EQ(all, expected);

      // The repaired stream goes on where its last complete record ended.
      ASSERT_TRUE(unit.WriteFile("next").IsSuccess());
      unit.Flush();
      Records extended = expected;
      extended.push_back("next");
      all.clear();
      EXPECT_EQ(unit.ReadALLFile(all).code, 209);
      EXPECT_EQ(all, extended);
    }
  }
}

TEST_F(FileUnitTest, RepairDropsTrailingLinesThatDoNotLocateStoredRecords) {
  CFileClassify classify = Classify("proc");
  const Records records = {"abc", "defg"};
  const std::string index = IndexLines(records);
  const std::string content = Joined(records);
  const std::string zeros(44, '\0');  // what a crash can leave at the end of a file
  const struct {
    const char* what;
    std::string index, content;
    Records expected;
    size_t cutIndex, cutContent;
  } cases[] = {
      {"zeroed index tail", index + zeros, content, records, 44, 0},
      {"zeroed content tail", index, content + zeros, records, 0, 44},
      {"line past the end", index + IndexData(7, 5).ToString(), content, records, 22, 0},
      {"line with zero length", index + IndexData(7, 0).ToString(), content + "xy", records, 22, 2},
      {"garbage line then torn line", index + "garbage garbage garbag" + "00000000", content + "h",
       records, 30, 1},
      {"only the first line survives",
       index.substr(0, 22) + "0000000003 000000",
       content,
       {"abc"},
       39 - 22,
       4},
      {"no index at all", "", content, {}, 0, 7},
  };
  ASSERT_TRUE(CreateDirectory(classify.GetPath()));
  for (const auto& c : cases) {
    ASSERT_TRUE(nuvtest::WriteFile(classify.GetIndexPath(), c.index));
    ASSERT_TRUE(nuvtest::WriteFile(classify.GetContentPath(), c.content));
    CFileUnit unit;
    const std::vector<std::string> log =
        filetest::CaptureLog([&] { ASSERT_TRUE(unit.InitFileUint(classify).IsSuccess()); });
    const std::vector<std::string> warns = filetest::Matching(log, "\t[WARN]\t");
    ASSERT_EQ(warns.size(), 1u) << c.what;
    const std::string message =
        "[CFileUnit]::InitFileUint repaired, index = " + classify.GetIndexPath() +
        ", cut index bytes = " + std::to_string(c.cutIndex) +
        ", cut content bytes = " + std::to_string(c.cutContent) + ".";
    EXPECT_EQ(warns[0].substr(warns[0].size() - message.size()), message) << c.what;
    EXPECT_NE(warns[0].find("[file/fileunit.cpp("), std::string::npos);
    EXPECT_EQ(nuvtest::ReadFile(classify.GetIndexPath()), IndexLines(c.expected)) << c.what;
    EXPECT_EQ(nuvtest::ReadFile(classify.GetContentPath()), Joined(c.expected)) << c.what;
    if (!c.expected.empty()) {
      Records all;
      EXPECT_EQ(unit.ReadALLFile(all).code, 209) << c.what;
      EXPECT_EQ(all, c.expected) << c.what;
    }
  }
}

}  // namespace
