#include "config/config_mgr.h"

#include <gtest/gtest.h>
#include <jansson.h>
#include <unistd.h>

#include <optional>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "common/utils.h"
#include "config/config_addition.h"
#include "config/config_clearn.h"
#include "config/config_collect.h"
#include "config/config_file.h"
#include "config/config_perfor.h"
#include "config/config_queue.h"
#include "nuv_log.h"
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

std::string ExeDir() {
  char buffer[4096] = {0};
  ssize_t n = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
  std::string exe(buffer, n > 0 ? static_cast<size_t>(n) : 0);
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

// Sets (or, with a null value, removes) the member at a slash path of a JSON text; the value
// is JSON text itself.
std::string EditJson(const std::string& text, const std::string& path, const char* value) {
  json_error_t error;
  json_t* root = json_loads(text.c_str(), 0, &error);
  EXPECT_NE(root, nullptr) << error.text;
  std::vector<std::string> pieces = SplitString(path, '/');
  json_t* node = root;
  for (size_t i = 0; i + 1 < pieces.size(); ++i) node = json_object_get(node, pieces[i].c_str());
  EXPECT_TRUE(json_is_object(node)) << path;
  if (value == nullptr) {
    EXPECT_EQ(json_object_del(node, pieces.back().c_str()), 0) << path;
  } else {
    json_t* made = json_loads(value, JSON_DECODE_ANY, &error);
    EXPECT_NE(made, nullptr) << value;
    json_object_set_new(node, pieces.back().c_str(), made);
  }
  char* dumped = json_dumps(root, JSON_INDENT(2));
  std::string out = dumped != nullptr ? dumped : "";
  free(dumped);
  json_decref(root);
  return out;
}

// A file's text made from the base text; nullopt means no file at all.
using Content = std::optional<std::string>;

Content Edit(const std::vector<std::pair<const char*, const char*>>& edits) {
  std::string text = kBase;
  for (const auto& edit : edits) text = EditJson(text, edit.first, edit.second);
  return text;
}
Content Edit(const char* path, const char* value) { return Edit({{path, value}}); }

struct LogLine {
  std::string level;
  std::string source;
  std::string message;
};

std::vector<LogLine> ParseLog(const std::vector<std::string>& lines) {
  static const std::regex kLine(
      R"(^\[PID:(\d+) *\]\t\[(ERROR|WARN|INFO|DEBUG)\]\t\[ZOR\]      \[([^()]+)\((\d+)\)\] (.*)$)");
  std::vector<LogLine> out;
  for (const std::string& line : lines) {
    std::smatch m;
    if (std::regex_match(line, m, kLine) && std::stol(m[1]) == static_cast<long>(getpid())) {
      out.push_back({m[2], m[3], m[5]});
    } else {
      ADD_FAILURE() << "malformed log line: " << line;
    }
  }
  return out;
}

struct LoadResult {
  CError error;
  std::string path;
  std::vector<LogLine> log;
};

// Writes `text` (if any) to a fresh temporary file and loads it with the platform log going
// to a file of its own at DEBUG level.
LoadResult LoadText(const std::optional<std::string>& text, const nuvtest::TempDir& dir) {
  LoadResult result;
  result.path = dir.Sub("maintenance.json");
  if (text) {
    EXPECT_TRUE(nuvtest::WriteFile(result.path, *text));
  }
  const std::string logPath = dir.Sub("zor.log");
  nuv_log_set_file(logPath.c_str());
  const int oldLevel = nuv_log_get_level();
  nuv_log_set_level(3);
  EXPECT_EQ(nuv_log_start(0), 0);
  {
    ConfigMgr mgr;
    result.error = mgr.LoadConfig(result.path);
    EXPECT_EQ(mgr.GetPath(), result.path);
  }
  nuv_log_stop();
  nuv_log_set_level(oldLevel);
  nuv_log_set_file(nullptr);
  result.log = ParseLog(nuvtest::ReadLines(logPath));
  return result;
}

std::string WithPath(std::string text, const std::string& path) {
  size_t at = text.find("%PATH%");
  return at == std::string::npos ? text : text.replace(at, 6, path);
}

class ConfigTest : public ::testing::Test {
 protected:
  void SetUp() override { ReleaseSections(); }
  void TearDown() override { ReleaseSections(); }

  // Loads the base with the edits applied and insists on success.
  void LoadOk(const Content& content) {
    nuvtest::TempDir dir;
    LoadResult r = LoadText(content, dir);
    ASSERT_EQ(r.error.code, 0) << r.error.desc;
    ASSERT_EQ(r.error.desc, "success");
  }
};

const char* const kMgr = "config/config_mgr.cpp";
const char* const kFile = "config/config_file.cpp";
const char* const kClearn = "config/config_clearn.cpp";
const char* const kQueueFailed = "[ConfigMgr]::LoadConfig faild, parse message queue config failed.";
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

struct LoadCase {
  const char* name;
  Content content;
  int code;
  const char* desc;  // "%PATH%" stands for the file's path
  std::vector<std::pair<const char*, const char*>> errors;  // source, message; in order
};

TEST_F(ConfigTest, LoaderReportsCodeTagAndErrorLines) {
  const char* notJson = "[ConfigMgr]::LoadConfig faild, parse config file failed.";
  // An unused member long enough for the file to be 1.5 MiB in lines far over any read buffer.
  const std::string padding = "\"" + std::string(3 * kMiB / 2, 'x') + "\"";
  const std::vector<LoadCase> cases = {
      {"base file", Edit({}), 0, "success", {}},
      {"1.5 MiB file", Edit("/padding", padding.c_str()), 0, "success", {}},
      {"empty addition", Edit("/addition", "{}"), 0, "success", {}},
      {"missing file", std::nullopt, 103, "n`t found config",
       {{kMgr, "[ConfigMgr]::LoadConfig faild, not find config file %PATH%."}}},
      {"not json", std::string("{\"default\": {"), 104, "load config failed, path = %PATH%",
       {{kMgr, notJson}}},
      {"empty file", std::string(), 104, "load config failed, path = %PATH%", {{kMgr, notJson}}},
      {"queue size missing", Edit("/default/cache/size", nullptr), 105, kTagQueue,
       {{kMgr, kQueueFailed}}},
      {"queue size as text", Edit("/default/cache/size", "\"1000\""), 105, kTagQueue,
       {{kMgr, kQueueFailed}}},
      {"frequency real", Edit("/default/collect_sdk/frequency", "1.5"), 105, kTagSdk,
       {{kMgr, kSdkFailed}}},
      {"hit rate missing", Edit("/default/collect_sdk/hit_rate", nullptr), 105, kTagSdk,
       {{kMgr, kSdkFailed}}},
      {"monitors missing", Edit("/default/perf_monitor", nullptr), 105, kTagPerf,
       {{kMgr, kPerfFailed}}},
      {"monitors an object", Edit("/default/perf_monitor", "{}"), 105, kTagPerf,
       {{kMgr, kPerfFailed}}},
      {"cache under the usual spelling",
       Edit({{"/default/file/cahce", nullptr}, {"/default/file/cache", "1024"}}), 105, kTagLog,
       {{kFile, kCachFailed}, {kMgr, kLogFailed}}},
      {"store path a number", Edit("/default/file/path", "7"), 105, kTagLog,
       {{kFile, "[CMaintainceLogCfg]::Parse maintaince log path failed."}, {kMgr, kLogFailed}}},
      // The clean-up section reuses the log section's texts.
      {"clean-up day missing", Edit("/default/clearn/day", nullptr), 105, kTagClearn,
       {{kClearn, kCachFailed}, {kMgr, kLogFailed}}},
      {"clean-up size real", Edit("/default/clearn/file_size", "1.5"), 105, kTagClearn,
       {{kClearn, "[CMaintainceLogCfg]::Parse maintaince file size failed."}, {kMgr, kLogFailed}}},
      {"addition missing", Edit("/addition", nullptr), 105, kTagAddition, {{kMgr, kLogFailed}}},
      {"addition an array", Edit("/addition", "[]"), 105, kTagAddition, {{kMgr, kLogFailed}}},
      {"addition without bp_type", Edit("/addition/a/bp_type", nullptr), 105, kTagAddition,
       {{kMgr, kLogFailed}}},
      {"addition path a number", Edit("/addition/a/file/path", "1"), 105, kTagAddition,
       {{kMgr, kLogFailed}}},
      {"addition size real", Edit("/addition/a/clearn/file_size", "1.5"), 105, kTagAddition,
       {{kMgr, kLogFailed}}},
  };

  for (const LoadCase& c : cases) {
    SCOPED_TRACE(c.name);
    ReleaseSections();
    nuvtest::TempDir dir;
    LoadResult r = LoadText(c.content, dir);
    EXPECT_EQ(r.error.code, c.code);
    EXPECT_EQ(r.error.desc, WithPath(c.desc, r.path));

    std::vector<std::pair<std::string, std::string>> errors;
    std::vector<std::string> info;
    for (const LogLine& line : r.log) {
      if (line.level == "ERROR") errors.emplace_back(line.source, line.message);
      if (line.level == "INFO" && line.source == kMgr) info.push_back(line.message);
    }
    std::vector<std::pair<std::string, std::string>> expected;
    for (const auto& e : c.errors) expected.emplace_back(e.first, WithPath(e.second, r.path));
    EXPECT_EQ(errors, expected);
    std::vector<std::string> expectedInfo = {"[ConfigMgr]::LoadConfig start."};
    if (c.code == 0) expectedInfo.push_back("[ConfigMgr]::LoadConfig success.");
    EXPECT_EQ(info, expectedInfo);

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
}

TEST_F(ConfigTest, EmptyMonitorArrayIsValid) {
  LoadOk(Edit("/default/perf_monitor", "[]"));
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
    LoadOk(Edit("/default/file/path", c.given));
    EXPECT_EQ(CMaintainceLogCfg::GetInstance()->GetAbsoluteLogPath(), c.expected);
    // A type without an addition entry is stored under the same directory.
    EXPECT_EQ(CAdditionCtrlor::GetInstance()->GetFilePath(4242), c.expected);
  }
}

TEST_F(ConfigTest, CleanUpLimitsConvertAndFallBack) {
  const struct {
    const char* day;
    const char* size;
    int interval;
    int limit;
  } cases[] = {
      {"0", "0", 7, 10 * kMiB},
      {"-1", "-2048", 7, 10 * kMiB},  // -2048 MiB is exactly INT32_MIN bytes
      {"1", "1", 1, kMiB},
      {"30", "2047", 30, 2047 * kMiB},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.day) + " days, " + c.size + " MiB");
    ReleaseSections();
    LoadOk(Edit({{"/default/clearn/day", c.day}, {"/default/clearn/file_size", c.size}}));
    EXPECT_EQ(CClearnCfg::GetInstance()->GetTimeInterval(), c.interval);
    EXPECT_EQ(CClearnCfg::GetInstance()->GetLimitFileSize(), c.limit);
  }
}

TEST_F(ConfigTest, AdditionEntriesOverrideDefaultsPerType) {
  const std::string exeDir = ExeDir();
  LoadOk(Edit({{"/default/clearn/day", "0"},
               {"/default/clearn/file_size", "0"},
               {"/addition",
                R"({"perf": {"file": {"path": "perf", "cache": 50},
                             "clearn": {"day": 0, "file_size": 3}, "bp_type": 100},
                    "first": {"file": {"path": "/srv/one", "cache": 1},
                              "clearn": {"day": 1, "file_size": 1}, "bp_type": 8192},
                    "second": {"file": {"path": "/srv/two", "cache": 2},
                               "clearn": {"day": 2, "file_size": 0}, "bp_type": 8192}})"}}));

  const struct {
    int type;
    std::string path;
    int size;
    int day;
    int cache;
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
  LoadOk(Edit("/addition", "{}"));
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
  const std::pair<const char*, const char*> cases[] = {
      {"/default/clearn/file_size", "2048"},
      {"/default/clearn/file_size", "-2049"},
      {"/addition/a/clearn/file_size", "2048"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.first) + " = " + c.second);
    nuvtest::TempDir dir;
    const std::string path = dir.Sub("maintenance.json");
    ASSERT_TRUE(nuvtest::WriteFile(path, EditJson(kBase, c.first, c.second)));
    EXPECT_DEATH(
        {
          ConfigMgr mgr;
          mgr.LoadConfig(path);
        },
        "");
  }
}

}  // namespace
