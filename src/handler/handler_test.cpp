#include "handler/handler.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "file/file_test_support.h"
#include "handler/logdata.h"
#include "nuv_syscall.h"

namespace {

using filetest::Classify;
using filetest::Lines;
const char kTopic[] = "maintenance:reciver";
const std::string kProcessPointId = "71b05a3c-6ad0-40b5-9389-917e83b7e14a";
const std::string kParseFailed =
    "[ERROR] [CPerformanceHandler]::MaintanceReceiver parse logdata failed. str = ";
const ::testing::Environment* const kEnv =
    ::testing::AddGlobalTestEnvironment(new filetest::BusEnvironment(true));

// Posts `text` to the handler: its result and the handler's log messages.
std::pair<int, Lines> Post(const std::string& text) {
  int result = -1;
  const Lines lines = filetest::CaptureLog([&] { result = nuvtest::PostOnBus(kTopic, text); });
  return {result, filetest::Messages(lines, "handler/handler.cpp")};
}

class HandlerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(CPerformanceHandler::StartHandler()); }
  void TearDown() override { EXPECT_TRUE(CPerformanceHandler::StopHandler()); }
};

TEST_F(HandlerTest, StoresTheContextInTheRecordsStream) {
  const std::string sample = R"({"C": 93.5, "M": 1024})";
  const struct {
    CLogData record;
    CFileClassify stream;
  } rows[] = {
      {CLogData("proc", "m1", 77, 100, sample), Classify("proc", 77, 100)},
      {CLogData("proc", "m1", 78, 100, "other process"), Classify("proc", 78, 100)},
      {CLogData("proc", "m1", 77, 100, "again"), Classify("proc", 77, 100)},
      // Process-point records are gathered into one stream whatever process they are about.
      {CLogData("agent", kProcessPointId, 1234, 100, sample), Classify("processpoint", 3, 100)},
  };
  for (const auto& row : rows) {
    Lines records = filetest::Stored(row.stream);
    EXPECT_EQ(Post(row.record.LogDataToString()), std::make_pair(0, Lines{}));
    records.push_back(row.record.GetContext());
    EXPECT_EQ(filetest::Stored(row.stream), records) << row.stream.GetContentPath();
  }
}

TEST_F(HandlerTest, UnusableAndPartlyParsedMessages) {
  EXPECT_EQ(Post(""), std::make_pair(static_cast<int>(0x84CE0002u), Lines{}));
  EXPECT_EQ(CPerformanceHandler::MaintanceReceiver(nullptr, nullptr, nullptr),
            static_cast<int>(0x84CE0002u));
  EXPECT_EQ(Post("not json"), std::make_pair(0, Lines{kParseFailed + "not json"}));
  // A partly parsed record is classified by what was read: the stream is opened, and the
  // empty context itself is refused by the store.
  const struct {
    std::string text;
    CFileClassify stream;
  } rows[] = {
      {R"({"type": 100, "pid": 5, "name": "noctx", "id": "m"})", Classify("noctx", 5, 100)},
      {R"({"type": 101, "pid": 9, "name": "x", "id": ")" + kProcessPointId + R"(", "context": 5})",
       Classify("processpoint", 3, 101)},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Post(row.text), std::make_pair(0, Lines{kParseFailed + row.text}));
    EXPECT_EQ(access(row.stream.GetContentPath().c_str(), F_OK), 0) << row.stream.GetContentPath();
    EXPECT_EQ(filetest::Stored(row.stream), Lines{});
  }
}

ssize_t DiskFull(int, const void*, size_t) {
  errno = ENOSPC;
  return -1;
}

TEST_F(HandlerTest, WriteFailuresAndNamesOutsideTheStoreAreReported) {
  const CLogData record("proc", "m1", 4077, 100, "sample");
  nuv_sys_override(NUV_SYS_WRITE, reinterpret_cast<nuv_sys_fn>(DiskFull));
  const auto full = Post(record.LogDataToString());
  nuv_sys_override(NUV_SYS_WRITE, nullptr);
  const CFileClassify stream = Classify("proc", 4077, 100);
  EXPECT_EQ(full, std::make_pair(205, Lines{"[ERROR] [CPerformanceHandler]::MaintanceReceiver "
                                            "write failed with error:205-write file failed, "
                                            "path = " + stream.GetContentPath()}));
  EXPECT_EQ(filetest::Stored(stream), Lines{});

  for (const std::string name : {"..", ".", "../../escaped", "/abs"}) {
    EXPECT_EQ(Post(CLogData(name, "m1", 5, 100, "x").LogDataToString()),
              std::make_pair(static_cast<int>(0x84CE0002u),
                             Lines{"[ERROR] [CPerformanceHandler]::MaintanceReceiver name is not "
                                   "a store name. name = " + name}));
  }
  const std::string base = GetStoreBaseDirectory(100);
  EXPECT_FALSE(is_file_exist((GetDirectory(GetDirectory(base)) + "/escaped").c_str()));
  EXPECT_FALSE(is_file_exist((base + "/..-5-100").c_str()));
}

TEST(PerformanceHandlerLifecycle, FailuresAreReported) {
  std::vector<bool> results;
  const Lines lines = filetest::CaptureLog([&] {
    results.push_back(CPerformanceHandler::StartHandler());
    results.push_back(CPerformanceHandler::StartHandler());  // the topic is taken
    results.push_back(CPerformanceHandler::StopHandler());
    results.push_back(CPerformanceHandler::StopHandler());  // nothing left to unregister
  });
  EXPECT_EQ(results, (std::vector<bool>{true, false, true, false}));
  EXPECT_EQ(filetest::Messages(lines, "handler/handler.cpp"),
            (Lines{"[ERROR] [CPerformanceHandler]::StartHandler failed.",
                   "[ERROR] [CPerformanceHandler]::StopHandler failed."}));
  EXPECT_FALSE(PostMessage(kTopic, CLogData("p", "i", 1, 100, "c").LogDataToString()));
}

}  // namespace
