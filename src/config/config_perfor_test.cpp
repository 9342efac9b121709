#include "config/config_perfor.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <string>
#include <utility>
#include <vector>

#include "testutil/testutil.h"

namespace {

using Lines = std::vector<std::string>;
using Edits = std::vector<std::pair<std::string, const char*>>;

// One monitor as JSON; each edit sets a key to raw JSON text, or drops it when null.
std::string MonitorJson(const std::string& id, const Edits& edits = {}) {
  json_t* m = json_pack("{s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s,s:s}", "id", id.c_str(),
                        "agent_id", "Agent-1", "name", " Name ", "subscriber", "Sub", "version",
                        "1.0", "product", "Prod", "product_version", "V2", "focus", "system:0",
                        "handler", "maintenance:reciver", "condition", "c>90/60",
                        "dependent_id", "");
  for (const auto& [key, value] : edits) {
    if (value == nullptr) json_object_del(m, key.c_str());
    else json_object_set_new(m, key.c_str(), json_loads(value, JSON_DECODE_ANY, nullptr));
  }
  char* text = json_dumps(m, JSON_COMPACT);
  std::string out = text;
  free(text);
  json_decref(m);
  return out;
}

// Parses a configuration holding `elements` as its monitor array, read from a real file.
bool ParseFile(const std::string& elements, Lines* log = nullptr) {
  nuvtest::TempDir dir;
  JsonUtil doc;
  EXPECT_TRUE(nuvtest::WriteFile(dir.Sub("m.json"),
                                 "{\"default\":{\"perf_monitor\":" + elements + "}}"));
  EXPECT_EQ(doc.JsonLoadFile(dir.Sub("m.json")), JsonUtil::kOk);
  bool ok = false;
  Lines lines =
      nuvtest::CaptureMessages([&] { ok = CPerforMonitorCfg::GetInstance()->Parse(doc); });
  if (log != nullptr) *log = lines;
  return ok;
}

Lines Ids() {
  Lines ids;
  for (const CMonitorData& m : CPerforMonitorCfg::GetInstance()->GetMonitor()) ids.push_back(m.id);
  return ids;
}

std::string Inserted(const std::string& id) {
  return "[INFO] [CPerforMonitorCfg]::Insert monitor success, id = " + id + ".";
}

class PerforMonitorCfgTest : public ::testing::Test {
 protected:
  void SetUp() override { CPerforMonitorCfg::ReleaseInstance(); }
  void TearDown() override { CPerforMonitorCfg::ReleaseInstance(); }
};

}  // namespace

TEST_F(PerforMonitorCfgTest, FileKeepsFirstDefinitionOfEachId) {
  const std::string elements =
      "[" + MonitorJson("m1", {{"name", "\"first\""}}) + "," +
      MonitorJson("m2", {{"dependent_id", "\"m1\""}}) + "," +
      MonitorJson("m1", {{"name", "\"second\""}}) + "," +
      MonitorJson(" M1 ", {{"name", "\"third\""}}) + "]";  // normalised to "m1" first
  Lines log;
  EXPECT_TRUE(ParseFile(elements, &log));
  EXPECT_EQ(log, (Lines{Inserted("m1"), Inserted("m2")}));
  ASSERT_EQ(Ids(), (Lines{"m1", "m2"}));
  const std::vector<CMonitorData>& monitors = CPerforMonitorCfg::GetInstance()->GetMonitor();
  EXPECT_EQ(monitors[0].name + " " + monitors[0].agent_id + " " + monitors[0].condition,
            "first Agent-1 C>90/60");
  EXPECT_EQ(monitors[1].GetDataType(), CMonitorData::kTypeExactDepend);

  // A second load appends nothing already listed.
  EXPECT_TRUE(ParseFile(elements, &log));
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(Ids().size(), 2u);
  CPerforMonitorCfg::ReleaseInstance();
  EXPECT_TRUE(Ids().empty());
}

TEST_F(PerforMonitorCfgTest, MonitorArrayShape) {
  const struct {
    const char* elements;
    bool ok;
    Lines log;
  } cases[] = {
      {"{}", false, {}},
      {"\"x\"", false, {}},
      {"[]", true, {}},
      {"[5]", true, {"[ERROR] [CPerforMonitorCfg]::Parse monitor id failed."}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.elements);
    CPerforMonitorCfg::ReleaseInstance();
    Lines log;
    EXPECT_EQ(ParseFile(c.elements, &log), c.ok);
    EXPECT_TRUE(Ids().empty());
    EXPECT_EQ(log, c.log);
  }
  JsonUtil empty;
  ASSERT_EQ(empty.JsonLoadString("{}"), 0);
  EXPECT_FALSE(CPerforMonitorCfg::GetInstance()->Parse(empty));
}

// A bad element of the file is skipped and the next one is still read; a bad message fails as
// a whole and leaves the record cleared.
TEST_F(PerforMonitorCfgTest, BadDefinitionInFileAndMessage) {
  struct Case {
    Edits edits;
    Lines both, fileOnly, messageOnly;  // the file's lines, then the message's
  };
  std::vector<Case> cases;
  for (const char* key : {"id", "agent_id", "name", "subscriber", "version", "product",
                          "product_version", "focus", "handler", "condition", "dependent_id"}) {
    const std::string k = key;
    const std::string what = k == "product_version" ? "product version"
                             : k == "dependent_id"  ? "dependent id"
                                                    : k;
    const std::string line =
        (k == "id" || k == "agent_id")
            ? "[ERROR] [CPerforMonitorCfg]::Parse monitor id failed."
            : "[ERROR] [CPerforMonitorCfg]::Parse monitor " + what + " failed, id = bad.";
    for (const char* value : {static_cast<const char*>(nullptr), "12", "[\"x\"]"}) {
      cases.push_back({{{k, value}}, {line}, {}, {}});
    }
  }
  cases.push_back(
      {{{"focus", "\"nowhere\""}},
       {"[ERROR] [CMonitorData]::CheckFocus focus invalid, not find `:`, id = bad.",
        "[ERROR] [CMonitorData]::CheckValid focus is invalid. id = bad."},
       {"[ERROR] [CPerforMonitorCfg]::Parse monitor check valid failed, id = bad."},
       {"[ERROR] [CPerforMonitorCfg]::check monitor valid failed, id = bad."}});

  for (const Case& c : cases) {
    SCOPED_TRACE(c.edits[0].first + " = " + (c.edits[0].second ? c.edits[0].second : "(none)"));
    const std::string bad = MonitorJson("bad", c.edits);
    CPerforMonitorCfg::ReleaseInstance();
    Lines log;
    EXPECT_TRUE(ParseFile("[" + bad + "," + MonitorJson("ok") + "]", &log));
    EXPECT_EQ(Ids(), Lines{"ok"});
    Lines want = c.both;
    want.insert(want.end(), c.fileOnly.begin(), c.fileOnly.end());
    want.push_back(Inserted("ok"));
    EXPECT_EQ(log, want);

    CMonitorData out;
    out.id = "stale", out.image = "stale", out.data_type = 3;
    bool ok = true;
    log = nuvtest::CaptureMessages([&] { ok = CPerforMonitorCfg::ParseRegisterJson(bad, out); });
    EXPECT_FALSE(ok);
    want = c.both;
    want.insert(want.end(), c.messageOnly.begin(), c.messageOnly.end());
    EXPECT_EQ(log, want);
    EXPECT_EQ(out.id + out.focus + out.image, "");
    EXPECT_EQ(out.GetDataType(), 0);
  }
}

TEST_F(PerforMonitorCfgTest, RegisterAndUnregisterMessages) {
  CMonitorData out;
  bool ok = false;
  Lines log = nuvtest::CaptureMessages([&] {
    ok = CPerforMonitorCfg::ParseRegisterJson(
        MonitorJson(" Reg-1 ", {{"focus", "\" processpoint:3 \""}, {"dependent_id", "\"Up\""}}),
        out);
  });
  EXPECT_TRUE(ok);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ((Lines{out.id, out.agent_id, out.name, out.product, out.product_version, out.handler,
                   out.dependent_id, out.image}),
            (Lines{"reg-1", "Agent-1", "name", "Prod", "v2", "maintenance:reciver", "up",
                   "processpoint"}));
  EXPECT_EQ(out.pid, 3);
  EXPECT_EQ(out.GetDataType(), CMonitorData::kTypeExactDepend);
  EXPECT_TRUE(Ids().empty());  // message parsing keeps nothing in the singleton

  // Text that is not JSON: false without a line; the reset keeps agent_id.
  out.agent_id = "kept";
  log = nuvtest::CaptureMessages(
      [&] { ok = CPerforMonitorCfg::ParseRegisterJson("{\"id\":", out); });
  EXPECT_FALSE(ok);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(out.id + " " + out.agent_id, " kept");

  const struct {
    const char* text;
    bool ok;
    const char* id;
  } cases[] = {
      {"{\"id\":\"Mon-7\",\"other\":1}", true, "Mon-7"}, {"{\"id\":\"\"}", true, ""},
      {"{\"id\":7}", false, "unchanged"},               {"{}", false, "unchanged"},
      {"[\"id\"]", false, "unchanged"},                 {"not json", false, "unchanged"},
  };
  for (const auto& c : cases) {
    std::string id = "unchanged";
    EXPECT_EQ(CPerforMonitorCfg::ParseUnRegisterJson(c.text, id), c.ok) << c.text;
    EXPECT_EQ(id, c.id) << c.text;
  }
}
