// Throughput of the classified store: appending 300-byte records to one stream through
// CFileManager::WriteFile, a 300-byte burying point through the manager's whole path as the
// daemon takes it (validation, classification, store) without the bus, and reading a whole
// stream back.
// The writing cases also report this thread's CPU per item split into user_ns, the library's
// own, and sys_ns, the kernel's (the store's two write(2) calls: its durability cost); the store
// lives under TMPDIR, so TMPDIR=/dev/shm shows that cost on tmpfs instead of a disk.
//
//   build/bin/store_bench [--benchmark_filter=...]
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <string>
#include <vector>

#include "buryingpoint/bpmgr.h"
#include "common/error.h"
#include "config/config_mgr.h"
#include "file/fileclassify.h"
#include "file/filemanager.h"
#include "nuv_comm.h"
#include "nuv_log.h"
#include "testutil/testutil.h"

namespace {

constexpr size_t kRecordBytes = 300;
constexpr unsigned int kType = 8192;

// A store in a fresh temporary directory with a size limit high enough that no stream restarts.
class Store {
 public:
  Store() {
    std::string text = R"({"default": {"cache": {"size": 100},
        "collect_sdk": {"frequency": 5, "monitor_type": 31, "hit_rate": 80},
        "perf_monitor": [], "file": {"cahce": 1024, "path": ")" +
                       dir_.Sub("store") + R"("},
        "clearn": {"day": 7, "file_size": 2000}}, "addition": {}})";
    nuvtest::WriteFile(dir_.Sub("maintenance.json"), text);
    ConfigMgr loader;
    ok_ = loader.LoadConfig(dir_.Sub("maintenance.json")).code == 0;
  }
  bool ok() const { return ok_; }

 private:
  nuvtest::TempDir dir_;
  bool ok_ = false;
};

// This thread's user and kernel CPU from construction to Report, per item, as counters.
class ThreadCpu {
 public:
  ThreadCpu() : start_(Now()) {}
  void Report(benchmark::State& state, int64_t items) const {
    const Times end = Now();
    const double n = items > 0 ? static_cast<double>(items) : 1.0;
    state.counters["user_ns"] = (end.user - start_.user) / n;
    state.counters["sys_ns"] = (end.sys - start_.sys) / n;
  }

 private:
  struct Times {
    double user, sys;
  };
  static Times Now() {
    rusage ru{};
    getrusage(RUSAGE_THREAD, &ru);
    auto ns = [](const timeval& t) { return t.tv_sec * 1e9 + t.tv_usec * 1e3; };
    return {ns(ru.ru_utime), ns(ru.ru_stime)};
  }
  Times start_;
};

std::string Record(int i) {
  std::string r = "{\"seq\":" + std::to_string(i) + ",\"pad\":\"";
  r.append(kRecordBytes - r.size() - 2, 'x');
  return r + "\"}";
}

void BM_WriteFile(benchmark::State& state) {
  Store store;
  if (!store.ok()) {
    state.SkipWithError("configuration did not load");
    return;
  }
  CFileManager manager;
  CFileClassify classify;
  classify.InitFileClassify("bench", 4242, kType);
  std::string record = Record(0);
  int64_t written = 0;
  const ThreadCpu cpu;
  for (auto _ : state) {
    CError e = manager.WriteFile(classify, record);
    if (e.code != 0) {
      state.SkipWithError(e.desc.c_str());
      break;
    }
    ++written;
  }
  cpu.Report(state, written);
  state.SetItemsProcessed(written);
  state.SetBytesProcessed(written * static_cast<int64_t>(kRecordBytes));
}
BENCHMARK(BM_WriteFile)->MinTime(2.0);

// The library's own cost of one burying point, beside which the bus's cost per request stands:
// the daemon's path for a synchronous poster, a batch of one request on a bus thread that has
// served the stream before.
void BM_BuryingPoint(benchmark::State& state) {
  Store store;
  if (!store.ok()) {
    state.SkipWithError("configuration did not load");
    return;
  }
  nuv_log_set_level(NUV_LOG_INFO);  // the daemon's default: the per-record DEBUG line is off
  std::string point =
      "{\"header\": {\"type\": 512, \"version\": \"1.0\", \"focus\": \"/usr/bin/bench:1\", "
      "\"id\": \"6f1c2d0e-0000-4000-8000-000000000000\", \"module\": \"bench\", "
      "\"function\": \"ingest\", \"time\": \"2026/01/01 00:00:00\", \"product\": \"bench\", "
      "\"product_version\": \"1.0\", \"agent_id\": \"\", \"name\": \"";
  point.append(kRecordBytes - point.size() - 3, 'n');
  point += "\"}}";
  CBpMgr manager;
  comm_data* request = nuv_comm_new_data(point.data(), static_cast<unsigned int>(point.size()));
  if (request == nullptr) {
    state.SkipWithError("no memory for the request");
    return;
  }
  int64_t stored = 0;
  const ThreadCpu cpu;
  for (auto _ : state) {
    int result = -1;
    manager.BatchImpl(&request, 1, &result);
    if (result != 0) {
      state.SkipWithError(("refused with " + std::to_string(result)).c_str());
      break;
    }
    ++stored;
  }
  cpu.Report(state, stored);
  state.SetItemsProcessed(stored);
  nuv_comm_delete_data(request);
}
BENCHMARK(BM_BuryingPoint)->MinTime(2.0);

void BM_ReadAllFile(benchmark::State& state) {
  Store store;
  if (!store.ok()) {
    state.SkipWithError("configuration did not load");
    return;
  }
  const int records = static_cast<int>(state.range(0));
  CFileManager manager;
  CFileClassify classify;
  classify.InitFileClassify("bench", 4243, kType);
  for (int i = 0; i < records; ++i) manager.WriteFile(classify, Record(i));
  manager.FileUnitsFlush();
  int64_t read = 0;
  for (auto _ : state) {
    std::vector<std::string> out;
    CError e = manager.ReadALLFile(classify, out);
    if (out.size() != static_cast<size_t>(records)) {
      state.SkipWithError(("read back " + std::to_string(out.size()) + " records, code " +
                           std::to_string(e.code))
                              .c_str());
      break;
    }
    read += records;
  }
  state.SetItemsProcessed(read);
  state.SetBytesProcessed(read * static_cast<int64_t>(kRecordBytes));
}
BENCHMARK(BM_ReadAllFile)->Arg(1000)->Arg(10000);

}  // namespace

BENCHMARK_MAIN();
