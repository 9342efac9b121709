#include "file/fileunit.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

#include "file/file_test_support.h"
#include "nuv_syscall.h"

namespace {

using filetest::ClockAt;
using filetest::IndexLines;
using filetest::Joined;
using Records = std::vector<std::string>;

uint64_t SizeOf(const std::string& path) { return nuv_file_size(path.c_str()); }

class FileUnitTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(filetest::LoadStoreConfig(root_).IsSuccess()); }

  // A unit opened on `classify`, with `records` written to it.
  void Open(CFileUnit& unit, CFileClassify& classify, const Records& records = {}) {
    ASSERT_TRUE(unit.InitFileUint(classify).IsSuccess());
    for (const std::string& record : records) ASSERT_TRUE(unit.WriteFile(record).IsSuccess());
  }

  nuvtest::TempDir root_;
};

TEST_F(FileUnitTest, WritesAndReadsBackByNumberBatchAndAll) {
  CFileClassify classify = filetest::Classify("proc", 7, 256);
  const Records records = {"alpha", "b", "gamma delta\n", std::string(300, 'z')};
  CFileUnit unit;
  Open(unit, classify, records);
  EXPECT_EQ(unit.WriteFile("").code, 102);
  // Written through: the files hold every record before any flush.
  EXPECT_EQ(nuvtest::ReadFile(classify.GetIndexPath()), IndexLines(records));
  EXPECT_EQ(nuvtest::ReadFile(classify.GetContentPath()), Joined(records));
  std::string out;
  EXPECT_EQ(unit.ReadFile(4, out).code, 209);
  EXPECT_EQ(out, records[3]);
  unsigned int next = 0;
  Records batch;
  EXPECT_EQ(unit.ReadBatchFile(2, 2, next, batch).code, 0);
  EXPECT_EQ(batch, Records(records.begin() + 1, records.begin() + 3));
  EXPECT_EQ(next, 4u);
  Records all;
  EXPECT_EQ(unit.ReadALLFile(all).code, 209);
  EXPECT_EQ(all, records);
}

TEST_F(FileUnitTest, FirstWriteAfterMidnightMovesTheStream) {
  ClockAt clock(2024, 2, 28, 23, 59, 30);
  CFileClassify classify = filetest::Classify("proc", 7, 256);
  CFileClassify hyphen = filetest::Classify("my-proc", 7, 256);
  CFileUnit unit, stuck;
  Open(unit, classify, {"before-1", "before-2"});
  Open(stuck, hyphen, {"one"});

  clock.Set(2024, 2, 29, 0, 0, 30);
  ASSERT_TRUE(unit.WriteFile("after").IsSuccess());
  unit.Flush();
  CFileClassify today = filetest::Classify("proc", 7, 256);
  EXPECT_EQ(unit.GetTime(), "20240229");
  EXPECT_EQ(unit.GetIndexPath(), today.GetIndexPath());
  EXPECT_NE(today.GetIndexPath(), classify.GetIndexPath());
  EXPECT_EQ(nuvtest::ReadFile(today.GetIndexPath()), IndexLines({"after"}));
  // The old day's pair was closed whole.
  EXPECT_EQ(nuvtest::ReadFile(classify.GetContentPath()), "before-1before-2");
  EXPECT_EQ(nuvtest::ReadFile(classify.GetIndexPath()), IndexLines({"before-1", "before-2"}));
  Records all;
  EXPECT_EQ(unit.ReadALLFile(all).code, 209);
  EXPECT_EQ(all, Records{"after"});

  // A name holding "-" moves as well: the unit does not read its name back from the path.
  ASSERT_TRUE(stuck.WriteFile("two").IsSuccess());
  EXPECT_EQ(nuvtest::ReadFile(hyphen.GetContentPath()), "one");
  const CFileClassify hyphenToday = filetest::Classify("my-proc", 7, 256);
  EXPECT_EQ(nuvtest::ReadFile(hyphenToday.GetContentPath()), "two");
  EXPECT_EQ(nuvtest::ReadFile(hyphenToday.GetIndexPath()), IndexLines({"two"}));
}

// Writes to the file whose path ends with `g_failing_suffix` take `g_room` more bytes, then
// fail with ENOSPC; writes to other files go through.
std::string g_failing_suffix;
ssize_t g_room = 0;
ssize_t WriteUntilFull(int fd, const void* buf, size_t size) {
  char link[64], target[4096];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t n = readlink(link, target, sizeof target);
  const std::string path(target, n > 0 ? static_cast<size_t>(n) : 0);
  auto real = reinterpret_cast<nuv_sys_write_fn>(nuv_sys_real(NUV_SYS_WRITE));
  if (path.size() < g_failing_suffix.size() ||
      path.compare(path.size() - g_failing_suffix.size(), g_failing_suffix.size(),
                   g_failing_suffix) != 0) {
    return real(fd, buf, size);
  }
  if (g_room <= 0) {
    errno = ENOSPC;
    return -1;
  }
  const size_t take = std::min(size, static_cast<size_t>(g_room));
  g_room -= static_cast<ssize_t>(take);
  return real(fd, buf, take);
}

TEST_F(FileUnitTest, AFailedWriteIsReportedAndCutBackSoTheStreamGoesOnWhenSpaceReturns) {
  CFileClassify classify = filetest::Classify("proc", 7, 256);
  const struct {
    std::string failing;  // the file that fills up
    int code;
    std::string message;
  } cases[] = {
      {"/proc-7-256", 205, "[ERROR] [nuv_maintain][fileunit] write content failed."},
      {"/index-proc-7-256", 212,
       "[ERROR] [nuv_maintain][fileunit] write index failed. index = " +
           classify.GetIndexPath()},
  };
  Records expected = {"first"};
  CFileUnit unit;
  Open(unit, classify, expected);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.failing);
    g_failing_suffix = c.failing;
    g_room = 3;  // part of the record reaches the file before the disk is full
    nuv_sys_override(NUV_SYS_WRITE, reinterpret_cast<nuv_sys_fn>(WriteUntilFull));
    CError result;
    const auto log = filetest::CaptureLog([&] { result = unit.WriteFile("second record"); });
    EXPECT_EQ(result.code, c.code);
    EXPECT_EQ(filetest::Messages(log, "file/fileunit.cpp"), filetest::Lines{c.message});
    // Nothing of the refused record is left, in either file.
    EXPECT_EQ(nuvtest::ReadFile(classify.GetIndexPath()), IndexLines(expected));
    EXPECT_EQ(nuvtest::ReadFile(classify.GetContentPath()), Joined(expected));
    nuv_sys_override(NUV_SYS_WRITE, nullptr);

    ASSERT_TRUE(unit.WriteFile("after " + c.failing).IsSuccess());
    expected.push_back("after " + c.failing);
    Records all;
    EXPECT_EQ(unit.ReadALLFile(all).code, 209);
    EXPECT_EQ(all, expected);
  }
  EXPECT_EQ(unit.WriteFile(std::string("a\0b", 3)).code, 102);  // could not be read back
  EXPECT_EQ(nuvtest::ReadFile(classify.GetContentPath()), Joined(expected));
}

TEST_F(FileUnitTest, FlushesOnceMoreThanHalfAMebibyteIsPendingAndReopensLargePairsAtTheEnd) {
  ASSERT_TRUE(filetest::LoadStoreConfig(root_, 100).IsSuccess());
  CFileClassify classify = filetest::Classify("proc", 7, 256);
  {
    CFileUnit unit;
    Open(unit, classify, {std::string(500 * 1024, 'a')});
    EXPECT_EQ(unit.GetFlushedContentOffset(), 0u);
    EXPECT_EQ(unit.GetContentOffset(), 500u * 1024);
    ASSERT_TRUE(unit.WriteFile(std::string(1600 * 1024, 'b')).IsSuccess());
    EXPECT_EQ(unit.GetFlushedContentOffset(), 2100u * 1024);
    EXPECT_EQ(SizeOf(classify.GetContentPath()), 2100u * 1024);
    EXPECT_EQ(SizeOf(classify.GetIndexPath()), 44u);
  }
  CFileUnit unit;
  Open(unit, classify);
  EXPECT_EQ(unit.GetContentOffset(), 2100u * 1024);
  ASSERT_TRUE(unit.WriteFile("small").IsSuccess());
  unit.Flush();
  EXPECT_EQ(nuvtest::ReadFile(classify.GetIndexPath()),
            IndexLines({std::string(500 * 1024, 'a'), std::string(1600 * 1024, 'b'), "small"}));
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
    CFileClassify classify = filetest::Classify("s" + std::to_string(round++), 7, c.type);
    CFileUnit unit;
    Open(unit, classify, {chunkA, chunkB, "C"});
    unit.Flush();
    const Records expected = c.restarts ? Records{"C"} : Records{chunkA, chunkB, "C"};
    Records all;
    EXPECT_EQ(unit.ReadALLFile(all).code, 209) << c.type;
    EXPECT_TRUE(all == expected) << c.type;
    EXPECT_EQ(nuvtest::ReadFile(classify.GetIndexPath()), IndexLines(expected)) << c.type;
  }
}

// Counts the write system calls that reach the kernel.
int g_writes = 0;
ssize_t CountingWrite(int fd, const void* buf, size_t size) {
  ++g_writes;
  return reinterpret_cast<nuv_sys_write_fn>(nuv_sys_real(NUV_SYS_WRITE))(fd, buf, size);
}

// The same records written one by one and handed over together leave the same files and the
// same results; together they cost one write per file for each run no check falls inside.
TEST_F(FileUnitTest, RecordsHandedOverTogetherAreStoredAsIfWrittenOneByOne) {
  const std::string big(600 * 1024, 'b'), small(100 * 1024, 's');
  const struct {
    const char* what;
    Records records;
    int writes;  // by the run form, when no check splits the records
  } cases[] = {
      {"a plain run", Records(10, "ten bytes!"), 2},
      {"past the 64 records of a run", Records(150, "x"), 6},
      {"a NUL and an empty record inside", {"one", std::string("t\0o", 3), "three", "", "five"}, -1},
      // The big record is flushed on its own; the small type's 1 MiB limit is then crossed
      // inside a run, and the stream restarts where a lone write would have restarted it.
      {"across the size limit", {big, small, small, small, small, small, small, "last"}, -1},
  };
  int round = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string name = "r" + std::to_string(round++);
    CFileClassify alone = filetest::Classify(name + "a", 7, filetest::kSmallType);
    CFileClassify together = filetest::Classify(name + "t", 7, filetest::kSmallType);
    CFileUnit one, many;
    Open(one, alone);
    Open(many, together);
    std::vector<int> codesAlone, codesTogether;
    for (const std::string& record : c.records) codesAlone.push_back(one.WriteFile(record).code);
    std::vector<std::string_view> views(c.records.begin(), c.records.end());
    std::vector<CError> results(views.size());
    g_writes = 0;
    nuv_sys_override(NUV_SYS_WRITE, reinterpret_cast<nuv_sys_fn>(CountingWrite));
    many.WriteFiles(views.data(), views.size(), results.data());
    nuv_sys_override(NUV_SYS_WRITE, nullptr);
    for (const CError& r : results) codesTogether.push_back(r.code);
    EXPECT_EQ(codesTogether, codesAlone);
    if (c.writes >= 0) {
      EXPECT_EQ(g_writes, c.writes);
    }
    EXPECT_EQ(nuvtest::ReadFile(together.GetIndexPath()), nuvtest::ReadFile(alone.GetIndexPath()));
    EXPECT_EQ(nuvtest::ReadFile(together.GetContentPath()),
              nuvtest::ReadFile(alone.GetContentPath()));
    EXPECT_EQ(many.GetContentOffset(), one.GetContentOffset());
  }
}

// A run that fails part-way is refused whole and cut back, so no record of it is reported
// stored, and the stream goes on behind the last record stored before it.
TEST_F(FileUnitTest, ARunThatFailsIsRefusedWholeAndCutBack) {
  CFileClassify classify = filetest::Classify("proc", 7, 256);
  for (const char* failing : {"/proc-7-256", "/index-proc-7-256"}) {
    SCOPED_TRACE(failing);
    CFileUnit unit;
    Records expected = {"kept"};
    Open(unit, classify, expected);
    const std::vector<std::string_view> run = {"first", "second", "third"};
    std::vector<CError> results(run.size());
    g_failing_suffix = failing;
    g_room = 8;  // the first record and part of the second reach the content file
    nuv_sys_override(NUV_SYS_WRITE, reinterpret_cast<nuv_sys_fn>(WriteUntilFull));
    unit.WriteFiles(run.data(), run.size(), results.data());
    nuv_sys_override(NUV_SYS_WRITE, nullptr);
    for (const CError& r : results) EXPECT_NE(r.code, 0);
    EXPECT_EQ(nuvtest::ReadFile(classify.GetIndexPath()), IndexLines(expected));
    EXPECT_EQ(nuvtest::ReadFile(classify.GetContentPath()), Joined(expected));
    ASSERT_TRUE(unit.WriteFile("after").IsSuccess());
    expected.push_back("after");
    Records all;
    EXPECT_EQ(unit.ReadALLFile(all).code, 209);
    EXPECT_EQ(all, expected);
    unit.Close();
    nuv_file_remove(classify.GetIndexPath().c_str());
    nuv_file_remove(classify.GetContentPath().c_str());
  }
}

// Cuts the last record of a stream at every byte offset of its index line and of its content,
// as a crash between or inside the two writes would, and reopens the pair each time.
TEST_F(FileUnitTest, OpeningRepairsEveryTornLastRecord) {
  CFileClassify classify = filetest::Classify("proc", 7, 256);
  const Records records = {"first record", "second", "the third record, thirty bytes"};
  const std::string index = IndexLines(records);
  const std::string content = Joined(records);
  const size_t lastStart = content.size() - records[2].size();
  const Records complete(records.begin(), records.begin() + 2);
  filetest::WriteRecords(classify, records);

  for (size_t indexCut = 44; indexCut <= index.size(); ++indexCut) {
    for (size_t contentCut = lastStart; contentCut <= content.size(); ++contentCut) {
      SCOPED_TRACE("index " + std::to_string(indexCut) + ", content " + std::to_string(contentCut));
      ASSERT_TRUE(nuvtest::WriteFile(classify.GetIndexPath(), index.substr(0, indexCut)));
      ASSERT_TRUE(nuvtest::WriteFile(classify.GetContentPath(), content.substr(0, contentCut)));
      const bool intact = indexCut == index.size() && contentCut == content.size();
      const bool consistent = intact || (indexCut == 44 && contentCut == lastStart);
      Records expected = intact ? records : complete;

      CFileUnit unit;
      const auto log = filetest::CaptureLog([&] { Open(unit, classify); });
      EXPECT_EQ(filetest::Matching(log, "\t[WARN]\t").size(), consistent ? 0u : 1u);
      EXPECT_EQ(SizeOf(classify.GetIndexPath()), IndexLines(expected).size());
      EXPECT_EQ(SizeOf(classify.GetContentPath()), Joined(expected).size());
      // The repaired stream goes on where its last complete record ended.
      ASSERT_TRUE(unit.WriteFile("next").IsSuccess());
      unit.Flush();
      expected.push_back("next");
      Records all;
      EXPECT_EQ(unit.ReadALLFile(all).code, 209);
      EXPECT_EQ(all, expected);
    }
  }
}

TEST_F(FileUnitTest, RepairDropsTrailingLinesThatDoNotLocateStoredRecords) {
  CFileClassify classify = filetest::Classify("proc", 7, 256);
  const Records records = {"abc", "defg"};
  const std::string index = IndexLines(records);
  const std::string content = Joined(records);
  const std::string zeros(44, '\0');  // what a crash can leave at the end of a file
  const struct {
    std::string index, content;
    Records expected;
    size_t cutIndex, cutContent;
  } cases[] = {
      {index + zeros, content, records, 44, 0},
      {index, content + zeros, records, 0, 44},
      {index + IndexData(7, 5).ToString(), content, records, 22, 0},  // past the end
      {index + IndexData(7, 0).ToString(), content + "xy", records, 22, 2},
      {index + "garbage garbage garbag" + "00000000", content + "h", records, 30, 1},
      {index.substr(0, 22) + "0000000003 000000", content, {"abc"}, 17, 4},
      {"", content, {}, 0, 7},
  };
  ASSERT_TRUE(CreateDirectory(classify.GetPath()));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.cutIndex * 100 + c.cutContent);
    ASSERT_TRUE(nuvtest::WriteFile(classify.GetIndexPath(), c.index));
    ASSERT_TRUE(nuvtest::WriteFile(classify.GetContentPath(), c.content));
    CFileUnit unit;
    const auto log = filetest::CaptureLog([&] { Open(unit, classify); });
    const std::string message = "[WARN] [CFileUnit]::InitFileUint repaired, index = " +
                                classify.GetIndexPath() + ", cut index bytes = " +
                                std::to_string(c.cutIndex) + ", cut content bytes = " +
                                std::to_string(c.cutContent) + ".";
    EXPECT_EQ(filetest::Messages(log, "file/fileunit.cpp"), filetest::Lines{message});
    EXPECT_EQ(nuvtest::ReadFile(classify.GetIndexPath()), IndexLines(c.expected));
    EXPECT_EQ(nuvtest::ReadFile(classify.GetContentPath()), Joined(c.expected));
  }
}

}  // namespace
