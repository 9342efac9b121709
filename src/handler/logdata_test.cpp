#include "handler/logdata.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "nuv_comm.h"
#include "testutil/testutil.h"

namespace {

// One bus for the whole run, with its sockets in a directory of its own.
class BusEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    setenv("NUV_COMM_DIR", dir_.Sub("comm").c_str(), 1);
    ASSERT_EQ(nuv_comm_init(), 0);
  }
  void TearDown() override { nuv_comm_uninit(); }

 private:
  nuvtest::TempDir dir_;
};
const ::testing::Environment* const kBus =
    ::testing::AddGlobalTestEnvironment(new BusEnvironment);

struct Inbox {
  std::mutex mutex;
  std::vector<std::string> messages;
  int result = 0;
};

int Receive(comm_data* request, comm_data* /*reply*/, void* user) {
  auto* inbox = static_cast<Inbox*>(user);
  void* bytes = nullptr;
  unsigned int length = 0;
  if (nuv_comm_get_data(request, &bytes, &length) != 0) {
    return -1;
  }
  std::lock_guard<std::mutex> lock(inbox->mutex);
  inbox->messages.emplace_back(static_cast<const char*>(bytes), length);
  return inbox->result;
}

using Fields = std::tuple<std::string, std::string, unsigned int, unsigned int, std::string>;

Fields FieldsOf(const CLogData& data) {
  return Fields{data.GetName(), data.GetID(), data.GetPid(), data.GetType(), data.GetContext()};
}

TEST(CLogData, TextFormAndRoundTrip) {
  const CLogData data("demo", "m1", 4294967295u, 100, "{\"a\": [1, \"x\"]}\n");
  const std::string text = data.LogDataToString();
  EXPECT_EQ(text.find('\n'), std::string::npos) << text;  // no indentation, escaped context
  json_error_t error;
  json_t* root = json_loads(text.c_str(), 0, &error);
  ASSERT_NE(root, nullptr) << text;
  EXPECT_EQ(json_object_size(root), 5u);
  EXPECT_STREQ(json_string_value(json_object_get(root, "name")), "demo");
  EXPECT_STREQ(json_string_value(json_object_get(root, "id")), "m1");
  ASSERT_TRUE(json_is_integer(json_object_get(root, "type")));
  EXPECT_EQ(json_integer_value(json_object_get(root, "type")), 100);
  ASSERT_TRUE(json_is_integer(json_object_get(root, "pid")));
  EXPECT_EQ(json_integer_value(json_object_get(root, "pid")), 4294967295LL);  // zero-extended
  EXPECT_STREQ(json_string_value(json_object_get(root, "context")), "{\"a\": [1, \"x\"]}\n");
  json_decref(root);

  // A name that is not UTF-8 cannot be written.
  EXPECT_EQ(CLogData("\xff", "m1", 1, 100, "c").LogDataToString(), "");

  for (const CLogData& sent : {data, CLogData("", "", 0, 0, "")}) {
    CLogData back("old", "oldid", 1, 2, "oldctx");
    EXPECT_TRUE(back.StringToLogData(sent.LogDataToString()));
    EXPECT_EQ(FieldsOf(back), FieldsOf(sent));
  }
}

TEST(CLogData, ParseStopsAtFirstBadMember) {
  const Fields old{"old", "oldid", 1, 2, "oldctx"};
  const struct {
    const char* text;
    bool ok;
    Fields after;
  } rows[] = {
      {"", false, old},
      {"not json", false, old},
      {R"({"name": "n", "id": "i", "type": 7.0, "pid": 9, "context": "c"})", false, old},
      {R"({"name": "n", "id": "i", "type": 7, "pid": "9", "context": "c"})", false,
       {"old", "oldid", 1, 7, "oldctx"}},
      {R"({"name": "n", "type": 7, "pid": 9, "context": "c"})", false,
       {"n", "oldid", 9, 7, "oldctx"}},
      {R"({"name": "n", "id": "i", "type": 7, "pid": 9})", false, {"n", "i", 9, 7, "oldctx"}},
      {R"({"context": "c", "pid": 9, "id": "i", "type": 7, "name": "n", "extra": 1})", true,
       {"n", "i", 9, 7, "c"}},
  };
  for (const auto& row : rows) {
    CLogData data("old", "oldid", 1, 2, "oldctx");
    EXPECT_EQ(data.StringToLogData(row.text), row.ok) << row.text;
    EXPECT_EQ(FieldsOf(data), row.after) << row.text;
  }
}

TEST(PostMessage, ResultFollowsTheBus) {
  Inbox inbox;
  ASSERT_EQ(nuv_comm_register("logdata:test", Receive, &inbox), 0);
  const std::string withNul("a\0b", 3);
  EXPECT_TRUE(PostMessage("logdata:test", withNul));
  EXPECT_TRUE(PostMessage("logdata:test", ""));
  inbox.result = 5;  // a handler's refusal is the post's failure
  EXPECT_FALSE(PostMessage("logdata:test", "refused"));
  EXPECT_EQ(inbox.messages, (std::vector<std::string>{withNul, "", "refused"}));
  EXPECT_EQ(nuv_comm_unregister("logdata:test"), 0);

  EXPECT_FALSE(PostMessage("logdata:test", "nobody"));
  EXPECT_FALSE(PostMessage("bad topic", "x"));
  EXPECT_EQ(inbox.messages.size(), 3u);
}

}  // namespace
