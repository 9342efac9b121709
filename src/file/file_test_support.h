// Shared by the store's tests: a configuration whose store lives in a temporary directory,
// moving the platform clock to a chosen local time, and capturing log lines.
#ifndef NUV_FILE_FILE_TEST_SUPPORT_H
#define NUV_FILE_FILE_TEST_SUPPORT_H

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "common/error.h"
#include "config/config_mgr.h"
#include "nuv_log.h"
#include "nuv_time.h"
#include "testutil/testutil.h"

namespace filetest {

// A type with its own directory ("<root>/small") and a 1 MiB size limit.
constexpr unsigned int kSmallType = 8192;

inline std::string LogDir(const nuvtest::TempDir& root) { return root.Sub("log"); }
inline std::string SmallDir(const nuvtest::TempDir& root) { return root.Sub("small"); }

// Loads a configuration through the loader: the default store under `logPath` (LogDir when
// empty) with a default limit of `limitMiB`, and kSmallType under SmallDir.
inline CError LoadStoreConfig(const nuvtest::TempDir& root, int limitMiB = 10,
                              std::string logPath = "") {
  if (logPath.empty()) {
    logPath = LogDir(root);
  }
  const std::string text =
      R"({"default": {"cache": {"size": 100},
                      "collect_sdk": {"frequency": 5, "monitor_type": 31, "hit_rate": 80},
                      "perf_monitor": [],
                      "file": {"cahce": 1024, "path": ")" +
      logPath + R"("},
                      "clearn": {"day": 7, "file_size": )" +
      std::to_string(limitMiB) + R"(}},
          "addition": {"small": {"file": {"path": ")" +
      SmallDir(root) + R"(", "cache": 1},
                                 "clearn": {"day": 1, "file_size": 1},
                                 "bp_type": 8192}}})";
  const std::string path = root.Sub("maintenance.json");
  if (!nuvtest::WriteFile(path, text)) {
    return CError(-1, "cannot write " + path);
  }
  ConfigMgr loader;
  return loader.LoadConfig(path);
}

// Moves nuv_time() to the given local time for its lifetime.
class ClockAt {
 public:
  ClockAt(int year, int month, int day, int hour = 12, int minute = 0, int second = 0) {
    Set(year, month, day, hour, minute, second);
  }
  ~ClockAt() { nuv_time_set_offset(0); }
  ClockAt(const ClockAt&) = delete;
  ClockAt& operator=(const ClockAt&) = delete;

  void Set(int year, int month, int day, int hour = 12, int minute = 0, int second = 0) {
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    tm.tm_isdst = -1;
    nuv_time_set_offset(static_cast<int64_t>(std::mktime(&tm)) -
                        static_cast<int64_t>(std::time(nullptr)));
  }
};

// The lines the platform log receives at DEBUG level while `emit` runs.
template <typename Fn>
std::vector<std::string> CaptureLog(Fn emit) {
  nuvtest::TempDir dir;
  const std::string path = dir.Sub("zor.log");
  nuv_log_set_file(path.c_str());
  const int oldLevel = nuv_log_get_level();
  nuv_log_set_level(3);
  nuv_log_start(0);
  emit();
  nuv_log_stop();
  nuv_log_set_level(oldLevel);
  nuv_log_set_file(nullptr);
  return nuvtest::ReadLines(path);
}

// The lines of `lines` that hold `text`.
inline std::vector<std::string> Matching(const std::vector<std::string>& lines,
                                         const std::string& text) {
  std::vector<std::string> out;
  for (const std::string& line : lines) {
    if (line.find(text) != std::string::npos) {
      out.push_back(line);
    }
  }
  return out;
}

}  // namespace filetest

#endif
