// The performance manager over real processes, the real provider, the real bus and the real store.
#include "manager/comm_perf_mgr.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "common/singleton.h"
#include "config/config_mgr.h"
#include "export/register_endpoint.h"
#include "nuv_lock.h"
#include "testutil/bus_post.h"
#include "testutil/testutil.h"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// The configuration, the store and the bus under one temporary directory for the whole run.
class SamplesStoreAndBus : public ::testing::Environment {
 public:
  void SetUp() override {
    setenv("NUV_COMM_DIR", dir_.Sub("comm").c_str(), 1);
    ASSERT_TRUE(nuvtest::WriteFile(dir_.Sub("maintenance.json"), R"({"default": {
        "cache": {"size": 100},
        "collect_sdk": {"frequency": 1, "monitor_type": 31, "hit_rate": 80},
        "perf_monitor": [], "file": {"cahce": 1024, "path": ")" + dir_.Sub("store") + R"("},
        "clearn": {"day": 7, "file_size": 10}}, "addition": {}})"));
    ConfigMgr loader;
    ASSERT_EQ(loader.LoadConfig(dir_.Sub("maintenance.json")).code, 0);
  }

 private:
  nuvtest::TempDir dir_;
};
const ::testing::Environment* const kEnv =
    ::testing::AddGlobalTestEnvironment(new SamplesStoreAndBus);

// Two processes of one copy of /bin/sleep, killed and reaped on destruction. The directory has
// capitals: monitors lower-case their focus, and must still find the image.
struct Sleepers {
  Sleepers() {
    fs::create_directories(dir);
    if (nuvtest::WriteFile(exe, nuvtest::ReadFile("/bin/sleep")) && chmod(exe.c_str(), 0755) == 0)
      for (int& pid : pids) pid = nuvtest::Spawn({exe, "60"}, {}, "", "/dev/null", "/dev/null");
    // Running only once exec is done: the process finder must see them as the copy.
    for (int pid : pids) {
      const std::string link = "/proc/" + std::to_string(pid) + "/exe";
      std::error_code ec;
      for (int i = 0; i < 200 && fs::read_symlink(link, ec) != exe; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  ~Sleepers() {
    for (int pid : pids)
      if (pid > 0 && kill(pid, SIGKILL) == 0) nuvtest::WaitExit(pid);
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
  const std::string dir = "/tmp/NuvMgrTest." + std::to_string(getpid());
  const std::string exe = dir + "/sleeper";
  int pids[2] = {-1, -1};
};

CMonitorData Monitor(const std::string& id, const std::string& focus,
                     const std::string& condition = "C>90/60") {
  CMonitorData monitor;
  monitor.id = id;
  monitor.name = monitor.subscriber = monitor.product = monitor.product_version = "p";
  monitor.version = "1.0";
  monitor.focus = focus;
  monitor.handler = "maintenance:reciver";
  monitor.condition = condition;
  EXPECT_EQ(monitor.CheckValid().code, 0) << focus;
  return monitor;
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), ::tolower);
  return text;
}

// How often each of `expected`'s lines is among `lines`, as {line, count} pairs.
std::vector<std::pair<std::string, size_t>> Counts(
    const Lines& lines, const std::vector<std::pair<std::string, size_t>>& expected) {
  std::vector<std::pair<std::string, size_t>> out;
  for (const auto& e : expected)
    out.emplace_back(e.first, std::count(lines.begin(), lines.end(), e.first));
  return out;
}

TEST(CommonPerfMgr, DefinitionsBecomeWorkersWhenAndWhereTheirTargetsRun) {
  Sleepers children;
  const std::string image = Lower(children.exe);  // as monitors and samples spell it
  const int(&pids)[2] = children.pids;
  ASSERT_TRUE(pids[0] > 0 && pids[1] > 0);
  // A file that no process runs.
  const std::string idle = nuvtest::BuildDir() + "/config/maintenance.json";
  const std::string p1 = std::to_string(pids[0]), p2 = std::to_string(pids[1]);
  const std::string absent = "999999999";

  CommonPerfMgr manager;
  CMonitorData exact = Monitor("exact", image + ":" + p1);
  CMonitorData all = Monitor("all", image + ":*");
  CMonitorData waiting = Monitor("waiting", image + ":" + absent);
  CMonitorData idleOne = Monitor("idle", idle + ":" + absent);
  bool results[5] = {};
  Lines lines = nuvtest::CaptureMessages([&] {
    results[0] = manager.RegisterMonitor(exact);
    results[1] = manager.RegisterMonitor(all);
    // The image runs, but under other pids whose workers exist already: refused, yet filed.
    results[2] = manager.RegisterMonitor(waiting);
    results[3] = manager.RegisterMonitor(idleOne);  // nothing runs it: waits
    results[4] = manager.RegisterMonitor(idleOne);  // already waiting
  });
  EXPECT_TRUE(results[0] && results[1] && !results[2] && results[3] && !results[4]);
  EXPECT_EQ(manager.ExactCount(), 2u);  // waiting, idle
  EXPECT_EQ(manager.NonExactCount(), 1u);
  const unsigned int u1 = static_cast<unsigned int>(pids[0]);
  const unsigned int u2 = static_cast<unsigned int>(pids[1]);
  EXPECT_TRUE(manager.HasWorker(image, u1, "exact"));
  EXPECT_FALSE(manager.HasWorker(image, u2, "exact"));
  EXPECT_TRUE(manager.HasWorker(image, u1, "all") && manager.HasWorker(image, u2, "all"));
  const std::string internal =
      "[INFO] [CommonPerfMgr]::RegisterInternalMonitor success, image = " + image + ", pid = ";
  const std::vector<std::pair<std::string, size_t>> logged = {
      {internal + p1 + ".", 2},
      // The second look at the running pids finds the template's workers there.
      {internal + p2 + ", code = 110, des = insert worker exist, id = all, image = " + image +
           ", pid = " + p2 + ".",
       1},
      {"[INFO] [CommonPerfMgr]::CreateMonitor exists, id = all, code = 110, "
       "desc = insert worker "
       "exist, id = %s, image = %s, pid = %d.",
       2},
      {"[ERROR] [CommonPerfMgr]::RegisterMonitor insert exact monitor failed. "
       "id = idle.",
       1},
  };
  EXPECT_EQ(Counts(lines, logged), logged);

  // A refused registration left the lock with this thread; taking it again here goes through.
  EXPECT_TRUE(manager.RegisterMonitor(image, static_cast<unsigned int>(std::stoul(absent))));
  EXPECT_EQ(manager.ExactCount(), 1u);  // "waiting" is a worker now

  // A process end drops its workers only: the template makes a new one for the same pid.
  std::string id = " ALL ";
  lines = nuvtest::CaptureMessages([&] {
    manager.UnRegisterMonitor(image, u1);
    EXPECT_FALSE(manager.HasWorker(image, u1, "exact") || manager.HasWorker(image, u1, "all"));
    EXPECT_TRUE(manager.HasWorker(image, u2, "all"));
    EXPECT_TRUE(manager.RegisterMonitor(image, u1));
    EXPECT_TRUE(manager.HasWorker(image, u1, "all"));
    EXPECT_FALSE(manager.HasWorker(image, u1, "exact"));
    manager.UnRegisterMonitor(id);
    EXPECT_FALSE(manager.RegisterMonitor(image, u2));
  });
  EXPECT_EQ(id, "all");
  EXPECT_EQ(manager.NonExactCount(), 0u);
  EXPECT_FALSE(manager.HasWorker(image, u1, "all") || manager.HasWorker(image, u2, "all"));
  const std::vector<std::pair<std::string, size_t>> dropped = {
      {"[DEBUG] [nuv_maintain] unregister monitor [all] succeeded, exactly "
       "num: 1, nonexactly "
       "num: 0",
       1}};
  EXPECT_EQ(Counts(lines, dropped), dropped);

  // With the template gone, registering it again builds workers afresh for both pids.
  EXPECT_TRUE(manager.RegisterMonitor(all));
  EXPECT_TRUE(manager.HasWorker(image, u1, "all") && manager.HasWorker(image, u2, "all"));
}

// A registration refused on one thread keeps the manager's lock there; every other thread still
// gets through, once the lock's bound has passed, and the lock is named in the WARN.
TEST(CommonPerfMgr, ARefusedDuplicateKeepsTheLockOnlyUntilAnotherThreadTakesItOver) {
  nuv_lock_set_takeover_ms(200);
  CommonPerfMgr manager;
  const std::string idle = nuvtest::BuildDir() + "/config/maintenance.json";
  CMonitorData pending = Monitor("pending", idle + ":999999999");
  CMonitorData other = Monitor("other", idle + ":999999998");
  bool registered[4] = {};
  const Lines lines = nuvtest::CaptureMessages([&] {
    std::thread([&] {
      registered[0] = manager.RegisterMonitor(pending);
      registered[1] = manager.RegisterMonitor(pending);  // refused: the lock stays held
    }).join();
    registered[2] = manager.RegisterMonitor(other);
    std::string id = "other";
    manager.UnRegisterMonitor(id);
    // Its process started: reported with the path lower-cased, as samples carry it.
    registered[3] = manager.RegisterMonitor(Lower(idle), 999999999u);
  });
  nuv_lock_set_takeover_ms(0);
  EXPECT_TRUE(registered[0]);
  EXPECT_FALSE(registered[1]);
  EXPECT_TRUE(registered[2]);
  EXPECT_TRUE(registered[3]);
  EXPECT_EQ(manager.ExactCount(), 0u);  // the pending one became a worker
  size_t warned = 0;
  for (const std::string& line : lines) {
    warned += line.rfind("[WARN] [nuv_rwlock]::lock CommonPerfMgr held exclusively by thread ",
                         0) == 0;
  }
  EXPECT_EQ(warned, 1u);
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "[ERROR] [CommonPerfMgr]::RegisterMonitor insert exact monitor failed. "
                       "id = pending."),
            1);
}

// Definitions registered and unregistered over the bus while the manager serves; what the daemon
// makes of them in its store is the end-to-end test's part.
TEST(CommonPerfMgr, RegistrationOverTheBus) {
  ASSERT_EQ(nuv_comm_init(), 0);
  CommonPerfMgr& manager = CSingleton<CommonPerfMgr>::GetInstance();
  ASSERT_TRUE(manager.StartPerfManager());
  EXPECT_EQ(CExportLPC::RegisterMonitor(nullptr, nullptr, nullptr),
            static_cast<int>(CExportLPC::kInvalid));
  const std::string definition =
      R"({"id":"Sys-Fire","agent_id":"","name":"n","subscriber":"s","version":"2.0",)"
      R"("product":"p","product_version":"1","focus":"system:0",)"
      R"("handler":"maintenance:reciver","condition":"C>=0/2","dependent_id":""})";
  const int invalid = static_cast<int>(CExportLPC::kInvalid);
  const struct {
    const char* topic;
    std::string text;
    int result;
  } posts[] = {
      {"maintenance:register", "not json", invalid},
      {"maintenance:register", R"({"id":"x"})", invalid},
      {"maintenance:unregister", R"({"id":7})", invalid},
      {"maintenance:register", definition, 0},
      // Its worker exists already: nothing new comes of the same definition.
      {"maintenance:register", definition, static_cast<int>(CExportLPC::kRefused)},
      {"maintenance:unregister", R"({"id":" SYS-FIRE"})", 0},
      {"maintenance:unregister", R"({"id":"unknown"})", 0},
      // Unregistered: the same definition makes a worker again.
      {"maintenance:register", definition, 0},
  };
  for (const auto& post : posts) EXPECT_EQ(nuvtest::PostOnBus(post.topic, post.text), post.result) << post.text;
  EXPECT_TRUE(manager.StopPerfManager());
  EXPECT_EQ(nuvtest::PostOnBus("maintenance:register", definition), NUV_COMM_E_NOTOPIC);
  nuv_comm_uninit();
}

// Records posted to kFired, counted.
std::atomic<int> g_fired{0};
const char kFired[] = "mgrtest:fired";
int CountFired(comm_data*, comm_data*, void*) {
  ++g_fired;
  return 0;
}

TEST(CommonPerfMgr, MonitorsFireAgainAfterStopAndStart) {
  ASSERT_EQ(nuv_comm_init(), 0);
  ASSERT_EQ(nuv_comm_register(kFired, CountFired, nullptr), 0);
  CommonPerfMgr& manager = CSingleton<CommonPerfMgr>::GetInstance();
  CMonitorData system = Monitor("again", "system:0", "C>=0/2");
  system.handler = kFired;
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    ASSERT_TRUE(manager.StartPerfManager());
    // Stop destroyed the worker; registering again makes it anew.
    ASSERT_TRUE(manager.RegisterMonitor(system));
    g_fired = 0;
    for (int i = 0; i < 100 && g_fired == 0; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_GT(g_fired.load(), 0);
    EXPECT_TRUE(manager.StopPerfManager());
  }
  nuv_comm_unregister(kFired);
  nuv_comm_uninit();
}

}  // namespace
