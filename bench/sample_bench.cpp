// CPU cost of one full performance sample with about a thousand processes running, beside the
// cost of one `ps -eo pid,ppid,pcpu,rss,vsz,nlwp,args` over the same processes in the same run.
// Prints one JSON line.
//
//   build/bin/sample_bench [--children N] [--samples K] [--ps-runs K]
//
// The sample's cost is the process CPU time between two consecutive notifications: the main
// thread sleeps meanwhile, so it is the sampler's own work for one period. A second figure
// leaves out the per-process descriptor counts, the part `ps` has no counterpart for.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "nuv_perfprov.h"

namespace {

double ProcessCpuMs() {
  struct timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

double Median(std::vector<double> v) {
  if (v.empty()) return -1;
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

// CPU time at the entry of each notification, and the process count it carried.
class Stamps {
 public:
  static void Callback(unsigned int, _perf_information* info, void* context) {
    auto* self = static_cast<Stamps*>(context);
    const double now = ProcessCpuMs();
    std::lock_guard<std::mutex> lock(self->mu_);
    self->cpu_.push_back(now);
    self->processes_ = info != nullptr ? info->process_count : 0;
    self->cv_.notify_all();
  }
  bool Wait(size_t n) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, std::chrono::seconds(30 + 2 * n), [&] { return cpu_.size() >= n; });
  }
  std::vector<double> Deltas() {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<double> d;
    for (size_t i = 1; i < cpu_.size(); ++i) d.push_back(cpu_[i] - cpu_[i - 1]);
    return d;
  }
  uint32_t processes() {
    std::lock_guard<std::mutex> lock(mu_);
    return processes_;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<double> cpu_;
  uint32_t processes_ = 0;
};

// Median CPU ms of one sample with `monitorType`, over `samples` periods of one second; -1 on
// failure. `processes` gets the count the last notification carried.
double SampleCpuMs(int monitorType, int samples, uint32_t& processes) {
  Stamps stamps;
  if (nuv_config_data_source(monitorType, 1) != 0 ||
      nuv_perf_regsiter_notifier(NUV_PERF_TYPE_SYSTEM | NUV_PERF_TYPE_PROCESS, Stamps::Callback,
                                 &stamps) != 0) {
    return -1;
  }
  const bool ok = stamps.Wait(static_cast<size_t>(samples) + 1);
  nuv_perf_unregsiter_notifier(monitorType);
  processes = stamps.processes();
  return ok ? Median(stamps.Deltas()) : -1;
}

// Median CPU ms (user + system) of one `ps` run, its output discarded; -1 on failure.
double PsCpuMs(int runs) {
  std::vector<double> cpu;
  for (int i = 0; i < runs; ++i) {
    const pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
      const int null = open("/dev/null", O_WRONLY);
      if (null >= 0) dup2(null, STDOUT_FILENO);
      execlp("ps", "ps", "-eo", "pid,ppid,pcpu,rss,vsz,nlwp,args", static_cast<char*>(nullptr));
      _exit(127);
    }
    int status = 0;
    struct rusage usage;
    if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      return -1;
    }
    cpu.push_back(static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
                  static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3);
  }
  return Median(cpu);
}

}  // namespace

int main(int argc, char** argv) {
  int children = 1000;
  int samples = 5;
  int psRuns = 5;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--children" && i + 1 < argc) {
      children = std::atoi(argv[++i]);
    } else if (arg == "--samples" && i + 1 < argc) {
      samples = std::atoi(argv[++i]);
    } else if (arg == "--ps-runs" && i + 1 < argc) {
      psRuns = std::atoi(argv[++i]);
    } else {
      std::fprintf(stderr, "usage: sample_bench [--children N] [--samples K] [--ps-runs K]\n");
      return 2;
    }
  }
  if (children < 0 || samples < 1 || psRuns < 1) {
    std::fprintf(stderr, "sample_bench: counts must be positive\n");
    return 2;
  }

  // Children that sleep in read() until the pipe's last writer, this process, closes it.
  // Forked before the sampler thread exists.
  int gate[2];
  if (pipe2(gate, O_CLOEXEC) != 0) {
    std::perror("sample_bench: pipe");
    return 1;
  }
  std::vector<pid_t> kids;
  for (int i = 0; i < children; ++i) {
    const pid_t pid = fork();
    if (pid < 0) {
      std::perror("sample_bench: fork");
      break;
    }
    if (pid == 0) {
      close(gate[1]);
      char c;
      while (read(gate[0], &c, 1) != 0) {
      }
      _exit(0);
    }
    kids.push_back(pid);
  }
  close(gate[0]);

  uint32_t processes = 0;
  uint32_t unused = 0;
  const double sampleMs = SampleCpuMs(NUV_PERF_MONITOR_ALL, samples, processes);
  const double noHandlesMs =
      SampleCpuMs(NUV_PERF_MONITOR_ALL & ~NUV_PERF_MONITOR_HANDLES, samples, unused);
  const double psMs = PsCpuMs(psRuns);

  close(gate[1]);
  for (pid_t pid : kids) waitpid(pid, nullptr, 0);

  if (static_cast<int>(kids.size()) != children || sampleMs < 0 || noHandlesMs < 0 || psMs < 0) {
    std::fprintf(stderr, "sample_bench: a measurement failed (children %zu of %d)\n", kids.size(),
                 children);
    return 1;
  }
  std::printf(
      "{\"bench\": \"sample\", \"processes\": %u, \"samples\": %d, \"ps_runs\": %d, "
      "\"sample_cpu_ms\": %.2f, \"sample_cpu_ms_without_handles\": %.2f, \"ps_cpu_ms\": %.2f, "
      "\"ratio_sample_to_ps\": %.3f, \"ratio_without_handles_to_ps\": %.3f}\n",
      processes, samples, psRuns, sampleMs, noHandlesMs, psMs, psMs > 0 ? sampleMs / psMs : 0.0,
      psMs > 0 ? noHandlesMs / psMs : 0.0);
  return 0;
}
