// nuvctl top run as an operator runs it, against a busy child of our own and the real /proc.
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "testutil/testutil.h"

namespace {

nuvtest::RunResult Top(const nuvtest::TempDir& dir, std::vector<std::string> args) {
  args.insert(args.begin(), {nuvtest::BuildDir() + "/bin/nuvctl", "top"});
  return nuvtest::Run(args, {}, dir);
}

TEST(NuvctlTop, ShowsABusyChildAndConsistentSystemFigures) {
  nuvtest::TempDir dir;
  const std::string name = "nuvtopbusy" + std::to_string(getpid());
  char real[PATH_MAX];
  ASSERT_NE(realpath(dir.path().c_str(), real), nullptr);
  const std::string busy = std::string(real) + "/" + name;
  ASSERT_TRUE(nuvtest::WriteFile(busy, nuvtest::ReadFile("/bin/sh")));
  ASSERT_EQ(chmod(busy.c_str(), 0755), 0);
  const int pid =
      nuvtest::Spawn({busy, "-c", "while :; do :; done"}, {}, "", "/dev/null", "/dev/null");
  ASSERT_GT(pid, 0);
  const nuvtest::RunResult top = Top(dir, {"-n", "20", "--interval", "1"});
  kill(pid, SIGKILL);
  nuvtest::WaitExit(pid);
  ASSERT_EQ(top.code, 0) << top.err;

  // System lines are "  [letter] name value [unit]"; process rows follow the "PID" header.
  std::map<std::string, double> sys;
  std::vector<std::vector<std::string>> rows;
  long total = -1;
  std::vector<std::string> header;
  std::istringstream lines(top.out);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream in(line);
    std::vector<std::string> f;
    for (std::string field; in >> field;) f.push_back(field);
    if (line.rfind("processes:", 0) == 0) {
      total = std::atol(line.c_str() + line.find(" of ") + 4);
    } else if (!f.empty() && f[0] == "PID") {
      header = f;
    } else if (!header.empty() && !f.empty()) {
      rows.push_back(f);
    } else if (line.rfind("  ", 0) == 0 && f.size() >= 2) {
      const bool letter = f[0].size() == 1 && std::isupper(static_cast<unsigned char>(f[0][0]));
      sys[f[letter ? 1 : 0]] = std::atof(f[letter ? 2 : 1].c_str());
    }
  }
  EXPECT_EQ(header,
            (std::vector<std::string>{"PID", "PPID", "C:cpu", "M:memory", "T:threads", "H:handles",
                                      "R:iorspeed", "W:iowspeed", "image", "path"}));
  EXPECT_EQ(sys["memtotal-memavai"], sys["memtotal"] - sys["memavai"]) << top.out;
  EXPECT_GT(sys["memavai"], 0.0);
  EXPECT_EQ(sys["cpunum"], static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN)));
  EXPECT_EQ(sys["procnum"], static_cast<double>(total));
  EXPECT_GE(sys["threadnum"], sys["procnum"]);

  ASSERT_EQ(static_cast<long>(rows.size()), std::min(20L, total)) << top.out;
  const std::vector<std::string>* child = nullptr;
  for (size_t i = 0; i < rows.size(); ++i) {
    ASSERT_EQ(rows[i].size(), 10u) << top.out;
    if (i > 0) {
      EXPECT_GE(std::atof(rows[i - 1][2].c_str()), std::atof(rows[i][2].c_str()));
    }
    if (rows[i][0] == std::to_string(pid)) child = &rows[i];
  }
  ASSERT_NE(child, nullptr) << "busy child " << pid << " not among the top:\n" << top.out;
  std::string image = busy;
  std::transform(image.begin(), image.end(), image.begin(), ::tolower);
  EXPECT_EQ(*child,
            (std::vector<std::string>{std::to_string(pid), std::to_string(getpid()), (*child)[2],
                                      (*child)[3], "1", (*child)[5], "0", "0", name, image}));
  EXPECT_GT(std::atof((*child)[2].c_str()), 1.0);
}

TEST(NuvctlTop, HelpAndUsageErrors) {
  nuvtest::TempDir dir;
  const nuvtest::RunResult help = Top(dir, {"--help"});
  EXPECT_EQ(help.code, 0);
  EXPECT_EQ(help.out.rfind("usage: nuvctl top", 0), 0u) << help.out;
  for (const std::vector<std::string>& bad : std::vector<std::vector<std::string>>{
           {"-n", "0"}, {"-n"}, {"--interval", "x"}, {"--interval", "0"}, {"--bogus"}}) {
    const nuvtest::RunResult r = Top(dir, bad);
    EXPECT_EQ(r.code, 2) << bad[0];
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("nuvctl top: ", 0), 0u) << r.err;
  }
}

}  // namespace
