#include "clearn/clearn.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <set>
#include <string>
#include <thread>

#include "file/file_test_support.h"

namespace {

using Clock = std::chrono::steady_clock;

using filetest::Output;

bool Exists(const std::string& path) { return is_file_exist(path.c_str()) == 1; }

int ThreadCount() {
  auto tasks = std::filesystem::directory_iterator("/proc/self/task");
  return static_cast<int>(std::distance(begin(tasks), end(tasks)));
}

class ClearnTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(filetest::LoadStoreConfig(root_).IsSuccess()); }
  void TearDown() override { nuv_time_set_tick_scale(1); }

  // A stream of 2024-03-`day` laid out under its type's directory; with `open`, written
  // through the process's store, whose unit stays open.
  CFileClassify Day(int day, const std::string& name, unsigned int type,
                    const filetest::Lines& records, bool open = false) {
    clock_.Set(2024, 3, day);
    CFileClassify stream = filetest::Classify(name, 1, type);
    if (!open) {
      filetest::WriteRecords(stream, records);
    } else {
      EXPECT_TRUE(CSingleton<CFileManager>::GetInstance().WriteFile(stream, records[0]).IsSuccess());
      EXPECT_EQ(nuv_file_size(stream.GetContentPath().c_str()), records[0].size());
    }
    clock_.Set(2024, 3, 10);
    return stream;
  }
  static std::string Unpacked(const std::string& archive, const std::string& file) {
    return Output("tar -xzOf '" + archive + "' ./" + file);
  }

  nuvtest::TempDir root_;
  const std::string log_ = filetest::LogDir(root_);      // type 512, 7 days kept
  const std::string small_ = filetest::SmallDir(root_);  // type 8192, 1 day kept
  filetest::ClockAt clock_{2024, 3, 10};
};

TEST_F(ClearnTest, PassPacksPastDaysAndDeletesExpiredDaysAndArchives) {
  Day(10, "app", 512, {"today"});
  Day(9, "app", 512, {"one", "two"});
  Day(9, "web", 256, {"three"});
  ASSERT_TRUE(nuvtest::WriteFile(log_ + "/20240309/app/notes.txt", "stray"));
  Day(2, "app", 512, {"old"});
  ASSERT_TRUE(nuvtest::WriteFile(log_ + "/20240303.tgz", "seven days old"));
  ASSERT_TRUE(nuvtest::WriteFile(log_ + "/20240304.tgz", "six days old"));
  Day(9, "live", 512, {"buffered"}, true);
  // Another type, in its own directory and with its own days kept.
  Day(10, "app", filetest::kSmallType, {"today"});
  Day(9, "app", filetest::kSmallType, {"yesterday"});
  ASSERT_TRUE(nuvtest::WriteFile(small_ + "/20240309.tgz", "one day old"));

  const auto lines = filetest::CaptureLog([] { CClearn::ClearnAllTypes(); });

  EXPECT_EQ(nuvtest::ReadFile(log_ + "/20240310/app/app-1-512"), "today");
  EXPECT_EQ(nuvtest::ReadFile(small_ + "/20240310/app/app-1-8192"), "today");
  for (const std::string& gone : {log_ + "/20240309", log_ + "/20240302", log_ + "/20240302.tgz",
                                  log_ + "/20240303.tgz", small_ + "/20240309",
                                  small_ + "/20240309.tgz"}) {
    EXPECT_FALSE(Exists(gone)) << gone;
  }
  EXPECT_TRUE(Exists(log_ + "/20240304.tgz"));
  const std::string archive = log_ + "/20240309.tgz";
  EXPECT_EQ(Output("tar -tzf '" + archive + "' | LC_ALL=C sort"),
            "./\n./app/\n./app/app-1-512\n./app/index-app-1-512\n./app/notes.txt\n"
            "./live/\n./live/index-live-1-512\n./live/live-1-512\n"
            "./web/\n./web/index-web-1-256\n./web/web-1-256\n");
  EXPECT_EQ(Unpacked(archive, "app/app-1-512"), "onetwo");
  // The open stream was closed, and so flushed, before its day was packed.
  EXPECT_EQ(Unpacked(archive, "live/live-1-512"), "buffered");

  const filetest::Lines messages = filetest::Messages(lines, "clearn/clearn.cpp");
  EXPECT_EQ(std::multiset<std::string>(messages.begin(), messages.end()),
            (std::multiset<std::string>{
                "[INFO] [CClearn]::delete dir success. dir = " + log_ + "/20240303.tgz",
                "[ERROR] [CClearn]::parse file path failed. file = " + log_ +
                    "/20240309/app/notes.txt",
                "[INFO] [CClearn]:: dir compress success. dir = " + log_ + "/20240309",
                "[INFO] [CClearn]::delete dir success. dir = " + log_ + "/20240302",
                "[INFO] [CClearn]::delete dir success. dir = " + small_ + "/20240309.tgz",
                "[INFO] [CClearn]::delete dir success. dir = " + small_ + "/20240309"}));
}

TEST_F(ClearnTest, FailedCompressionKeepsTheDayForTheNextPass) {
  Day(9, "app", 512, {"yesterday"});
  const auto lines = filetest::CaptureLog([] {
    // exec refuses an environment this large, so tar cannot be started.
    ::setenv("NUV_CLEARN_TEST", std::string(200000, 'x').c_str(), 1);
    CClearn::ClearnFiles(512);
    ::unsetenv("NUV_CLEARN_TEST");
  });
  EXPECT_EQ(filetest::Matching(filetest::Messages(lines, "clearn/clearn.cpp"),
                               "[ERROR] [CClearn]:: dir compress failed. dir = " + log_ +
                                   "/20240309")
                .size(),
            1u);
  EXPECT_EQ(nuvtest::ReadFile(log_ + "/20240309/app/app-1-512"), "yesterday");

  CClearn::ClearnFiles(512);
  EXPECT_FALSE(Exists(log_ + "/20240309"));
  EXPECT_EQ(Unpacked(log_ + "/20240309.tgz", "app/app-1-512"), "yesterday");
}

TEST_F(ClearnTest, TornStreamsAreRepairedBeforePackingAndAtStart) {
  // A crash tore the last record of a past day's stream and of today's: half an index line.
  const auto tear = [](const CFileClassify& stream) {
    ASSERT_TRUE(nuvtest::WriteFile(stream.GetContentPath(),
                                   nuvtest::ReadFile(stream.GetContentPath()) + "tor"));
    ASSERT_TRUE(nuvtest::WriteFile(stream.GetIndexPath(),
                                   nuvtest::ReadFile(stream.GetIndexPath()) + "00000000"));
  };
  const CFileClassify past = Day(9, "my-agent", 512, {"whole"});
  tear(past);
  const CFileClassify today = Day(10, "php-fpm", 512, {"kept"});
  tear(today);
  // The walk spells the day directory with one separator where the store writes two.
  const auto warned = [](const filetest::Lines& lines, const CFileClassify& stream) {
    return filetest::Matching(
               filetest::Matching(lines, "/index-" + stream.GetName() + "-1-512, cut index bytes "
                                         "= 8, cut content bytes = 3."),
               "[CFileUnit]::InitFileUint repaired, index = ").size();
  };

  auto lines = filetest::CaptureLog([] { CClearn::ClearnFiles(512); });
  EXPECT_EQ(warned(lines, past), 1u);
  EXPECT_EQ(Unpacked(log_ + "/20240309.tgz", "my-agent/my-agent-1-512"), "whole");
  EXPECT_EQ(Unpacked(log_ + "/20240309.tgz", "my-agent/index-my-agent-1-512"),
            filetest::IndexLines({"whole"}));
  EXPECT_FALSE(Exists(log_ + "/20240309"));

  CClearn clearn;
  lines = filetest::CaptureLog([&] { ASSERT_TRUE(clearn.StartClearn()); });
  clearn.StopClearn();
  EXPECT_EQ(warned(lines, today), 1u);
  EXPECT_EQ(nuvtest::ReadFile(today.GetContentPath()), "kept");
  EXPECT_EQ(nuvtest::ReadFile(today.GetIndexPath()), filetest::IndexLines({"kept"}));
}

TEST_F(ClearnTest, ThreadFlushesSoonPassesHourlyAndStopsPromptly) {
  Day(9, "app", 512, {"yesterday"});
  CFileClassify live = Day(10, "live", 512, {"buffered"}, true);
  nuv_time_set_tick_scale(3000);  // 11 s pass in under 4 ms, the hour and a second in 1.2 s
  // A sanitizer runtime starts its own helper thread with the first thread the process
  // creates; let that happen before counting.
  std::thread([] {}).join();
  const int threads = ThreadCount();
  CClearn clearn;
  clearn.StopClearn();  // not running: nothing to do
  ASSERT_TRUE(clearn.StartClearn());
  ASSERT_TRUE(clearn.StartClearn());  // already running: no second thread
  EXPECT_EQ(ThreadCount(), threads + 1);

  EXPECT_TRUE(nuvtest::Eventually([&] { return nuvtest::ReadFile(live.GetContentPath()) == "buffered"; }));
  EXPECT_TRUE(Exists(log_ + "/20240309/app"));  // the pass is not due yet
  EXPECT_TRUE(nuvtest::Eventually([&] { return !Exists(log_ + "/20240309"); }));
  EXPECT_TRUE(Exists(log_ + "/20240309.tgz"));

  nuv_time_set_tick_scale(1);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // into a full 5 s pause
  const auto start = Clock::now();
  clearn.StopClearn();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
  EXPECT_EQ(ThreadCount(), threads);
  CSingleton<CFileManager>::GetInstance().CloseFile(live);
}

}  // namespace
