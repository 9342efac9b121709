// nuv_exportd's throughput into librdkafka's mock cluster, beside kcat producing the same
// records from the exporter's own NDJSON output into the same cluster in the same run. They
// take turns for R rounds and the medians are compared. kcat gets the producer properties the
// exporter sets by default (acks=all, enable.idempotence=true, linger.ms=1).
//
//   build/bin/export_bench [--records N] [--streams S] [--rounds R]   (1000000, 4 and 3)
//
// kcat comes from the Debian package kafkacat: bench/setup.sh installs it.
#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "file/fileindex.h"
#include "testutil/testutil.h"

namespace {

const char kDay[] = "20240310";

// `records` burying points of about 300 bytes, spread over `streams` streams of one day.
bool MakeStore(const std::string& base, long records, int streams) {
  const std::string day = base + "/" + kDay;
  if (::mkdir(base.c_str(), 0755) != 0 || ::mkdir(day.c_str(), 0755) != 0) return false;
  for (int s = 0; s < streams; ++s) {
    const std::string name = "agent" + std::to_string(s);
    const std::string dir = day + "/" + name;
    ::mkdir(dir.c_str(), 0755);
    std::ofstream index(dir + "/index-" + name + "-" + std::to_string(1000 + s) + "-256");
    std::ofstream content(dir + "/" + name + "-" + std::to_string(1000 + s) + "-256");
    unsigned int offset = 0;
    for (long i = s; i < records; i += streams) {
      const std::string point =
          R"({"header":{"type":256,"version":"1.0","focus":"/usr/bin/)" + name + ":" +
          std::to_string(1000 + s) +
          R"(","id":"x1","name":"startup","module":"core","function":"init","time":"2024-03-10 12:00:00",)"
          R"("product":"agent","product_version":"1.2.3","agent_id":"a-1"},"body":{"time_start":1710072000000,)"
          R"("time_end":1710072000125,"time_diff":125,"seq":)" +
          std::to_string(i) + "}}";
      content << point;
      index << IndexData(offset, static_cast<unsigned int>(point.size())).ToString();
      offset += static_cast<unsigned int>(point.size());
    }
    if (!index || !content) return false;
  }
  return true;
}

// records.ndjson split into streamS.ndjson by the stream each line names.
bool SplitByStream(const nuvtest::TempDir& root, int streams) {
  std::ifstream in(root.Sub("records.ndjson"));
  std::vector<std::ofstream> out;
  for (int s = 0; s < streams; ++s) out.emplace_back(root.Sub("stream" + std::to_string(s) + ".ndjson"));
  const std::string field = "\"name\":\"agent";
  for (std::string line; std::getline(in, line);) {
    const size_t at = line.find(field);
    if (at == std::string::npos) return false;
    out[std::atoi(line.c_str() + at + field.size()) % streams] << line << '\n';
  }
  for (std::ofstream& file : out) file.flush();
  return true;
}

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

double ChildrenCpu() {
  struct rusage usage {};
  ::getrusage(RUSAGE_CHILDREN, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Runs argv to its end; its exit status, the seconds it took and the CPU seconds it used.
int Timed(const std::vector<std::string>& argv, const nuvtest::TempDir& dir, double& seconds,
          double* cpu = nullptr) {
  const double cpuBefore = ChildrenCpu();
  const auto start = std::chrono::steady_clock::now();
  const char* path = std::getenv("PATH");
  const nuvtest::RunResult run =
      nuvtest::Run(argv, {std::string("PATH=") + (path ? path : "/usr/bin:/bin")}, dir);
  seconds = Seconds(start);
  if (cpu != nullptr) *cpu = ChildrenCpu() - cpuBefore;
  if (run.code != 0) std::fprintf(stderr, "%s failed (%d): %s\n", argv[0].c_str(), run.code, run.err.c_str());
  return run.code;
}

// kcat -P into `topic` with the producer properties the exporter sets by default, then `more`.
std::vector<std::string> Kcat(const std::string& bootstraps, const char* topic,
                              const std::vector<std::string>& more) {
  std::vector<std::string> argv = {"/usr/bin/kcat", "-P", "-b", bootstraps, "-t", topic,
                                   "-X", "acks=all", "-X", "enable.idempotence=true",
                                   "-X", "linger.ms=1"};
  argv.insert(argv.end(), more.begin(), more.end());
  return argv;
}

int64_t TopicSize(rd_kafka_t* rk, const char* topic, int partitions) {
  int64_t total = 0;
  for (int p = 0; p < partitions; ++p) {
    int64_t low = 0, high = 0;
    if (rd_kafka_query_watermark_offsets(rk, topic, p, &low, &high, 10000) == 0) total += high;  // the mock cluster keeps only the newest few MB
  }
  return total;
}

struct Figures {
  double seconds = 0;
  double cpu = 0;
};

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void Report(const char* what, long records, const std::vector<Figures>& runs) {
  std::vector<double> seconds;
  std::vector<double> cpu;
  std::printf("%-34s", what);
  for (const Figures& run : runs) {
    std::printf(" %8.0f", records / run.seconds);
    seconds.push_back(run.seconds);
    cpu.push_back(run.cpu);
  }
  std::printf("   median %8.0f records/s (%.2f s, %.2f s CPU)\n", records / Median(seconds),
              Median(seconds), Median(cpu));
}

}  // namespace

int main(int argc, char** argv) {
  long records = 1000000;
  int streams = 4;
  int rounds = 3;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string arg = argv[i];
    if (arg == "--records") records = std::atol(argv[i + 1]);
    else if (arg == "--streams") streams = std::atoi(argv[i + 1]);
    else if (arg == "--rounds") rounds = std::atoi(argv[i + 1]);
  }
  if (records <= 0 || streams <= 0 || rounds <= 0) {
    std::fprintf(stderr, "usage: export_bench [--records N] [--streams S] [--rounds R]\n");
    return 2;
  }
  const int partitions = streams;
  nuvtest::TempDir root;
  auto start = std::chrono::steady_clock::now();
  if (!MakeStore(root.Sub("store"), records, streams)) {
    std::fprintf(stderr, "cannot write the store under %s\n", root.path().c_str());
    return 1;
  }
  std::printf("store: %ld burying points in %d streams, written in %.1f s\n", records, streams,
              Seconds(start));

  char error[256];
  rd_kafka_t* handle = rd_kafka_new(RD_KAFKA_PRODUCER, rd_kafka_conf_new(), error, sizeof error);
  rd_kafka_mock_cluster_t* cluster = rd_kafka_mock_cluster_new(handle, 1);
  const std::string bootstraps = rd_kafka_mock_cluster_bootstraps(cluster);
  rd_kafka_conf_t* probeConf = rd_kafka_conf_new();
  rd_kafka_conf_set(probeConf, "bootstrap.servers", bootstraps.c_str(), error, sizeof error);
  rd_kafka_t* probe = rd_kafka_new(RD_KAFKA_PRODUCER, probeConf, error, sizeof error);

  nuvtest::WriteFile(root.Sub("maintenance.json"), R"({"default": {"cache": {"size": 100},
      "collect_sdk": {"frequency": 5, "monitor_type": 31, "hit_rate": 80}, "perf_monitor": [],
      "file": {"cahce": 1024, "path": ")" + root.Sub("store") + R"("},
      "clearn": {"day": 3650, "file_size": 1000}}, "addition": {}})");
  nuvtest::WriteFile(root.Sub("ndjson.json"), R"({"state_dir": "state-ndjson", "output": "ndjson",
      "ndjson_file": "records.ndjson"})");
  const std::string exportd = nuvtest::BuildDir() + "/bin/nuv_exportd";

  double ndjsonSeconds = 0;
  if (Timed({exportd, "--once", "--log-level", "1", "--config", root.Sub("ndjson.json")}, root,
            ndjsonSeconds) != 0) {
    return 1;
  }
  std::printf("nuv_exportd -> NDJSON file:       %8.0f records/s (%.2f s)\n",
              records / ndjsonSeconds, ndjsonSeconds);
  const bool haveKcat = ::access("/usr/bin/kcat", X_OK) == 0;
  if (!haveKcat) {
    std::printf("kcat not found: run bench/setup.sh (Debian package kafkacat) for the comparison\n");
  } else if (!SplitByStream(root, streams)) {
    std::fprintf(stderr, "records.ndjson names a stream it should not\n");
    return 1;
  }

  // The contenders take turns, a fresh topic each, so a busy spell of the machine is shared.
  std::vector<Figures> exported(rounds);
  std::vector<Figures> plain(rounds);
  std::vector<Figures> tagged(rounds);
  for (int round = 0; round < rounds; ++round) {
    const std::string n = std::to_string(round);
    const std::string topic = "bench-exportd-" + n;
    rd_kafka_mock_topic_create(cluster, topic.c_str(), partitions, 1);
    nuvtest::WriteFile(root.Sub("kafka.json"), R"({"state_dir": "state-kafka-)" + n + R"(",
        "kafka": {"topic": ")" + topic + R"(", "properties": {"bootstrap.servers": ")" +
                                                   bootstraps + R"("}}})");
    Figures& e = exported[round];
    if (Timed({exportd, "--once", "--log-level", "1", "--config", root.Sub("kafka.json")}, root,
              e.seconds, &e.cpu) != 0) {
      return 1;
    }
    if (TopicSize(probe, topic.c_str(), partitions) != records) {
      std::fprintf(stderr, "%s does not hold %ld records\n", topic.c_str(), records);
      return 1;
    }
    if (!haveKcat) continue;
    const std::string kcatTopic = "bench-kcat-" + n;
    const std::string taggedTopic = "bench-kcat-tagged-" + n;
    rd_kafka_mock_topic_create(cluster, kcatTopic.c_str(), partitions, 1);
    rd_kafka_mock_topic_create(cluster, taggedTopic.c_str(), partitions, 1);
    Figures& k = plain[round];
    if (Timed(Kcat(bootstraps, kcatTopic.c_str(), {"-l", root.Sub("records.ndjson")}), root,
              k.seconds, &k.cpu) != 0) {
      return 1;
    }
    // The exporter's message shape: each stream's lines with its key and its four headers, one
    // kcat per stream.
    Figures& t = tagged[round];
    for (int s = 0; s < streams; ++s) {
      const std::string name = "agent" + std::to_string(s);
      const std::string pid = std::to_string(1000 + s);
      double seconds = 0;
      double cpu = 0;
      if (Timed(Kcat(bootstraps, taggedTopic.c_str(),
                     {"-k", name + ":" + pid + ":256", "-H", std::string("day=") + kDay, "-H",
                      "name=" + name, "-H", "pid=" + pid, "-H", "type=256", "-l",
                      root.Sub("stream" + std::to_string(s) + ".ndjson")}),
                root, seconds, &cpu) != 0) {
        return 1;
      }
      t.seconds += seconds;
      t.cpu += cpu;
    }
  }
  double load[3] = {0, 0, 0};
  ::getloadavg(load, 3);
  std::printf("records/s per round, load average %.2f %.2f %.2f at the end:\n", load[0], load[1],
              load[2]);
  Report("nuv_exportd -> mock cluster:", records, exported);
  if (haveKcat) {
    Report("kcat -P from the NDJSON file:", records, plain);
    Report("kcat -P, key and headers:", records, tagged);
    std::vector<double> ratio;
    std::vector<double> taggedRatio;
    for (int round = 0; round < rounds; ++round) {
      ratio.push_back(plain[round].seconds / exported[round].seconds);
      taggedRatio.push_back(tagged[round].seconds / exported[round].seconds);
    }
    std::printf("nuv_exportd / kcat: median %.2fx; with key and headers: median %.2fx\n",
                Median(ratio), Median(taggedRatio));
  }
  rd_kafka_destroy(probe);
  rd_kafka_mock_cluster_destroy(cluster);
  rd_kafka_destroy(handle);
  return 0;
}
