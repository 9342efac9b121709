#include "worker/data.h"

#include <ftw.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "testutil/testutil.h"

namespace {

// Focus texts are lower-cased before the image is looked up, so image files must live under a
// lower-case path (mkdtemp names mix cases).
struct LowerDir {
  LowerDir() { EXPECT_EQ(::mkdir(path.c_str(), 0700), 0) << path; }
  ~LowerDir() {
    ::nftw(path.c_str(), [](const char* p, const struct stat*, int, FTW*) { return ::remove(p); },
           16, FTW_DEPTH | FTW_PHYS);
  }
  const std::string path = "/tmp/nuv_data_test_" + std::to_string(getpid());
};

CMonitorData ValidBase(const std::string& focus) {
  CMonitorData m;
  m.id = " Mon-1 ", m.agent_id = "Agent", m.subscriber = "Sub", m.handler = "Topic:A";
  m.condition = " c>50 ", m.focus = focus;
  return m;
}

}  // namespace

TEST(MonitorDataTest, CheckValidOrderAndFocus) {
  LowerDir dir;
  ASSERT_TRUE(nuvtest::WriteFile(dir.path + "/app", "x"));
  ASSERT_TRUE(nuvtest::WriteFile(dir.path + "/a:b", "x"));
  // An image whose path holds capitals, and a focus through a link: both name what samples
  // will carry, the canonical path lower-cased.
  ASSERT_EQ(::mkdir((dir.path + "/Opt").c_str(), 0755), 0);
  ASSERT_TRUE(nuvtest::WriteFile(dir.path + "/Opt/Bin", "x"));
  ASSERT_EQ(::symlink("Opt/Bin", (dir.path + "/link").c_str()), 0);
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
    std::string focus;  // "$D" stands for the directory
    Drop drop;
    std::string desc;  // "" for success
    std::vector<std::string> log;
    int type = 0;
    std::string image = "";
    std::string pidText = "";
    int pid = 0;
  } cases[] = {
      {" SYSTEM:0 ", kNone, "", {}, 1, "system", "0", 0},
      {"processpoint:3", kNone, "", {}, 1, "processpoint", "3", 3},
      {"processpoint:4", kNone, focusInvalid, {noFile, focusBad}},
      {"$D/APP:*", kNone, "", {}, 3, "$D/app", "*", 0},
      {"$D/app:1234", kNone, "", {}, 1, "$D/app", "1234", 1234},
      {"$D/a:b:12", kNone, "", {}, 1, "$D/a:b", "12", 12},
      {"$D/Opt/Bin:*", kNone, "", {}, 3, "$D/opt/bin", "*", 0},
      {"$D/link:7", kNone, "", {}, 1, "$D/opt/bin", "7", 7},
      {"$D/app:0", kNone, focusInvalid, {focusBad}},
      {"$D/app:abc", kNone, focusInvalid, {focusBad}},
      {"$D/app:-5", kNone, focusInvalid, {focusBad}},
      {"$D/missing:*", kNone, focusInvalid, {noFile, focusBad}},
      {"$D/app", kNone, focusInvalid, {noColon, focusBad}},
      {"$D/app:", kNone, focusInvalid, {colonLast, focusBad}},
      // Only the first missing field is reported; a bad focus is never looked at.
      {"nowhere", kId, "parameters invalid, id is null",
       {"[ERROR] [CMonitorData]::CheckValid id is empty."}},
      {"nowhere", kSubscriber, "parameters invalid, subscriber is null",
       {"[ERROR] [CMonitorData]::CheckValid subscriber is empty. id = mon-1."}},
      {"nowhere", kHandler, "parameters invalid, handler is null",
       {"[ERROR] [CMonitorData]::CheckValid subscriber handler is null. id = mon-1."}},
      {"nowhere", kCondition, "parameters invalid, condition is null", {noCondition}},
      {"nowhere", kBlankCondition, "parameters invalid, condition is null", {noCondition}},
  };
  auto expand = [&](std::string text) {
    return text.rfind("$D", 0) == 0 ? text.replace(0, 2, dir.path) : text;
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.focus + " drop " + std::to_string(c.drop));
    CMonitorData m = ValidBase(expand(c.focus));
    if (c.drop == kId) m.id.clear(), m.subscriber.clear();
    if (c.drop == kSubscriber) m.subscriber.clear(), m.handler.clear();
    if (c.drop == kHandler) m.handler.clear();
    if (c.drop == kCondition) m.condition.clear();
    if (c.drop == kBlankCondition) m.condition = " \t ";
    CError result;
    EXPECT_EQ(nuvtest::CaptureMessages([&] { result = m.CheckValid(); }), c.log);
    EXPECT_EQ(result.code, c.desc.empty() ? 0 : 102);
    EXPECT_EQ(result.desc, c.desc.empty() ? "success" : c.desc);
    if (c.desc.empty()) {
      EXPECT_EQ(m.GetDataType(), c.type);
      EXPECT_EQ(m.image + "|" + m.pid_text, expand(c.image) + "|" + c.pidText);
      EXPECT_EQ(m.pid, c.pid);
    }
  }

  // "processpoint" with any pid but 3 is an ordinary image looked up relative to the working
  // directory.
  char* oldCwd = ::getcwd(nullptr, 0);
  ASSERT_EQ(::chdir(dir.path.c_str()), 0);
  CMonitorData m = ValidBase("processpoint:4");
  const bool wrote = nuvtest::WriteFile("processpoint", "x");
  const int code = m.CheckValid().code;
  EXPECT_EQ(::chdir(oldCwd), 0);
  std::free(oldCwd);
  ASSERT_TRUE(wrote);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(m.GetDataType(), CMonitorData::kTypeExact);
}

TEST(MonitorDataTest, CheckDataTypeRules) {
  const struct {
    const char *image, *pidText, *dependent;
    int pid, type;
  } cases[] = {
      {"system", "0", "", 0, 1}, {"system", "0", "d", 0, 2}, {"/x", "7", "", 7, 1},
      {"/x", "-7", "d", -7, 2},  {"/x", "*", "", 0, 3},      {"/x", "*", "d", 0, 4},
      {"/x", "0", "", 0, 0},     {"", "5", "", 5, 0},        {"", "*", "d", 0, 0},
      {"other", "0", "", 0, 0},
  };
  for (const auto& c : cases) {
    CMonitorData m;
    m.data_type = 9, m.image = c.image, m.pid = c.pid, m.pid_text = c.pidText;
    m.dependent_id = c.dependent;
    EXPECT_EQ(m.CheckDataType(), c.type) << c.image << ":" << c.pidText << " dep " << c.dependent;
    EXPECT_EQ(m.GetDataType(), c.type);
  }
}

TEST(MonitorDataTest, NormalisationAndClear) {
  const std::string raw = " MiX Ed\t";
  CMonitorData m;
  std::string* lowered[] = {&m.id,    &m.name,         &m.version, &m.product_version,
                            &m.focus, &m.dependent_id, &m.pid_text};
  std::string* kept[] = {&m.agent_id, &m.subscriber, &m.product, &m.handler, &m.image};
  for (std::string* field : lowered) *field = raw;
  for (std::string* field : kept) *field = raw;
  m.condition = raw;
  m.ConvertLowerObject();
  for (std::string* field : lowered) EXPECT_EQ(*field, "mix ed");
  for (std::string* field : kept) EXPECT_EQ(*field, raw);
  EXPECT_EQ(m.condition, "MIX ED");

  m.data_type = 3, m.pid = 77;
  m.Clear();
  EXPECT_EQ(m.agent_id, raw);
  for (std::string* field : lowered) EXPECT_TRUE(field->empty());
  for (std::string* field : {&m.subscriber, &m.product, &m.handler, &m.image, &m.condition}) {
    EXPECT_TRUE(field->empty());
  }
  EXPECT_EQ(m.data_type + m.pid, 0);
}

// Every field gets a distinct value, 64-bit ones above 32 bits, so that a dropped, swapped or
// narrowed field shows.
TEST(SampleRecordTest, RecordsFromPlatformRecords) {
  _process_info in;
  std::memset(&in, 0, sizeof(in));
  in.pid = 101, in.parentid = 1, in.cpu = 12.5f, in.cputime = 0x100000003ULL;
  in.usertime = 0x100000002ULL, in.kerneltime = 1, in.totaltime = 0x500000000ULL;
  in.memory = 0x1234567890ULL, in.memorycommit = 0x2234567890ULL, in.createtime = 1700000000u;
  in.iorspeed = 4096, in.iowspeed = 0xFFFFFFFFu, in.readbytes = 0x7000000000000001ULL;
  in.writebytes = 0x7000000000000002ULL, in.threads = 9, in.handles = 33;
  in.image = " App.BIN ", in.path = "/Opt/App.BIN", in.commandline = nullptr;
  in.reserved[0] = 5, in.reserved[2] = 7;
  ProcessInfo p(&in);
  EXPECT_EQ((std::vector<uint64_t>{p.pid, p.parentid, p.cputime, p.usertime, p.kerneltime,
                                   p.totaltime, p.memory, p.memorycommit, p.createtime,
                                   p.iorspeed, p.iowspeed, p.readbytes, p.writebytes, p.threads,
                                   p.handles, p.reserved[0], p.reserved[2], p.mark}),
            (std::vector<uint64_t>{101, 1, 0x100000003ULL, 0x100000002ULL, 1, 0x500000000ULL,
                                   0x1234567890ULL, 0x2234567890ULL, 1700000000u, 4096,
                                   0xFFFFFFFFu, 0x7000000000000001ULL, 0x7000000000000002ULL, 9,
                                   33, 5, 7, 0}));
  EXPECT_FLOAT_EQ(p.cpu, 12.5f);
  EXPECT_EQ(p.image + "|" + p.path + "|" + p.commandline, "app.bin|/opt/app.bin|");
  in.commandline = "  /Opt/App.BIN --Mode=X ";
  EXPECT_EQ(ProcessInfo(&in).commandline, "/opt/app.bin --mode=x");
  ProcessInfo none(nullptr);
  EXPECT_EQ(none.pid + none.memory, 0u);
  EXPECT_EQ(none.image + none.path + none.commandline, "");

  _sys_info sys;
  std::memset(&sys, 0, sizeof(sys));
  sys.cpu = 55.5f, sys.procnum = 300, sys.threadnum = 1200, sys.handlenum = 5000;
  sys.memtotal = 0x300000000ULL, sys.memavai = 0x100000000ULL, sys.cpunum = 8;
  sys.swap_usage = 1.25f, sys.swap_used = 0x10000000FULL, sys.swap_total = 0x20000000FULL;
  sys.cpu_iowait_percent = 3.5f;
  for (int i = 0; i < 6; ++i) sys.reserved[i] = 0xA0u + i;
  for (size_t i = 0; i < sizeof(sys.raw); ++i) sys.raw[i] = static_cast<uint8_t>(i * 7 + 1);
  const SystemInfo s(&sys);
  EXPECT_EQ((std::vector<uint64_t>{s.procnum, s.threadnum, s.handlenum, s.memtotal, s.memavai,
                                   s.cpunum, s.swap_used, s.swap_total, s.reserved[0],
                                   s.reserved[5]}),
            (std::vector<uint64_t>{300, 1200, 5000, 0x300000000ULL, 0x100000000ULL, 8,
                                   0x10000000FULL, 0x20000000FULL, 0xA0, 0xA5}));
  EXPECT_EQ((std::vector<float>{s.cpu, s.swap_usage, s.cpu_iowait_percent}),
            (std::vector<float>{55.5f, 1.25f, 3.5f}));
  EXPECT_EQ(std::memcmp(s.raw, sys.raw, SystemInfo::kRawSize), 0);
  EXPECT_EQ(SystemInfo(nullptr).memtotal + SystemInfo(nullptr).raw[0], 0u);

  const struct {
    const char *name, *path, *wantName, *wantPath;
  } mons[] = {{" Bash ", " /USR/BIN/Bash\n", "bash", "/usr/bin/bash"},
              {nullptr, "/bin/sh", "", "/bin/sh"},
              {"init", nullptr, "init", ""}};
  for (const auto& c : mons) {
    _process_mon_info mon = {42, c.name, c.path};
    ProcessMonInfo pm(&mon);
    EXPECT_EQ(std::to_string(pm.pid) + " " + pm.name + " " + pm.path,
              std::string("42 ") + c.wantName + " " + c.wantPath);
  }
  EXPECT_EQ(ProcessMonInfo(nullptr).pid, 0u);

  _io_block block = {L"SDA", 1, 2, 3, 4, 0xFFFFFFFFu};
  IoDiskInfo disk(&block);
  EXPECT_EQ((std::vector<uint64_t>{disk.reads, disk.read_sectors, disk.writes,
                                   disk.write_sectors, disk.io_ms}),
            (std::vector<uint64_t>{1, 2, 3, 4, 0xFFFFFFFFu}));
  // The wide name goes through WstringToString, which deliberately converts nothing.
  EXPECT_EQ(disk.name, "");
}

// Cells copy SystemInfo as one block; packing makes these hold on every target.
TEST(SampleRecordTest, RecordLayouts) {
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
