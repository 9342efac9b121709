#include "worker/cell.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "testutil/testutil.h"

namespace {

CMonitorData Monitor(const std::string& focus, const std::string& condition,
                     const std::string& dependent = "") {
  CMonitorData m;
  m.id = "m1", m.agent_id = "Agent", m.name = "cpu watch", m.subscriber = "sub";
  m.version = "1.0", m.product = "Prod", m.product_version = "v2", m.focus = focus;
  m.handler = "topic:a", m.condition = condition, m.dependent_id = dependent;
  return m;
}

// memory 2^32 + 7 (the "M" letter sees 7); writebytes 2^64 - 1 (written as the signed -1).
ProcessInfo Process(uint32_t pid) {
  ProcessInfo p;
  p.pid = pid, p.parentid = 1, p.cpu = 12.5f, p.cputime = 100, p.usertime = 60;
  p.kerneltime = 40, p.totaltime = 200, p.memory = 4294967303ull, p.memorycommit = 300;
  p.createtime = 4294967295u, p.iorspeed = 5, p.iowspeed = 6, p.readbytes = 7;
  p.writebytes = 18446744073709551615ull, p.threads = 8, p.handles = 9;
  p.image = "app", p.path = "/usr/bin/app", p.commandline = "app --run";
  return p;
}

SystemInfo System() {
  SystemInfo s;
  s.cpu = 95.0f, s.procnum = 120, s.threadnum = 800, s.handlenum = 3000, s.memtotal = 8000;
  s.memavai = 3000, s.cpunum = 4, s.swap_usage = 0.25f, s.swap_used = 100, s.swap_total = 400;
  s.cpu_iowait_percent = 1.5f;
  return s;
}

// Replaces the header's local time with "TIME" once it has the right shape.
std::string WithoutTime(const std::string& text) {
  static const std::regex time("\"time\": \"\\d{4}/\\d{2}/\\d{2} \\d{2}:\\d{2}:\\d{2}\"");
  std::smatch match;
  if (!std::regex_search(text, match, time)) return "no time in: " + text;
  return match.prefix().str() + "\"time\": \"TIME\"" + match.suffix().str();
}

const std::string kHeader =
    R"({"header": {"id": "m1", "name": "cpu watch", "subscriber": "sub", "version": "1.0", )"
    R"("product": "Prod", "product_version": "v2", )";

// One row per output form; the process fields are shared by the single and the all-process forms.
TEST(CCell, OutputForms) {
  const std::string cpu = R"("cpu": 12.5, "usertime": 60, "kerneltime": 40, "totaltime": 200, )";
  const auto tail = [](const std::string& pid) {
    return R"("threads": 8, "handles": 9, "pid": )" + pid +
           R"(, "parentid": 1, "cputime": 100, "createtime": 4294967295, "readbytes": 7, )"
           R"("writebytes": -1, "commandline": "app --run", "image": "app", "path": "/usr/bin/app"})";
  };
  const std::string one = "{" + cpu + R"("memorycommit": 300, "memory": 4294967303, )"
                          R"("iorspeed": 5, "iowspeed": 6, "hit": )";
  const std::string item = "{" + cpu + R"("memory": 4294967303, "memorycommit": 300, )"
                           R"("iorspeed": 5, "iowspeed": 6, )";
  const std::string sys =
      R"({"cpu": 95.0, "procnum": 120, "handlenum": 3000, "threadnum": 800, "memory": 5000, )"
      R"("memtotal": 8000, "memavai": 3000, "cpunum": 4, "swap_usage": 0.25, "swap_used": 100, )"
      R"("swap_total": 400, "cpu_iowait_percent": 1.5})";
  const struct {
    std::string focus, condition, dependent;
    bool hit;
    std::string body;
  } rows[] = {
      {"/usr/bin/app:42", "M>6", "", true, one + "true, " + tail("42")},
      {"/usr/bin/app:42", "M>7", "", false, one + "false, " + tail("42")},
      {"system:0", "M>4999", "parent", true, sys},  // "M" is total minus available: 5000.
      {"system:0", "M>5000", "", false, sys},
      {"processpoint:3", "A", "", true, "[" + item + tail("10") + ", " + item + tail("11") + "]"},
  };
  for (const auto& r : rows) {
    CProcessCell process;
    CSystemCell system;
    CAllProcessCell all;
    const char kind = r.focus[0];
    CCell* cells[] = {&process, &system, &all};
    CCell* cell = cells[kind == '/' ? 0 : kind == 's' ? 1 : 2];
    ASSERT_EQ(kind == '/'   ? process.ConstructCell(Process(42), r.condition).code
              : kind == 's' ? system.ConstructCell(System(), r.condition).code
                            : all.ConstructCell({Process(10), Process(11)}, r.condition).code,
              0);
    EXPECT_EQ(cell->GetResult(), r.hit) << r.condition;
    // The name is the focus without its directory.
    EXPECT_EQ(cell->GetName() + ":" + std::to_string(cell->GetPid()),
              r.focus.substr(r.focus.rfind('/') + 1));
    std::string out = "previous";
    cell->GetString(Monitor(r.focus, r.condition + "/60", r.dependent), out);
    const std::string depend = r.dependent.empty() ? "" : R"("depend_id": "parent", )";
    EXPECT_EQ(WithoutTime(out), kHeader + R"("focus": ")" + r.focus + R"(", "condition": ")" +
                                    r.condition + R"(/60", )" + depend +
                                    R"("handler": "topic:a", "time": "TIME", "agent_id": "Agent"}, )"
                                    R"("body": )" + r.body + "}\n");
  }
  CCell bare;
  std::string out = "previous";
  bare.GetString(Monitor("system:0", "A/60"), out);
  EXPECT_EQ(out, "");
}

TEST(CCell, EvaluationOutcomeAndLogs) {
  const struct {
    const char* condition;
    int code;
    std::string log;
  } rows[] = {
      {"A", 0, "[DEBUG] [CSlidingWindow]::EvalExpress success. condition = A."},
      // Only "A" exists for all processes at once.
      {"C>10", 107,
       "[ERROR] [CSlidingWindow]::EvalExpress failed. code = 107, desc = eval express failed, "
       "express = C>10, condition = C>10."},
      {"", 106,
       "[ERROR] [CSlidingWindow]::EvalExpress failed. code = 106, desc = express failed, "
       "express = empty, condition = ."},
  };
  for (const auto& row : rows) {
    CAllProcessCell cell;
    int code = -1;
    const std::vector<std::string> lines = nuvtest::CaptureMessages(
        [&] { code = cell.ConstructCell({Process(10)}, row.condition).code; });
    EXPECT_EQ(code, row.code) << row.condition;
    EXPECT_EQ(cell.GetResult(), row.code == 0) << row.condition;
    EXPECT_EQ(lines.empty() ? "" : lines.back(), row.log);
  }
}

}  // namespace
