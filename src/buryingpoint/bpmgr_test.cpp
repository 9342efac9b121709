#include "buryingpoint/bpmgr.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "file/file_test_support.h"
#include "nuv_syscall.h"
#include "testutil/bp_tree_check.h"

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

// As With, but `raw` goes into the text as it is, valid JSON or not.
std::string WithRaw(const std::string& path, const std::string& raw) {
  const std::string marked = With(path, "\"@raw@\"");
  return marked.substr(0, marked.find("\"@raw@\"")) + raw +
         marked.substr(marked.find("\"@raw@\"") + 7);
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

// Points read together are checked one by one, the valid ones stored together in their order,
// and each is answered for itself.
TEST_F(BpMgrTest, PointsReadTogetherAreAnsweredEachForItself) {
  const std::vector<std::string> texts = {Point(256, "/bin/mix:1"), With("header/id", "7"),
                                          Point(512, "/bin/other:1"), Point(256, "/bin/mix:2")};
  std::vector<comm_data*> requests;
  for (const std::string& t : texts)
    requests.push_back(nuv_comm_new_data(t.data(), static_cast<unsigned int>(t.size())));
  requests.push_back(nullptr);  // its bytes cannot be had
  const CFileClassify mix = filetest::Classify("mix", 0, 256);
  const CFileClassify other = filetest::Classify("other", 0, 512);
  std::vector<int> results(requests.size(), 0x5A5A5A5A);
  const Lines lines = filetest::CaptureLog([&] {
    CBpMgr::BpBatchCallBack(requests.data(), static_cast<unsigned int>(requests.size()),
                            results.data(), &manager_);
  });
  EXPECT_EQ(results, (std::vector<int>{0, kBpInvalid, 0, 0, static_cast<int>(0x84CE0003u)}));
  auto stored = [](const CFileClassify& c, unsigned int type) {
    return "[DEBUG] [bpmgr] write bp data success. type:" + std::to_string(type) +
           ", pid:0, name:" + c.GetName() + ", content_path:" + c.GetContentPath();
  };
  EXPECT_EQ(filetest::Messages(lines, "buryingpoint/bpmgr.cpp"),
            (Lines{"[ERROR] [bpmgr] check bp data failed with error:102-bp header/id is invalid",
                   "[ERROR] [bpmgr] buryingpoint get comm data failed.", stored(mix, 256),
                   stored(other, 512), stored(mix, 256)}));
  EXPECT_EQ(filetest::Stored(mix), (Lines{texts[0], texts[3]}));
  EXPECT_EQ(filetest::Stored(other), Lines{texts[2]});

  CBpMgr::BpBatchCallBack(requests.data(), 2, results.data(), nullptr);
  EXPECT_EQ(results[0], static_cast<int>(0x84CE0002u));
  EXPECT_EQ(results[1], static_cast<int>(0x84CE0002u));
  for (comm_data* r : requests) nuv_comm_delete_data(r);
}

// What a check gives: code, message and the stream it classified.
std::string Outcome(const CError& e, const CFileClassify& c) {
  return std::to_string(e.code) + "-" + e.desc + " | " + c.GetContentPath();
}

std::string Scanned(const std::string& text) {
  CFileClassify classify;
  std::string copy = text;
  const CError e = CBpMgr().CheckBpData(copy.empty() ? nullptr : &copy[0],
                                        static_cast<unsigned int>(copy.size()), classify);
  return Outcome(e, classify);
}

std::string OverTree(const std::string& text) {
  CFileClassify classify;
  const CError e = nuvtest::CheckBpOverTree(text, classify);
  return Outcome(e, classify);
}

// The in-place scan refuses and classifies as the Jansson tree did: members found through
// escapes and duplicates, wrong kinds, integers past 32 bits, hostile texts around a valid point.
TEST_F(BpMgrTest, ChecksMatchTheTreeOnHostileBodies) {
  const std::string valid = Point(256, "/usr/bin/agent:1");
  const std::string header = valid.substr(0, valid.find(", \"body\""));
  const std::string body = valid.substr(valid.find("\"body\""));
  const struct {
    std::string text;
    std::string expected;  // the start of the outcome, so each row says what it is about
  } rows[] = {
      {valid, "0-success"},
      {"{\"header\": {\"type\": 256}, " + valid.substr(1), "0-success"},  // later header wins
      {valid.substr(0, valid.size() - 1) + ", \"header\": {\"type\": 512}}", "102-bp header/version"},
      {"{\"\\u0068eader\"" + valid.substr(9), "0-success"},  // an escaped key
      {With("header/version", "\"1\\u002e0\""), "0-success"},
      {With("header/focus", "\"\\/usr\\/bin\\/esc\\u00e9:1\""), "0-success"},
      {WithRaw("header/focus", "\"/bin/a\\u0000b:1\""), "102-json load failed"},
      {With("header/type", "256.0"), "102-bp header/type is invalid"},
      {With("header/type", "4294967552"), "0-success"},  // low 32 bits: a timing point
      {Point(4352, "/bin/t:1", "body/time_diff", nullptr).replace(
           Point(4352, "/bin/t:1").find("4352"), 4, "4294967552"),
       "102-bp body/time_diff is invalid"},
      {WithRaw("header/type", "9223372036854775808"), "102-json load failed"},
      {With("header/type", "-4294967040"), "0-success"},
      {WithRaw("header/type", "1e999"), "102-json load failed"},
      {With("header/id", "null"), "102-bp header/id is invalid"},
      {With("header/name", "[\"n\"]"), "102-bp header/name is invalid"},
      {With("body/time_end", "1.5"), "102-bp body/time_end is invalid"},
      {WithRaw("body/time_end", "\"\\ud800\""), "102-json load failed"},
      {With("header/agent_id", "\"\\ud83d\\ude00\""), "0-success"},
      {header + ", \"body\": 5}", "102-bp body/time_start is invalid"},
      {header + ", \"body\": [" + body.substr(8) + "]", "102-json load failed"},
      {"[" + valid + "]", "102-bp header/type is invalid"},
      {valid + " ", "0-success"},
      {valid + "x", "102-json load failed"},
      {valid + valid, "102-json load failed"},
      {"\xEF\xBB\xBF" + valid, "102-json load failed"},
      {valid.substr(0, valid.size() - 1) + ", \"x\": \"\xC3\x28\"}", "102-json load failed"},
      // The point is depth 1: 2047 arrays in it reach Jansson's limit of 2048, one more passes it.
      {valid.substr(0, valid.size() - 1) + ", \"deep\": " + std::string(2047, '[') +
           std::string(2047, ']') + "}",
       "0-success"},
      {valid.substr(0, valid.size() - 1) + ", \"deep\": " + std::string(2048, '[') +
           std::string(2048, ']') + "}",
       "102-json load failed"},
      {"", "102-json load failed"},
  };
  for (const auto& row : rows) {
    const std::string scanned = Scanned(row.text);
    EXPECT_EQ(scanned, OverTree(row.text)) << row.text.substr(0, 200);
    EXPECT_EQ(scanned.substr(0, row.expected.size()), row.expected) << row.text.substr(0, 200);
  }
}

// Every one-byte change of a valid point gives the tree's outcome.
TEST_F(BpMgrTest, ChecksMatchTheTreeOnEveryOneByteChange) {
  const std::string base = "{\"header\":{\"type\":256,\"version\":\"1.0\",\"focus\":\"/b/a:1\","
                           "\"id\":\"i\",\"name\":\"n\",\"module\":\"m\",\"function\":\"f\","
                           "\"time\":\"t\",\"product\":\"p\",\"product_version\":\"v\","
                           "\"agent_id\":\"\\u0061\"},\"body\":{\"time_start\":1,\"time_end\":-2,"
                           "\"time_diff\":3}}";
  ASSERT_EQ(Scanned(base).substr(0, 9), "0-success");
  const std::string bytes = std::string("\"\\{}:,0-.e u") + std::string(1, '\0') + "\xC3";
  std::map<std::string, int> outcomes;
  for (size_t at = 0; at < base.size(); ++at) {
    std::vector<std::string> variants{base.substr(0, at) + base.substr(at + 1)};
    for (char b : bytes) variants.push_back(base.substr(0, at) + b + base.substr(at + 1));
    for (const std::string& v : variants) {
      const std::string scanned = Scanned(v);
      ASSERT_EQ(scanned, OverTree(v)) << v;
      ++outcomes[scanned.substr(0, scanned.find(" | "))];
    }
  }
  // Success, bad JSON, NUL bytes, and a refusal naming each member were all reached.
  EXPECT_GT(outcomes.size(), 25u);
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
