// Cost of the monitor engine on the sample path: building and evaluating one cell of each kind,
// and delivering one process sample through the worker manager.
//
//   build/bin/engine_bench [--benchmark_filter=...]
#include <benchmark/benchmark.h>
#include <muParserDLL.h>

#include <string>
#include <vector>

#include "common/utils.h"
#include "nuv_log.h"
#include "worker/cell.h"
#include "worker/express.h"
#include "worker/data.h"
#include "worker/workermanager.h"

namespace {

ProcessInfo Process(uint32_t pid, const std::string& path) {
  ProcessInfo p;
  p.pid = pid, p.parentid = 1, p.cpu = 42.5f, p.memory = 512u << 20, p.threads = 12;
  p.handles = 80, p.iorspeed = 300, p.iowspeed = 200, p.image = "demo.bin", p.path = path;
  p.commandline = path + " --serve";
  return p;
}

// The sample path logs only DEBUG lines, below the production threshold; WARN also keeps the
// INFO lines of the workers' creation off the report.
void QuietLog() { nuv_log_set_level(NUV_LOG_WARN); }

// Times construction and evaluation of Cell over `sample`, after checking that the condition
// evaluates at all (a refused one would time the error path).
template <typename Cell, typename Sample>
void TimeCells(benchmark::State& state, const Sample& sample, const std::string& condition) {
  QuietLog();
  if (Cell().ConstructCell(sample, condition).code != 0) {
    state.SkipWithError("condition refused");
    return;
  }
  for (auto _ : state) {
    Cell cell;
    benchmark::DoNotOptimize(cell.ConstructCell(sample, condition).code);
    benchmark::DoNotOptimize(cell.GetResult());
  }
}

void BM_ProcessCell(benchmark::State& state) {
  TimeCells<CProcessCell>(state, Process(4242, "/opt/demo/demo.bin"), "C>50&&M>1000||T>10");
}
BENCHMARK(BM_ProcessCell);

// What a window pays per sample: the parser of its condition is kept by the delivering thread,
// so a cell costs the copy of the sample, the letters' values and one evaluation.
void BM_ProcessCellKeptParser(benchmark::State& state) {
  QuietLog();
  const ProcessInfo sample = Process(4242, "/opt/demo/demo.bin");
  const std::string condition = "C>50&&M>1000||T>10";
  CExpress express;
  for (auto _ : state) {
    CProcessCell cell;
    benchmark::DoNotOptimize(cell.ConstructCell(sample, condition, express).code);
    benchmark::DoNotOptimize(cell.GetResult());
  }
}
BENCHMARK(BM_ProcessCellKeptParser);

// The anchor: muParser itself creating, parsing and evaluating the same condition over the
// process cell's seven letters, as a cell with a parser of its own must.
void BM_BareMuParserCreateParseEval(benchmark::State& state) {
  double values[7] = {1, 42.5, 512, 12, 80, 300, 200};
  const char* letters[7] = {"A", "C", "M", "T", "H", "R", "W"};
  for (auto _ : state) {
    muParserHandle_t parser = mupCreate(0);
    for (int i = 0; i < 7; ++i) mupDefineVar(parser, letters[i], &values[i]);
    mupSetExpr(parser, "C>50&&M>1000||T>10");
    benchmark::DoNotOptimize(mupEval(parser));
    mupRelease(parser);
  }
}
BENCHMARK(BM_BareMuParserCreateParseEval);

// muParser evaluating an expression it parsed already, with new values each time.
void BM_BareMuParserEval(benchmark::State& state) {
  double values[7] = {1, 42.5, 512, 12, 80, 300, 200};
  const char* letters[7] = {"A", "C", "M", "T", "H", "R", "W"};
  muParserHandle_t parser = mupCreate(0);
  for (int i = 0; i < 7; ++i) mupDefineVar(parser, letters[i], &values[i]);
  mupSetExpr(parser, "C>50&&M>1000||T>10");
  for (auto _ : state) {
    values[1] += 0.5;
    benchmark::DoNotOptimize(mupEval(parser));
  }
  mupRelease(parser);
}
BENCHMARK(BM_BareMuParserEval);

void BM_SystemCell(benchmark::State& state) {
  SystemInfo info;
  info.cpu = 30.0f, info.memtotal = 8000, info.memavai = 3000;
  TimeCells<CSystemCell>(state, info, "C>90||M>4000");
}
BENCHMARK(BM_SystemCell);

// The argument is the number of processes in the notification.
void BM_AllProcessCell(benchmark::State& state) {
  const std::vector<ProcessInfo> infos(static_cast<size_t>(state.range(0)),
                                       Process(4242, "/opt/demo/demo.bin"));
  TimeCells<CAllProcessCell>(state, infos, "A");
}
BENCHMARK(BM_AllProcessCell)->Arg(1)->Arg(200);

// 1000 root workers, 10 of them watching the sampled process. The condition never holds, so
// after the first ten samples each delivery is one cell in and one out per matching worker
// plus the hit-rate count over its full window; nothing is posted.
void BM_DispatchProcessSample(benchmark::State& state) {
  QuietLog();
  constexpr int kWorkers = 1000, kSharing = 10;
  const std::string target = "/opt/demo/demo.bin";
  CWorkerManager manager;
  for (int i = 0; i < kWorkers; ++i) {
    const bool sharing = i % (kWorkers / kSharing) == 0;
    CMonitorData m;
    m.id = "m" + std::to_string(i), m.subscriber = "bench", m.handler = "bench:none";
    m.condition = "C>1000/50";
    m.image = sharing ? target : "/opt/other/p" + std::to_string(i) + ".bin";
    m.pid = sharing ? 4242 : 10000 + i;
    m.focus = m.image + ":" + std::to_string(m.pid);
    auto* worker = new CWorker;
    if (manager.CreateWorker(m, worker).code != 0 || manager.InsertWorker(worker).code != 0) {
      manager.DestroyWorker();
      state.SkipWithError("worker refused");
      return;
    }
  }
  const ProcessInfo sample = Process(4242, target);
  manager.Dispatch(sample);
  std::vector<CWorker*> sharing;
  manager.FindWokerByKeyNolock(CreateKey(target, 4242), sharing);
  if (sharing.size() != kSharing || sharing[0]->GetSlidingWindow().GetCellCount() != 1) {
    manager.DestroyWorker();
    state.SkipWithError("the sample does not reach its workers");
    return;
  }
  for (auto _ : state) {
    manager.Dispatch(sample);
  }
  state.counters["deliveries/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * kSharing,
                         benchmark::Counter::kIsRate);
  manager.DestroyWorker();
}
BENCHMARK(BM_DispatchProcessSample);

}  // namespace

BENCHMARK_MAIN();
