#include "handler/logdata.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "file/file_test_support.h"

namespace {

const ::testing::Environment* const kBus =
    ::testing::AddGlobalTestEnvironment(new filetest::BusEnvironment(false));

using Fields = std::tuple<std::string, std::string, unsigned int, unsigned int, std::string>;

Fields FieldsOf(const CLogData& data) {
  return Fields{data.GetName(), data.GetID(), data.GetPid(), data.GetType(), data.GetContext()};
}

TEST(CLogData, TextFormAndRoundTrip) {
  const CLogData data("demo", "m1", 4294967295u, 100, "{\"a\": [1, \"x\"]}\n");
  const std::string text = data.LogDataToString();
  EXPECT_EQ(text.find('\n'), std::string::npos) << text;  // no indentation, escaped context
  json_t* root = json_loads(text.c_str(), 0, nullptr);
  json_t* expected = json_pack("{s:s, s:s, s:i, s:I, s:s}", "name", "demo", "id", "m1", "type",
                               100, "pid", json_int_t{4294967295LL},  // zero-extended
                               "context", "{\"a\": [1, \"x\"]}\n");
  EXPECT_TRUE(json_equal(root, expected)) << text;
  json_decref(root);
  json_decref(expected);
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
  const std::tuple<const char*, bool, Fields> rows[] = {
      {"", false, old},
      {"not json", false, old},
      {R"({"name": "n", "id": "i", "type": 7.0, "pid": 9, "context": "c"})", false, old},
      {R"({"name": "n", "id": "i", "type": 7, "pid": "9", "context": "c"})", false,
       {"old", "oldid", 1, 7, "oldctx"}},
      {R"({"name": "n", "type": 7, "pid": 9, "context": "c"})", false, {"n", "oldid", 9, 7, "oldctx"}},
      {R"({"name": "n", "id": "i", "type": 7, "pid": 9})", false, {"n", "i", 9, 7, "oldctx"}},
      {R"({"context": "c", "pid": 9, "id": "i", "type": 7, "name": "n", "extra": 1})", true,
       {"n", "i", 9, 7, "c"}},
  };
  for (const auto& [text, ok, after] : rows) {
    CLogData data("old", "oldid", 1, 2, "oldctx");
    EXPECT_EQ(data.StringToLogData(text), ok) << text;
    EXPECT_EQ(FieldsOf(data), after) << text;
  }
}

TEST(PostMessage, ResultFollowsTheBus) {
  struct Inbox {
    std::mutex mutex;
    std::vector<std::string> messages;
    int result = 0;
  } inbox;
  const auto receive = [](comm_data* request, comm_data*, void* user) {
    auto* box = static_cast<Inbox*>(user);
    void* bytes = nullptr;
    unsigned int length = 0;
    if (nuv_comm_get_data(request, &bytes, &length) != 0) return -1;
    std::lock_guard<std::mutex> lock(box->mutex);
    box->messages.emplace_back(static_cast<const char*>(bytes), length);
    return box->result;
  };
  ASSERT_EQ(nuv_comm_register("logdata:test", receive, &inbox), 0);
  const std::string withNul("a\0b", 3);
  EXPECT_TRUE(PostMessage("logdata:test", withNul));
  EXPECT_TRUE(PostMessage("logdata:test", ""));
  inbox.result = 5;  // a handler's refusal is the post's failure
  EXPECT_FALSE(PostMessage("logdata:test", "refused"));
  EXPECT_EQ(nuv_comm_unregister("logdata:test"), 0);
  EXPECT_FALSE(PostMessage("logdata:test", "nobody"));
  EXPECT_FALSE(PostMessage("bad topic", "x"));
  EXPECT_EQ(inbox.messages, (std::vector<std::string>{withNul, "", "refused"}));
}

}  // namespace
