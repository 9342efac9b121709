// nuv_exportd shipping what the real daemon stored to librdkafka's mock cluster (the real
// protocol, in this process), read back with a real consumer and compared with the store's
// files byte for byte.
#include <dirent.h>
#include <gtest/gtest.h>
#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <ctime>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "testutil/bus_post.h"
#include "testutil/testutil.h"

namespace {

const char kTopic[] = "nuv-store";
constexpr int16_t kProduceApi = 0;  // the Kafka protocol's ApiKey of Produce
constexpr int kPartitions = 3;
constexpr int kWindow = 100;

using Streams = std::map<std::string, std::vector<std::string>>;  // "name:pid:type" -> records

struct Consumed {
  std::string key;
  std::string value;
  std::map<std::string, std::string> headers;
};

// A mock cluster of three brokers, and what is in its topic.
class MockCluster {
 public:
  MockCluster() {
    char error[256];
    handle_ = rd_kafka_new(RD_KAFKA_PRODUCER, rd_kafka_conf_new(), error, sizeof error);
    cluster_ = handle_ ? rd_kafka_mock_cluster_new(handle_, 3) : nullptr;
    if (cluster_) rd_kafka_mock_topic_create(cluster_, kTopic, kPartitions, 3);
  }
  ~MockCluster() {
    if (cluster_) rd_kafka_mock_cluster_destroy(cluster_);
    if (handle_) rd_kafka_destroy(handle_);
  }
  rd_kafka_mock_cluster_t* get() const { return cluster_; }
  std::string Bootstraps() const { return cluster_ ? rd_kafka_mock_cluster_bootstraps(cluster_) : ""; }

  // Every record of the topic, per stream key in partition order.
  std::map<std::string, std::vector<Consumed>> ReadAll() const {
    std::map<std::string, std::vector<Consumed>> out;
    rd_kafka_conf_t* conf = rd_kafka_conf_new();
    char error[256];
    rd_kafka_conf_set(conf, "bootstrap.servers", Bootstraps().c_str(), error, sizeof error);
    rd_kafka_conf_set(conf, "group.id", "check", error, sizeof error);
    rd_kafka_t* consumer = rd_kafka_new(RD_KAFKA_CONSUMER, conf, error, sizeof error);
    // Read up to the end each partition has now.
    std::map<int32_t, int64_t> end;
    rd_kafka_topic_partition_list_t* parts = rd_kafka_topic_partition_list_new(kPartitions);
    for (int p = 0; p < kPartitions; ++p) {
      int64_t low = 0, high = 0;
      if (rd_kafka_query_watermark_offsets(consumer, kTopic, p, &low, &high, 10000) ||
          high == 0) {
        continue;
      }
      end[p] = high;
      rd_kafka_topic_partition_list_add(parts, kTopic, p)->offset = RD_KAFKA_OFFSET_BEGINNING;
    }
    rd_kafka_assign(consumer, parts);
    rd_kafka_topic_partition_list_destroy(parts);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!end.empty() && std::chrono::steady_clock::now() < deadline) {
      rd_kafka_message_t* m = rd_kafka_consumer_poll(consumer, 200);
      if (m == nullptr) continue;
      if (m->err == RD_KAFKA_RESP_ERR_NO_ERROR) {
        Consumed c;
        c.key.assign(static_cast<const char*>(m->key), m->key_len);
        c.value.assign(static_cast<const char*>(m->payload), m->len);
        rd_kafka_headers_t* headers = nullptr;
        if (rd_kafka_message_headers(m, &headers) == RD_KAFKA_RESP_ERR_NO_ERROR) {
          const char* name;
          const void* value;
          size_t size;
          for (size_t i = 0; !rd_kafka_header_get_all(headers, i, &name, &value, &size); ++i) {
            c.headers[name].assign(static_cast<const char*>(value), size);
          }
        }
        out[c.key].push_back(c);
        if (m->offset + 1 >= end[m->partition]) end.erase(m->partition);
      }
      rd_kafka_message_destroy(m);
    }
    rd_kafka_consumer_close(consumer);
    rd_kafka_destroy(consumer);
    return out;
  }

 private:
  rd_kafka_t* handle_ = nullptr;
  rd_kafka_mock_cluster_t* cluster_ = nullptr;
};

std::vector<std::string> Entries(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = ::opendir(dir.c_str())) {
    while (dirent* e = ::readdir(d)) {
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    }
    ::closedir(d);
  }
  return names;
}

// The store's records read straight from its files: BASE/DAY/NAME/index-NAME-PID-TYPE lines
// "%010d %010d\n" (offset, length) into NAME-PID-TYPE.
Streams StoreRecords(const std::string& base, std::string* day = nullptr) {
  Streams streams;
  for (const std::string& d : Entries(base)) {
    for (const std::string& name : Entries(base + "/" + d)) {
      for (const std::string& file : Entries(base + "/" + d + "/" + name)) {
        const std::string prefix = "index-" + name + "-";
        if (file.rfind(prefix, 0) != 0) continue;
        std::string pidType = file.substr(prefix.size());
        const std::string dir = base + "/" + d + "/" + name + "/";
        const std::string index = nuvtest::ReadFile(dir + file);
        const std::string content = nuvtest::ReadFile(dir + name + "-" + pidType);
        std::vector<std::string>& records = streams[name + ":" + pidType.replace(pidType.find('-'), 1, ":")];
        for (size_t at = 0; at + 22 <= index.size(); at += 22) {
          unsigned offset = 0, length = 0;
          std::sscanf(index.c_str() + at, "%10u %10u", &offset, &length);
          records.push_back(content.substr(offset, length));
        }
        if (day) *day = d;
      }
    }
  }
  return streams;
}

// Each record of `stored` arrives, in order; a record arrives twice only when the exporter
// resent its unconfirmed window, so a step back is never longer than the window.
void ExpectAtLeastOnceInOrder(const std::vector<Consumed>& got, const std::vector<std::string>& stored,
                              const std::string& key, size_t* duplicates) {
  size_t next = 0;
  for (const Consumed& c : got) {
    if (next < stored.size() && c.value == stored[next]) {
      ++next;
      continue;
    }
    size_t back = 1;
    while (back <= next && back <= kWindow && stored[next - back] != c.value) ++back;
    ASSERT_TRUE(back <= next && back <= kWindow)
        << key << ": a record out of order or not stored after record " << next << ": " << c.value;
    next = next - back + 1;
    ++*duplicates;
  }
  EXPECT_EQ(next, stored.size()) << key << ": records missing; got " << got.size();
}

// The sum of the numbers that follow `label` in `text`.
uint64_t SumOf(const std::string& text, const std::string& label) {
  uint64_t sum = 0;
  for (size_t at = text.find(label); at != std::string::npos; at = text.find(label, at + 1)) {
    sum += std::strtoull(text.c_str() + at + label.size(), nullptr, 10);
  }
  return sum;
}

std::string Point(int i) {
  return nuvtest::TimingPoint("/bin/agent" + std::to_string(i % 3) + ":" + std::to_string(i % 3),
                              R"("seq":)" + std::to_string(i));
}

class ExportKafka : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tree_.ok());
    ASSERT_NE(cluster_.get(), nullptr);
    // Long enough that refused requests and their retries under a sanitizer raise no alarm.
    ASSERT_TRUE(WriteConfig(60));
    setenv("NUV_COMM_DIR", tree_.Sub("comm").c_str(), 1);
    ASSERT_EQ(nuv_comm_init(), 0);
    ASSERT_TRUE(tree_.StartServing()) << tree_.DaemonErr();
  }
  void TearDown() override {
    StopExporter(SIGTERM);
    tree_.Stop();
    nuv_comm_uninit();
  }

  bool WriteConfig(int alarmSeconds) {
    return nuvtest::WriteFile(tree_.Sub("config/exportd.json"), R"({
      "poll_ms": 100, "window_records": )" + std::to_string(kWindow) + R"(, "commit_ms": 0,
      "alarm_after_seconds": )" + std::to_string(alarmSeconds) + R"(,
      "kafka": {"topic": "nuv-store", "brokers": ")" + cluster_.Bootstraps() + R"(",
        "properties": {"reconnect.backoff.max.ms": "200", "retry.backoff.ms": "50"}}})");
  }
  void PostPoints(int from, int to) {
    for (int i = from; i < to; ++i) ASSERT_EQ(nuvtest::PostOnBus("maintenance:POST", Point(i)), 0);
  }
  void StartExporter(const std::string& extraEnv = "NUV_TICK_SCALE=1") {
    exporter_ = nuvtest::Spawn({tree_.Sub("bin/nuv_exportd")},
                               {"NUV_LOG_FILE=" + tree_.Sub("export.log"), extraEnv}, "",
                               tree_.Sub("export.out"), tree_.Sub("export.err"));
    ASSERT_GT(exporter_, 0);
  }
  int StopExporter(int signal) {
    if (exporter_ <= 0) return -1;
    ::kill(exporter_, signal);
    const int code = nuvtest::WaitExit(exporter_);
    exporter_ = -1;
    return code;
  }
  // Waits until `nuvctl export status` exits with `code` and its output holds `text`.
  bool WaitForStatus(int code, const std::string& text, int seconds = 30) {
    for (int i = 0; i < seconds * 10; ++i) {
      last_ = tree_.Nuvctl({"export", "status"});
      if (last_.code == code && last_.out.find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }
  // Waits until the status shows `stored` records, all of them shipped.
  bool WaitForShipped(uint64_t stored) {
    for (int i = 0; i < 300; ++i) {
      last_ = tree_.Nuvctl({"export", "status", "--json"});
      if (last_.code == 0 && SumOf(last_.out, "\"stored\": ") == stored &&
          SumOf(last_.out, "\"lag_records\": ") == 0) {
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }
  // The consumed topic against the store's files; returns the duplicates seen.
  size_t ExpectTopicHoldsStore() {
    std::string day;
    const Streams stored = StoreRecords(tree_.Sub("data"), &day);
    const auto consumed = cluster_.ReadAll();
    EXPECT_EQ(consumed.size(), stored.size());
    size_t duplicates = 0;
    for (const auto& stream : stored) {
      auto got = consumed.find(stream.first);
      if (got == consumed.end()) {
        ADD_FAILURE() << stream.first << " not shipped";
        continue;
      }
      ExpectAtLeastOnceInOrder(got->second, stream.second, stream.first, &duplicates);
      const Consumed& first = got->second.front();
      EXPECT_EQ(first.headers.at("day"), day);
      EXPECT_EQ(first.headers.at("name") + ":" + first.headers.at("pid") + ":" +
                    first.headers.at("type"),
                stream.first);
    }
    return duplicates;
  }

  // Waits up to 30 s until the exporter's log holds `text`; the line holding it.
  std::string WaitForLog(const std::string& text) {
    for (int i = 0; i < 3000; ++i) {
      for (const std::string& line : nuvtest::ReadLines(tree_.Sub("export.log"))) {
        if (line.find(text) != std::string::npos) return line;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return "";
  }
  void SlowAcknowledgements(int ms) {
    for (int broker = 1; broker <= 3; ++broker) {
      rd_kafka_mock_broker_set_rtt(cluster_.get(), broker, ms);
    }
  }

  nuvtest::DaemonTree tree_{{"nuv_maintd", "nuvctl", "nuv_exportd"}};
  MockCluster cluster_;
  int exporter_ = -1;
  nuvtest::RunResult last_;
};

TEST_F(ExportKafka, KilledMidStreamResumesWithoutLossDespiteBrokerErrors) {
  PostPoints(0, 1500);
  // A fired monitor's record, stored as the type-100 stream of its process.
  ASSERT_EQ(nuvtest::PostOnBus("maintenance:reciver",
                 R"({"name":"watched","id":"m1","type":100,"pid":42,"context":"{\"cpu\":97}"})"),
            0);
  // Slow acknowledgements keep records in flight, and refused produce requests make the
  // producer retry.
  SlowAcknowledgements(50);
  rd_kafka_mock_push_request_errors(cluster_.get(), kProduceApi, 3,
                                    RD_KAFKA_RESP_ERR_NOT_LEADER_FOR_PARTITION,
                                    RD_KAFKA_RESP_ERR_REQUEST_TIMED_OUT,
                                    RD_KAFKA_RESP_ERR_NOT_ENOUGH_REPLICAS);
  StartExporter();
  // Killed once some records, not all, are confirmed.
  uint64_t shipped = 0;
  for (int i = 0; i < 3000 && (shipped == 0 || shipped >= 1501); ++i) {
    shipped = SumOf(nuvtest::ReadFile(tree_.Sub("export/cursor.json")), "\"shipped\": ");
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(StopExporter(SIGKILL), 128 + SIGKILL);
  ASSERT_GT(shipped, 0u);
  ASSERT_LT(shipped, 1501u);
  const nuvtest::RunResult killed = tree_.Nuvctl({"export", "status"});
  EXPECT_EQ(killed.code, 0) << killed.out << killed.err;

  SlowAcknowledgements(0);
  // A request refused for good fails its records back to the exporter. Refused only now, so
  // that the exporter that reports it is the one that lives to the end, not the killed one.
  rd_kafka_mock_push_request_errors(cluster_.get(), kProduceApi, 1,
                                    RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED);
  StartExporter();
  PostPoints(1500, 1800);  // while it catches up
  ASSERT_TRUE(WaitForShipped(1801)) << last_.out;
  EXPECT_EQ(StopExporter(SIGTERM), 0);

  const size_t duplicates = ExpectTopicHoldsStore();
  // One window per stream at most, for the kill and for the failed request.
  EXPECT_LE(duplicates, 2u * 4 * kWindow);
  const std::string log = nuvtest::ReadFile(tree_.Sub("export.log"));
  EXPECT_NE(log.find("was not delivered"), std::string::npos) << log;
}

TEST_F(ExportKafka, BrokersRefusingLongerThanTheLimitRaiseAnAlarmUntilTheyAccept) {
  ASSERT_TRUE(WriteConfig(2));
  StartExporter();
  // Every produce request is refused as if no replica were there, until the errors are cleared.
  const std::vector<rd_kafka_resp_err_t> refusals(100000, RD_KAFKA_RESP_ERR_NOT_ENOUGH_REPLICAS);
  rd_kafka_mock_push_request_errors_array(cluster_.get(), kProduceApi, refusals.size(),
                                          refusals.data());
  PostPoints(0, 30);
  ASSERT_TRUE(WaitForStatus(1, "ALARM: nothing confirmed for more than 2 s")) << last_.out;
  EXPECT_NE(nuvtest::ReadFile(tree_.Sub("export.log")).find("[ERROR]"), std::string::npos);

  rd_kafka_mock_clear_request_errors(cluster_.get(), kProduceApi);
  ASSERT_TRUE(WaitForShipped(30)) << last_.out;
  EXPECT_EQ(StopExporter(SIGTERM), 0);
  EXPECT_EQ(ExpectTopicHoldsStore(), 0u);
}

// More than 10 000 records waiting get a progress line every 5 s (50 ms here: the ticks run
// 100 times faster) while slow acknowledgements hold the exporter back.
TEST_F(ExportKafka, LargeBacklogLogsProgressWhileCatchingUp) {
  // Written straight into the store, as the daemon lays out a stream: 12 000 posts would take
  // the test's time for nothing.
  char day[16];
  const std::time_t now = std::time(nullptr);
  std::strftime(day, sizeof day, "%Y%m%d", std::localtime(&now));
  const std::string dir = tree_.Sub("data/") + day + "/bulk";
  ::mkdir(tree_.Sub("data").c_str(), 0750);
  ::mkdir(tree_.Sub("data/" + std::string(day)).c_str(), 0750);
  ASSERT_EQ(::mkdir(dir.c_str(), 0750), 0);
  std::string index;
  std::string content;
  for (int i = 0; i < 12000; ++i) {
    const std::string record = Point(i);
    char line[32];
    std::snprintf(line, sizeof line, "%010zu %010zu\n", content.size(), record.size());
    index += line;
    content += record;
  }
  ASSERT_TRUE(nuvtest::WriteFile(dir + "/bulk-9-256", content));
  ASSERT_TRUE(nuvtest::WriteFile(dir + "/index-bulk-9-256", index));

  SlowAcknowledgements(20);
  StartExporter("NUV_TICK_SCALE=100");
  const std::string line = WaitForLog("catching up: ");
  ASSERT_NE(line, "") << nuvtest::ReadFile(tree_.Sub("export.log"));
  EXPECT_EQ(StopExporter(SIGTERM), 0);
  unsigned long long waiting = 0;
  unsigned long long confirmed = 0;
  ASSERT_EQ(std::sscanf(line.c_str() + line.find("catching up: "),
                        "catching up: %llu records to ship, %llu confirmed in the last 5 s",
                        &waiting, &confirmed),
            2)
      << line;
  EXPECT_GE(waiting, 10000u) << line;
  EXPECT_LE(waiting + confirmed, 12000u) << line;
}

}  // namespace
