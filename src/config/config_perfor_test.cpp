#include "config/config_perfor.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "nuv_log.h"
#include "testutil/testutil.h"

namespace {

// Runs `fn` with the platform log at DEBUG into a fresh file; returns "<level word> <message>"
// per line.
template <typename Fn>
std::vector<std::string> CaptureLog(Fn fn) {
  nuvtest::TempDir dir;
  const std::string path = dir.Sub("zor.log");
  nuv_log_set_file(path.c_str());
  const int oldLevel = nuv_log_get_level();
  nuv_log_set_level(3);
  nuv_log_start(0);
  fn();
  nuv_log_stop();
  nuv_log_set_level(oldLevel);
  nuv_log_set_file(nullptr);
  std::vector<std::string> out;
  for (const std::string& line : nuvtest::ReadLines(path)) {
    const size_t t1 = line.find('\t');
    const size_t t2 = line.find('\t', t1 + 1);
    const size_t msg = line.find(")] ", t2);
    if (t1 == std::string::npos || t2 == std::string::npos || msg == std::string::npos) {
      out.push_back("unparsed: " + line);
      continue;
    }
    out.push_back(line.substr(t1 + 1, t2 - t1 - 1) + " " + line.substr(msg + 3));
  }
  return out;
}

const char* const kKeys[] = {"id",      "agent_id",        "name",  "subscriber",
                             "version", "product",         "product_version",
                             "focus",   "handler",         "condition",
                             "dependent_id"};

// One monitor as JSON. `overrides` replace a key's raw JSON value; a null value drops the key.
std::string MonitorJson(const std::string& id,
                        const std::vector<std::pair<std::string, const char*>>& overrides = {}) {
  std::vector<std::pair<std::string, std::string>> fields = {
      {"id", "\"" + id + "\""},
      {"agent_id", "\"Agent-1\""},
      {"name", "\" Name \""},
      {"subscriber", "\"Sub\""},
      {"version", "\"1.0\""},
      {"product", "\"Prod\""},
      {"product_version", "\"V2\""},
      {"focus", "\"system:0\""},
      {"handler", "\"maintenance:reciver\""},
      {"condition", "\"c>90/60\""},
      {"dependent_id", "\"\""},
  };
  std::string out = "{";
  for (const auto& field : fields) {
    std::string value = field.second;
    bool dropped = false;
    for (const auto& o : overrides) {
      if (o.first == field.first) {
        dropped = o.second == nullptr;
        if (!dropped) value = o.second;
      }
    }
    if (dropped) continue;
    if (out.size() > 1) out += ",";
    out += "\"" + field.first + "\":" + value;
  }
  return out + "}";
}

std::string ConfigJson(const std::vector<std::string>& elements) {
  std::string list;
  for (const std::string& e : elements) list += (list.empty() ? "" : ",") + e;
  return "{\"default\":{\"perf_monitor\":[" + list + "]}}";
}

// The configuration goes through a real file, as the loader reads it.
bool LoadDocument(const std::string& text, JsonUtil& doc) {
  nuvtest::TempDir dir;
  const std::string path = dir.Sub("maintenance.json");
  return nuvtest::WriteFile(path, text) && doc.JsonLoadFile(path) == JsonUtil::kOk;
}

std::vector<std::string> Ids(const std::vector<CMonitorData>& monitors) {
  std::vector<std::string> ids;
  for (const CMonitorData& m : monitors) ids.push_back(m.id);
  return ids;
}

class PerforMonitorCfgTest : public ::testing::Test {
 protected:
  void SetUp() override { CPerforMonitorCfg::ReleaseInstance(); }
  void TearDown() override { CPerforMonitorCfg::ReleaseInstance(); }
};

}  // namespace

TEST_F(PerforMonitorCfgTest, FileKeepsFirstDefinitionOfEachId) {
  JsonUtil doc;
  ASSERT_TRUE(LoadDocument(ConfigJson({MonitorJson("m1", {{"name", "\"first\""}}),
                                       MonitorJson("m2", {{"dependent_id", "\"m1\""}}),
                                       MonitorJson("m1", {{"name", "\"second\""}}),
                                       // Normalised to "m1" before the comparison.
                                       MonitorJson(" M1 ", {{"name", "\"third\""}})}),
                           doc));
  CPerforMonitorCfg* cfg = CPerforMonitorCfg::GetInstance();
  EXPECT_EQ(cfg, CPerforMonitorCfg::GetInstance());
  bool ok = false;
  std::vector<std::string> log = CaptureLog([&] { ok = cfg->Parse(doc); });
  EXPECT_TRUE(ok);
  EXPECT_EQ(log, (std::vector<std::string>{
                     "[INFO] [CPerforMonitorCfg]::Insert monitor success, id = m1.",
                     "[INFO] [CPerforMonitorCfg]::Insert monitor success, id = m2."}));
  std::vector<CMonitorData>& monitors = cfg->GetMonitor();
  ASSERT_EQ(Ids(monitors), (std::vector<std::string>{"m1", "m2"}));
  EXPECT_EQ(monitors[0].name, "first");
  EXPECT_EQ(monitors[0].agent_id, "Agent-1");
  EXPECT_EQ(monitors[0].condition, "C>90/60");
  EXPECT_EQ(monitors[0].GetDataType(), CMonitorData::kTypeExact);
  EXPECT_EQ(monitors[1].GetDataType(), CMonitorData::kTypeExactDepend);

  // A second load appends nothing already listed.
  log = CaptureLog([&] { ok = cfg->Parse(doc); });
  EXPECT_TRUE(ok);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(cfg->GetMonitor().size(), 2u);

  CPerforMonitorCfg::ReleaseInstance();
  EXPECT_TRUE(CPerforMonitorCfg::GetInstance()->GetMonitor().empty());
}

TEST_F(PerforMonitorCfgTest, MonitorArrayShape) {
  const struct {
    const char* text;
    bool ok;
    size_t monitors;
    std::vector<std::string> log;
  } cases[] = {
      {"{}", false, 0, {}},
      {"{\"default\":{\"perf_monitor\":{}}}", false, 0, {}},
      {"{\"default\":{\"perf_monitor\":\"x\"}}", false, 0, {}},
      {"{\"default\":{\"perf_monitor\":[]}}", true, 0, {}},
      {"{\"default\":{\"perf_monitor\":[5]}}",
       true,
       0,
       {"[ERROR] [CPerforMonitorCfg]::Parse monitor id failed."}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    CPerforMonitorCfg::ReleaseInstance();
    JsonUtil doc;
    ASSERT_TRUE(LoadDocument(c.text, doc));
    bool ok = !c.ok;
    std::vector<std::string> log =
        CaptureLog([&] { ok = CPerforMonitorCfg::GetInstance()->Parse(doc); });
    EXPECT_EQ(ok, c.ok);
    EXPECT_EQ(CPerforMonitorCfg::GetInstance()->GetMonitor().size(), c.monitors);
    EXPECT_EQ(log, c.log);
  }
}

TEST_F(PerforMonitorCfgTest, MissingOrMistypedKeyInFileAndMessage) {
  for (const char* key : kKeys) {
    const std::string k = key;
    const std::string expected =
        (k == "id" || k == "agent_id")
            ? "[ERROR] [CPerforMonitorCfg]::Parse monitor id failed."
            : "[ERROR] [CPerforMonitorCfg]::Parse monitor " +
                  (k == "product_version" ? std::string("product version")
                   : k == "dependent_id"  ? std::string("dependent id")
                                          : k) +
                  " failed, id = bad.";
    for (const char* value : {static_cast<const char*>(nullptr), "12", "[\"x\"]"}) {
      SCOPED_TRACE(k + " = " + (value == nullptr ? "(missing)" : value));
      const std::string bad = MonitorJson("bad", {{k, value}});

      // In the file the element is skipped and the next one is still read.
      CPerforMonitorCfg::ReleaseInstance();
      JsonUtil doc;
      ASSERT_TRUE(LoadDocument(ConfigJson({bad, MonitorJson("ok")}), doc));
      bool ok = false;
      std::vector<std::string> log =
          CaptureLog([&] { ok = CPerforMonitorCfg::GetInstance()->Parse(doc); });
      EXPECT_TRUE(ok);
      EXPECT_EQ(Ids(CPerforMonitorCfg::GetInstance()->GetMonitor()),
                std::vector<std::string>{"ok"});
      EXPECT_EQ(log, (std::vector<std::string>{
                         expected, "[INFO] [CPerforMonitorCfg]::Insert monitor success, id = ok."}));

      // A message fails as a whole and leaves the record cleared.
      CMonitorData out;
      out.id = "stale";
      log = CaptureLog([&] { ok = CPerforMonitorCfg::ParseRegisterJson(bad, out); });
      EXPECT_FALSE(ok);
      EXPECT_EQ(log, std::vector<std::string>{expected});
      EXPECT_TRUE(out.id.empty());
      EXPECT_TRUE(out.focus.empty());
    }
  }
}

TEST_F(PerforMonitorCfgTest, InvalidDefinitionIsRejected) {
  const std::string bad = MonitorJson("bad", {{"focus", "\"nowhere\""}});
  const std::vector<std::string> focusLines = {
      "[ERROR] [CMonitorData]::CheckFocus focus invalid, not find `:`, id = bad.",
      "[ERROR] [CMonitorData]::CheckValid focus is invalid. id = bad."};

  JsonUtil doc;
  ASSERT_TRUE(LoadDocument(ConfigJson({bad}), doc));
  bool ok = false;
  std::vector<std::string> log =
      CaptureLog([&] { ok = CPerforMonitorCfg::GetInstance()->Parse(doc); });
  EXPECT_TRUE(ok);
  EXPECT_TRUE(CPerforMonitorCfg::GetInstance()->GetMonitor().empty());
  std::vector<std::string> want = focusLines;
  want.push_back("[ERROR] [CPerforMonitorCfg]::Parse monitor check valid failed, id = bad.");
  EXPECT_EQ(log, want);

  CMonitorData out;
  log = CaptureLog([&] { ok = CPerforMonitorCfg::ParseRegisterJson(bad, out); });
  EXPECT_FALSE(ok);
  want = focusLines;
  want.push_back("[ERROR] [CPerforMonitorCfg]::check monitor valid failed, id = bad.");
  EXPECT_EQ(log, want);
  EXPECT_TRUE(out.id.empty());
  EXPECT_TRUE(out.image.empty());
  EXPECT_EQ(out.GetDataType(), 0);
}

TEST_F(PerforMonitorCfgTest, RegisterMessage) {
  CMonitorData out;
  bool ok = false;
  std::vector<std::string> log = CaptureLog([&] {
    ok = CPerforMonitorCfg::ParseRegisterJson(
        MonitorJson(" Reg-1 ", {{"focus", "\" processpoint:3 \""}, {"dependent_id", "\"Up\""}}),
        out);
  });
  EXPECT_TRUE(ok);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(out.id, "reg-1");
  EXPECT_EQ(out.agent_id, "Agent-1");
  EXPECT_EQ(out.name, "name");
  EXPECT_EQ(out.product, "Prod");
  EXPECT_EQ(out.product_version, "v2");
  EXPECT_EQ(out.handler, "maintenance:reciver");
  EXPECT_EQ(out.dependent_id, "up");
  EXPECT_EQ(out.image, "processpoint");
  EXPECT_EQ(out.pid, 3);
  EXPECT_EQ(out.GetDataType(), CMonitorData::kTypeExactDepend);
  // Message parsing keeps nothing in the singleton.
  EXPECT_TRUE(CPerforMonitorCfg::GetInstance()->GetMonitor().empty());

  // Text that is not JSON: false without a line; the reset keeps agent_id.
  out.agent_id = "kept";
  log = CaptureLog([&] { ok = CPerforMonitorCfg::ParseRegisterJson("{\"id\":", out); });
  EXPECT_FALSE(ok);
  EXPECT_TRUE(log.empty());
  EXPECT_TRUE(out.id.empty());
  EXPECT_EQ(out.agent_id, "kept");
}

TEST_F(PerforMonitorCfgTest, UnregisterMessage) {
  const struct {
    const char* text;
    bool ok;
    const char* id;
  } cases[] = {
      {"{\"id\":\"Mon-7\",\"other\":1}", true, "Mon-7"},
      {"{\"id\":\"\"}", true, ""},
      {"{\"id\":7}", false, "unchanged"},
      {"{}", false, "unchanged"},
      {"[\"id\"]", false, "unchanged"},
      {"not json", false, "unchanged"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    std::string id = "unchanged";
    EXPECT_EQ(CPerforMonitorCfg::ParseUnRegisterJson(c.text, id), c.ok);
    EXPECT_EQ(id, c.id);
  }
}
