// Monitoring at the scale of a busy host: a running nuv_maintd, N processes of one copied image,
// M non-exact monitors registered on that image over the bus one after another (so N x M
// workers), then the daemon's steady state, then half of the processes killed. Prints one JSON
// line: the time of the 1st, middle and last registration, the log the registrations wrote,
// the daemon's RSS and CPU over the steady period, log bytes per minute, and how long the
// daemon stays busy after the kills.
//
//   build/bin/scale_bench [--processes N] [--monitors M] [--steady SECONDS]
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "nuv_comm.h"
#include "testutil/testutil.h"

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// utime + stime of `pid` in clock ticks, or -1.
long long CpuTicks(pid_t pid) {
  const std::string stat = nuvtest::ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t close = stat.rfind(')');
  if (close == std::string::npos) return -1;
  unsigned long long utime = 0, stime = 0;
  // Fields after the command: state is field 3; utime and stime are fields 14 and 15.
  if (std::sscanf(stat.c_str() + close + 2,
                  "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &utime,
                  &stime) != 2)
    return -1;
  return static_cast<long long>(utime + stime);
}

long RssKiB(pid_t pid) {
  for (const std::string& line : nuvtest::ReadLines("/proc/" + std::to_string(pid) + "/status")) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return -1;
}

long long FileSize(const std::string& path) {
  return static_cast<long long>(nuvtest::ReadFile(path).size());
}

int Post(const char* topic, const std::string& text) {
  comm_data* data = nuv_comm_new_data(text.data(), static_cast<unsigned int>(text.size()));
  const int result = nuv_comm_post(topic, data);
  nuv_comm_delete_data(data);
  return result;
}

// A condition that never holds: the steady state is sampling and evaluating, not posting.
std::string Definition(int i, const std::string& image) {
  return R"({"id":"scale-)" + std::to_string(i) +
         R"(","agent_id":"","name":"n","subscriber":"bench","version":"1.0","product":"p",)"
         R"("product_version":"1","focus":")" + image +
         R"(:*","handler":"maintenance:reciver","condition":"C>1000/60","dependent_id":""})";
}

}  // namespace

int main(int argc, char** argv) {
  int processes = 1000, monitors = 100, steady = 60;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (!std::strcmp(argv[i], "--processes")) processes = std::atoi(argv[i + 1]);
    if (!std::strcmp(argv[i], "--monitors")) monitors = std::atoi(argv[i + 1]);
    if (!std::strcmp(argv[i], "--steady")) steady = std::atoi(argv[i + 1]);
  }
  nuvtest::TempDir tree;
  if (!nuvtest::MakeInstallTree(tree, {"nuv_maintd"}) ||
      !nuvtest::WriteFile(tree.Sub("config/maintenance.json"),
                          nuvtest::ReadFile(nuvtest::BuildDir() + "/config/maintenance.json"))) {
    std::fprintf(stderr, "scale_bench: cannot lay out the daemon's tree\n");
    return 1;
  }
  // The image every watched process runs: a copy, so that nothing else on the host is one.
  const std::string image = tree.Sub("scaleimage");
  if (!nuvtest::WriteFile(image, nuvtest::ReadFile("/bin/sleep")) ||
      ::chmod(image.c_str(), 0755) != 0) {
    std::fprintf(stderr, "scale_bench: cannot copy the image\n");
    return 1;
  }
  std::vector<pid_t> sleepers;
  for (int i = 0; i < processes; ++i) {
    const pid_t pid = nuvtest::Spawn({image, "3600"}, {}, "", "/dev/null", "/dev/null");
    if (pid > 0) sleepers.push_back(pid);
  }
  const std::string bus = tree.Sub("bus"), log = tree.Sub("maint.log");
  setenv("NUV_COMM_DIR", bus.c_str(), 1);
  const pid_t daemon = nuvtest::Spawn({tree.Sub("bin/nuv_maintd")},
                                      {"NUV_COMM_DIR=" + bus, "NUV_LOG_FILE=" + log}, "",
                                      tree.Sub("stdout"), tree.Sub("stderr"));
  bool serving = false;
  for (int i = 0; i < 500 && !serving; ++i) {
    serving = nuvtest::ReadFile(tree.Sub("stderr")).find("started") != std::string::npos;
    if (!serving) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  nuv_comm_init();
  std::vector<double> registration;
  int refused = 0;
  const long long logBeforeRegistration = FileSize(log);
  const auto allStart = Clock::now();
  for (int i = 0; serving && i < monitors; ++i) {
    const auto start = Clock::now();
    refused += Post("maintenance:register", Definition(i, image)) != 0;
    registration.push_back(Seconds(Clock::now() - start));
  }
  const double allRegistered = Seconds(Clock::now() - allStart);
  const long long registrationLog = FileSize(log) - logBeforeRegistration;

  // Steady state: CPU and RSS over the period, log growth per minute.
  const long long cpu0 = CpuTicks(daemon), log0 = FileSize(log);
  const auto steadyStart = Clock::now();
  long rssMax = 0;
  while (serving && Seconds(Clock::now() - steadyStart) < steady) {
    rssMax = std::max(rssMax, RssKiB(daemon));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
  const double steadySeconds = Seconds(Clock::now() - steadyStart);
  const long long cpu1 = CpuTicks(daemon), log1 = FileSize(log);
  const double ticks = static_cast<double>(::sysconf(_SC_CLK_TCK));
  const double cpuPercent = 100.0 * static_cast<double>(cpu1 - cpu0) / ticks / steadySeconds;

  // Half the processes end; the daemon is busy until their workers are gone. Busy ends when
  // its CPU time stops moving for a quarter of a second.
  const auto killStart = Clock::now();
  for (size_t i = 0; i < sleepers.size() / 2; ++i) ::kill(sleepers[i], SIGKILL);
  for (size_t i = 0; i < sleepers.size() / 2; ++i) ::waitpid(sleepers[i], nullptr, 0);
  long long last = CpuTicks(daemon);
  auto quietSince = Clock::now();
  while (Seconds(Clock::now() - killStart) < 30 && Seconds(Clock::now() - quietSince) < 0.25) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const long long now = CpuTicks(daemon);
    if (now != last) quietSince = Clock::now(), last = now;
  }
  const double removal = Seconds(quietSince - killStart);

  if (daemon > 0) ::kill(daemon, SIGTERM);
  const int daemonExit = nuvtest::WaitExit(daemon);
  for (size_t i = sleepers.size() / 2; i < sleepers.size(); ++i) ::kill(sleepers[i], SIGKILL);
  for (size_t i = sleepers.size() / 2; i < sleepers.size(); ++i) ::waitpid(sleepers[i], nullptr, 0);
  nuv_comm_uninit();

  auto at = [&registration](size_t n) { return n < registration.size() ? registration[n] : -1.0; };
  std::printf(
      "{\"processes\": %zu, \"monitors\": %d, \"refused\": %d, \"register_1st_s\": %.4f, "
      "\"register_mid_s\": %.4f, \"register_last_s\": %.4f, \"register_all_s\": %.2f, "
      "\"steady_s\": %.1f, \"steady_cpu_percent\": %.2f, \"rss_max_kib\": %ld, "
      "\"registration_log_bytes\": %lld, \"log_bytes_per_min\": %.0f, \"removal_busy_s\": %.3f, "
      "\"daemon_exit\": %d}\n",
      sleepers.size(), monitors, refused, at(0), at(registration.size() / 2),
      at(registration.size() - 1), allRegistered, steadySeconds, cpuPercent, rssMax,
      registrationLog, static_cast<double>(log1 - log0) * 60.0 / steadySeconds, removal,
      daemonExit);
  return serving ? 0 : 1;
}
