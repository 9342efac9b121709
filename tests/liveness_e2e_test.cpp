// The daemon stays live and whole under what a peer or an operator may send it: a refused
// duplicate registration (which keeps the manager's lock), conditions far longer than
// the expression parser's text buffer, random bodies, and configurations whose values would
// make the library abort.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "testutil/testutil.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

long ElapsedMs(Clock::time_point since) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

// The shipped configuration sampling every second.
bool SampleEverySecond(const nuvtest::DaemonTree& tree) {
  std::string config = nuvtest::ReadFile(tree.ConfigPath());
  const std::string frequency = "\"frequency\": 5";
  if (config.find(frequency) == std::string::npos) return false;
  config.replace(config.find(frequency), frequency.size(), "\"frequency\": 1");
  return nuvtest::WriteFile(tree.ConfigPath(), config);
}

// Unchecked by nuvctl: these tests are about what reaches the daemon.
std::vector<std::string> Register(const std::string& id, const std::string& focus,
                                  const std::string& condition) {
  return {"register", "--no-check", "--id", id, "--focus", focus, "--condition", condition,
          "--handler", "maintenance:reciver"};
}

const char kSuccess[] = "0x00000000 (success)\n";
const char kRefused[] = "0x84CE0001 (refused, or a process could not be started)\n";

TEST(Liveness, ARefusedDuplicateRegistrationLeavesTheDaemonLive) {
  nuvtest::DaemonTree tree;
  ASSERT_TRUE(tree.ok());
  ASSERT_TRUE(SampleEverySecond(tree));
  // A copy of /bin/sleep that nothing runs yet, so that its monitors wait. Monitors lower-case
  // their focus, hence a lower-case directory.
  const std::string dir = "/tmp/nuvlivetest." + std::to_string(::getpid());
  fs::create_directories(dir);
  const std::string image = dir + "/sleeper";
  ASSERT_TRUE(nuvtest::WriteFile(image, nuvtest::ReadFile("/bin/sleep")));
  ASSERT_EQ(::chmod(image.c_str(), 0755), 0);
  struct Cleanup {
    std::string dir;
    ~Cleanup() {
      std::error_code ec;
      fs::remove_all(dir, ec);
    }
  } cleanup{dir};
  ASSERT_TRUE(tree.StartServing()) << tree.DaemonErr();

  const std::vector<std::string> pending = Register("dup", image + ":999999999", "C>90/60");
  nuvtest::RunResult r = tree.Nuvctl(pending);
  EXPECT_EQ(r.out, kSuccess) << r.err;
  r = tree.Nuvctl(pending);  // still pending: refused, and the manager's lock stays held
  EXPECT_EQ(r.out, kRefused) << r.err;

  // Every one of these answers within the bus time-out (5 s), on other connections.
  const struct {
    std::vector<std::string> args;
    const char* out;
  } steps[] = {
      {Register("after", "system:0", "C>=0/2"), kSuccess},
      {{"unregister", "after"}, kSuccess},
      {Register("every-sleeper", image + ":*", "C>=0/2"), kSuccess},
      {pending, kRefused},  // the same refusal again, from a new connection
  };
  for (const auto& step : steps) {
    const auto start = Clock::now();
    r = tree.Nuvctl(step.args);
    EXPECT_LT(ElapsedMs(start), 5000) << step.args[0] << " " << step.args[2];
    EXPECT_EQ(r.out, step.out) << step.args[0] << " " << step.args[2] << ": " << r.err;
  }

  // A process start anywhere on the host still creates workers (the process-event thread
  // takes the manager's lock).
  const int sleeper = nuvtest::Spawn({image, "30"}, {}, "", "/dev/null", "/dev/null");
  ASSERT_GT(sleeper, 0);
  EXPECT_TRUE(tree.WaitForMessage(
      "[CommonPerfMgr]::CreateMonitor success, id = every-sleeper, code = 0", 10000))
      << tree.DaemonErr();
  ::kill(sleeper, SIGKILL);
  nuvtest::WaitExit(sleeper);

  const auto stopping = Clock::now();
  EXPECT_EQ(tree.StopWithin(10000), 0) << tree.DaemonErr();
  EXPECT_LT(ElapsedMs(stopping), 10000);

  // The refusals keep their lines; the lock was taken over with a WARN naming it.
  EXPECT_EQ(tree.Count("[CommonPerfMgr]::RegisterMonitor insert exact monitor failed. id = dup."),
            2);
  EXPECT_EQ(tree.Count("[nuv_maintenance]::nuv_register_perf_monitor register monitor failed."),
            2);
  int warned = 0;
  for (const std::string& m : tree.Messages()) {
    warned += m.rfind("[nuv_rwlock]::lock CommonPerfMgr held exclusively by thread ", 0) == 0;
  }
  EXPECT_GE(warned, 1);
}

// Conditions that pass the character check but are parser errors far longer than the parser's
// 2 KiB text buffer, from the bus and from the configuration, and random bodies: refused or
// evaluated (an error per sample), never a crash.
TEST(Liveness, LongConditionsAndRandomBodiesNeverCrashTheDaemon) {
  nuvtest::DaemonTree tree;
  ASSERT_TRUE(tree.ok());
  ASSERT_TRUE(SampleEverySecond(tree));
  // One more monitor in the configuration, with a 64 KiB condition.
  std::string config = nuvtest::ReadFile(tree.ConfigPath());
  const std::string first = "\"perf_monitor\": [";
  // The parser reports an unknown token of every "H" after the blank: a 64 KiB token.
  const std::string longCondition = "C>1 " + std::string(64 * 1024, 'H') + "/2";
  config.insert(config.find(first) + first.size(),
                R"({"id": "cfg-long", "agent_id": "", "name": "n", "subscriber": "s",
                    "version": "1.0", "product": "p", "product_version": "1.0",
                    "focus": "system:0", "handler": "maintenance:reciver",
                    "condition": ")" + longCondition + R"(", "dependent_id": ""},)");
  ASSERT_TRUE(nuvtest::WriteFile(tree.ConfigPath(), config));
  ASSERT_TRUE(tree.StartServing()) << tree.DaemonErr();

  EXPECT_EQ(tree.Nuvctl(Register("long-2k", "system:0", "C>1 " + std::string(2048, 'C') + "/2")).out,
            kSuccess);
  EXPECT_EQ(tree.Nuvctl(Register("long-64k", "system:0", "C>1 " + std::string(65536, 'M') + "/2"))
                .out,
            kSuccess);
  EXPECT_EQ(tree.Nuvctl(Register("parens", "system:0", "C>" + std::string(4096, '(') + "/2")).out,
            kSuccess);
  std::mt19937 random(11);
  for (int i = 0; i < 20; ++i) {
    std::string body(1 + random() % 4096, '\0');
    for (char& c : body) c = static_cast<char>(random());
    const nuvtest::RunResult r = tree.Nuvctl({"post", "--no-check", "maintenance:register", "-"}, body);
    EXPECT_EQ(r.out, "0x84CE0002 (invalid parameters or data)\n") << r.err;
  }
  // A condition of random allowed characters.
  const std::string allowed = "RWMCHTA ><=|&()0123456789";
  std::string noise;
  for (int i = 0; i < 3000; ++i) noise += allowed[random() % allowed.size()];
  tree.Nuvctl(Register("noise", "system:0", noise + "/2"));

  // The long ones fail at every sample; a few samples are enough.
  EXPECT_TRUE(tree.WaitForMessage("[Express]::Exception token = ", 15000, 12))
      << tree.DaemonErr();
  EXPECT_TRUE(tree.WaitForMessage("[Express]::Exception message = error text not read, the "
                                  "expression of 65540 bytes could overflow",
                                  5000));
  EXPECT_TRUE(tree.Alive());
  EXPECT_EQ(tree.StopWithin(10000), 0) << tree.DaemonErr();
  EXPECT_EQ(tree.DaemonErr().find("buffer overflow"), std::string::npos) << tree.DaemonErr();
}

// Values that the library loads and then aborts on are caught before it starts, with their key.
TEST(Liveness, OutOfRangeConfigurationStopsTheDaemonWithTheKey) {
  nuvtest::DaemonTree tree({"nuv_maintd"});
  ASSERT_TRUE(tree.ok());
  const std::string shipped = nuvtest::ReadFile(tree.ConfigPath());
  const struct {
    std::string from, to, key;
  } cases[] = {
      {"\"file_size\": 10", "\"file_size\": 4096", "/default/clearn/file_size"},
      {"\"day\": 7", "\"day\": 30000", "/default/clearn/day"},
      {"\"addition\": {}",
       R"("addition": {"t": {"file": {"path": "x", "cache": 1},
           "clearn": {"day": 99999, "file_size": 1}, "bp_type": 16384}})",
       "/addition/t/clearn/day"},
  };
  for (const auto& c : cases) {
    std::string config = shipped;
    ASSERT_NE(config.find(c.from), std::string::npos) << c.from;
    config.replace(config.find(c.from), c.from.size(), c.to);
    ASSERT_TRUE(nuvtest::WriteFile(tree.ConfigPath(), config));
    tree.Start({});
    EXPECT_EQ(tree.Wait(), 1) << c.key;
    const std::string err = tree.DaemonErr();
    EXPECT_NE(err.find("error: " + c.key + ": "), std::string::npos) << err;
    EXPECT_NE(err.find("not starting"), std::string::npos) << err;
    // Not started at all: the library wrote nothing.
    EXPECT_TRUE(tree.Messages().empty()) << c.key;

    tree.Start({"--check-config"});
    EXPECT_EQ(tree.Wait(), 1);
    EXPECT_NE(tree.DaemonOut().find(tree.ConfigPath() + ": error: " + c.key + ": "),
              std::string::npos)
        << tree.DaemonOut();
  }
  ASSERT_TRUE(nuvtest::WriteFile(tree.ConfigPath(), shipped));
  tree.Start({"--check-config", tree.ConfigPath()});
  EXPECT_EQ(tree.Wait(), 0);
  EXPECT_EQ(tree.DaemonOut(), tree.ConfigPath() + ": ok\n");
}

}  // namespace
