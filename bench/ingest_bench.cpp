// End-to-end ingest, every figure from one run, each the median of --repeat runs; the things
// compared take turns, and each turn's ratio ("*_turns") is printed beside the medians':
//  (a) K synchronous posting processes each post M valid 300-byte burying points to a running
//      nuv_maintd, and the same posts to a bare bus handler that only returns 0, and the same
//      frames to a bare socket server (a thread per connection) through a raw client: the
//      library's cost over the bus, and the bus's cost over a socket;
//  (b) 4 posters sending ahead (window 64) into the daemon, with the project's client and
//      with a raw one, and into the bare bus handler, beside syslog-ng taking 300-byte lines
//      from loggen over 4 unix-stream connections into a file (bench/setup.sh installs it;
//      left out when missing);
//  (c) the records in the store after the daemon stops against the records acknowledged 0.
// Beside (a), the same posts go to a bus handler that makes only the two appends the store
// makes per record (the record, then its 22-byte index line, one poster at a time): the best
// daemon_vs_bus a library that kept every record could reach on this machine ("write_floor").
// Beside each rate of (a) and the daemon's of (b), the CPU in microseconds per record of the
// server process and of the posters ("*_cpu_us": [server, posters]) tell where time goes when
// the rates swing. Prints one JSON line. Pinned to one CPU (taskset -c 0) the rates hardly
// swing and the CPU figures give the library's own cost per record.
//
//   build/bin/ingest_bench [--records M] [--posters 1,4,8] [--repeat N] [--window W]
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <jansson.h>

#include "ingest_anchors.h"
#include "nuv_comm.h"
#include "testutil/testutil.h"

namespace {

const char kBareTopic[] = "bench:bare";
const char kFloorTopic[] = "bench:writes";
const char kPostTopic[] = "maintenance:POST";
constexpr int kPipelinedPosters = 4;
constexpr int kStoreLimitMiB = 2000;  // the largest whole MiB a 32-bit byte count holds, nearly

// A valid burying point of exactly `bytes` bytes, padded in its name, for the store's stream
// named `stream`.
std::string BuryingPoint(size_t bytes, const std::string& stream, int poster) {
  std::string head =
      "{\"header\": {\"type\": 512, \"version\": \"1.0\", \"focus\": \"/usr/bin/" + stream +
      ":" + std::to_string(1000 + poster) +
      "\", \"id\": \"6f1c2d0e-0000-4000-8000-000000000000\", \"module\": \"bench\", "
      "\"function\": \"ingest\", \"time\": \"2026/01/01 00:00:00\", \"product\": \"bench\", "
      "\"product_version\": \"1.0\", \"agent_id\": \"\", \"name\": \"";
  std::string tail = "\"}}";
  size_t pad = bytes > head.size() + tail.size() ? bytes - head.size() - tail.size() : 1;
  return head + std::string(pad, 'n') + tail;
}

bool WaitForSocket(const std::string& path) {
  struct stat st;
  for (int i = 0; i < 1000; ++i) {
    if (::stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

int BareHandler(comm_data*, comm_data*, void*) { return 0; }

// A process that serves `topic` with `handler` until SIGTERM, once `prepare` succeeded.
pid_t StartBusServer(const char* topic, nuv_comm_handler handler,
                     const std::function<bool()>& prepare = [] { return true; }) {
  return ingest::ForkServer(
      [=] {
        return prepare() && nuv_comm_init() == 0 &&
               nuv_comm_register(topic, handler, nullptr) == 0;
      },
      [topic] {
        nuv_comm_unregister(topic);
        nuv_comm_uninit();
      });
}

// The write floor's two append-only files, and the lock that lets one record through at a time
// (spun, as the store's lock is, for a holder that is never long).
const char* const kFloorFiles[] = {"floor-content", "floor-index"};
int gFloorContent = -1;
int gFloorIndex = -1;
std::atomic_flag gFloorBusy = ATOMIC_FLAG_INIT;

int WriteFloorHandler(comm_data* request, comm_data*, void*) {
  static const char kLine[] = "0000000000 0000000300\n";
  void* data = nullptr;
  unsigned int length = 0;
  if (nuv_comm_get_data(request, &data, &length) != 0) return 1;
  while (gFloorBusy.test_and_set(std::memory_order_acquire)) sched_yield();
  const bool ok = ::write(gFloorContent, data, length) == static_cast<ssize_t>(length) &&
                  ::write(gFloorIndex, kLine, sizeof kLine - 1) == sizeof kLine - 1;
  gFloorBusy.clear(std::memory_order_release);
  return ok ? 0 : 1;
}

// Opens the floor's files in `dir`, in the server process.
bool OpenFloorFiles(const std::string& dir) {
  const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
  gFloorContent = ::open((dir + "/" + kFloorFiles[0]).c_str(), flags, 0600);
  gFloorIndex = ::open((dir + "/" + kFloorFiles[1]).c_str(), flags, 0600);
  return gFloorContent >= 0 && gFloorIndex >= 0;
}

// Sends SIGTERM to each process and waits for it; a start that failed (-1) is skipped, as
// kill(-1) would signal every process we may signal. The exit status of the last one.
int Stop(std::initializer_list<pid_t> processes) {
  for (pid_t pid : processes) {
    if (pid > 0) ::kill(pid, SIGTERM);
  }
  int status = -1;
  for (pid_t pid : processes) status = nuvtest::WaitExit(pid);
  return status;
}

// What one poster does with its records: returns how many were answered 0, or -1.
using PosterFn = std::function<long(int poster, long records)>;

long SyncPoster(const char* topic, const std::string& stream, int poster, long records) {
  nuv_comm_init();
  std::string bp = BuryingPoint(300, stream, poster);
  comm_data* data = nuv_comm_new_data(bp.data(), static_cast<unsigned int>(bp.size()));
  long zeros = 0;
  for (long i = 0; i < records; ++i) zeros += nuv_comm_post(topic, data) == 0;
  nuv_comm_delete_data(data);
  return zeros;
}

long PipelinedPoster(const char* topic, const std::string& stream, unsigned int window, int poster,
                     long records) {
  nuv_comm_init();
  std::string bp = BuryingPoint(300, stream, poster);
  comm_data* data = nuv_comm_new_data(bp.data(), static_cast<unsigned int>(bp.size()));
  std::vector<comm_data*> msgs(static_cast<size_t>(records), data);
  std::vector<int> results(msgs.size());
  nuv_comm_post_many(topic, msgs.data(), static_cast<unsigned int>(msgs.size()), window,
                     results.data());
  nuv_comm_delete_data(data);
  return std::count(results.begin(), results.end(), 0);
}

long RawPoster(const std::string& path, const std::string& stream, int window, int poster,
              long records) {
  int fd = ingest::Connect(path);
  if (fd < 0) return -1;
  long zeros =
      ingest::RawPost(fd, ingest::Frame(BuryingPoint(300, stream, poster)), records, window);
  ::close(fd);
  return zeros;
}

struct Outcome {
  double rate = -1;  // records per second over all posters
  long zeros = 0;    // answered 0
  long failed = 0;   // not answered 0
  double server_us = -1;  // the serving process's CPU per record, microseconds
  double client_us = -1;  // the posters' CPU per record
};

// CPU seconds a process has used, its ended threads included; -1 when it cannot be read.
double ProcessCpu(pid_t pid) {
  if (pid <= 0) return -1;
  std::string stat = nuvtest::ReadFile("/proc/" + std::to_string(pid) + "/stat");
  size_t close = stat.rfind(')');
  if (close == std::string::npos) return -1;
  std::stringstream fields(stat.substr(close + 2));
  std::string field;
  unsigned long long utime = 0, stime = 0;
  // After the name: state is field 3; utime and stime are fields 14 and 15.
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14) utime = std::stoull(field);
    if (i == 15) stime = std::stoull(field);
  }
  return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// Forks `posters` processes that wait on a pipe, then each run `fn` on `records` records;
// `server` is the process they post to, for its CPU figure.
Outcome Run(const PosterFn& fn, int posters, long records, pid_t server) {
  Outcome o;
  int gate[2], results[2];
  if (::pipe(gate) != 0 || ::pipe(results) != 0) return o;
  std::vector<pid_t> kids;
  for (int p = 0; p < posters; ++p) {
    pid_t pid = ::fork();
    if (pid == 0) {
      ::close(gate[1]);
      ::close(results[0]);
      char go;
      if (::read(gate[0], &go, 1) < 0) _exit(1);
      long zeros = fn(p, records);
      ssize_t w = ::write(results[1], &zeros, sizeof zeros);
      _exit(w == sizeof zeros ? 0 : 1);
    }
    kids.push_back(pid);
  }
  ::close(gate[0]);
  ::close(results[1]);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // let every poster start
  const double serverBefore = ProcessCpu(server);
  auto start = std::chrono::steady_clock::now();
  ::close(gate[1]);
  for (int p = 0; p < posters; ++p) {
    long zeros = -1;
    if (::read(results[0], &zeros, sizeof zeros) != sizeof zeros) zeros = -1;
    o.zeros += std::max(zeros, 0L);
    o.failed += zeros < 0 ? records : records - zeros;
  }
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double serverAfter = ProcessCpu(server);
  ::close(results[0]);
  double clientCpu = 0;
  for (pid_t k : kids) {
    struct rusage use {};
    int status = 0;
    while (::wait4(k, &status, 0, &use) < 0 && errno == EINTR) {
    }
    clientCpu += static_cast<double>(use.ru_utime.tv_sec + use.ru_stime.tv_sec) +
                 static_cast<double>(use.ru_utime.tv_usec + use.ru_stime.tv_usec) / 1e6;
  }
  const double total = static_cast<double>(posters) * records;
  o.rate = total / seconds;
  if (serverBefore >= 0 && serverAfter >= 0) o.server_us = (serverAfter - serverBefore) * 1e6 / total;
  o.client_us = clientCpu * 1e6 / total;
  return o;
}

// One thing to measure, with the counters its runs' records answered 0 and failures are added
// to (either may be null).
struct Measure {
  std::function<Outcome()> run;
  long* acked;
  long* failed;
};

// Runs every measure `repeat` times, taking turns, so that what drifts over a run of the bench
// (the store's files growing, the kernel's writeback, where the scheduler has put whom) falls
// on all of them alike. Returns each measure's runs in order.
std::vector<std::vector<Outcome>> TakeTurns(int repeat, const std::vector<Measure>& measures) {
  std::vector<std::vector<Outcome>> runs(measures.size());
  for (int i = 0; i < repeat; ++i) {
    for (size_t m = 0; m < measures.size(); ++m) {
      runs[m].push_back(measures[m].run());
      if (measures[m].acked) *measures[m].acked += runs[m].back().zeros;
      if (measures[m].failed) *measures[m].failed += runs[m].back().failed;
    }
  }
  return runs;
}

// The run with the median rate.
Outcome Median(std::vector<Outcome> runs) {
  std::sort(runs.begin(), runs.end(),
            [](const Outcome& a, const Outcome& b) { return a.rate < b.rate; });
  return runs[runs.size() / 2];
}

double Ratio(double a, double b) { return a > 0 && b > 0 ? a / b : -1; }

// Each turn's rate of `a` over that of `b`, run beside it: how far the ratio of the medians
// can be trusted.
json_t* TurnRatios(const std::vector<Outcome>& a, const std::vector<Outcome>& b) {
  json_t* ratios = json_array();
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
    json_array_append_new(ratios, json_real(Ratio(a[i].rate, b[i].rate)));
  }
  return ratios;
}

// The burying points of type 512 in the store, as `nuvctl store ls` counts them.
long RecordsInStore(const nuvtest::TempDir& tree) {
  nuvtest::RunResult ls = nuvtest::Run({tree.Sub("bin/nuvctl"), "store", "ls", "--type", "512",
                                        "--json"},
                                       {}, tree);
  if (ls.code != 0) return -1;
  long records = 0;
  std::stringstream lines(ls.out);
  for (std::string line; std::getline(lines, line);) {
    json_t* row = json_loads(line.c_str(), 0, nullptr);
    records += static_cast<long>(json_integer_value(json_object_get(row, "records")));
    json_decref(row);
  }
  return records;
}

// The shipped configuration with room for every record of the run in one stream: a stream
// that outgrows its size limit starts again empty, which would lose what (c) counts.
bool WriteConfig(const std::string& path) {
  json_t* root = json_load_file((nuvtest::BuildDir() + "/config/maintenance.json").c_str(), 0,
                                nullptr);
  json_t* clearn = json_object_get(json_object_get(root, "default"), "clearn");
  bool ok = clearn != nullptr &&
            json_object_set_new(clearn, "file_size", json_integer(kStoreLimitMiB)) == 0 &&
            json_dump_file(root, path.c_str(), JSON_INDENT(2)) == 0;
  json_decref(root);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  // Runs of seconds, not tenths: the CPU figures are read in clock ticks of 10 ms.
  long records = 100000;
  int repeat = 3;
  unsigned int window = 64;
  std::vector<int> posters = {1, 4, 8};
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--records" && i + 1 < argc) {
      records = std::atol(argv[++i]);
    } else if (arg == "--repeat" && i + 1 < argc) {
      repeat = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--window" && i + 1 < argc) {
      window = static_cast<unsigned int>(std::max(1, std::atoi(argv[++i])));
    } else if (arg == "--posters" && i + 1 < argc) {
      posters.clear();
      std::stringstream list(argv[++i]);
      for (std::string n; std::getline(list, n, ',');) posters.push_back(std::atoi(n.c_str()));
    } else {
      std::fprintf(stderr,
                   "usage: ingest_bench [--records M] [--posters 1,4,8] [--repeat N] "
                   "[--window W]\n");
      return 2;
    }
  }

  nuvtest::TempDir tree;
  if (!nuvtest::MakeInstallTree(tree, {"nuv_maintd", "nuvctl"}) ||
      !WriteConfig(tree.Sub("config/maintenance.json"))) {
    std::fprintf(stderr, "ingest_bench: cannot lay out the daemon's tree\n");
    return 1;
  }
  const std::string bus = tree.Sub("bus");
  const std::string socketPath = tree.Sub("bare.sock");
  ::setenv("NUV_COMM_DIR", bus.c_str(), 1);
  pid_t daemon = nuvtest::Spawn({tree.Sub("bin/nuv_maintd")},
                                {"NUV_COMM_DIR=" + bus, "NUV_LOG_FILE=" + tree.Sub("maint.log"),
                                 "NUV_LOG_LEVEL=1"},
                                "", tree.Sub("stdout"), tree.Sub("stderr"));
  pid_t bare = StartBusServer(kBareTopic, BareHandler);
  pid_t bareSocket = ingest::StartBareSocketServer(socketPath);
  pid_t floorServer = StartBusServer(kFloorTopic, WriteFloorHandler,
                                     [&] { return OpenFloorFiles(tree.path()); });
  if (!WaitForSocket(bus + "/" + kPostTopic) || !WaitForSocket(bus + "/" + kBareTopic) ||
      !WaitForSocket(bus + "/" + kFloorTopic) || !WaitForSocket(socketPath)) {
    std::fprintf(stderr, "ingest_bench: the daemon or a bare server did not come up\n%s",
                 nuvtest::ReadFile(tree.Sub("stderr")).c_str());
    Stop({daemon, bare, bareSocket, floorServer});
    return 1;
  }
  long acked = 0, failed = 0, bareFailed = 0;
  json_t* out = json_pack("{s:s, s:i, s:I, s:i}", "bench", "ingest", "record_bytes", 300,
                          "records_per_poster", static_cast<json_int_t>(records), "repeat", repeat);
  json_t* syncRows = json_array();
  for (int k : posters) {
    // Each measurement has a stream of its own: none outgrows the store's limit on one.
    const std::string stream = "bench_sync" + std::to_string(k);
    auto syncRun = [&](const char* topic, pid_t server) {
      return Run([&](int p, long n) { return SyncPoster(topic, stream, p, n); }, k, records,
                 server);
    };
    auto turns = TakeTurns(
        repeat,
        {{[&] { return syncRun(kPostTopic, daemon); }, &acked, &failed},
         {[&] { return syncRun(kBareTopic, bare); }, nullptr, &bareFailed},
         {[&] {
            return Run([&](int p, long n) { return RawPoster(socketPath, stream, 1, p, n); }, k,
                       records, bareSocket);
          },
          nullptr, &bareFailed},
         {[&] {
            const Outcome o = syncRun(kFloorTopic, floorServer);
            // Its bytes are of no further use: dropped, they add no writeback to what follows.
            for (const char* file : kFloorFiles) {
              (void)::truncate(tree.Sub(file).c_str(), 0);
            }
            return o;
          },
          nullptr, &bareFailed}});
    const Outcome d = Median(turns[0]), b = Median(turns[1]), s = Median(turns[2]),
                  w = Median(turns[3]);
    // CPU per record in microseconds, server and posters, beside each rate.
    json_t* row = json_pack(
        "{s:i, s:f, s:f, s:f, s:f, s:f, s:[ff], s:[ff], s:[ff]}", "posters", k, "daemon_per_s",
        d.rate, "bus_bare_handler_per_s", b.rate, "bare_socket_per_s", s.rate, "daemon_vs_bus",
        Ratio(d.rate, b.rate), "bus_vs_socket", Ratio(b.rate, s.rate), "daemon_cpu_us",
        d.server_us, d.client_us, "bus_cpu_us", b.server_us, b.client_us, "socket_cpu_us",
        s.server_us, s.client_us);
    json_object_set_new(row, "daemon_vs_bus_turns", TurnRatios(turns[0], turns[1]));
    json_object_set_new(row, "bus_vs_socket_turns", TurnRatios(turns[1], turns[2]));
    json_object_set_new(row, "write_floor_per_s", json_real(w.rate));
    json_object_set_new(row, "write_floor_vs_bus", json_real(Ratio(w.rate, b.rate)));
    json_object_set_new(row, "write_floor_vs_bus_turns", TurnRatios(turns[3], turns[1]));
    json_object_set_new(row, "write_floor_cpu_us", json_pack("[ff]", w.server_us, w.client_us));
    json_array_append_new(syncRows, row);
  }
  json_object_set_new(out, "sync", syncRows);

  auto pipelinedRun = [&](const char* topic, const std::string& stream, pid_t server) {
    return Run([&](int p, long n) { return PipelinedPoster(topic, stream, window, p, n); },
               kPipelinedPosters, records, server);
  };
  std::vector<Measure> pipelinedMeasures = {
      {[&] { return pipelinedRun(kPostTopic, "bench_pipelined", daemon); }, &acked, &failed},
      {[&] { return pipelinedRun(kBareTopic, "bench_pipelined", bare); }, nullptr, &bareFailed},
      {[&] {
         return Run([&](int p, long n) {
           return RawPoster(bus + "/" + kPostTopic, "bench_raw", static_cast<int>(window), p, n);
         }, kPipelinedPosters, records, daemon);
       },
       &acked, &failed}};
  nuvtest::TempDir slDir;
  std::unique_ptr<ingest::SyslogNg> syslog;
  if (!ingest::HaveSyslogNg()) {
    std::fprintf(stderr, "syslog-ng or loggen not found: run bench/setup.sh for the comparison\n");
  } else {
    syslog.reset(new ingest::SyslogNg(slDir.path()));
    if (syslog->ok()) {
      pipelinedMeasures.push_back({[&] {
                                     Outcome o;
                                     o.rate = syslog->Ingest(kPipelinedPosters, records);
                                     return o;
                                   },
                                   nullptr, nullptr});
    }
  }
  auto pipelinedTurns = TakeTurns(repeat, pipelinedMeasures);
  const Outcome pipelined = Median(pipelinedTurns[0]), pipelinedBus = Median(pipelinedTurns[1]),
                pipelinedRaw = Median(pipelinedTurns[2]);
  const double syslogRate = pipelinedTurns.size() > 3 ? Median(pipelinedTurns[3]).rate : -1;
  json_t* pipelinedRow =
      json_pack("{s:i, s:i, s:f, s:f, s:f, s:f, s:f, s:[ff]}", "posters", kPipelinedPosters,
                "window", window, "daemon_per_s", pipelined.rate, "daemon_raw_client_per_s",
                pipelinedRaw.rate, "bus_bare_handler_per_s", pipelinedBus.rate, "syslog_ng_per_s",
                syslogRate, "daemon_vs_syslog_ng", Ratio(pipelined.rate, syslogRate),
                "daemon_cpu_us", pipelined.server_us, pipelined.client_us);
  if (pipelinedTurns.size() > 3) {
    json_object_set_new(pipelinedRow, "daemon_vs_syslog_ng_turns",
                        TurnRatios(pipelinedTurns[0], pipelinedTurns[3]));
  }
  json_object_set_new(out, "pipelined", pipelinedRow);

  int daemonExit = Stop({daemon});
  long onDisk = RecordsInStore(tree);
  json_object_set_new(out, "disk",
                      json_pack("{s:I, s:I, s:I, s:b, s:i}", "acked_0", static_cast<json_int_t>(acked),
                                "not_acked_0", static_cast<json_int_t>(failed), "on_disk",
                                static_cast<json_int_t>(onDisk), "equal", onDisk == acked,
                                "daemon_exit", daemonExit));
  char* text = json_dumps(out, JSON_COMPACT | JSON_REAL_PRECISION(6));
  std::printf("%s\n", text);
  std::free(text);
  json_decref(out);
  Stop({bare, bareSocket, floorServer});
  return onDisk == acked && failed == 0 && bareFailed == 0 && daemonExit == 0 ? 0 : 1;
}
