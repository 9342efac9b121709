// End-to-end ingest: K posting processes each post M valid 300-byte burying points to a running
// nuv_maintd, and, in the same run, the same posts to a bare handler that only returns 0, so
// the bus's own cost and the library's cost show side by side. Prints one JSON line.
//
//   build/bin/ingest_bench [--records M] [--posters 1,4,8]
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "nuv_comm.h"
#include "testutil/testutil.h"

namespace {

const char kBareTopic[] = "bench:bare";
const char kPostTopic[] = "maintenance:POST";

// A valid burying point of exactly `bytes` bytes, padded in its name.
std::string BuryingPoint(size_t bytes, int poster) {
  std::string head =
      "{\"header\": {\"type\": 512, \"version\": \"1.0\", \"focus\": \"/usr/bin/bench:" +
      std::to_string(1000 + poster) +
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

// A process that serves kBareTopic until SIGTERM.
pid_t StartBareServer() {
  pid_t pid = ::fork();
  if (pid != 0) return pid;
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, nullptr);
  if (nuv_comm_init() != 0 || nuv_comm_register(kBareTopic, BareHandler, nullptr) != 0) _exit(1);
  int sig = 0;
  sigwait(&term, &sig);
  nuv_comm_unregister(kBareTopic);
  nuv_comm_uninit();
  _exit(0);
}

// Forks `posters` processes that wait on a pipe, then each post `records` points to `topic`.
// Returns records per second over all of them, or -1; `failed` counts non-zero results.
double Run(const char* topic, int posters, int records, long* failed) {
  int gate[2];
  int results[2];
  if (::pipe(gate) != 0 || ::pipe(results) != 0) return -1;
  std::vector<pid_t> kids;
  for (int p = 0; p < posters; ++p) {
    pid_t pid = ::fork();
    if (pid == 0) {
      ::close(gate[1]);
      ::close(results[0]);
      nuv_comm_init();
      std::string bp = BuryingPoint(300, p);
      comm_data* data = nuv_comm_new_data(bp.data(), static_cast<unsigned int>(bp.size()));
      char go;
      if (::read(gate[0], &go, 1) < 0) _exit(1);
      long bad = 0;
      for (int i = 0; i < records; ++i) bad += nuv_comm_post(topic, data) != 0;
      nuv_comm_delete_data(data);
      ssize_t w = ::write(results[1], &bad, sizeof bad);
      _exit(w == sizeof bad ? 0 : 1);
    }
    kids.push_back(pid);
  }
  ::close(gate[0]);
  ::close(results[1]);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // let every poster connect
  auto start = std::chrono::steady_clock::now();
  ::close(gate[1]);
  *failed = 0;
  for (int p = 0; p < posters; ++p) {
    long bad = 0;
    if (::read(results[0], &bad, sizeof bad) != sizeof bad) bad = records;
    *failed += bad;
  }
  double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  ::close(results[0]);
  for (pid_t k : kids) nuvtest::WaitExit(k);
  return static_cast<double>(posters) * records / seconds;
}

}  // namespace

int main(int argc, char** argv) {
  int records = 20000;
  std::vector<int> posters = {1, 4, 8};
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--records" && i + 1 < argc) {
      records = std::atoi(argv[++i]);
    } else if (arg == "--posters" && i + 1 < argc) {
      posters.clear();
      std::stringstream list(argv[++i]);
      for (std::string n; std::getline(list, n, ',');) posters.push_back(std::atoi(n.c_str()));
    } else {
      std::fprintf(stderr, "usage: ingest_bench [--records M] [--posters 1,4,8]\n");
      return 2;
    }
  }

  nuvtest::TempDir tree;
  if (!nuvtest::MakeInstallTree(tree, {"nuv_maintd"}) ||
      !nuvtest::WriteFile(tree.Sub("config/maintenance.json"),
                          nuvtest::ReadFile(nuvtest::BuildDir() + "/config/maintenance.json"))) {
    std::fprintf(stderr, "ingest_bench: cannot lay out the daemon's tree\n");
    return 1;
  }
  std::string bus = tree.Sub("bus");
  ::setenv("NUV_COMM_DIR", bus.c_str(), 1);
  pid_t daemon = nuvtest::Spawn({tree.Sub("bin/nuv_maintd")},
                                {"NUV_COMM_DIR=" + bus, "NUV_LOG_FILE=" + tree.Sub("maint.log"),
                                 "NUV_LOG_LEVEL=1"},
                                "", tree.Sub("stdout"), tree.Sub("stderr"));
  pid_t bare = StartBareServer();
  int rc = 0;
  if (!WaitForSocket(bus + "/" + kPostTopic) || !WaitForSocket(bus + "/" + kBareTopic)) {
    std::fprintf(stderr, "ingest_bench: the daemon or the bare server did not come up\n%s",
                 nuvtest::ReadFile(tree.Sub("stderr")).c_str());
    rc = 1;
  } else {
    std::string out = "{\"bench\":\"ingest\",\"record_bytes\":300,\"records_per_poster\":" +
                      std::to_string(records) + ",\"runs\":[";
    for (size_t i = 0; i < posters.size(); ++i) {
      long daemon_failed = 0, bare_failed = 0;
      double daemon_rate = Run(kPostTopic, posters[i], records, &daemon_failed);
      double bare_rate = Run(kBareTopic, posters[i], records, &bare_failed);
      char run[256];
      std::snprintf(run, sizeof run,
                    "%s{\"posters\":%d,\"daemon_records_per_s\":%.0f,\"daemon_failed\":%ld,"
                    "\"bare_records_per_s\":%.0f,\"bare_failed\":%ld}",
                    i ? "," : "", posters[i], daemon_rate, daemon_failed, bare_rate, bare_failed);
      out += run;
      if (daemon_failed || bare_failed) rc = 1;
    }
    std::printf("%s]}\n", out.c_str());
  }
  ::kill(daemon, SIGTERM);
  ::kill(bare, SIGTERM);
  nuvtest::WaitExit(daemon);
  nuvtest::WaitExit(bare);
  return rc;
}
