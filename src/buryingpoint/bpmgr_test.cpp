#include "buryingpoint/bpmgr.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "file/file_test_support.h"
#include "nuv_syscall.h"

namespace {

using filetest::Lines;
const auto Post = &nuvtest::PostOnBus;
constexpr int kBpInvalid = static_cast<int>(0x84CE0004u);
const char kTopic[] = "maintenance:POST";
const ::testing::Environment* const kEnv =
    ::testing::AddGlobalTestEnvironment(new filetest::BusEnvironment(true));

// Posts `text` to `topic`: the result and the messages bpmgr.cpp logged.
std::pair<int, Lines> PostCaptured(const char* topic, const std::string& text) {
  int result = -1;
  const Lines lines = filetest::CaptureLog([&] { result = Post(topic, text); });
  return {result, filetest::Messages(lines, "buryingpoint/bpmgr.cpp")};
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
      {"{\"header\": ", "102-json load failed with error:-1"},
      {"[1, 2]", "102-bp header/type is invalid"},
      {With("header/type", "\"256\""), "102-bp header/type is invalid"},
      {With("header/version", "1.0"), "102-bp header/version is invalid"},
      {With("header/version", "\"1.00\""), "102-BP header/type:1.00 is not support"},
      {Point(256, "/usr/bin/agent"), "102-BP header/focus:/usr/bin/agent format is invalid"},
      {Point(256, "/usr/bin/:7"), "102-BP header/focus:/usr/bin/:7 processname is invalid"},
      // The path is cut to the 1023 bytes of its buffer, and the message to 1023 characters.
      {Point(256, longFocus),
       "102-" + ("BP header/focus:" + longFocus + " processname is invalid").substr(0, 1023)},
      {With("header/id", "7"), "102-bp header/id is invalid"},
      {With("body/time_start", "\"100\""), "102-bp body/time_start is invalid"},
      {Point(0, "/bin/a:1"), "302-init file classify failed."},
      // Stored, these would have been cut at the NUL while indexed whole.
      {With("header/id", "\"b3f1\"") + std::string("\0tail", 5),
       "102-bp data holds a NUL byte at offset " +
           std::to_string(With("header/id", "\"b3f1\"").size())},
      // Names that would step out of the day directory of the store.
      {Point(256, "/usr/bin/..:1"), "102-BP header/focus:/usr/bin/..:1 processname is invalid"},
      {Point(256, ".:1"), "102-BP header/focus:.:1 processname is invalid"},
      {Point(256, "/bin/" + std::string(201, 'n') + ":1"),
       "102-BP header/focus:/bin/" + std::string(201, 'n') + ":1 processname is invalid"},
  };
  for (const char* path : {"header/type", "header/version", "header/focus", "header/id",
                           "header/name", "header/module", "header/function", "header/time",
                           "header/product", "header/product_version", "header/agent_id",
                           "body/time_start", "body/time_end", "body/time_diff"}) {
    rows.emplace_back(With(path, nullptr), std::string("102-bp ") + path + " is invalid");
  }
  for (const auto& [text, reason] : rows) {
    EXPECT_EQ(PostCaptured(kTopic, text),
              std::make_pair(kBpInvalid,
                             Lines{"[ERROR] [bpmgr] check bp data failed with error:" + reason}))
        << text;
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
    CFileClassify stream = filetest::Classify(row.name, 0, row.type);
    Lines records = filetest::Stored(stream);
    EXPECT_EQ(PostCaptured(kTopic, row.text),
              std::make_pair(0, Lines{"[DEBUG] [bpmgr] write bp data success. type:" +
                                      std::to_string(row.type) + ", pid:0, name:" + row.name +
                                      ", content_path:" + stream.GetContentPath()}));
    records.push_back(row.text);
    EXPECT_EQ(filetest::Stored(stream), records);
  }
}

ssize_t DiskFull(int, const void*, size_t) {
  errno = ENOSPC;
  return -1;
}

TEST_F(BpMgrTest, UnusableCallsAndStoreFailures) {
  // A full disk: the store's own code goes back to the poster, and nothing is kept.
  CFileClassify stream = filetest::Classify("full", 0, 256);
  nuv_sys_override(NUV_SYS_WRITE, reinterpret_cast<nuv_sys_fn>(DiskFull));
  auto [result, messages] = PostCaptured(kTopic, Point(256, "/bin/full:1"));
  nuv_sys_override(NUV_SYS_WRITE, nullptr);
  EXPECT_EQ(result, 205);
  EXPECT_EQ(messages, Lines{"[ERROR] [bpmgr] write bp data failed with error:205-write file "
                            "failed, path = " + stream.GetContentPath()});
  EXPECT_EQ(filetest::Stored(stream), Lines{});

  ASSERT_EQ(nuv_comm_register("bpmgr:nouser", &CBpMgr::BpRegisterCallBack, nullptr), 0);
  EXPECT_EQ(PostCaptured("bpmgr:nouser", Point(256, "/bin/a:1")),
            std::make_pair(static_cast<int>(0x84CE0002u),
                           Lines{"[ERROR] [bpmgr] callback userdata is null."}));
  EXPECT_EQ(nuv_comm_unregister("bpmgr:nouser"), 0);

  const Lines lines = filetest::CaptureLog(
      [&] { result = CBpMgr::BpRegisterCallBack(nullptr, nullptr, &manager_); });
  EXPECT_EQ(result, static_cast<int>(0x84CE0003u));
  EXPECT_EQ(filetest::Messages(lines, "buryingpoint/bpmgr.cpp"),
            Lines{"[ERROR] [bpmgr] buryingpoint get comm data failed."});
}

TEST(BpMgrLifecycle, StartStopAndARefusedRegistration) {
  CBpMgr first, second;
  CError refused;
  Lines lines = filetest::CaptureLog([&] {
    EXPECT_EQ(first.Start().code, 0);
    refused = second.Start();
  });
  const std::string busy = std::to_string(NUV_COMM_E_BUSY);
  EXPECT_EQ(std::to_string(refused.code) + " " + refused.desc,
            "301 BP mgr comm register error with code:" + busy);
  EXPECT_EQ(filetest::Messages(lines, "buryingpoint/bpmgr.cpp"),
            (Lines{"[INFO] [bpmgr]start buryingpoint mgr success.",
                   "[ERROR] [bpmgr]start buryingpoint mgr failed with error:" + busy}));
  // The refused start stays joined to the bus; Stop would take the first one's topic down.
  EXPECT_EQ(nuv_comm_uninit(), 0);
  EXPECT_EQ(Post(kTopic, With("header/id", nullptr)), kBpInvalid);
  lines = filetest::CaptureLog([&] { first.Stop(); });
  EXPECT_EQ(filetest::Messages(lines, "buryingpoint/bpmgr.cpp"),
            Lines{"[INFO] [bpmgr]stop buryingpoint mgr."});
  EXPECT_EQ(Post(kTopic, Point(256, "/bin/a:1")), NUV_COMM_E_NOTOPIC);
}

}  // namespace
