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

void ReleaseSections() {
  CMessageQueueCfg::ReleaseInstance();
  CCollectSdkCfg::ReleaseInstance();
  CPerforMonitorCfg::ReleaseInstance();
  CMaintainceLogCfg::ReleaseInstance();
  CClearnCfg::ReleaseInstance();
  CAdditionCtrlor::ReleaseInstance();
}

struct LoadResult {
  CError error;
  std::string path;
  std::vector<std::string> log;  // "[LEVEL] message"
};

// Loads `text` (no file when nullopt) from a fresh file with the platform log captured.
LoadResult LoadText(const std::optional<std::string>& text) {
  nuvtest::TempDir dir;
  LoadResult r;
  r.path = dir.Sub("maintenance.json");
  EXPECT_TRUE(!text || nuvtest::WriteFile(r.path, *text));
  r.log = nuvtest::CaptureMessages([&] {
    ConfigMgr mgr;
    r.error = mgr.LoadConfig(r.path);
    EXPECT_EQ(mgr.GetPath(), r.path);
  });
  return r;
}

void LoadOk(const std::string& text) {
  const LoadResult r = LoadText(text);
  ASSERT_EQ(r.error.code, 0) << r.error.desc << ::testing::PrintToString(r.log);
  ASSERT_EQ(r.error.desc, "success");
}

std::string WithPath(std::string text, const std::string& path) {
  const size_t at = text.find("%PATH%");
  return at == std::string::npos ? text : text.replace(at, 6, path);
}

class ConfigTest : public ::testing::Test {
 protected:
  void SetUp() override { ReleaseSections(); }
  void TearDown() override { ReleaseSections(); }
};

const char* const kQueueFailed =
    "[ConfigMgr]::LoadConfig faild, parse message queue config failed.";
const char* const kSdkFailed = "[ConfigMgr]::LoadConfig faild, parse collect sdk config failed.";
const char* const kPerfFailed =
    "[ConfigMgr]::LoadConfig faild, parse performance monitor config failed.";
const char* const kLogFailed = "[ConfigMgr]::LoadConfig faild, parse maintaince log config failed.";
const char* const kCachFailed = "[CMaintainceLogCfg]::Parse maintaince log cach size failed.";
const char* const kTagQueue = "parse config failed, tag name = message queue config";
const char* const kTagSdk = "parse config failed, tag name = collect sdk config";
const char* const kTagPerf = "parse config failed, tag name = performance monitor config";
const char* const kTagLog = "parse config failed, tag name = maintaince log config";
const char* const kTagClearn = "parse config failed, tag name = clearn log config";
const char* const kTagAddition = "parse config failed, tag name = CAdditionCtrlor log config";

TEST_F(ConfigTest, LoaderReportsCodeTagAndErrorLines) {
  const char* notJson = "[ConfigMgr]::LoadConfig faild, parse config file failed.";
  // An unused member long enough for the file to be 1.5 MiB in lines far over any read buffer.
  const std::string padding = "\"" + std::string(3 * kMiB / 2, 'x') + "\"";
  const struct {
    const char* name;
    std::optional<std::string> content;
    int code;
    const char* desc;                 // "%PATH%" stands for the file's path
    std::vector<std::string> errors;  // the ERROR lines' messages, in order
  } cases[] = {
      {"base file", Edit({}), 0, "success", {}},
      {"1.5 MiB file", Edit({{"\"addition\": ", "\"pad\": " + padding + ", \"addition\": "}}), 0,
       "success", {}},
      {"empty addition", Edit({Set("addition", "{}")}), 0, "success", {}},
      {"missing file", std::nullopt, 103, "n`t found config",
       {"[ConfigMgr]::LoadConfig faild, not find config file %PATH%."}},
      {"not json", std::string("{\"default\": {"), 104, "load config failed, path = %PATH%",
       {notJson}},
      {"empty file", std::string(), 104, "load config failed, path = %PATH%", {notJson}},
      {"queue size missing", Edit({Drop("size")}), 105, kTagQueue, {kQueueFailed}},
      {"queue size as text", Edit({Set("size", "\"1000\"")}), 105, kTagQueue, {kQueueFailed}},
      {"frequency real", Edit({Set("frequency", "1.5")}), 105, kTagSdk, {kSdkFailed}},
      {"hit rate missing", Edit({Drop("hit_rate")}), 105, kTagSdk, {kSdkFailed}},
      {"monitors missing", Edit({Drop("perf_monitor")}), 105, kTagPerf, {kPerfFailed}},
      {"monitors an object", Edit({Set("perf_monitor", "{}")}), 105, kTagPerf, {kPerfFailed}},
      {"cache under the usual spelling", Edit({{"\"cahce\"", "\"cache\""}}), 105, kTagLog,
       {kCachFailed, kLogFailed}},
      {"store path a number", Edit({{"\"/srv/default\"", "7"}}), 105, kTagLog,
       {"[CMaintainceLogCfg]::Parse maintaince log path failed.", kLogFailed}},
      // The clean-up section reuses the log section's texts.
      {"clean-up day missing", Edit({Drop("day")}), 105, kTagClearn, {kCachFailed, kLogFailed}},
      {"clean-up size real", Edit({{"\"file_size\": 2", "\"file_size\": 1.5"}}), 105, kTagClearn,
       {"[CMaintainceLogCfg]::Parse maintaince file size failed.", kLogFailed}},
      {"addition missing", Edit({Drop("addition")}), 105, kTagAddition, {kLogFailed}},
      {"addition an array", Edit({Set("addition", "[]")}), 105, kTagAddition, {kLogFailed}},
      {"addition without bp_type", Edit({Drop("bp_type")}), 105, kTagAddition, {kLogFailed}},
      {"addition path a number", Edit({{"\"/srv/a\"", "1"}}), 105, kTagAddition, {kLogFailed}},
      {"addition size real", Edit({{"\"file_size\": 5", "\"file_size\": 1.5"}}), 105,
       kTagAddition, {kLogFailed}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ReleaseSections();
    const LoadResult r = LoadText(c.content);
    EXPECT_EQ(r.error.code, c.code);
    EXPECT_EQ(r.error.desc, WithPath(c.desc, r.path));
    std::vector<std::string> errors, info, expected;
    for (const std::string& line : r.log) {
      if (line.rfind("[ERROR] ", 0) == 0) errors.push_back(line.substr(8));
      if (line.rfind("[INFO] [ConfigMgr]", 0) == 0) info.push_back(line.substr(7));
    }
    for (const std::string& e : c.errors) expected.push_back(WithPath(e, r.path));
    EXPECT_EQ(errors, expected);
    expected = {"[ConfigMgr]::LoadConfig start."};
    if (c.code == 0) expected.push_back("[ConfigMgr]::LoadConfig success.");
    EXPECT_EQ(info, expected);
    // Sections before the failing one keep what they read; nothing is rolled back.
    if (c.code == 105 && c.desc != kTagQueue) {
      EXPECT_EQ(CMessageQueueCfg::GetInstance()->GetQueueSize(), 1000);
    }
  }
}

TEST_F(ConfigTest, ValuesReachTheirSections) {
  LoadOk(Edit({}));
  EXPECT_EQ(CMessageQueueCfg::GetInstance()->GetQueueSize(), 1000);
  EXPECT_EQ(CCollectSdkCfg::GetInstance()->GetCollectFrequency(), 7);
  EXPECT_EQ(CCollectSdkCfg::GetInstance()->GetMonitorType(), 3);
  EXPECT_EQ(CCollectSdkCfg::GetInstance()->GetHitRate(), 60);
  EXPECT_EQ(CPerforMonitorCfg::GetInstance()->GetMonitor().size(), 1u);
  EXPECT_EQ(CMaintainceLogCfg::GetInstance()->GetLogCacheSize(), 1024);
  EXPECT_EQ(CMaintainceLogCfg::GetInstance()->GetAbsoluteLogPath(), "/srv/default");
  EXPECT_EQ(CClearnCfg::GetInstance()->GetTimeInterval(), 3);
  EXPECT_EQ(CClearnCfg::GetInstance()->GetLimitFileSize(), 2 * kMiB);

  ReleaseSections();
  LoadOk(Edit({Set("perf_monitor", "[]")}));
  EXPECT_TRUE(CPerforMonitorCfg::GetInstance()->GetMonitor().empty());
}

TEST_F(ConfigTest, StorePathIsMadeAbsoluteAgainstTheExecutable) {
  const std::string exeDir = ExeDir();
  const struct {
    const char* given;
    std::string expected;
  } cases[] = {
      {"\"../data\"", ParentDir(exeDir) + "/data"},
      {"\"logs\"", exeDir + "/logs"},
      {"\"./a/../b/\"", exeDir + "/b"},
      {"\"/var/x/\"", "/var/x/"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.given);
    ReleaseSections();
    LoadOk(Edit({{"\"/srv/default\"", c.given}}));
    EXPECT_EQ(CMaintainceLogCfg::GetInstance()->GetAbsoluteLogPath(), c.expected);
    // A type without an addition entry is stored under the same directory.
    EXPECT_EQ(CAdditionCtrlor::GetInstance()->GetFilePath(4242), c.expected);
  }
}

TEST_F(ConfigTest, CleanUpLimitsConvertAndFallBack) {
  const struct {
    const char *day, *size;
    int interval, limit;
  } cases[] = {
      {"0", "0", 7, 10 * kMiB},
      {"-1", "-2048", 7, 10 * kMiB},  // -2048 MiB is exactly INT32_MIN bytes
      {"1", "1", 1, kMiB},
      {"30", "2047", 30, 2047 * kMiB},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.day) + " days, " + c.size + " MiB");
    ReleaseSections();
    LoadOk(Edit({{"\"day\": 3", std::string("\"day\": ") + c.day},
                 {"\"file_size\": 2", std::string("\"file_size\": ") + c.size}}));
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
      {0, "/srv/default", 10 * kMiB, 7, 1024},
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
  EXPECT_EQ(CCollectSdkCfg::GetInstance()->GetMonitorType(), 31);
  EXPECT_EQ(CCollectSdkCfg::GetInstance()->GetHitRate(), 80);
  EXPECT_GT(CMessageQueueCfg::GetInstance()->GetQueueSize(), 0);
  EXPECT_EQ(CMaintainceLogCfg::GetInstance()->GetAbsoluteLogPath(), store);
  EXPECT_EQ(CClearnCfg::GetInstance()->GetTimeInterval(), 7);
  EXPECT_EQ(CClearnCfg::GetInstance()->GetLimitFileSize(), 10 * kMiB);
  // The one monitor passes validation; performance records stay under the default store.
  EXPECT_EQ(CPerforMonitorCfg::GetInstance()->GetMonitor().size(), 1u);
  EXPECT_EQ(CAdditionCtrlor::GetInstance()->GetFilePath(100), store);
}

using ConfigDeathTest = ConfigTest;

TEST_F(ConfigDeathTest, SizeBeyond32BitsAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
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
