#include "buryingpoint/bpmgr.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "common/singleton.h"
#include "file/file_test_support.h"
#include "file/filemanager.h"
#include "nuv_comm.h"

namespace {

using Lines = std::vector<std::string>;
constexpr int kBpInvalid = static_cast<int>(0x84CE0004u);
const char kTopic[] = "maintenance:POST";

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

int Post(const char* topic, const std::string& text) {
  comm_data* data = nuv_comm_new_data(text.data(), static_cast<unsigned int>(text.size()));
  const int result = nuv_comm_post(topic, data);
  nuv_comm_delete_data(data);
  return result;
}

// The messages of the lines that bpmgr.cpp wrote at `level` ("[ERROR]").
Lines Messages(const Lines& lines, const char* level) {
  Lines out;
  for (const std::string& line : filetest::Matching(lines, " [buryingpoint/bpmgr.cpp(")) {
    if (line.find(std::string("\t") + level + "\t") != std::string::npos) {
      out.push_back(line.substr(line.find(")] ") + 3));
    }
  }
  return out;
}

struct Outcome {
  int result = -1;
  Lines errors;
  Lines debugs;
};

Outcome PostCaptured(const char* topic, const std::string& text) {
  Outcome out;
  const Lines lines = filetest::CaptureLog([&] { out.result = Post(topic, text); });
  out.errors = Messages(lines, "[ERROR]");
  out.debugs = Messages(lines, "[DEBUG]");
  return out;
}

// A valid point with the member at `path` ("header/id") set to the JSON text `value`, or
// removed when `value` is null.
std::string Point(int type, const std::string& focus, const std::string& path = "",
                  const char* value = nullptr) {
  json_t* root =
      json_pack("{s:{s:i, s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:s, s:s}, s:{s:i, s:i, s:i}}",
                "header", "type", type, "version", "1.0", "focus", focus.c_str(), "id", "b3f1",
                "name", "open", "module", "ui", "function", "OpenFile", "time",
                "2024-03-10 12:00:00", "product", "agent", "product_version", "5.2", "agent_id",
                "a-17", "body", "time_start", 100, "time_end", 250, "time_diff", 150);
  if (!path.empty()) {
    json_t* parent = json_object_get(root, path.substr(0, path.find('/')).c_str());
    const std::string key = path.substr(path.find('/') + 1);
    if (value == nullptr) {
      json_object_del(parent, key.c_str());
    } else {
      json_object_set_new(parent, key.c_str(), json_loads(value, JSON_DECODE_ANY, nullptr));
    }
  }
  char* text = json_dumps(root, 0);
  std::string out(text);
  std::free(text);
  json_decref(root);
  return out;
}

// The records of a stream, read back through the store.
Lines Stored(CFileClassify& stream) {
  CFileManager& store = CSingleton<CFileManager>::GetInstance();
  store.FileUnitsFlush();
  Lines records;
  store.ReadALLFile(stream, records);
  return records;
}

std::string With(const std::string& path, const char* value) {
  return Point(256, "/bin/a:1", path, value);
}

class BpMgrTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(manager_.Start().code, 0); }
  void TearDown() override { manager_.Stop(); }

  CBpMgr manager_;
};

TEST_F(BpMgrTest, InvalidPointsAreRefusedWithTheirReason) {
  const std::string longFocus = std::string(5000, '/') + "agent:1";
  std::vector<std::pair<std::string, std::string>> rows = {
      // text, "<code>-<message>"
      {"", "102-json load failed with error:-1"},
      {"{\"header\": ", "102-json load failed with error:-1"},
      {"[1, 2]", "102-bp header/type is invalid"},
      {With("header/type", "\"256\""), "102-bp header/type is invalid"},
      {With("header/type", "256.0"), "102-bp header/type is invalid"},
      {With("header/version", "1.0"), "102-bp header/version is invalid"},
      {With("header/version", "\"1.00\""), "102-BP header/type:1.00 is not support"},
      {With("header/version", "\"1.0 \""), "102-BP header/type:1.0  is not support"},
      {Point(256, "/usr/bin/agent"), "102-BP header/focus:/usr/bin/agent format is invalid"},
      {Point(256, "/usr/bin/:7"), "102-BP header/focus:/usr/bin/:7 processname is invalid"},
      {Point(256, ":7"), "102-BP header/focus::7 processname is invalid"},
      // The path is cut to the 1023 bytes of its buffer, and the message to 1023 characters.
      {Point(256, longFocus),
       "102-" + ("BP header/focus:" + longFocus + " processname is invalid").substr(0, 1023)},
      {With("header/id", "7"), "102-bp header/id is invalid"},
      {With("header/function", "null"), "102-bp header/function is invalid"},
      {With("body/time_start", "\"100\""), "102-bp body/time_start is invalid"},
      {Point(0, "/bin/a:1"), "302-init file classify failed."},
  };
  for (const char* path : {"header/type", "header/version", "header/focus", "header/id",
                           "header/name", "header/module", "header/function", "header/time",
                           "header/product", "header/product_version", "header/agent_id",
                           "body/time_start", "body/time_end", "body/time_diff"}) {
    rows.emplace_back(With(path, nullptr), std::string("102-bp ") + path + " is invalid");
  }
  for (const auto& [text, reason] : rows) {
    const Outcome out = PostCaptured(kTopic, text);
    EXPECT_EQ(out.result, kBpInvalid) << text;
    EXPECT_EQ(out.errors, Lines{"[bpmgr] check bp data failed with error:" + reason}) << text;
    EXPECT_EQ(out.debugs, Lines{}) << text;
  }
}

TEST_F(BpMgrTest, ValidPointsAreStoredAsPosted) {
  const struct {
    std::string text;
    std::string name;
    unsigned int type;
  } rows[] = {
      {Point(256, "/usr/bin/timed:1234"), "timed", 256},
      {Point(512, "/usr/bin/untimed:1", "body", nullptr), "untimed", 512},  // body only for 256
      {Point(8192, "/opt/bin/owndir:1", "body/time_diff", nullptr), "owndir", 8192},
      {Point(256, "relative:" + std::string(5000, 'x')), "relative", 256},
      {Point(256, "C:/Program/win.exe:12:34"), "win.exe:12", 256},
      // Layout, member order and members the format does not know are kept.
      {"{\n  \"extra\": [1, \"\\u00e9\"],\n  \"header\": {\"agent_id\": \"\", \"product\": \"p\", "
       "\"product_version\": \"1\", \"time\": \"t\", \"function\": \"f\", \"module\": \"m\", "
       "\"name\": \"n\", \"id\": \"i\", \"focus\": \"/bin/keeper:0\", \"version\": \"1.0\", "
       "\"type\": 512}\n}\n",
       "keeper", 512},
  };
  for (const auto& row : rows) {
    CFileClassify stream;
    ASSERT_TRUE(stream.InitFileClassify(row.name, 0, row.type));
    Lines records = Stored(stream);
    const Outcome out = PostCaptured(kTopic, row.text);
    EXPECT_EQ(out.result, 0) << row.text;
    EXPECT_EQ(out.errors, Lines{});
    EXPECT_EQ(out.debugs,
              Lines{"[bpmgr] write bp data success. type:" + std::to_string(row.type) +
                    ", pid:0, name:" + row.name + ", content_path:" + stream.GetContentPath()});
    records.push_back(row.text);
    EXPECT_EQ(Stored(stream), records);
  }
}

TEST_F(BpMgrTest, UnusableCallsAndStoreFailures) {
  // A process name longer than a directory name can be: the store's code goes back.
  Outcome out = PostCaptured(kTopic, Point(256, "/bin/" + std::string(300, 'n') + ":1"));
  EXPECT_NE(out.result, 0);
  EXPECT_NE(out.result, kBpInvalid);
  ASSERT_EQ(out.errors.size(), 1u);
  EXPECT_EQ(out.errors[0].rfind(
                "[bpmgr] write bp data failed with error:" + std::to_string(out.result) + "-", 0),
            0u)
      << out.errors[0];

  ASSERT_EQ(nuv_comm_register("bpmgr:nouser", &CBpMgr::BpRegisterCallBack, nullptr), 0);
  out = PostCaptured("bpmgr:nouser", Point(256, "/bin/a:1"));
  EXPECT_EQ(out.result, static_cast<int>(0x84CE0002u));
  EXPECT_EQ(out.errors, Lines{"[bpmgr] callback userdata is null."});
  EXPECT_EQ(nuv_comm_unregister("bpmgr:nouser"), 0);

  int result = 0;
  const Lines lines = filetest::CaptureLog(
      [&] { result = CBpMgr::BpRegisterCallBack(nullptr, nullptr, &manager_); });
  EXPECT_EQ(result, static_cast<int>(0x84CE0003u));
  EXPECT_EQ(Messages(lines, "[ERROR]"), Lines{"[bpmgr] buryingpoint get comm data failed."});
}

TEST(BpMgrLifecycle, StartStopAndARefusedRegistration) {
  CBpMgr first;
  CBpMgr second;
  CError started;
  CError refused;
  Lines lines = filetest::CaptureLog([&] {
    started = first.Start();
    refused = second.Start();
  });
  const std::string busy = std::to_string(NUV_COMM_E_BUSY);
  EXPECT_EQ(started.desc, "success");
  EXPECT_EQ(refused.code, 301);
  EXPECT_EQ(refused.desc, "BP mgr comm register error with code:" + busy);
  EXPECT_EQ(Messages(lines, "[INFO]"), Lines{"[bpmgr]start buryingpoint mgr success."});
  EXPECT_EQ(Messages(lines, "[ERROR]"),
            Lines{"[bpmgr]start buryingpoint mgr failed with error:" + busy});
  // The refused start stays joined to the bus; Stop would take the first one's topic down.
  EXPECT_EQ(nuv_comm_uninit(), 0);
  EXPECT_EQ(Post(kTopic, With("header/id", nullptr)), kBpInvalid);

  lines = filetest::CaptureLog([&] { first.Stop(); });
  EXPECT_EQ(Messages(lines, "[INFO]"), Lines{"[bpmgr]stop buryingpoint mgr."});
  EXPECT_EQ(Post(kTopic, Point(256, "/bin/a:1")), NUV_COMM_E_NOTOPIC);
}

}  // namespace
