// nuvctl top: one sample as the library's monitors see it. It subscribes to the same provider
// and turns its records into the same sample records, so the numbers printed are the raw
// numbers a condition such as "C>50" or "M>1048576" is compared with.
#include <jansson.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "command.h"
#include "nuv_perfprov.h"
#include "worker/data.h"

namespace nuvctl {
namespace {

const char kUsage[] =
    "usage: nuvctl top [-n N] [--interval S] [--json]\n"
    "\n"
    "Takes one sample of the machine over S seconds from the performance provider the library\n"
    "uses and prints the system figures and the N busiest processes, with every figure a\n"
    "monitor condition can name. The letter before a column is the condition variable that\n"
    "reads it: C cpu, M memory, T threads, H handles, R read rate, W write rate.\n"
    "Conditions compare these raw numbers: cpu in % of the whole machine, memory in KiB,\n"
    "rates in bytes per second. A system monitor's M is memtotal - memavai; its R and W are\n"
    "0 and it has no T or H. Names and paths are shown lower-cased, as monitors match them.\n"
    "\n"
    "options:\n"
    "  -n, --lines N how many processes to show (default 10)\n"
    "  --interval S  sampling period in seconds (default 1); the sample covers one whole\n"
    "                period, so the command takes about S seconds\n"
    "  --json        one JSON object: \"system\" with the figures above and \"processes\",\n"
    "                the N busiest, each with its figures\n"
    "  --help        print this help\n"
    "\n"
    "exit codes: 0 success, 1 no sample could be had, 2 usage error\n";

constexpr unsigned int kMaxInterval = 3600;

// The first notification after subscribing, copied out of the provider's records.
class FirstSample {
 public:
  static void Callback(unsigned int type, _perf_information* info, void* context) {
    if (info != nullptr) static_cast<FirstSample*>(context)->Take(type, *info);
  }

  bool Wait(std::chrono::seconds limit) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, limit, [this] { return taken_; });
  }

  // Read only after the subscription ended.
  bool hasSystem = false;
  SystemInfo system;
  std::vector<ProcessInfo> processes;

 private:
  void Take(unsigned int type, const _perf_information& info) {
    std::lock_guard<std::mutex> lock(mu_);
    if (taken_) return;
    if ((type & NUV_PERF_TYPE_PROCESS) != 0 && info.process_info != nullptr) {
      processes.reserve(info.process_count);
      for (uint32_t i = 0; i < info.process_count; ++i) {
        processes.emplace_back(&info.process_info[i]);
      }
    }
    if ((type & NUV_PERF_TYPE_SYSTEM) != 0 && info.sys_info != nullptr) {
      system = SystemInfo(info.sys_info);
      hasSystem = true;
    }
    taken_ = true;
    cv_.notify_all();
  }

  std::mutex mu_;
  std::condition_variable cv_;
  bool taken_ = false;
};

int UsageError(const std::string& message) { return nuvctl::UsageError("top", message); }

bool ParsePositive(const std::string& text, unsigned int max, unsigned int& out) {
  if (text.empty() || text.size() > 10 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
  if (value == 0 || value > max) return false;
  out = static_cast<unsigned int>(value);
  return true;
}

const char* OrDash(const std::string& text) { return text.empty() ? "-" : text.c_str(); }

void PrintSystem(const SystemInfo& s) {
  // Packed record: members are read by value.
  const uint64_t total = s.memtotal;
  const uint64_t available = s.memavai;
  // What M reads for a system monitor: the low 32 bits of each, subtracted as 32-bit.
  const uint32_t used = static_cast<uint32_t>(total) - static_cast<uint32_t>(available);
  std::printf("system\n");
  std::printf("  C  %-20s %12.2f  %%\n", "cpu", static_cast<double>(s.cpu));
  std::printf("  M  %-20s %12u  KiB\n", "memtotal-memavai", used);
  std::printf("     %-20s %12llu  KiB\n", "memtotal", static_cast<unsigned long long>(total));
  std::printf("     %-20s %12llu  KiB\n", "memavai", static_cast<unsigned long long>(available));
  std::printf("     %-20s %12llu  KiB\n", "swap_total",
              static_cast<unsigned long long>(s.swap_total));
  std::printf("     %-20s %12llu  KiB\n", "swap_used",
              static_cast<unsigned long long>(s.swap_used));
  std::printf("     %-20s %12.2f  %%\n", "swap_usage", static_cast<double>(s.swap_usage));
  std::printf("     %-20s %12.2f  %%\n", "cpu_iowait_percent",
              static_cast<double>(s.cpu_iowait_percent));
  std::printf("     %-20s %12u\n", "cpunum", static_cast<unsigned int>(s.cpunum));
  std::printf("     %-20s %12u\n", "procnum", static_cast<unsigned int>(s.procnum));
  std::printf("     %-20s %12u\n", "threadnum", static_cast<unsigned int>(s.threadnum));
  std::printf("     %-20s %12u\n", "handlenum", static_cast<unsigned int>(s.handlenum));
}

// Busiest first; equal cpu by resident memory, then by pid, so the order is stable.
void SortBusiest(std::vector<ProcessInfo>& processes) {
  std::sort(processes.begin(), processes.end(), [](const ProcessInfo& a, const ProcessInfo& b) {
    if (a.cpu != b.cpu) return a.cpu > b.cpu;
    if (a.memory != b.memory) return a.memory > b.memory;
    return a.pid < b.pid;
  });
}

void PrintJson(const FirstSample& sample, const std::vector<ProcessInfo>& processes,
               unsigned int count) {
  json_t* root = json_object();
  if (sample.hasSystem) {
    const SystemInfo& s = sample.system;
    const uint64_t total = s.memtotal;
    const uint64_t available = s.memavai;
    json_object_set_new(
        root, "system",
        json_pack("{s:f, s:I, s:I, s:I, s:I, s:I, s:f, s:f, s:I, s:I, s:I, s:I}", "cpu",
                  static_cast<double>(s.cpu), "memory",
                  static_cast<json_int_t>(static_cast<uint32_t>(total) -
                                          static_cast<uint32_t>(available)),
                  "memtotal", static_cast<json_int_t>(total), "memavai",
                  static_cast<json_int_t>(available), "swap_total",
                  static_cast<json_int_t>(s.swap_total), "swap_used",
                  static_cast<json_int_t>(s.swap_used), "swap_usage",
                  static_cast<double>(s.swap_usage), "cpu_iowait_percent",
                  static_cast<double>(s.cpu_iowait_percent), "cpunum",
                  static_cast<json_int_t>(s.cpunum), "procnum", static_cast<json_int_t>(s.procnum),
                  "threadnum", static_cast<json_int_t>(s.threadnum), "handlenum",
                  static_cast<json_int_t>(s.handlenum)));
  }
  json_t* list = json_array();
  for (size_t i = 0; i < std::min<size_t>(count, processes.size()); ++i) {
    const ProcessInfo& p = processes[i];
    json_array_append_new(
        list, json_pack("{s:I, s:I, s:f, s:I, s:I, s:I, s:I, s:I, s:s, s:s}", "pid",
                        static_cast<json_int_t>(p.pid), "ppid", static_cast<json_int_t>(p.parentid),
                        "cpu", static_cast<double>(p.cpu), "memory",
                        static_cast<json_int_t>(p.memory), "threads",
                        static_cast<json_int_t>(p.threads), "handles",
                        static_cast<json_int_t>(p.handles), "iorspeed",
                        static_cast<json_int_t>(p.iorspeed), "iowspeed",
                        static_cast<json_int_t>(p.iowspeed), "image", p.image.c_str(), "path",
                        p.path.c_str()));
  }
  json_object_set_new(root, "processes", list);
  char* text = json_dumps(root, JSON_COMPACT);
  std::printf("%s\n", text ? text : "{}");
  std::free(text);
  json_decref(root);
}

void PrintProcesses(const std::vector<ProcessInfo>& processes, unsigned int count,
                    unsigned int interval) {
  const size_t shown = std::min<size_t>(count, processes.size());
  std::printf(
      "\nprocesses: the %zu busiest of %zu over %u s (C %% of the machine, M KiB, R and W "
      "bytes/s)\n",
      shown, processes.size(), interval);
  std::printf("%8s %8s %8s %12s %10s %10s %12s %12s  %-16s %s\n", "PID", "PPID", "C:cpu",
              "M:memory", "T:threads", "H:handles", "R:iorspeed", "W:iowspeed", "image", "path");
  for (size_t i = 0; i < shown; ++i) {
    const ProcessInfo& p = processes[i];
    std::printf("%8u %8u %8.2f %12llu %10u %10u %12u %12u  %-16s %s\n", p.pid, p.parentid,
                static_cast<double>(p.cpu), static_cast<unsigned long long>(p.memory), p.threads,
                p.handles, p.iorspeed, p.iowspeed, OrDash(p.image), OrDash(p.path));
  }
}

}  // namespace

int TopMain(int argc, char** argv) {
  unsigned int count = 10;
  unsigned int interval = 1;
  std::map<std::string, std::string> values;
  std::vector<std::string> operands;
  const int parsed = ParseCommandLine(
      "top", kUsage, argc, argv, {{"lines", 'n', true}, {"interval", 0, true}, {"json", 0, false}},
      values, operands);
  if (parsed != -1) return parsed;
  if (!operands.empty()) return UsageError("unexpected argument '" + operands[0] + "'");
  if (values.count("--lines") && !ParsePositive(values["--lines"], INT_MAX, count)) {
    return UsageError("-n takes a number above 0, not '" + values["--lines"] + "'");
  }
  if (values.count("--interval") && !ParsePositive(values["--interval"], kMaxInterval, interval)) {
    return UsageError("--interval takes whole seconds from 1 to " + std::to_string(kMaxInterval) +
                      ", not '" + values["--interval"] + "'");
  }

  int rc = nuv_config_data_source(NUV_PERF_MONITOR_ALL, static_cast<int>(interval));
  if (rc != 0) {
    std::fprintf(stderr, "nuvctl top: the provider refused the period: %s\n", std::strerror(rc));
    return kExitFailure;
  }
  FirstSample sample;
  rc = nuv_perf_regsiter_notifier(NUV_PERF_TYPE_SYSTEM | NUV_PERF_TYPE_PROCESS,
                                  FirstSample::Callback, &sample);
  if (rc != 0) {
    std::fprintf(stderr, "nuvctl top: cannot subscribe to the performance provider: %s\n",
                 std::strerror(rc));
    return kExitFailure;
  }
  const bool got = sample.Wait(std::chrono::seconds(2 * interval + 10));
  // Waits for a callback in flight, so the sample is ours alone afterwards.
  nuv_perf_unregsiter_notifier(NUV_PERF_MONITOR_ALL);
  if (!got) {
    std::fprintf(stderr, "nuvctl top: no sample arrived within %u s\n", 2 * interval + 10);
    return kExitFailure;
  }
  SortBusiest(sample.processes);
  if (values.count("--json")) {
    PrintJson(sample, sample.processes, count);
    return kExitOk;
  }
  if (sample.hasSystem) {
    PrintSystem(sample.system);
  } else {
    std::printf("system\n  (no system figures in this sample)\n");
  }
  PrintProcesses(sample.processes, count, interval);
  return kExitOk;
}

}  // namespace nuvctl
