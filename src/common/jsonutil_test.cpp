#include "common/jsonutil.h"

#include <gtest/gtest.h>

#include <cmath>
#include <new>
#include <string>
#include <vector>

#include "testutil/testutil.h"

namespace {

const char* const kDoc =
    R"({"a":{"b":1,"list":[10,"x",2.5,{"k":"v"}]},"n":5,"neg":-7,"r":5.0,"s":"str",)"
    R"("big":4294967297,"e":{},"0":{"1":"digits"}})";

std::string Dump(const JsonUtil& json) {
  std::string out;
  int status = json.JsonDumps(out, JSON_COMPACT | JSON_SORT_KEYS | JSON_ENCODE_ANY);
  return status == 0 ? out : "<status " + std::to_string(status) + ">";
}

JsonUtil Load(const std::string& text) {
  JsonUtil json;
  EXPECT_TRUE(text.empty() || json.JsonLoadString(text) == 0) << text;
  return json;
}

}  // namespace

TEST(JsonUtilTest, PathLookup) {
  JsonUtil json = Load(kDoc);
  const struct {
    const char* path;
    const char* found;  // compact text of the node, or null when nothing is found
  } cases[] = {
      {"/a//b/", "1"}, {"a/b", "1"},         {"/a/list/3/k", "\"v\""}, {"/0/1", "\"digits\""},
      {"/", nullptr},  {"/a/list/x", nullptr}, {"/a/list/4", nullptr},   {"/a/list/-1", nullptr},
      {"/n/x", nullptr}, {"/s/0", nullptr},
  };
  for (const auto& c : cases) {
    std::string dumped;
    int status = json.JsonDumps(c.path, dumped, JSON_COMPACT | JSON_ENCODE_ANY);
    EXPECT_EQ(json.JsonGetObject(c.path) != nullptr, c.found != nullptr) << c.path;
    EXPECT_EQ(status, c.found ? 0 : JsonUtil::kNotFound) << c.path;
    EXPECT_EQ(dumped, c.found ? c.found : "") << c.path;
  }
  EXPECT_EQ(JsonUtil().JsonGetObject("/a"), nullptr);
}

// Each typed getter against the same nodes: -3 for a wrong type or index, -5 for no node; the
// output is untouched on failure.
TEST(JsonUtilTest, TypedGetters) {
  JsonUtil json = Load(kDoc);
  const struct {
    const char* path;
    int index, strStatus;
    const char* str;  // null: untouched
    int intStatus, intValue, realStatus;
    double realValue;
  } cases[] = {
      {"/s", -1, 0, "str", -3, 0, -3, 0},        {"/a/list", 1, 0, "x", -3, 0, -3, 0},
      {"/neg", -1, -3, nullptr, 0, -7, -3, 0},   {"/big", -1, -3, nullptr, 0, 1, -3, 0},  // 2^32+1
      {"/r", -1, -3, nullptr, -3, 0, 0, 5.0},    {"/a/list", 2, -3, nullptr, -3, 0, 0, 2.5},
      {"/a/list", 4, -3, nullptr, -3, 0, -3, 0}, {"/a/list", -1, -3, nullptr, -3, 0, -3, 0},
      {"/missing", -1, -5, nullptr, -5, 0, -5, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.path) + " " + std::to_string(c.index));
    std::string s = "keep";
    int i = 0;
    double d = 0;
    EXPECT_EQ(json.JsonGetString(c.path, s, c.index), c.strStatus);
    EXPECT_EQ(s, c.str ? c.str : "keep");
    EXPECT_EQ(json.JsonGetInteger(c.path, &i, c.index), c.intStatus);
    EXPECT_EQ(i, c.intValue);
    EXPECT_EQ(json.JsonGetDouble(c.path, &d, c.index), c.realStatus);
    EXPECT_EQ(d, c.realValue);
  }
  const struct {
    const char* path;
    int status, size;
  } sizes[] = {{"/a/list", 0, 4}, {"/e", -3, 0}, {"/missing", -5, 0}};
  for (const auto& c : sizes) {
    int size = 99;
    EXPECT_EQ(json.JsonGetArraySize(c.path, &size), c.status) << c.path;
    EXPECT_EQ(size, c.size) << c.path;
  }
}

TEST(JsonUtilTest, SetObject) {
  const struct {
    const char* start;  // "" = empty document
    const char* path;
    int status;
    const char* after;
  } cases[] = {
      {"", "/a/b/c", 0, R"({"a":{"b":{"c":1}}})"},
      {R"({"a":2})", "/a", 0, R"({"a":2})"},
      {"", "/", -11, "{}"},
      {R"({"a":{"b":0}})", "/a//c/", 0, R"({"a":{"b":0,"c":1}})"},
      {R"({"s":"x"})", "/s/x", -12, R"({"s":"x"})"},
      {R"({"l":[{}]})", "/l/0/k", 0, R"({"l":[{"k":1}]})"},
      {R"({"l":[{}]})", "/l/1/k", -7, R"({"l":[{}]})"},
      {R"({"l":[0]})", "/l/0", -12, R"({"l":[0]})"},
      {"5", "/a/b", 0, "5"},
  };
  for (const auto& c : cases) {
    JsonUtil json = Load(c.start);
    json_t* value = json_integer(1);
    EXPECT_EQ(json.JsonSetObject(c.path, value), c.status) << c.start << " " << c.path;
    EXPECT_EQ(Dump(json), c.after) << c.start << " " << c.path;
    json_decref(value);
  }
}

TEST(JsonUtilTest, SetReferencesAndVariants) {
  json_t* value = json_string("v");
  {
    JsonUtil json;
    ASSERT_EQ(json.JsonSetObject("/a/b", value), 0);
    EXPECT_EQ(value->refcount, 2u);  // the document holds its own reference
  }
  EXPECT_EQ(value->refcount, 1u);
  json_decref(value);

  JsonUtil json;
  EXPECT_EQ(json.JsonSet("/v/s", std::string("text")), 0);
  EXPECT_EQ(json.JsonSet("/v/i", -3), 0);
  EXPECT_EQ(json.JsonSet("/v/d", 0.5), 0);
  EXPECT_EQ(json.JsonSet("/v/nan", std::nan("")), JsonUtil::kValueFailed);
  EXPECT_EQ(json.JsonSet("/v/bad", std::string("\xff")), JsonUtil::kValueFailed);
  EXPECT_EQ(Dump(json), R"({"v":{"d":0.5,"i":-3,"s":"text"}})");
  // Strings longer than 1,023,998 characters are cut to that length.
  for (size_t length : {1023998u, 1023999u, 1100000u}) {
    ASSERT_EQ(json.JsonSet("/v/s", std::string(length, 'q')), 0);
    std::string out;
    ASSERT_EQ(json.JsonGetString("/v/s", out, -1), 0);
    EXPECT_EQ(out.size(), 1023998u) << length;
  }
}

TEST(JsonUtilTest, LoadAndDump) {
  nuvtest::TempDir dir;
  const std::string longValue(3000, 'z');  // longer than the file reader's line buffer
  ASSERT_TRUE(
      nuvtest::WriteFile(dir.Sub("good.json"), "{\n\"k\": \"" + longValue + "\",\n\"n\": 1.5}\n"));
  ASSERT_TRUE(nuvtest::WriteFile(dir.Sub("bad.json"), "{\"k\": "));

  JsonUtil json;
  std::string out;
  EXPECT_EQ(json.JsonDumps(out, 0), -1);
  ASSERT_EQ(json.JsonLoadFile(dir.Sub("good.json")), 0);
  EXPECT_EQ(json.JsonGetString("/k", out, -1), 0);
  EXPECT_EQ(out, longValue);
  EXPECT_EQ(json.JsonDumps("/k", out, 0), -8);  // a scalar needs JSON_ENCODE_ANY
  EXPECT_EQ(json.JsonLoadFile(dir.Sub("missing.json")), -1);  // document kept
  EXPECT_NE(json.JsonGetObject("/n"), nullptr);
  EXPECT_EQ(json.JsonLoadFile(dir.Sub("bad.json")), -1);  // document dropped
  EXPECT_EQ(json.JsonGetObject("/n"), nullptr);
  EXPECT_EQ(json.JsonLoadString("5"), 0);  // any value at the top
  EXPECT_EQ(Dump(json), "5");
  EXPECT_EQ(json.JsonLoadString("{bad"), -1);
  EXPECT_EQ(Dump(json), "<status -1>");
}

TEST(JsonUtilTest, ObjectListCopyAndClone) {
  JsonUtil json = Load(R"({"m":{"x":{"id":1},"z":3},"s":"t"})");
  std::vector<JsonUtil> list(1);  // appended to, not replaced
  ASSERT_EQ(json.JsonGetJsonObjectList("/m", list), 0);
  EXPECT_EQ(json.JsonGetJsonObjectList("/s", list), -5);
  EXPECT_EQ(json.JsonGetJsonObjectList("/missing", list), -5);
  json = JsonUtil();  // the items hold their own references
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(Dump(list[1]) + " " + Dump(list[2]), R"({"id":1} 3)");

  JsonUtil original = Load(R"({"a":{"b":1}})");
  JsonUtil copy = original;
  JsonUtil clone = original.JsonClone();
  ASSERT_EQ(copy.JsonSet("/top/x", 2), 0);  // new top-level member: copy only
  ASSERT_EQ(copy.JsonSet("/a/c", 3), 0);    // inside a shared member: seen by the original
  ASSERT_EQ(clone.JsonSet("/a/d", 4), 0);   // deep copy: clone only
  EXPECT_EQ(Dump(original), R"({"a":{"b":1,"c":3}})");
  EXPECT_EQ(Dump(copy), R"({"a":{"b":1,"c":3},"top":{"x":2}})");
  EXPECT_EQ(Dump(clone), R"({"a":{"b":1,"d":4}})");
  EXPECT_THROW(JsonUtil().JsonClone(), std::bad_alloc);
}
