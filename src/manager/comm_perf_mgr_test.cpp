// The performance manager over real processes, the real provider, the real bus and the real
// store.
#include "manager/comm_perf_mgr.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "common/singleton.h"
#include "config/config_mgr.h"
#include "export/register_endpoint.h"
#include "file/filemanager.h"
#include "nuv_log.h"
#include "testutil/testutil.h"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// Samples every second, the store and the bus under one temporary directory for the whole
// run: the store keeps its streams open across tests.
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

// Two processes of one copy of /bin/sleep, killed and reaped on destruction. Monitors
// lower-case their focus, hence a lower-case directory.
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
  const std::string dir = "/tmp/nuvmgrtest." + std::to_string(getpid());
  const std::string exe = dir + "/sleeper";
  int pids[2] = {-1, -1};
};

CMonitorData Monitor(const std::string& id, const std::string& focus,
                     const std::string& condition = "C>90/60") {
  CMonitorData monitor;
  monitor.id = id;
  monitor.name = "n";
  monitor.subscriber = "s";
  monitor.version = "1.0";
  monitor.product = "p";
  monitor.product_version = "1";
  monitor.focus = focus;
  monitor.handler = "maintenance:reciver";
  monitor.condition = condition;
  EXPECT_EQ(monitor.CheckValid().code, 0) << focus;
  return monitor;
}

// The log lines written while `emit` runs, each as "[LEVEL] message".
template <typename Fn>
Lines Capture(Fn emit) {
  nuvtest::TempDir dir;
  const std::string path = dir.Sub("log");
  nuv_log_set_file(path.c_str());
  nuv_log_set_level(NUV_LOG_DEBUG);
  nuv_log_start(0);
  emit();
  nuv_log_stop();
  nuv_log_set_file(nullptr);
  Lines out;
  for (const std::string& line : nuvtest::ReadLines(path)) {
    const size_t level = line.find('\t') + 1;
    out.push_back(line.substr(level, line.find('\t', level) - level) + " " +
                  line.substr(line.find(")] ") + 3));
  }
  return out;
}

size_t Count(const Lines& lines, const std::string& line) {
  return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

int Post(const std::string& topic, const std::string& text) {
  comm_data* data = nuv_comm_new_data(text.data(), static_cast<unsigned int>(text.size()));
  const int result = nuv_comm_post(topic.c_str(), data);
  nuv_comm_delete_data(data);
  return result;
}

TEST(CommonPerfMgr, DefinitionsBecomeWorkersWhenAndWhereTheirTargetsRun) {
  Sleepers children;
  const std::string image = children.exe;
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
  Lines lines = Capture([&] {
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
  EXPECT_EQ(Count(lines, "[INFO] [CommonPerfMgr]::CreateMonitor success, id = exact, code = 0, "
                         "desc = success."),
            1u);
  EXPECT_EQ(Count(lines, "[INFO] [CommonPerfMgr]::CreateMonitor success, id = all, code = 0, "
                         "desc = success."),
            2u);
  EXPECT_EQ(Count(lines, "[INFO] [CommonPerfMgr]::RegisterInternalMonitor success, image = " +
                             image + ", pid = " + p1 + "."),
            2u);
  // The second look at the running pids finds the template's workers there.
  EXPECT_EQ(Count(lines, "[INFO] [CommonPerfMgr]::RegisterInternalMonitor success, image = " +
                             image + ", pid = " + p2 +
                             ", code = 110, des = insert worker exist, id = all, image = " +
                             image + ", pid = " + p2 + "."),
            1u);
  EXPECT_EQ(Count(lines, "[INFO] [CommonPerfMgr]::CreateMonitor exists, id = all, code = 110, "
                         "desc = insert worker exist, id = %s, image = %s, pid = %d."),
            2u);
  EXPECT_EQ(Count(lines, "[ERROR] [CommonPerfMgr]::RegisterMonitor insert exact monitor failed. "
                         "id = idle."),
            1u);

  // A refused registration left the lock with this thread; taking it again here goes through.
  EXPECT_TRUE(manager.RegisterMonitor(image, static_cast<unsigned int>(std::stoul(absent))));
  EXPECT_EQ(manager.ExactCount(), 1u);  // "waiting" is a worker now

  // A process end drops its workers only: the template makes a new one for the same pid.
  std::string id = " ALL ";
  lines = Capture([&] {
    manager.UnRegisterMonitor(image, static_cast<unsigned int>(pids[0]));
    EXPECT_TRUE(manager.RegisterMonitor(image, static_cast<unsigned int>(pids[0])));
    manager.UnRegisterMonitor(id);
    EXPECT_FALSE(manager.RegisterMonitor(image, static_cast<unsigned int>(pids[1])));
  });
  EXPECT_EQ(id, "all");
  EXPECT_EQ(manager.NonExactCount(), 0u);
  EXPECT_EQ(Count(lines, "[INFO] [CommonPerfMgr]::CreateMonitor success, id = all, code = 0, "
                         "desc = success."),
            1u);
  EXPECT_EQ(Count(lines, "[DEBUG] [nuv_maintain] unregister monitor [all] succeeded, exactly "
                         "num: 1, nonexactly num: 0"),
            1u);

  // With the template gone, registering it again builds workers afresh for both pids.
  lines = Capture([&] { EXPECT_TRUE(manager.RegisterMonitor(all)); });
  EXPECT_EQ(Count(lines, "[INFO] [CommonPerfMgr]::CreateMonitor success, id = all, code = 0, "
                         "desc = success."),
            2u);
}

// The whole path: registered over the bus, sampled by the trigger, fired to the handler's topic,
// stored as the system's performance stream.
TEST(CommonPerfMgr, SystemMonitorRegisteredOverTheBusFiresIntoTheStore) {
  ASSERT_EQ(nuv_comm_init(), 0);
  CommonPerfMgr& manager = CSingleton<CommonPerfMgr>::GetInstance();
  ASSERT_TRUE(manager.StartPerfManager());

  const std::string definition =
      R"({"id":"Sys-Fire","agent_id":"","name":"n","subscriber":"s","version":"2.0",)"
      R"("product":"p","product_version":"1","focus":"system:0",)"
      R"("handler":"maintenance:reciver","condition":"C>=0/2","dependent_id":""})";
  EXPECT_EQ(Post("maintenance:register", "not json"), static_cast<int>(CExportLPC::kInvalid));
  EXPECT_EQ(Post("maintenance:register", R"({"id":"x"})"), static_cast<int>(CExportLPC::kInvalid));
  EXPECT_EQ(Post("maintenance:unregister", R"({"id":7})"), static_cast<int>(CExportLPC::kInvalid));
  EXPECT_EQ(CExportLPC::RegisterMonitor(nullptr, nullptr, nullptr),
            static_cast<int>(CExportLPC::kInvalid));
  EXPECT_EQ(Post("maintenance:register", definition), 0);
  // Its worker exists already: nothing new comes of the same definition.
  EXPECT_EQ(Post("maintenance:register", definition), static_cast<int>(CExportLPC::kRefused));

  CFileClassify stream;
  ASSERT_TRUE(stream.InitFileClassify("system", 0, 100));
  CFileManager& store = CSingleton<CFileManager>::GetInstance();
  Lines records;
  for (int i = 0; i < 100 && records.empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    store.FileUnitsFlush();
    records.clear();
    store.ReadALLFile(stream, records);
  }
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(records.front().front(), '{') << records.front();

  EXPECT_EQ(Post("maintenance:unregister", R"({"id":" SYS-FIRE"})"), 0);
  EXPECT_EQ(Post("maintenance:unregister", R"({"id":"unknown"})"), 0);
  // Unregistered: the same definition makes a worker again.
  EXPECT_EQ(Post("maintenance:register", definition), 0);

  EXPECT_TRUE(manager.StopPerfManager());
  EXPECT_EQ(Post("maintenance:register", definition), NUV_COMM_E_NOTOPIC);
  nuv_comm_uninit();
}

}  // namespace
