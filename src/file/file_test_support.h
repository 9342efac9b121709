// Shared by the store's tests and those of its producers: a configuration whose store lives in
// a temporary directory, the bus, a clock moved to a chosen local time, streams laid out and
// read back, log capture, and running copies of /bin/sleep.
#ifndef NUV_FILE_FILE_TEST_SUPPORT_H
#define NUV_FILE_FILE_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <cstdio>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/singleton.h"
#include "common/utils.h"
#include "config/config_mgr.h"
#include "file/filemanager.h"
#include "nuv_comm.h"
#include "nuv_file.h"
#include "nuv_time.h"
#include "testutil/bus_post.h"
#include "testutil/testutil.h"

namespace filetest {

using Lines = std::vector<std::string>;
using nuvtest::CaptureLog;

// A type with its own directory ("<root>/small") and a 1 MiB size limit.
constexpr unsigned int kSmallType = 8192;

inline std::string LogDir(const nuvtest::TempDir& root) { return root.Sub("log"); }
inline std::string SmallDir(const nuvtest::TempDir& root) { return root.Sub("small"); }

// Loads a configuration through the loader: the default store under `logPath` (LogDir when
// empty) with a default limit of `limitMiB`, kSmallType under SmallDir, and a sample every
// `frequency` seconds.
inline CError LoadStoreConfig(const nuvtest::TempDir& root, int limitMiB = 10,
                              std::string logPath = "", int frequency = 5) {
  if (logPath.empty()) logPath = LogDir(root);
  const std::string path = root.Sub("maintenance.json");
  if (!nuvtest::WriteFile(path, R"({"default": {"cache": {"size": 100}, "collect_sdk": {
      "frequency": )" + std::to_string(frequency) + R"(, "monitor_type": 31, "hit_rate": 80},
      "perf_monitor": [], "file": {"cahce": 1024, "path": ")" + logPath + R"("},
      "clearn": {"day": 7, "file_size": )" + std::to_string(limitMiB) + R"(}},
      "addition": {"small": {"file": {"path": ")" + SmallDir(root) + R"(", "cache": 1},
                             "clearn": {"day": 1, "file_size": 1}, "bp_type": 8192}}})")) {
    return CError(-1, "cannot write " + path);
  }
  ConfigMgr loader;
  return loader.LoadConfig(path);
}

// One bus with private sockets for the whole run and, `withStore`, one store: the file manager
// keeps its streams open across tests, so the store must not move under it.
class BusEnvironment : public ::testing::Environment {
 public:
  explicit BusEnvironment(bool withStore) : withStore_(withStore) {}
  void SetUp() override {
    setenv("NUV_COMM_DIR", dir_.Sub("comm").c_str(), 1);
    ASSERT_EQ(nuv_comm_init(), 0);
    if (withStore_) {
      ASSERT_TRUE(LoadStoreConfig(dir_).IsSuccess());
    }
  }
  void TearDown() override { nuv_comm_uninit(); }

 private:
  bool withStore_;
  nuvtest::TempDir dir_;
};

// Moves nuv_time() to the given local time for its lifetime.
class ClockAt {
 public:
  template <typename... Args>
  explicit ClockAt(Args... args) { Set(args...); }
  ~ClockAt() { nuv_time_set_offset(0); }
  ClockAt(const ClockAt&) = delete;
  ClockAt& operator=(const ClockAt&) = delete;
  void Set(int year, int month, int day, int hour = 12, int minute = 0, int second = 0) {
    std::tm tm{};
    tm.tm_sec = second, tm.tm_min = minute, tm.tm_hour = hour, tm.tm_mday = day;
    tm.tm_mon = month - 1, tm.tm_year = year - 1900, tm.tm_isdst = -1;
    nuv_time_set_offset(static_cast<int64_t>(std::mktime(&tm)) - std::time(nullptr));
  }
};

// A classification of a stream opened today that must succeed.
inline CFileClassify Classify(const std::string& name, unsigned int pid, unsigned int type) {
  CFileClassify classify;
  EXPECT_TRUE(classify.InitFileClassify(name, pid, type)) << name;
  return classify;
}

// The index file and the content file the store keeps for `records`.
inline std::string IndexLines(const Lines& records) {
  std::string text;
  unsigned int offset = 0;
  for (const std::string& record : records) {
    text += IndexData(offset, static_cast<unsigned int>(record.size())).ToString();
    offset += static_cast<unsigned int>(record.size());
  }
  return text;
}
inline std::string Joined(const Lines& records) {
  std::string text;
  for (const std::string& record : records) text += record;
  return text;
}

// Lays a stream's files out as the store would, without going through it.
inline void WriteRecords(const CFileClassify& stream, const Lines& records) {
  ASSERT_TRUE(CreateDirectory(stream.GetPath()));
  ASSERT_TRUE(nuvtest::WriteFile(stream.GetIndexPath(), IndexLines(records)));
  ASSERT_TRUE(nuvtest::WriteFile(stream.GetContentPath(), Joined(records)));
}

// The records of a stream, read back through the process's store after a flush.
inline Lines Stored(CFileClassify stream) {
  CFileManager& store = CSingleton<CFileManager>::GetInstance();
  store.FileUnitsFlush();
  Lines records;
  store.ReadALLFile(stream, records);
  return records;
}

// What `command` printed on its standard output.
inline std::string Output(const std::string& command) {
  std::string out;
  if (FILE* pipe = ::popen(command.c_str(), "r")) {
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    ::pclose(pipe);
  }
  return out;
}

// The lines of `lines` that hold `text`.
inline Lines Matching(const Lines& lines, const std::string& text) {
  Lines out;
  for (const std::string& line : lines) {
    if (line.find(text) != std::string::npos) out.push_back(line);
  }
  return out;
}

// "[LEVEL] message" of the lines that `source` (e.g. "handler/handler.cpp") wrote.
inline Lines Messages(const Lines& lines, const std::string& source) {
  Lines out;
  for (const std::string& line : Matching(lines, "[" + source + "(")) {
    out.push_back(nuvtest::Message(line));
  }
  return out;
}

// A copy of /bin/sleep at `exe` running "60"; killed and reaped on destruction. `image` is the
// path as the process finder and the trigger report it (lower-cased).
struct Sleeper {
  explicit Sleeper(const std::string& exe) : image(exe) {
    CorrectLowerString(image);
    if (is_file_exist(exe.c_str()) == 1 || (nuvtest::WriteFile(exe, nuvtest::ReadFile("/bin/sleep")) &&
                                            chmod(exe.c_str(), 0755) == 0)) {
      pid = nuvtest::Spawn({exe, "60"}, {}, "", "/dev/null", "/dev/null");
    }
  }
  ~Sleeper() { Kill(); }
  void Kill() {
    if (pid > 0 && kill(pid, SIGKILL) == 0) nuvtest::WaitExit(pid);
    pid = -1;
  }
  unsigned int id() const { return static_cast<unsigned int>(pid); }
  std::string Started() const { return "R " + image + " " + std::to_string(pid); }
  std::string image;
  int pid = -1;
};

}  // namespace filetest

#endif
