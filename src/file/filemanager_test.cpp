#include "file/filemanager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "file/file_test_support.h"

namespace {

using filetest::ClockAt;
using Records = std::vector<std::string>;

class FileManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(filetest::LoadStoreConfig(root_).IsSuccess()); }

  static CFileClassify Classify(const std::string& name, unsigned int pid, unsigned int type) {
    CFileClassify classify;
    EXPECT_TRUE(classify.InitFileClassify(name, pid, type));
    return classify;
  }

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

TEST_F(FileManagerTest, ClassificationsOfOneStreamShareItsUnit) {
  CFileClassify morning = Classify("proc", 5, 256);
  CFileClassify evening = Classify("proc", 5, 256);
  CFileClassify otherPid = Classify("proc", 6, 256);
  CFileUnit* unit = manager_.FindAndInsert(morning);
  ASSERT_NE(unit, nullptr);
  EXPECT_EQ(manager_.FindAndInsert(evening), unit);
  EXPECT_NE(manager_.FindAndInsert(otherPid), unit);

  ASSERT_TRUE(manager_.WriteFile(morning, "one").IsSuccess());
  ASSERT_TRUE(manager_.WriteFile(evening, "two").IsSuccess());
  manager_.FileUnitsFlush();
  Records all;
  EXPECT_EQ(manager_.ReadALLFile(morning, all).code, 209);
  EXPECT_EQ(all, (Records{"one", "two"}));
  std::string out;
  EXPECT_EQ(manager_.ReadFile(evening, 2, out).code, 209);
  EXPECT_EQ(out, "two");
  unsigned int next = 0;
  Records batch;
  EXPECT_EQ(manager_.ReadBatchFile(evening, 1, 1, next, batch).code, 0);
  EXPECT_EQ(batch, Records{"one"});
  EXPECT_EQ(next, 2u);
}

TEST_F(FileManagerTest, UnusableClassificationCreatesNothing) {
  CFileClassify unnamed;
  CFileClassify untyped;
  EXPECT_FALSE(unnamed.InitFileClassify("", 1, 256));
  EXPECT_FALSE(untyped.InitFileClassify("proc", 1, 0));
  for (CFileClassify* classify : {&unnamed, &untyped}) {
    EXPECT_EQ(manager_.WriteFile(*classify, "record").desc,
              "parameters invalid, file classify invalid.");
    Records all;
    EXPECT_EQ(manager_.ReadALLFile(*classify, all).code, 102);
  }
  Records files;
  EXPECT_EQ(manager_.EnumAllFiles(files, 256).desc,
            "file find fail path = " + filetest::LogDir(root_) + " ");
}

TEST_F(FileManagerTest, StreamsOpenOnFirstUseAndReopenAfterClose) {
  CFileClassify quiet = Classify("quiet", 1, 256);
  std::string out;
  EXPECT_EQ(manager_.ReadFile(quiet, 1, out).code, 204);  // opened empty, then read
  Records files;
  ASSERT_TRUE(manager_.EnumAllFiles(files, 256).IsSuccess());
  EXPECT_EQ(files, WalkedFiles({quiet}));

  CFileClassify classify = Classify("proc", 1, 256);
  CFileClassify unknown = Classify("never", 1, 256);
  manager_.CloseFile(unknown);  // nothing to do
  ASSERT_TRUE(manager_.WriteFile(classify, "one").IsSuccess());
  manager_.CloseFile(classify);  // closing flushes; the files stay
  EXPECT_EQ(nuvtest::ReadFile(classify.GetContentPath()), "one");
  ASSERT_TRUE(manager_.WriteFile(classify, "two").IsSuccess());
  manager_.Delete(classify);
  Records all;
  EXPECT_EQ(manager_.ReadALLFile(classify, all).code, 209);
  EXPECT_EQ(all, (Records{"one", "two"}));
}

TEST_F(FileManagerTest, EnumerationsBySuffixTypeAndDay) {
  const std::string logDir = filetest::LogDir(root_);
  ClockAt clock(2024, 2, 28);
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

  const auto bySuffix = [&](Records& out) { return manager_.EnumFilesBySuffix(out, ".tgz", 256); };
  const auto all = [&](Records& out) { return manager_.EnumAllFiles(out, 256); };
  const auto type100 = [&](Records& out) { return manager_.EnumFilesByType(100, out); };
  const auto typeSmall = [&](Records& out) {
    return manager_.EnumFilesByType(filetest::kSmallType, out);
  };
  const auto day28 = [&](Records& out) { return manager_.EnumFilesByTime("20240228", out, 256); };
  const auto day29 = [&](Records& out) { return manager_.EnumFilesByTime("20240229", out, 256); };
  const struct {
    const char* what;
    std::function<CError(Records&)> enumerate;
    Records expected;
  } cases[] = {
      {"suffix", bySuffix, {logDir + "/20240227.tgz", logDir + "/a.tgz.old"}},
      {"all", all, WalkedFiles({a, perf, b})},
      {"type 100", type100, WalkedFiles({perf})},
      {"own type", typeSmall, WalkedFiles({small})},
      {"day 28", day28, WalkedFiles({a, perf})},
      {"day 29", day29, WalkedFiles({b})},
  };
  for (const auto& c : cases) {
    Records files;
    EXPECT_TRUE(c.enumerate(files).IsSuccess()) << c.what;
    std::sort(files.begin(), files.end());
    EXPECT_EQ(files, c.expected) << c.what;
  }

  Records files;
  EXPECT_EQ(manager_.EnumFilesByType(0, files).desc, "parameters invalid, type = 0");
  EXPECT_EQ(manager_.EnumFilesByTime("2024022", files, 256).desc, "parameters invalid, 2024022");
  EXPECT_EQ(manager_.EnumFilesByTime("20240301", files, 256).desc,
            "file find empty path = " + logDir + " ");
  EXPECT_EQ(manager_.EnumFilesBySuffix(files, ".zip", 256).code, 211);
  Records carried = {"kept"};  // emptiness is judged on the whole output
  EXPECT_TRUE(manager_.EnumFilesBySuffix(carried, ".zip", 256).IsSuccess());
}

TEST_F(FileManagerTest, ConcurrentWritersLoseNoRecord) {
  constexpr int kThreads = 4;
  constexpr int kRecords = 300;
  const auto recordOf = [](int t, int i) {
    return "t" + std::to_string(t) + "-" + std::to_string(i);
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRecords; ++i) {
        // A stream shared by every thread and one of its own, each through a fresh
        // classification as producers do.
        CFileClassify shared = Classify("shared", 1, 256);
        CFileClassify own = Classify("own" + std::to_string(t), 1, 256);
        EXPECT_TRUE(manager_.WriteFile(shared, recordOf(t, i)).IsSuccess());
        EXPECT_TRUE(manager_.WriteFile(own, recordOf(t, i)).IsSuccess());
      }
    });
  }
  threads.emplace_back([this] {
    for (int i = 0; i < 200; ++i) {
      manager_.FileUnitsFlush();
    }
  });
  for (std::thread& thread : threads) {
    thread.join();
  }
  manager_.FileUnitsFlush();

  Records shared;
  CFileClassify sharedStream = Classify("shared", 1, 256);
  ASSERT_EQ(manager_.ReadALLFile(sharedStream, shared).code, 209);
  ASSERT_EQ(shared.size(), static_cast<size_t>(kThreads * kRecords));
  for (int t = 0; t < kThreads; ++t) {
    Records expected;
    for (int i = 0; i < kRecords; ++i) {
      expected.push_back(recordOf(t, i));
    }
    Records own;
    CFileClassify ownStream = Classify("own" + std::to_string(t), 1, 256);
    ASSERT_EQ(manager_.ReadALLFile(ownStream, own).code, 209);
    EXPECT_EQ(own, expected);
    // In the shared stream each thread's records appear whole and in their order.
    Records mine;
    std::copy_if(shared.begin(), shared.end(), std::back_inserter(mine), [t](const std::string& r) {
      return r.rfind("t" + std::to_string(t) + "-", 0) == 0;
    });
    EXPECT_EQ(mine, expected);
  }
}

}  // namespace
