#include "clearn/clearn.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/singleton.h"
#include "common/utils.h"
#include "file/file_test_support.h"
#include "file/filemanager.h"
#include "nuv_file.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string Output(const std::string& command) {
  std::string out;
  if (FILE* pipe = ::popen(command.c_str(), "r")) {
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    ::pclose(pipe);
  }
  return out;
}

bool Exists(const std::string& path) { return is_file_exist(path.c_str()) == 1; }

// "[LEVEL] message" of each captured line, to compare texts to the last byte.
std::multiset<std::string> Messages(const std::vector<std::string>& lines) {
  std::multiset<std::string> out;
  for (const std::string& line : lines) {
    const size_t level = line.find('\t') + 1;
    out.insert(line.substr(level, line.find('\t', level) - level) + " " +
               line.substr(line.find(")] ") + 3));
  }
  return out;
}

int ThreadCount() {
  int count = 0;
  if (DIR* dir = ::opendir("/proc/self/task")) {
    while (struct dirent* entry = ::readdir(dir)) count += entry->d_name[0] != '.';
    ::closedir(dir);
  }
  return count;
}

bool WaitFor(const std::function<bool()>& done) {
  for (const auto until = Clock::now() + std::chrono::seconds(20); !done();) {
    if (Clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

class ClearnTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(filetest::LoadStoreConfig(root_).IsSuccess()); }
  void TearDown() override { nuv_time_set_tick_scale(1); }

  // One stream as the store lays it out: records back to back, one index line each.
  static void WriteStream(const std::string& base, const std::string& day, const std::string& name,
                          unsigned int type, const std::vector<std::string>& records) {
    const std::string dir = base + "/" + day + "/" + name;
    const std::string suffix = name + "-1-" + std::to_string(type);
    ASSERT_TRUE(CreateDirectory(dir));
    std::string index;
    std::string content;
    for (const std::string& record : records) {
      char line[32];
      std::snprintf(line, sizeof line, "%010d %010d\n", static_cast<int>(content.size()),
                    static_cast<int>(record.size()));
      index += line;
      content += record;
    }
    ASSERT_TRUE(nuvtest::WriteFile(dir + "/index-" + suffix, index));
    ASSERT_TRUE(nuvtest::WriteFile(dir + "/" + suffix, content));
  }

  // A record written through the store and left in the buffers of the stream's open unit.
  static CFileClassify WriteBuffered(const std::string& name, const std::string& record) {
    CFileClassify classify;
    EXPECT_TRUE(classify.InitFileClassify(name, 1, 512));
    EXPECT_TRUE(CSingleton<CFileManager>::GetInstance().WriteFile(classify, record).IsSuccess());
    EXPECT_EQ(nuv_file_size(classify.GetContentPath().c_str()), 0u);
    return classify;
  }

  nuvtest::TempDir root_;
  const std::string log_ = filetest::LogDir(root_);      // type 512, 7 days kept
  const std::string small_ = filetest::SmallDir(root_);  // type 8192, 1 day kept
  filetest::ClockAt clock_{2024, 3, 10};
};

TEST_F(ClearnTest, PassPacksPastDaysAndDeletesExpiredDaysAndArchives) {
  WriteStream(log_, "20240310", "app", 512, {"today"});
  WriteStream(log_, "20240309", "app", 512, {"one", "two"});
  WriteStream(log_, "20240309", "web", 256, {"three"});
  ASSERT_TRUE(nuvtest::WriteFile(log_ + "/20240309/app/notes.txt", "stray"));
  WriteStream(log_, "20240302", "app", 512, {"old"});
  ASSERT_TRUE(nuvtest::WriteFile(log_ + "/20240303.tgz", "seven days old"));
  ASSERT_TRUE(nuvtest::WriteFile(log_ + "/20240304.tgz", "six days old"));
  clock_.Set(2024, 3, 9);
  WriteBuffered("live", "buffered");
  clock_.Set(2024, 3, 10);

  const auto lines = filetest::CaptureLog([] { CClearn::ClearnFiles(512); });

  EXPECT_EQ(nuvtest::ReadFile(log_ + "/20240310/app/app-1-512"), "today");
  EXPECT_FALSE(Exists(log_ + "/20240309"));
  EXPECT_FALSE(Exists(log_ + "/20240302"));
  EXPECT_FALSE(Exists(log_ + "/20240302.tgz"));
  EXPECT_FALSE(Exists(log_ + "/20240303.tgz"));
  EXPECT_TRUE(Exists(log_ + "/20240304.tgz"));
  const std::string archive = "'" + log_ + "/20240309.tgz'";
  EXPECT_EQ(Output("tar -tzf " + archive + " | LC_ALL=C sort"),
            "./\n./app/\n./app/app-1-512\n./app/index-app-1-512\n./app/notes.txt\n"
            "./live/\n./live/index-live-1-512\n./live/live-1-512\n"
            "./web/\n./web/index-web-1-256\n./web/web-1-256\n");
  EXPECT_EQ(Output("tar -xzOf " + archive + " ./app/app-1-512"), "onetwo");
  // The open stream was closed, and so flushed, before its day was packed.
  EXPECT_EQ(Output("tar -xzOf " + archive + " ./live/live-1-512"), "buffered");

  const std::multiset<std::string> expected = {
      "[INFO] [CClearn]::delete dir success. dir = " + log_ + "/20240303.tgz",
      "[ERROR] [CClearn]::parse file path failed. file = " + log_ + "/20240309/app/notes.txt",
      "[INFO] [CClearn]:: dir compress success. dir = " + log_ + "/20240309",
      "[INFO] [CClearn]::delete dir success. dir = " + log_ + "/20240302"};
  EXPECT_EQ(Messages(lines), expected);
}

TEST_F(ClearnTest, EveryTypeIsCleanedInItsOwnDirectoryWithItsOwnDays) {
  for (const std::string& base : {log_, small_}) {
    WriteStream(base, "20240310", "app", filetest::kSmallType, {"today"});
    WriteStream(base, "20240309", "app", filetest::kSmallType, {"yesterday"});
  }
  ASSERT_TRUE(nuvtest::WriteFile(small_ + "/20240309.tgz", "one day old"));

  CClearn::ClearnAllTypes();

  EXPECT_TRUE(Exists(log_ + "/20240310/app"));
  EXPECT_FALSE(Exists(log_ + "/20240309"));
  EXPECT_EQ(Output("tar -xzOf '" + log_ + "/20240309.tgz' ./app/app-1-8192"), "yesterday");
  EXPECT_TRUE(Exists(small_ + "/20240310/app"));
  EXPECT_FALSE(Exists(small_ + "/20240309"));
  EXPECT_FALSE(Exists(small_ + "/20240309.tgz"));
}

TEST_F(ClearnTest, FailedCompressionKeepsTheDayForTheNextPass) {
  WriteStream(log_, "20240309", "app", 512, {"yesterday"});
  const auto lines = filetest::CaptureLog([] {
    // exec refuses an environment this large, so tar cannot be started.
    ::setenv("NUV_CLEARN_TEST", std::string(200000, 'x').c_str(), 1);
    CClearn::ClearnFiles(512);
    ::unsetenv("NUV_CLEARN_TEST");
  });
  EXPECT_EQ(
      Messages(lines).count("[ERROR] [CClearn]:: dir compress failed. dir = " + log_ + "/20240309"),
      1u);
  EXPECT_EQ(nuvtest::ReadFile(log_ + "/20240309/app/app-1-512"), "yesterday");

  CClearn::ClearnFiles(512);
  EXPECT_FALSE(Exists(log_ + "/20240309"));
  EXPECT_EQ(Output("tar -xzOf '" + log_ + "/20240309.tgz' ./app/app-1-512"), "yesterday");
}

TEST_F(ClearnTest, ThreadFlushesSoonPassesHourlyAndStopsPromptly) {
  WriteStream(log_, "20240309", "app", 512, {"yesterday"});
  CFileClassify live = WriteBuffered("live", "buffered");
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

  EXPECT_TRUE(WaitFor([&] { return nuvtest::ReadFile(live.GetContentPath()) == "buffered"; }));
  EXPECT_TRUE(Exists(log_ + "/20240309/app"));  // the pass is not due yet
  EXPECT_TRUE(WaitFor([&] { return !Exists(log_ + "/20240309"); }));
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
