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

TEST(CCell, ProcessForm) {
  for (const auto& [condition, hit] : {std::pair{"M>6", "true"}, std::pair{"M>7", "false"}}) {
    CProcessCell cell;
    ASSERT_EQ(cell.ConstructCell(Process(42), condition).code, 0);
    EXPECT_EQ(cell.GetName() + ":" + std::to_string(cell.GetPid()), "app:42");
    std::string out = "previous";
    cell.GetString(Monitor("/usr/bin/app:42", condition + std::string("/60")), out);
    EXPECT_EQ(WithoutTime(out),
              kHeader + R"("focus": "/usr/bin/app:42", "condition": ")" + condition +
                  R"(/60", "handler": "topic:a", "time": "TIME", "agent_id": "Agent"}, )"
                  R"("body": {"cpu": 12.5, "usertime": 60, "kerneltime": 40, "totaltime": 200, )"
                  R"("memorycommit": 300, "memory": 4294967303, "iorspeed": 5, "iowspeed": 6, )"
                  R"("hit": )" + hit + R"(, "threads": 8, "handles": 9, "pid": 42, "parentid": 1, )"
                  R"("cputime": 100, "createtime": 4294967295, "readbytes": 7, "writebytes": -1, )"
                  R"("commandline": "app --run", "image": "app", "path": "/usr/bin/app"}})" "\n");
  }
}

TEST(CCell, SystemFormWithDependency) {
  CSystemCell cell, exact;
  // "M" is total minus available: 5000.
  ASSERT_EQ(cell.ConstructCell(System(), "M>4999").code, 0);
  ASSERT_EQ(exact.ConstructCell(System(), "M>5000").code, 0);
  EXPECT_TRUE(cell.GetResult());
  EXPECT_FALSE(exact.GetResult());
  EXPECT_EQ(cell.GetName() + ":" + std::to_string(cell.GetPid()), "system:0");
  std::string out;
  cell.GetString(Monitor("system:0", "M>4999/60", "parent"), out);
  EXPECT_EQ(WithoutTime(out),
            kHeader + R"("focus": "system:0", "condition": "M>4999/60", "depend_id": "parent", )"
                R"("handler": "topic:a", "time": "TIME", "agent_id": "Agent"}, )"
                R"("body": {"cpu": 95.0, "procnum": 120, "handlenum": 3000, "threadnum": 800, )"
                R"("memory": 5000, "memtotal": 8000, "memavai": 3000, "cpunum": 4, )"
                R"("swap_usage": 0.25, "swap_used": 100, "swap_total": 400, )"
                R"("cpu_iowait_percent": 1.5}})" "\n");
}

TEST(CCell, AllProcessForm) {
  CAllProcessCell cell;
  ASSERT_EQ(cell.ConstructCell({Process(10), Process(11)}, "A").code, 0);
  EXPECT_TRUE(cell.GetResult());
  EXPECT_EQ(cell.GetName() + ":" + std::to_string(cell.GetPid()), "processpoint:3");
  const std::string item =
      R"("cpu": 12.5, "usertime": 60, "kerneltime": 40, "totaltime": 200, "memory": 4294967303, )"
      R"("memorycommit": 300, "iorspeed": 5, "iowspeed": 6, "threads": 8, "handles": 9, "pid": )";
  const std::string tail =
      R"(, "parentid": 1, "cputime": 100, "createtime": 4294967295, "readbytes": 7, )"
      R"("writebytes": -1, "commandline": "app --run", "image": "app", "path": "/usr/bin/app"})";
  std::string out;
  cell.GetString(Monitor("processpoint:3", "A/60"), out);
  EXPECT_EQ(WithoutTime(out),
            kHeader + R"("focus": "processpoint:3", "condition": "A/60", )"
                R"("handler": "topic:a", "time": "TIME", "agent_id": "Agent"}, "body": [{)" +
                item + "10" + tail + ", {" + item + "11" + tail + "]}\n");

  CCell bare;
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
