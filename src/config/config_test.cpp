#include "config/config_mgr.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "config/config_addition.h"
#include "config/config_clearn.h"
#include "config/config_collect.h"
#include "config/config_file.h"
#include "config/config_perfor.h"
#include "config/config_queue.h"
#include "testutil/testutil.h"

namespace {

constexpr int kMiB = 1048576;

// Every value differs from the section defaults, so a value that was never read shows.
const char* const kBase = R"({
  "default": {
    "cache": {"size": 1000},
    "collect_sdk": {"frequency": 7, "monitor_type": 3, "hit_rate": 60},
    "perf_monitor": [{
      "id": "system-cpu", "agent_id": "", "name": "cpu", "subscriber": "tests",
      "version": "1.0", "product": "tests", "product_version": "1.0", "focus": "system:0",
      "handler": "maintenance:reciver", "condition": "C>90/60", "dependent_id": ""
    }],
    "file": {"cahce": 1024, "path": "/srv/default"},
    "clearn": {"day": 3, "file_size": 2}
  },
  "addition": {
    "a": {"file": {"path": "/srv/a", "cache": 9}, "clearn": {"day": 4, "file_size": 5},
          "bp_type": 100}
  }
})";

using Edits = std::vector<std::pair<std::string, std::string>>;
// Gives the first member `key` the JSON value `value`; its old value moves to an unused "x".
std::pair<std::string, std::string> Set(const std::string& key, const std::string& value) {
  return {"\"" + key + "\": ", "\"" + key + "\": " + value + ", \"x\": "};
}
// Renames the first member `key` out of the way.
std::pair<std::string, std::string> Drop(const std::string& key) {
  return {"\"" + key + "\"", "\"" + key + "_gone\""};
}

// The base text with the first occurrence of each edit's first text replaced by its second.
std::string Edit(const Edits& edits) {
  std::string text = kBase;
  for (const auto& [from, to] : edits) {
    const size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos) text.replace(at, from.size(), to);
  }
  return text;
}

std::string ExeDir() {
  char buffer[4096] = {0};
  EXPECT_GT(readlink("/proc/self/exe", buffer, sizeof(buffer) - 1), 0);
  const std::string exe = buffer;
  return exe.substr(0, exe.rfind('/'));
}

std::string ParentDir(const std::string& dir) { return dir.substr(0, dir.rfind('/')); }

// Loads `text` (no file when nullopt) from a fresh file; log lines are "[LEVEL] message".
struct LoadText {
  explicit LoadText(const std::optional<std::string>& text) {
    EXPECT_TRUE(!text || nuvtest::WriteFile(path, *text));
    log = nuvtest::CaptureMessages([&] { error = mgr.LoadConfig(path); });
    EXPECT_EQ(mgr.GetPath(), path);
  }
  nuvtest::TempDir dir;
  const std::string path = dir.Sub("maintenance.json");
  ConfigMgr mgr;
  CError error;
  std::vector<std::string> log;
};

void LoadOk(const std::string& text) {
  const LoadText r(text);
  ASSERT_EQ(r.error.code, 0) << r.error.desc << ::testing::PrintToString(r.log);
  ASSERT_EQ(r.error.desc, "success");
}

std::string WithPath(std::string text, const std::string& path) {
  const size_t at = text.find("%PATH%");
  return at == std::string::npos ? text : text.replace(at, 6, path);
}

class ConfigTest : public ::testing::Test {
 protected:
  void SetUp() override { ConfigMgr::ReleaseSections(); }
  void TearDown() override { ConfigMgr::ReleaseSections(); }
};

std::string Failed(const std::string& section) {
  return "[ConfigMgr]::LoadConfig faild, parse " + section + " config failed.";
}
std::string Tag(const std::string& section) { return "parse config failed, tag name = " + section; }

TEST_F(ConfigTest, LoaderReportsCodeTagAndErrorLines) {
  const std::string cache = "[CMaintainceLogCfg]::Parse maintaince log cach size failed.";
  const std::string log = Failed("maintaince log"), addition = Tag("CAdditionCtrlor log config");
  const struct {
    const char* name;
    std::optional<std::string> content;
    int code;
    std::string desc;                 // "%PATH%" stands for the file's path
    std::vector<std::string> errors;  // the ERROR lines' messages, in order
  } cases[] = {
      {"missing file", std::nullopt, 103, "n`t found config",
       {"[ConfigMgr]::LoadConfig faild, not find config file %PATH%."}},
      {"not json", std::string("{\"default\": {"), 104, "load config failed, path = %PATH%",
       {"[ConfigMgr]::LoadConfig faild, parse config file failed."}},
      {"queue size as text", Edit({Set("size", "\"1000\"")}), 105, Tag("message queue config"),
       {Failed("message queue")}},
      {"frequency real", Edit({Set("frequency", "1.5")}), 105, Tag("collect sdk config"),
       {Failed("collect sdk")}},
      {"monitors an object", Edit({Set("perf_monitor", "{}")}), 105,
       Tag("performance monitor config"), {Failed("performance monitor")}},
      {"cache under the usual spelling", Edit({{"\"cahce\"", "\"cache\""}}), 105,
       Tag("maintaince log config"), {cache, log}},
      {"store path a number", Edit({{"\"/srv/default\"", "7"}}), 105, Tag("maintaince log config"),
       {"[CMaintainceLogCfg]::Parse maintaince log path failed.", log}},
      // The clean-up section reuses the log section's texts.
      {"clean-up day missing", Edit({Drop("day")}), 105, Tag("clearn log config"), {cache, log}},
      {"clean-up size real", Edit({{"\"file_size\": 2", "\"file_size\": 1.5"}}), 105,
       Tag("clearn log config"), {"[CMaintainceLogCfg]::Parse maintaince file size failed.", log}},
      {"addition an array", Edit({Set("addition", "[]")}), 105, addition, {log}},
      {"addition without bp_type", Edit({Drop("bp_type")}), 105, addition, {log}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ConfigMgr::ReleaseSections();
    const LoadText r(c.content);
    EXPECT_EQ(r.error.code, c.code);
    EXPECT_EQ(r.error.desc, WithPath(c.desc, r.path));
    std::vector<std::string> errors, info, expected;
    for (const std::string& line : r.log) {
      if (line.rfind("[ERROR] ", 0) == 0) errors.push_back(line.substr(8));
      if (line.rfind("[INFO] [ConfigMgr]", 0) == 0) info.push_back(line.substr(7));
    }
    for (const std::string& e : c.errors) expected.push_back(WithPath(e, r.path));
    EXPECT_EQ(errors, expected);
    EXPECT_EQ(info, std::vector<std::string>{"[ConfigMgr]::LoadConfig start."});
    // Sections before the failing one keep what they read; nothing is rolled back.
    if (c.code == 105 && c.desc != Tag("message queue config")) {
      EXPECT_EQ(CMessageQueueCfg::GetInstance()->GetQueueSize(), 1000);
    }
  }
}

TEST_F(ConfigTest, ValuesReachTheirSections) {
  // An unused member long enough for the file to be 1.5 MiB in lines far over any read buffer.
  const std::string padding = "\"" + std::string(3 * kMiB / 2, 'x') + "\"";
  const LoadText r(Edit({{"\"addition\": ", "\"pad\": " + padding + ", \"addition\": "}}));
  ASSERT_EQ(r.error.code, 0) << r.error.desc;
  EXPECT_EQ(r.error.desc, "success");
  EXPECT_EQ(r.log.back(), "[INFO] [ConfigMgr]::LoadConfig success.");
  const CCollectSdkCfg* sdk = CCollectSdkCfg::GetInstance();
  const auto monitors = static_cast<int>(CPerforMonitorCfg::GetInstance()->GetMonitor().size());
  EXPECT_EQ(std::vector<int>({CMessageQueueCfg::GetInstance()->GetQueueSize(),
                              sdk->GetCollectFrequency(), sdk->GetMonitorType(), sdk->GetHitRate(),
                              monitors, CMaintainceLogCfg::GetInstance()->GetLogCacheSize()}),
            std::vector<int>({1000, 7, 3, 60, 1, 1024}));
  ConfigMgr::ReleaseSections();
  LoadOk(Edit({Set("perf_monitor", "[]")}));
  EXPECT_TRUE(CPerforMonitorCfg::GetInstance()->GetMonitor().empty());
}

// The store path is made absolute against the executable; clean-up limits fall back when not
// positive.
TEST_F(ConfigTest, StorePathAndCleanUpLimitsAreDerived) {
  const std::string exeDir = ExeDir();
  const struct {
    const char *path, *day, *size;
    std::string absolute;
    int interval, limit;
  } cases[] = {
      {"\"/srv/default\"", "3", "2", "/srv/default", 3, 2 * kMiB},
      {"\"../data\"", "0", "0", ParentDir(exeDir) + "/data", 7, 10 * kMiB},
      {"\"./a/../b/\"", "-1", "-2048", exeDir + "/b", 7, 10 * kMiB},  // -2048 MiB: INT32_MIN bytes
      {"\"/var/x/\"", "30", "2047", "/var/x/", 30, 2047 * kMiB},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    ConfigMgr::ReleaseSections();
    LoadOk(Edit({{"\"/srv/default\"", c.path},
                 {"\"day\": 3", std::string("\"day\": ") + c.day},
                 {"\"file_size\": 2", std::string("\"file_size\": ") + c.size}}));
    EXPECT_EQ(CMaintainceLogCfg::GetInstance()->GetAbsoluteLogPath(), c.absolute);
    // A type without an addition entry is stored under the same directory.
    EXPECT_EQ(CAdditionCtrlor::GetInstance()->GetFilePath(4242), c.absolute);
    EXPECT_EQ(CClearnCfg::GetInstance()->GetTimeInterval(), c.interval);
    EXPECT_EQ(CClearnCfg::GetInstance()->GetLimitFileSize(), c.limit);
  }
}

TEST_F(ConfigTest, AdditionEntriesOverrideDefaultsPerType) {
  const std::string exeDir = ExeDir();
  LoadOk(Edit({{"\"day\": 3", "\"day\": 0"},
               {"\"file_size\": 2", "\"file_size\": 0"},
               Set("addition", R"({"perf": {"file": {"path": "perf", "cache": 50},
                             "clearn": {"day": 0, "file_size": 3}, "bp_type": 100},
                    "first": {"file": {"path": "/srv/one", "cache": 1},
                              "clearn": {"day": 1, "file_size": 1}, "bp_type": 8192},
                    "second": {"file": {"path": "/srv/two", "cache": 2},
                               "clearn": {"day": 2, "file_size": 0}, "bp_type": 8192}})")}));
  const struct {
    int type;
    std::string path;
    int size, day, cache;
  } cases[] = {
      // Stored values are returned as they are: no fallback for 0 in an entry.
      {100, exeDir + "/perf", 3 * kMiB, 0, 50},
      // The later member of one type wins.
      {8192, "/srv/two", 0, 2, 2},
      // Types without an entry take the defaults, with CClearnCfg's substitutions.
      {16384, "/srv/default", 10 * kMiB, 7, 1024},
  };
  CAdditionCtrlor* addition = CAdditionCtrlor::GetInstance();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    EXPECT_EQ(addition->GetFilePath(c.type), c.path);
    EXPECT_EQ(addition->GetFileSize(c.type), c.size);
    EXPECT_EQ(addition->GetClearnDay(c.type), c.day);
    EXPECT_EQ(addition->GetFileCache(c.type), c.cache);
  }
  // A second load that no longer lists a type keeps its entry.
  LoadOk(Edit({Set("addition", "{}")}));
  EXPECT_EQ(addition->GetFilePath(100), exeDir + "/perf");
  EXPECT_EQ(addition->GetFileSize(8192), 0);
}

TEST_F(ConfigTest, ShippedConfigurationLoadsFromBesideTheExecutable) {
  // The build copies config/maintenance.json to <build>/config, one level above the tests.
  ConfigMgr mgr;
  CError error = mgr.LoadConfig();
  ASSERT_EQ(error.code, 0) << error.desc << " (" << mgr.GetPath() << ")";
  EXPECT_EQ(mgr.GetPath(), ExeDir() + "/../config/maintenance.json");
  const std::string store = ParentDir(ExeDir()) + "/data";
  EXPECT_EQ(CCollectSdkCfg::GetInstance()->GetCollectFrequency(), 5);
  EXPECT_EQ(CMaintainceLogCfg::GetInstance()->GetAbsoluteLogPath(), store);
  // The one monitor passes validation; performance records stay under the default store.
  EXPECT_EQ(CPerforMonitorCfg::GetInstance()->GetMonitor().size(), 1u);
  EXPECT_EQ(CAdditionCtrlor::GetInstance()->GetFilePath(100), store);
}

using ConfigDeathTest = ConfigTest;

// The "fast" style forks the test where it stands: the child dies holding the parent's
// temporary directories, which the parent then removes. The "threadsafe" style would run the
// test again in a new process and leave that run's directories behind.
TEST_F(ConfigDeathTest, SizeBeyond32BitsAborts) {
  GTEST_FLAG_SET(death_test_style, "fast");
  for (const auto& [from, to] : Edits{{"\"file_size\": 2", "\"file_size\": 2048"},
                                      {"\"file_size\": 2", "\"file_size\": -2049"},
                                      {"\"file_size\": 5", "\"file_size\": 2048"}}) {
    SCOPED_TRACE(from + " -> " + to);
    nuvtest::TempDir dir;
    ASSERT_TRUE(nuvtest::WriteFile(dir.Sub("maintenance.json"), Edit({{from, to}})));
    EXPECT_DEATH(ConfigMgr().LoadConfig(dir.Sub("maintenance.json")), "");
  }
}

}  // namespace
