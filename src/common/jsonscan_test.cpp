#include "common/jsonscan.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <string>
#include <vector>

#include "common/jsonutil.h"

namespace {

const char* const kPaths[] = {"a",   "a/b", "a/s", "a/n", "/a//c/", "k",  "h/type",
                              "h/v", "e",   "h",   "b",   "a/b/c",  "\xC3\xA9"};
const JsonPaths kTable(kPaths, sizeof kPaths / sizeof kPaths[0]);

bool JanssonAccepts(const std::string& text) {
  json_error_t error;
  json_t* root = json_loadb(text.data(), text.size(), JSON_DECODE_ANY, &error);
  json_decref(root);
  return root != nullptr;
}

bool ScanAccepts(const std::string& text) {
  JsonScan scan(kTable);
  return scan.Scan(text.data(), text.size()) == JsonUtil::kOk;
}

// What each getter gives for each path, as one text: "path s<status>:<value> i<status>:<value>".
template <typename Getter>
std::string Readings(Getter get) {
  std::string all;
  for (const char* path : kPaths) {
    std::string text = "untouched";
    int number = 12345;
    int s = 0, i = 0;
    get(path, text, number, s, i);
    all += std::string(path) + " s" + std::to_string(s) + ":" + text + " i" + std::to_string(i) +
           ":" + std::to_string(number) + "\n";
  }
  return all;
}

std::string ScanReadings(const std::string& text) {
  JsonScan scan(kTable);
  if (scan.Scan(text.data(), text.size()) != JsonUtil::kOk) return "refused";
  return Readings([&](const char* path, std::string& s, int& n, int& ss, int& is) {
    ss = scan.GetString(path, s);
    is = scan.GetInteger(path, &n);
  });
}

std::string TreeReadings(const std::string& text) {
  JsonUtil json;
  if (json.JsonLoadString(text) != JsonUtil::kOk) return "refused";
  return Readings([&](const char* path, std::string& s, int& n, int& ss, int& is) {
    ss = json.JsonGetString(path, s, -1);
    is = json.JsonGetInteger(path, &n, -1);
  });
}

std::string Nested(int depth, const std::string& open, const std::string& inner,
                   const std::string& close) {
  std::string text;
  for (int i = 0; i < depth; ++i) text += open;
  text += inner;
  for (int i = 0; i < depth; ++i) text += close;
  return text;
}

}  // namespace

// Each text is accepted or refused as written here, by Jansson and by the scan alike.
TEST(JsonScanTest, VerdictsMatchJansson) {
  const struct {
    std::string text;
    bool accepted;
  } rows[] = {
      // Any value at the top; whitespace is the four JSON blanks only.
      {"{}", true}, {"[]", true}, {"0", true}, {"\"x\"", true}, {"true", true}, {"null", true},
      {" \t\r\n{\"a\" : [ 1 , 2 ] }\n", true}, {"", false}, {"   ", false}, {"{}\v", false},
      {"\xEF\xBB\xBF{}", false}, {"{} {}", false}, {"{}x", false}, {"{},", false},
      // Structure.
      {"{\"a\":1,}", false}, {"[1,]", false}, {"[,1]", false}, {"{\"a\"}", false},
      {"{\"a\" 1}", false}, {"{1:1}", false}, {"{'a':1}", false}, {"[1 2]", false},
      {"{\"a\":1", false}, {"[", false}, {"]", false}, {"{\"a\":{}}}", false},
      // Literals.
      {"tru", false}, {"truex", false}, {"True", false}, {"[true1]", false}, {"nul", false},
      // Numbers at the edges of Jansson's integers and reals.
      {"9223372036854775807", true}, {"9223372036854775808", false},
      {"-9223372036854775808", true}, {"-9223372036854775809", false},
      {"18446744073709551616", false}, {"-0", true}, {"01", false}, {"-01", false},
      {"1.", false}, {".5", false}, {"+1", false}, {"-", false}, {"1e", false}, {"1e+", false},
      {"1E+5", true}, {"0e5", true}, {"1.5e-3", true}, {"1e308", true}, {"1e309", false},
      {"-1e309", false}, {"1.7976931348623157e308", true}, {"1.7976931348623159e308", false},
      {"1e-400", true}, {"NaN", false}, {"Infinity", false}, {"0x10", false},
      {"1" + std::string(400, '0') + ".5", false}, {"0." + std::string(400, '1'), true},
      // Strings: escapes, surrogates, control characters, UTF-8.
      {R"("\/\b\f\n\r\t\"\\")", true}, {R"("\x")", false}, {R"("\u00e9\u00E9")", true},
      {R"("\u00z9")", false}, {R"("\u12")", false}, {R"("\u0000")", false},
      {R"({"a\u0000":1})", false}, {R"("a\u0000b")", false}, {R"("\u0001")", true},
      {R"("\uD83D\uDE00")", true}, {R"("\uD800")", false}, {R"("\uDC00")", false},
      {R"("\uDE00\uD83D")", false}, {R"("\uD800\u0041")", false}, {R"("\uD800\n")", false},
      {R"("\uD800\")", false}, {"\"\x7F\"", true}, {"\"\x1F\"", false}, {"\"a\nb\"", false},
      {"\"\t\"", false}, {"\"\\", false}, {"\"abc", false},
      {"\"\xC3\xA9\"", true}, {"\"\xC0\x80\"", false}, {"\"\xC1\xBF\"", false},
      {"\"\xE0\x9F\xBF\"", false}, {"\"\xED\xA0\x80\"", false}, {"\"\xEF\xBF\xBF\"", true},
      {"\"\xF0\x8F\xBF\xBF\"", false}, {"\"\xF4\x8F\xBF\xBF\"", true}, {"\"\xF4\x90\x80\x80\"", false},
      {"\"\xF5\x80\x80\x80\"", false}, {"\"\x80\"", false}, {"\"\xE2\x82\"", false},
      {"\"\xE2\x82", false}, {"\"\xC3\"", false}, {"\xC3\xA9", false},
      // Nesting up to Jansson's depth, counting the innermost value.
      {Nested(JSON_PARSER_MAX_DEPTH, "[", "", "]"), true},
      {Nested(JSON_PARSER_MAX_DEPTH + 1, "[", "", "]"), false},
      {Nested(JSON_PARSER_MAX_DEPTH - 1, "[", "1", "]"), true},
      {Nested(JSON_PARSER_MAX_DEPTH, "[", "1", "]"), false},
      {Nested(JSON_PARSER_MAX_DEPTH - 1, "{\"a\":", "{}", "}"), true},
      {Nested(JSON_PARSER_MAX_DEPTH, "{\"a\":", "{}", "}"), false},
      {Nested(JSON_PARSER_MAX_DEPTH, "[", "", "]") + "]", false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(JanssonAccepts(row.text), row.accepted) << "Jansson: " << row.text.substr(0, 80);
    EXPECT_EQ(ScanAccepts(row.text), row.accepted) << "scan: " << row.text.substr(0, 80);
  }
  // A NUL byte anywhere refuses the text, also after a number or literal, where json_loadb
  // would drop it and accept.
  using namespace std::string_literals;
  for (const std::string& text : {"0\0"s, "[true\0]"s, "\"a\0b\""s, "{}\0"s, "\0{}"s}) {
    EXPECT_FALSE(ScanAccepts(text)) << text.size();
  }
  EXPECT_TRUE(JanssonAccepts("[true\0]"s));
}

// Members read by path give what a Jansson tree read through JsonUtil gives: same status, same
// decoded value, the last of duplicate members, wrong types and missing steps alike.
TEST(JsonScanTest, PathReadingsMatchTheTree) {
  const std::string docs[] = {
      R"({"a":{"b":"x","s":"y","n":7},"k":-5,"e":{}})",
      R"({"a":{"b":1},"a":{"s":"second"}})",                 // a later member replaces a whole
      R"({"a":{"b":1,"b":"two","b":3}})",                    // last duplicate counts
      R"({"a":{"b":{"c":1}},"a":5})",                         // replaced by a scalar
      R"({"a":[{"b":1}],"h":{"type":4294967297,"v":"1\u002e0"}})",  // array steps nothing
      R"({"\u0061":{"\u0062":"esc\u00e9\ud83d\ude00\n\/"},"\u00e9":2})",  // escaped keys
      R"({"a":{"bb":1,"b\"":2,"":3},"h":{"type":-1,"v":1.0}})",
      R"({"h":{"type":1e2,"v":null},"b":true,"k":false,"a":{"n":-2147483649}})",
      R"([{"a":1}])", R"("a")", R"(17)",
      R"({"a":{"c":"deep"},"a":{"b":{},"c":[]},"k":9223372036854775807})",
      "{\"\xC3\xA9\":\"\xE2\x82\xAC\",\"a\":{\"s\":\"\\u20ac\"}}",
  };
  for (const std::string& doc : docs) {
    EXPECT_EQ(ScanReadings(doc), TreeReadings(doc)) << doc;
  }
  // A path given after construction, or beyond the table's depth, is not found.
  const char* const deep[] = {"a/b/c/d/e/f/g/h/i"};
  const JsonPaths deepTable(deep, 1);
  JsonScan scan(deepTable);
  const std::string text = Nested(9, "{\"x\":", "1", "}");
  ASSERT_EQ(scan.Scan(text.data(), text.size()), JsonUtil::kOk);
  int value = 0;
  EXPECT_EQ(scan.GetInteger("a/b/c/d/e/f/g/h/i", &value), JsonUtil::kNotFound);
  EXPECT_EQ(scan.GetInteger("x", &value), JsonUtil::kNotFound);
}

// Strings over the getter's limit are cut where JsonUtil cuts them, escaped or not.
TEST(JsonScanTest, LongStringsAreCutAsTheTreeCutsThem) {
  const size_t size = JsonUtil::kStringLimit + 10;
  const std::string plain = "{\"a\":{\"s\":\"" + std::string(size, 'p') + "\"}}";
  std::string escaped = "{\"k\":1,\"a\":{\"s\":\"";
  for (size_t i = 0; i < size / 6 + 2; ++i) escaped += "\\u00e9";
  escaped += "\"}}";
  for (const std::string* doc : {&plain, static_cast<const std::string*>(&escaped)}) {
    EXPECT_EQ(ScanReadings(*doc), TreeReadings(*doc));
  }
}

// Every one-byte change of a valid document, judged by both, then read by both.
TEST(JsonScanTest, OneByteMutationsAgreeWithJansson) {
  const std::string base =
      R"({"h":{"type":256,"v":"1.0","x":[1,-2.5e3,true,null,{}]},"a":{"b":"\u00e9\ud83d\ude00"}})";
  const std::string bytes =
      std::string("\"\\{}[]:,0-e.E+ uxD8\x01") + std::string(1, '\0') + "\xC3\x80\xFF";
  size_t accepted = 0, checked = 0;
  for (size_t at = 0; at <= base.size(); ++at) {
    std::vector<std::string> variants;
    if (at < base.size()) variants.push_back(base.substr(0, at) + base.substr(at + 1));
    for (char b : bytes) {
      variants.push_back(base.substr(0, at) + b + base.substr(at));
      if (at < base.size()) variants.push_back(base.substr(0, at) + b + base.substr(at + 1));
    }
    for (const std::string& v : variants) {
      ++checked;
      const bool hasNul = v.find('\0') != std::string::npos;
      const bool verdict = !hasNul && JanssonAccepts(v);
      ASSERT_EQ(ScanAccepts(v), verdict) << v;
      if (verdict) {
        ++accepted;
        ASSERT_EQ(ScanReadings(v), TreeReadings(v)) << v;
      }
    }
  }
  // Both outcomes were exercised, many times over.
  EXPECT_GT(accepted, 200u);
  EXPECT_GT(checked - accepted, 2000u);
}
