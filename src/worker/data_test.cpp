#include "worker/data.h"

#include <ftw.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
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

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }

// Focus texts are lower-cased before the image is looked up, so image files must live under a
// lower-case path (mkdtemp names mix cases).
class LowerDir {
 public:
  LowerDir() {
    const char* base = std::getenv("TMPDIR");
    std::string root = base != nullptr && *base != '\0' ? base : "/tmp";
    for (char c : root) {
      if (c >= 'A' && c <= 'Z') {
        root = "/tmp";
        break;
      }
    }
    for (int n = 0; path_.empty(); ++n) {
      std::string candidate =
          root + "/nuv_data_test_" + std::to_string(getpid()) + "_" + std::to_string(n);
      if (::mkdir(candidate.c_str(), 0700) == 0) {
        path_ = candidate;
      }
    }
  }
  ~LowerDir() { ::nftw(path_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

std::string Expand(const std::string& text, const std::string& dir) {
  std::string out = text;
  for (size_t at = out.find("$D"); at != std::string::npos; at = out.find("$D", at)) {
    out.replace(at, 2, dir);
    at += dir.size();
  }
  return out;
}

CMonitorData ValidBase() {
  CMonitorData m;
  m.id = " Mon-1 ";
  m.agent_id = "Agent";
  m.subscriber = "Sub";
  m.handler = "Topic:A";
  m.condition = " c>50 ";
  m.focus = "system:0";
  return m;
}

}  // namespace

TEST(MonitorDataTest, CheckValidOrderFocusAndType) {
  LowerDir dir;
  ASSERT_TRUE(nuvtest::WriteFile(dir.path() + "/app", "x"));
  ASSERT_TRUE(nuvtest::WriteFile(dir.path() + "/a:b", "x"));

  const std::string focusBad = "[ERROR] [CMonitorData]::CheckValid focus is invalid. id = mon-1.";
  const std::string noFile = "[ERROR] [CMonitorData]::CheckFocus image file not exist, id = mon-1.";
  const std::string noColon =
      "[ERROR] [CMonitorData]::CheckFocus focus invalid, not find `:`, id = mon-1.";
  const std::string colonLast =
      "[ERROR] [CMonitorData]::CheckFocus focus length invalid `:`, id = mon-1.";
  const std::string noCondition =
      "[ERROR] [CMonitorData]::CheckValid subscriber condition is null. id = mon-1.";
  const std::string focusInvalid = "parameters invalid, focus invalid";
  enum Drop { kNone, kId, kSubscriber, kHandler, kCondition, kBlankCondition };
  const struct {
    std::string focus;
    std::string dependent;
    Drop drop;
    std::string desc;  // "" for success
    std::vector<std::string> log;
    int type = 0;
    std::string image = "";
    std::string pidText = "";
    int pid = 0;
  } cases[] = {
      {"system:0", "", kNone, "", {}, 1, "system", "0", 0},
      {"system:0", "Dep-1", kNone, "", {}, 2, "system", "0", 0},
      {" SYSTEM:0 ", "", kNone, "", {}, 1, "system", "0", 0},
      {"processpoint:3", "", kNone, "", {}, 1, "processpoint", "3", 3},
      {"processpoint:3", "d", kNone, "", {}, 2, "processpoint", "3", 3},
      {"processpoint:4", "", kNone, focusInvalid, {noFile, focusBad}},
      {"$D/app:*", "", kNone, "", {}, 3, "$D/app", "*", 0},
      {"$D/app:*", "d", kNone, "", {}, 4, "$D/app", "*", 0},
      {"$D/APP:*", "", kNone, "", {}, 3, "$D/app", "*", 0},
      {"$D/app:1234", "", kNone, "", {}, 1, "$D/app", "1234", 1234},
      {"$D/app:1234", "d", kNone, "", {}, 2, "$D/app", "1234", 1234},
      {"$D/a:b:12", "", kNone, "", {}, 1, "$D/a:b", "12", 12},
      {"$D/app:0", "", kNone, focusInvalid, {focusBad}},
      {"$D/app:abc", "", kNone, focusInvalid, {focusBad}},
      {"$D/app:-5", "", kNone, focusInvalid, {focusBad}},
      {"$D/missing:*", "", kNone, focusInvalid, {noFile, focusBad}},
      {"$D/app", "", kNone, focusInvalid, {noColon, focusBad}},
      {"$D/app:", "", kNone, focusInvalid, {colonLast, focusBad}},
      // Only the first missing field is reported; a bad focus is never looked at.
      {"nowhere", "", kId, "parameters invalid, id is null",
       {"[ERROR] [CMonitorData]::CheckValid id is empty."}},
      {"nowhere", "", kSubscriber, "parameters invalid, subscriber is null",
       {"[ERROR] [CMonitorData]::CheckValid subscriber is empty. id = mon-1."}},
      {"nowhere", "", kHandler, "parameters invalid, handler is null",
       {"[ERROR] [CMonitorData]::CheckValid subscriber handler is null. id = mon-1."}},
      {"nowhere", "", kCondition, "parameters invalid, condition is null", {noCondition}},
      {"nowhere", "", kBlankCondition, "parameters invalid, condition is null", {noCondition}},
  };
  for (const auto& c : cases) {
    const std::string focus = Expand(c.focus, dir.path());
    SCOPED_TRACE(focus + " drop " + std::to_string(c.drop));
    CMonitorData m = ValidBase();
    m.focus = focus;
    m.dependent_id = c.dependent;
    switch (c.drop) {
      case kId:
        m.id.clear();
        m.subscriber.clear();
        break;
      case kSubscriber:
        m.subscriber.clear();
        m.handler.clear();
        break;
      case kHandler:
        m.handler.clear();
        break;
      case kCondition:
        m.condition.clear();
        break;
      case kBlankCondition:
        m.condition = " \t ";
        break;
      case kNone:
        break;
    }
    CError result;
    std::vector<std::string> log = CaptureLog([&] { result = m.CheckValid(); });
    EXPECT_EQ(log, c.log);
    if (c.desc.empty()) {
      EXPECT_EQ(result.code, 0);
      EXPECT_EQ(result.desc, "success");
      EXPECT_EQ(m.GetDataType(), c.type);
      EXPECT_EQ(m.image, Expand(c.image, dir.path()));
      EXPECT_EQ(m.pid_text, c.pidText);
      EXPECT_EQ(m.pid, c.pid);
    } else {
      EXPECT_EQ(result.code, 102);
      EXPECT_EQ(result.desc, c.desc);
    }
  }
}

TEST(MonitorDataTest, ReservedPairIsExact) {
  // "processpoint" with any pid but 3 is an ordinary image looked up relative to the working
  // directory.
  LowerDir dir;
  char* oldCwd = ::getcwd(nullptr, 0);
  ASSERT_NE(oldCwd, nullptr);
  ASSERT_EQ(::chdir(dir.path().c_str()), 0);
  CMonitorData m = ValidBase();
  m.focus = "processpoint:4";
  const int before = m.CheckValid().code;
  const bool wrote = nuvtest::WriteFile("processpoint", "x");
  const int after = m.CheckValid().code;
  EXPECT_EQ(::chdir(oldCwd), 0);
  std::free(oldCwd);
  EXPECT_EQ(before, 102);
  ASSERT_TRUE(wrote);
  EXPECT_EQ(after, 0);
  EXPECT_EQ(m.GetDataType(), CMonitorData::kTypeExact);
  EXPECT_EQ(m.pid, 4);
}

TEST(MonitorDataTest, CheckDataTypeRules) {
  const struct {
    const char* image;
    int pid;
    const char* pidText;
    const char* dependent;
    int type;
  } cases[] = {
      {"system", 0, "0", "", 1},  {"system", 0, "0", "d", 2}, {"/x", 7, "7", "", 1},
      {"/x", -7, "-7", "d", 2},   {"/x", 0, "*", "", 3},      {"/x", 0, "*", "d", 4},
      {"/x", 0, "0", "", 0},      {"", 5, "5", "", 0},        {"", 0, "*", "d", 0},
      {"other", 0, "0", "", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.image) + ":" + c.pidText + " dep " + c.dependent);
    CMonitorData m;
    m.data_type = 9;
    m.image = c.image;
    m.pid = c.pid;
    m.pid_text = c.pidText;
    m.dependent_id = c.dependent;
    EXPECT_EQ(m.CheckDataType(), c.type);
    EXPECT_EQ(m.GetDataType(), c.type);
  }
}

TEST(MonitorDataTest, NormalisationAndClear) {
  const std::string raw = " MiX Ed\t";
  CMonitorData m;
  std::string* lowered[] = {&m.id,           &m.name,         &m.version, &m.product_version,
                            &m.focus,        &m.dependent_id, &m.pid_text};
  std::string* kept[] = {&m.agent_id, &m.subscriber, &m.product, &m.handler, &m.image};
  for (std::string* field : lowered) *field = raw;
  for (std::string* field : kept) *field = raw;
  m.condition = raw;
  m.ConvertLowerObject();
  for (std::string* field : lowered) EXPECT_EQ(*field, "mix ed");
  for (std::string* field : kept) EXPECT_EQ(*field, raw);
  EXPECT_EQ(m.condition, "MIX ED");

  m.data_type = 3;
  m.pid = 77;
  CMonitorData copy = m;
  m.Clear();
  EXPECT_EQ(m.agent_id, raw);
  for (std::string* field : lowered) EXPECT_TRUE(field->empty());
  for (std::string* field : {&m.subscriber, &m.product, &m.handler, &m.image, &m.condition}) {
    EXPECT_TRUE(field->empty());
  }
  EXPECT_EQ(m.data_type, 0);
  EXPECT_EQ(m.pid, 0);
  // Copies are independent of the original.
  EXPECT_EQ(copy.handler, raw);
  EXPECT_EQ(copy.GetDataType(), 3);
  EXPECT_EQ(copy.pid, 77);
}

TEST(SampleRecordTest, ProcessInfoFromPlatformRecord) {
  _process_info in;
  std::memset(&in, 0, sizeof(in));
  in.pid = 101;
  in.parentid = 1;
  in.cpu = 12.5f;
  in.cputime = 0x100000003ULL;
  in.usertime = 0x100000002ULL;
  in.kerneltime = 1;
  in.totaltime = 0x500000000ULL;
  in.memory = 0x1234567890ULL;
  in.memorycommit = 0x2234567890ULL;
  in.createtime = 1700000000u;
  in.iorspeed = 4096;
  in.iowspeed = 0xFFFFFFFFu;
  in.readbytes = 0x7000000000000001ULL;
  in.writebytes = 0x7000000000000002ULL;
  in.threads = 9;
  in.handles = 33;
  in.image = " App.BIN ";
  in.path = "/Opt/App.BIN";
  in.commandline = nullptr;
  in.reserved[0] = 5;
  in.reserved[1] = 6;
  in.reserved[2] = 7;

  ProcessInfo p(&in);
  EXPECT_EQ(p.pid, 101u);
  EXPECT_EQ(p.parentid, 1u);
  EXPECT_FLOAT_EQ(p.cpu, 12.5f);
  EXPECT_EQ(p.cputime, 0x100000003ULL);
  EXPECT_EQ(p.usertime, 0x100000002ULL);
  EXPECT_EQ(p.kerneltime, 1u);
  EXPECT_EQ(p.totaltime, 0x500000000ULL);
  EXPECT_EQ(p.memory, 0x1234567890ULL);
  EXPECT_EQ(p.memorycommit, 0x2234567890ULL);
  EXPECT_EQ(p.createtime, 1700000000u);
  EXPECT_EQ(p.iorspeed, 4096u);
  EXPECT_EQ(p.iowspeed, 0xFFFFFFFFu);
  EXPECT_EQ(p.readbytes, 0x7000000000000001ULL);
  EXPECT_EQ(p.writebytes, 0x7000000000000002ULL);
  EXPECT_EQ(p.threads, 9u);
  EXPECT_EQ(p.handles, 33u);
  EXPECT_EQ(p.image, "app.bin");
  EXPECT_EQ(p.path, "/opt/app.bin");
  EXPECT_EQ(p.commandline, "");
  EXPECT_EQ(p.reserved[0], 5u);
  EXPECT_EQ(p.reserved[2], 7u);
  EXPECT_EQ(p.mark, 0u);

  in.commandline = "  /Opt/App.BIN --Mode=X ";
  EXPECT_EQ(ProcessInfo(&in).commandline, "/opt/app.bin --mode=x");

  ProcessInfo none(nullptr);
  EXPECT_EQ(none.pid, 0u);
  EXPECT_EQ(none.memory, 0u);
  EXPECT_TRUE(none.image.empty() && none.path.empty() && none.commandline.empty());
}

TEST(SampleRecordTest, SystemInfoFromPlatformRecord) {
  _sys_info in;
  std::memset(&in, 0, sizeof(in));
  in.cpu = 55.5f;
  in.procnum = 300;
  in.threadnum = 1200;
  in.handlenum = 5000;
  in.memtotal = 0x300000000ULL;
  in.memavai = 0x100000000ULL;
  in.cpunum = 8;
  in.swap_usage = 1.25f;
  in.swap_used = 0x10000000FULL;
  in.swap_total = 0x20000000FULL;
  in.cpu_iowait_percent = 3.5f;
  for (int i = 0; i < 6; ++i) in.reserved[i] = 0xA0u + i;
  for (size_t i = 0; i < sizeof(in.raw); ++i) in.raw[i] = static_cast<uint8_t>(i * 7 + 1);

  const SystemInfo s(&in);
  // Packed members are read by value.
  EXPECT_FLOAT_EQ(float{s.cpu}, 55.5f);
  EXPECT_EQ(uint32_t{s.procnum}, 300u);
  EXPECT_EQ(uint32_t{s.threadnum}, 1200u);
  EXPECT_EQ(uint32_t{s.handlenum}, 5000u);
  EXPECT_EQ(uint64_t{s.memtotal}, 0x300000000ULL);
  EXPECT_EQ(uint64_t{s.memavai}, 0x100000000ULL);
  EXPECT_EQ(uint32_t{s.cpunum}, 8u);
  EXPECT_FLOAT_EQ(float{s.swap_usage}, 1.25f);
  EXPECT_EQ(uint64_t{s.swap_used}, 0x10000000FULL);
  EXPECT_EQ(uint64_t{s.swap_total}, 0x20000000FULL);
  EXPECT_FLOAT_EQ(float{s.cpu_iowait_percent}, 3.5f);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(uint32_t{s.reserved[i]}, 0xA0u + i);
  EXPECT_EQ(std::memcmp(s.raw, in.raw, SystemInfo::kRawSize), 0);

  // Cells copy the record as one block: the bytes are the whole record, with no padding.
  SystemInfo copy;
  std::memcpy(static_cast<void*>(&copy), &s, sizeof(SystemInfo));
  EXPECT_EQ(uint64_t{copy.swap_total}, 0x20000000FULL);
  EXPECT_EQ(copy.raw[SystemInfo::kRawSize - 1], in.raw[SystemInfo::kRawSize - 1]);

  const SystemInfo none(nullptr);
  EXPECT_EQ(uint64_t{none.memtotal}, 0u);
  EXPECT_EQ(none.raw[0], 0u);
}

TEST(SampleRecordTest, ProcessMonInfoAndIoDisk) {
  const struct {
    const char* name;
    const char* path;
    std::string wantName;
    std::string wantPath;
  } cases[] = {
      {" Bash ", " /USR/BIN/Bash\n", "bash", "/usr/bin/bash"},
      {nullptr, "/bin/sh", "", "/bin/sh"},
      {"init", nullptr, "init", ""},
  };
  for (const auto& c : cases) {
    _process_mon_info in = {42, c.name, c.path};
    ProcessMonInfo p(&in);
    EXPECT_EQ(p.pid, 42u);
    EXPECT_EQ(p.name, c.wantName);
    EXPECT_EQ(p.path, c.wantPath);
  }
  EXPECT_EQ(ProcessMonInfo(nullptr).pid, 0u);

  _io_block block = {L"SDA", 1, 2, 3, 4, 0xFFFFFFFFu};
  IoDiskInfo disk(&block);
  EXPECT_EQ(disk.reads, 1u);
  EXPECT_EQ(disk.read_sectors, 2u);
  EXPECT_EQ(disk.writes, 3u);
  EXPECT_EQ(disk.write_sectors, 4u);
  EXPECT_EQ(disk.io_ms, 0xFFFFFFFFu);
  // The wide name goes through WstringToString, which deliberately converts nothing.
  EXPECT_EQ(disk.name, "");
}

TEST(SampleRecordTest, RecordLayouts) {
  std::printf("sizeof _process_info=%zu _sys_info=%zu SystemInfo=%zu _perf_information=%zu "
              "_process_mon_info=%zu _io_block=%zu\n",
              sizeof(_process_info), sizeof(_sys_info), sizeof(SystemInfo),
              sizeof(_perf_information), sizeof(_process_mon_info), sizeof(_io_block));
  // Packing makes these hold on every target, not only on i386.
  EXPECT_EQ(sizeof(SystemInfo), 474u);
  EXPECT_EQ(offsetof(SystemInfo, raw), 84u);
  EXPECT_EQ(offsetof(_sys_info, raw) + NUV_SYS_INFO_RAW_SIZE, 474u);
#if defined(__i386__)
  EXPECT_EQ(sizeof(_process_info), 120u);
  EXPECT_EQ(offsetof(_process_info, cputime), 12u);
  EXPECT_EQ(offsetof(_process_info, readbytes), 72u);
  EXPECT_EQ(offsetof(_process_info, image), 96u);
  EXPECT_EQ(sizeof(_process_mon_info), 12u);
  EXPECT_EQ(sizeof(_perf_information), 16u);
#endif
}
