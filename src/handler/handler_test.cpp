#include "handler/handler.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "common/singleton.h"
#include "file/file_test_support.h"
#include "file/filemanager.h"
#include "handler/logdata.h"

namespace {

using Lines = std::vector<std::string>;
const char kTopic[] = "maintenance:reciver";
const std::string kProcessPointId = "71b05a3c-6ad0-40b5-9389-917e83b7e14a";
const std::string kParseFailed =
    "[CPerformanceHandler]::MaintanceReceiver parse logdata failed. str = ";

// One bus with private sockets and one store for the whole run: the file manager keeps its
// streams open across tests, so the store must not move under it.
class StoreAndBus : public ::testing::Environment {
 public:
  void SetUp() override {
    setenv("NUV_COMM_DIR", dir_.Sub("comm").c_str(), 1);
    ASSERT_EQ(nuv_comm_init(), 0);
    ASSERT_TRUE(filetest::LoadStoreConfig(dir_).IsSuccess());
  }
  void TearDown() override { nuv_comm_uninit(); }

 private:
  nuvtest::TempDir dir_;
};
const ::testing::Environment* const kEnv = ::testing::AddGlobalTestEnvironment(new StoreAndBus);

// The messages of the ERROR lines handler.cpp wrote.
Lines HandlerErrors(const Lines& lines) {
  Lines out;
  for (const std::string& line : filetest::Matching(lines, " [handler/handler.cpp(")) {
    if (line.find("\t[ERROR]\t") != std::string::npos)
      out.push_back(line.substr(line.find(")] ") + 3));
  }
  return out;
}

// Posts `text` to the handler: its result and the handler's ERROR messages.
std::pair<int, Lines> Post(const std::string& text) {
  int result = -1;
  const Lines lines = filetest::CaptureLog([&] {
    comm_data* data = nuv_comm_new_data(text.data(), static_cast<unsigned int>(text.size()));
    result = nuv_comm_post(kTopic, data);
    nuv_comm_delete_data(data);
  });
  return {result, HandlerErrors(lines)};
}

CFileClassify Stream(const std::string& name, unsigned int pid, unsigned int type) {
  CFileClassify stream;
  EXPECT_TRUE(stream.InitFileClassify(name, pid, type));
  return stream;
}

Lines Records(CFileClassify stream) {
  CFileManager& store = CSingleton<CFileManager>::GetInstance();
  store.FileUnitsFlush();
  Lines records;
  store.ReadALLFile(stream, records);
  return records;
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
      {CLogData("proc", "m1", 77, 100, sample), Stream("proc", 77, 100)},
      {CLogData("proc", "m1", 78, 100, "other process"), Stream("proc", 78, 100)},
      // Process-point records are gathered into one stream whatever process they are about.
      {CLogData("agent", kProcessPointId, 1234, 100, sample), Stream("processpoint", 3, 100)},
  };
  for (const auto& row : rows) {
    Lines records = Records(row.stream);
    EXPECT_EQ(Post(row.record.LogDataToString()), std::make_pair(0, Lines{}));
    records.push_back(row.record.GetContext());
    EXPECT_EQ(Records(row.stream), records) << row.stream.GetContentPath();
  }
  Lines records = Records(Stream("proc", 77, 100));
  EXPECT_TRUE(PostMessage(kTopic, CLogData("proc", "m1", 77, 100, "again").LogDataToString()));
  records.push_back("again");
  EXPECT_EQ(Records(Stream("proc", 77, 100)), records);
}

TEST_F(HandlerTest, PartlyParsedRecordsAreClassifiedByWhatWasRead) {
  const struct {
    std::string text;
    CFileClassify stream;
  } rows[] = {
      {R"({"type": 100, "pid": 5, "name": "noctx", "id": "m"})", Stream("noctx", 5, 100)},
      {R"({"type": 101, "pid": 9, "name": "x", "id": ")" + kProcessPointId + R"(", "context": 5})",
       Stream("processpoint", 3, 101)},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Post(row.text), std::make_pair(0, Lines{kParseFailed + row.text}));
    // The stream was opened under the members read before the failure; the empty context
    // itself is refused by the store.
    EXPECT_EQ(access(row.stream.GetContentPath().c_str(), F_OK), 0) << row.stream.GetContentPath();
    EXPECT_EQ(Records(row.stream), Lines{});
  }
}

TEST_F(HandlerTest, UnusableMessages) {
  EXPECT_EQ(Post(""), std::make_pair(static_cast<int>(0x84CE0002u), Lines{}));
  EXPECT_EQ(CPerformanceHandler::MaintanceReceiver(nullptr, nullptr, nullptr),
            static_cast<int>(0x84CE0002u));
  EXPECT_EQ(Post("not json"), std::make_pair(0, Lines{kParseFailed + "not json"}));
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
  EXPECT_EQ(HandlerErrors(lines), (Lines{"[CPerformanceHandler]::StartHandler failed.",
                                         "[CPerformanceHandler]::StopHandler failed."}));
  EXPECT_FALSE(PostMessage(kTopic, CLogData("p", "i", 1, 100, "c").LogDataToString()));
}

}  // namespace
