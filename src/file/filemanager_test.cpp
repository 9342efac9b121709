#include "file/filemanager.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "file/file_test_support.h"

namespace {

using filetest::Classify;
using Records = std::vector<std::string>;

class FileManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(filetest::LoadStoreConfig(root_).IsSuccess()); }

  // The files of `streams` as the walk names them: sorted, without the doubled separator.
  static Records WalkedFiles(const std::vector<CFileClassify>& streams) {
    Records files;
    for (const CFileClassify& stream : streams) {
      for (std::string path : {stream.GetIndexPath(), stream.GetContentPath()}) {
        files.push_back(path.erase(path.find("//"), 1));
      }
    }
    std::sort(files.begin(), files.end());
    return files;
  }

  nuvtest::TempDir root_;
  CFileManager manager_;
};

TEST_F(FileManagerTest, StreamsShareAUnitOpenOnFirstUseAndReopenAfterClose) {
  CFileClassify morning = Classify("proc", 5, 256);
  CFileClassify evening = Classify("proc", 5, 256);
  CFileClassify otherPid = Classify("proc", 6, 256);
  {
    CFileManager::LockedUnit unit = manager_.FindAndInsert(morning);
    ASSERT_NE(unit.get(), nullptr);
    EXPECT_EQ(manager_.FindAndInsert(evening).get(), unit.get());
    EXPECT_NE(manager_.FindAndInsert(otherPid).get(), unit.get());
  }

  ASSERT_TRUE(manager_.WriteFile(morning, "one").IsSuccess());
  manager_.CloseFile(evening);  // closing flushes; the files stay
  EXPECT_EQ(nuvtest::ReadFile(morning.GetContentPath()), "one");
  ASSERT_TRUE(manager_.WriteFile(evening, "two").IsSuccess());
  manager_.Delete(morning);
  manager_.FileUnitsFlush();
  Records all;
  EXPECT_EQ(manager_.ReadALLFile(morning, all).code, 209);
  EXPECT_EQ(all, (Records{"one", "two"}));
  std::string out;
  EXPECT_EQ(manager_.ReadFile(evening, 2, out).code, 209);
  EXPECT_EQ(out, "two");
  CFileClassify quiet = Classify("quiet", 1, 256);
  EXPECT_EQ(manager_.ReadFile(quiet, 1, out).code, 204);  // opened empty, then read
}

// Deleting a stream's files by hand (a full disk, a wrong glob) must not leave the daemon
// appending for the rest of the day to files nobody can read and whose space never comes back.
// Half a pair is of no use either, nor a file cut short: an index would point at bytes that
// are no longer there, so the pair starts again empty.
TEST_F(FileManagerTest, DeletedOrCutFilesStartAgainAfterTheNextFlush) {
  CFileClassify stream = Classify("proc", 5, 256);
  const std::vector<std::pair<const char*, std::function<void()>>> damages = {
      {"the day", [&] {
         std::filesystem::remove_all(std::filesystem::path(stream.GetIndexPath()).parent_path());
       }},
      {"the index", [&] { ::unlink(stream.GetIndexPath().c_str()); }},
      {"the content", [&] { ::unlink(stream.GetContentPath().c_str()); }},
      {"the content cut", [&] { ::truncate(stream.GetContentPath().c_str(), 3); }},
      {"the index emptied", [&] { ::truncate(stream.GetIndexPath().c_str(), 0); }},
  };
  for (const auto& [what, damage] : damages) {
    SCOPED_TRACE(what);
    ASSERT_TRUE(manager_.WriteFile(stream, "before").IsSuccess());
    damage();
    manager_.FileUnitsFlush();
    const auto log = filetest::CaptureLog(
        [&] { ASSERT_TRUE(manager_.WriteFile(stream, "after").IsSuccess()); });
    EXPECT_EQ(filetest::Matching(log, "files deleted or cut while open, created again. index = " +
                                          stream.GetIndexPath())
                  .size(),
              1u);
    Records all;
    EXPECT_EQ(manager_.ReadALLFile(stream, all).code, 209);
    EXPECT_EQ(all, (Records{"after"}));
    EXPECT_EQ(nuvtest::ReadFile(stream.GetContentPath()), "after");
  }
  // Files that are still there are not touched.
  manager_.FileUnitsFlush();
  const auto log =
      filetest::CaptureLog([&] { ASSERT_TRUE(manager_.WriteFile(stream, "on").IsSuccess()); });
  EXPECT_TRUE(filetest::Matching(log, "while open").empty());
  EXPECT_EQ(nuvtest::ReadFile(stream.GetContentPath()), "afteron");
}

TEST_F(FileManagerTest, EnumerationsBySuffixTypeAndDay) {
  const std::string logDir = filetest::LogDir(root_);
  Records files;
  CFileClassify unusable;  // what a failed classification leaves: refused, creates nothing
  EXPECT_EQ(manager_.WriteFile(unusable, "record").code, 102);
  EXPECT_EQ(manager_.ReadALLFile(unusable, files).code, 102);
  EXPECT_EQ(manager_.EnumAllFiles(files, 256).code, 210);
  filetest::ClockAt clock(2024, 2, 28);
  CFileClassify a = Classify("a", 1, 256);
  CFileClassify perf = Classify("p", 2, 100);
  ASSERT_TRUE(manager_.WriteFile(a, "x").IsSuccess());
  ASSERT_TRUE(manager_.WriteFile(perf, "x").IsSuccess());
  clock.Set(2024, 2, 29);
  CFileClassify b = Classify("b", 3, 256);
  CFileClassify small = Classify("s", 4, filetest::kSmallType);
  ASSERT_TRUE(manager_.WriteFile(b, "x").IsSuccess());
  ASSERT_TRUE(manager_.WriteFile(small, "x").IsSuccess());
  for (const char* stray : {"/20240227.tgz", "/a.tgz.old", "/notes.txt"}) {
    ASSERT_TRUE(nuvtest::WriteFile(logDir + stray, "z"));
  }

  // Each enumeration fills `files`: compared sorted, then emptied for the next.
  const auto found = [&files](const CError& result) {
    EXPECT_TRUE(result.IsSuccess()) << result.desc;
    std::sort(files.begin(), files.end());
    return std::exchange(files, {});
  };
  EXPECT_EQ(found(manager_.EnumFilesBySuffix(files, ".tgz", 256)),
            (Records{logDir + "/20240227.tgz", logDir + "/a.tgz.old"}));
  EXPECT_EQ(found(manager_.EnumAllFiles(files, 256)), WalkedFiles({a, perf, b}));
  EXPECT_EQ(found(manager_.EnumFilesByType(100, files)), WalkedFiles({perf}));
  EXPECT_EQ(found(manager_.EnumFilesByType(filetest::kSmallType, files)), WalkedFiles({small}));
  EXPECT_EQ(found(manager_.EnumFilesByTime("20240228", files, 256)), WalkedFiles({a, perf}));
  EXPECT_EQ(found(manager_.EnumFilesByTime("20240229", files, 256)), WalkedFiles({b}));
  EXPECT_EQ(manager_.EnumFilesByType(0, files).code, 102);
  EXPECT_EQ(manager_.EnumFilesByTime("2024022", files, 256).code, 102);
  EXPECT_EQ(manager_.EnumFilesByTime("20240301", files, 256).code, 211);
  EXPECT_EQ(manager_.EnumFilesBySuffix(files, ".zip", 256).code, 211);
  Records carried = {"kept"};  // emptiness is judged on the whole output
  EXPECT_TRUE(manager_.EnumFilesBySuffix(carried, ".zip", 256).IsSuccess());
}

TEST_F(FileManagerTest, ConcurrentWritersLoseNoRecord) {
  constexpr int kThreads = 4;
  constexpr int kRecords = 300;
  const auto recordOf = [](int t, int i) { return std::to_string(t) + "-" + std::to_string(i); };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // A stream shared by every thread and one of its own, each through a fresh
      // classification as producers do.
      for (int i = 0; i < kRecords; ++i) {
        CFileClassify shared = Classify("shared", 1, 256);
        CFileClassify own = Classify("own" + std::to_string(t), 1, 256);
        EXPECT_TRUE(manager_.WriteFile(shared, recordOf(t, i)).IsSuccess());
        EXPECT_TRUE(manager_.WriteFile(own, recordOf(t, i)).IsSuccess());
      }
    });
  }
  threads.emplace_back([this] {
    for (int i = 0; i < 200; ++i) manager_.FileUnitsFlush();
  });
  for (std::thread& thread : threads) thread.join();
  manager_.FileUnitsFlush();

  Records shared;
  CFileClassify sharedStream = Classify("shared", 1, 256);
  ASSERT_EQ(manager_.ReadALLFile(sharedStream, shared).code, 209);
  ASSERT_EQ(shared.size(), static_cast<size_t>(kThreads * kRecords));
  for (int t = 0; t < kThreads; ++t) {
    Records expected, own, mine;
    for (int i = 0; i < kRecords; ++i) expected.push_back(recordOf(t, i));
    CFileClassify ownStream = Classify("own" + std::to_string(t), 1, 256);
    ASSERT_EQ(manager_.ReadALLFile(ownStream, own).code, 209);
    EXPECT_EQ(own, expected);
    // In the shared stream each thread's records appear whole and in their order.
    for (const std::string& r : shared) {
      if (r.rfind(std::to_string(t) + "-", 0) == 0) mine.push_back(r);
    }
    EXPECT_EQ(mine, expected);
  }
}

// Streams beyond the descriptors the process may open are refused with a reason that says
// so, and the streams already open keep working.
TEST_F(FileManagerTest, OutOfDescriptorsIsNamedAndOpenStreamsGoOn) {
  struct rlimit saved {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  CFileClassify open = Classify("open", 1, 256);
  ASSERT_TRUE(manager_.WriteFile(open, "before").IsSuccess());
  int highest = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    highest = std::max(highest, std::stoi(entry.path().filename().string()));
  }
  // Descriptors are handed out lowest first: fill the gaps below the highest one so that the
  // limit counts exactly.
  std::vector<int> fillers;
  for (int fd; (fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) {
    fillers.push_back(fd);
    if (fd >= highest) break;
  }
  ASSERT_FALSE(fillers.empty());
  struct rlimit tight = saved;
  tight.rlim_cur = static_cast<rlim_t>(fillers.back() + 1 + 4 * 3);  // three more streams
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  CError refused;
  int opened = 0;
  for (; opened < 50; ++opened) {
    CFileClassify stream = Classify("many" + std::to_string(opened), 1, 256);
    refused = manager_.WriteFile(stream, "x");
    if (!refused.IsSuccess()) break;
  }
  const CError stillOpen = manager_.WriteFile(open, "after");
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
  for (int fd : fillers) ::close(fd);
  EXPECT_GE(opened, 2);
  EXPECT_LE(opened, 3);
  EXPECT_EQ(refused.code, 203);
  EXPECT_NE(refused.desc.find(" (too many open files)"), std::string::npos) << refused.desc;
  EXPECT_TRUE(stillOpen.IsSuccess());
  EXPECT_EQ(nuvtest::ReadFile(open.GetContentPath()), "beforeafter");
}

}  // namespace
