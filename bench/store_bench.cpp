// Throughput of the classified store: appending 300-byte records to one stream through
// CFileManager::WriteFile, and reading a whole stream back.
//
//   build/bin/store_bench [--benchmark_filter=...]
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "common/error.h"
#include "config/config_mgr.h"
#include "file/fileclassify.h"
#include "file/filemanager.h"
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
  for (auto _ : state) {
    CError e = manager.WriteFile(classify, record);
    if (e.code != 0) {
      state.SkipWithError(e.desc.c_str());
      break;
    }
    ++written;
  }
  state.SetItemsProcessed(written);
  state.SetBytesProcessed(written * static_cast<int64_t>(kRecordBytes));
}
BENCHMARK(BM_WriteFile)->MinTime(2.0);

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
