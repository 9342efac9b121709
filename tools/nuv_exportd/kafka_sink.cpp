// Kafka through librdkafka: an idempotent producer with acks=all, so a record is confirmed
// only when every in-sync replica has it, and retries neither reorder nor duplicate it.
#include <librdkafka/rdkafka.h>

#include <chrono>
#include <cstring>
#include <map>

#include "common/log.h"
#include "sink.h"

namespace nuvexport {
namespace {

struct ProducerFree {
  void operator()(rd_kafka_t* rk) const { rd_kafka_destroy(rk); }
};
struct TopicFree {
  void operator()(rd_kafka_topic_t* rkt) const { rd_kafka_topic_destroy(rkt); }
};
using TopicPtr = std::unique_ptr<rd_kafka_topic_t, TopicFree>;
struct ConfFree {
  void operator()(rd_kafka_conf_t* conf) const { rd_kafka_conf_destroy(conf); }
};

// Set whatever the configuration says: the delivery guarantee rests on them.
const std::pair<const char*, const char*> kForced[] = {
    {"enable.idempotence", "true"},
    {"acks", "all"},
};
// Defaults the configuration may change. A record waits for the broker as long as it takes:
// an at-least-once exporter has nowhere else to put it. The window, spread over partitions,
// rarely fills a batch, so a longer linger only leaves the producer waiting for deliveries.
const std::pair<const char*, const char*> kDefaults[] = {
    {"message.timeout.ms", "0"},
    {"linger.ms", "1"},
    {"client.id", "nuv_exportd"},
};

int64_t WallMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// How long the start waits for a topic's partitions; a broker that is away costs no more.
constexpr int kMetadataWaitMs = 2000;

class KafkaSink : public Sink {
 public:
  KafkaSink(const ExportConfig& config, ConfirmFn confirm)
      : config_(config), confirm_(std::move(confirm)) {}

  bool Init(std::string& error) {
    std::unique_ptr<rd_kafka_conf_t, ConfFree> conf(rd_kafka_conf_new());
    char reason[512];
    std::map<std::string, std::string> given(config_.properties.begin(), config_.properties.end());
    for (const auto& forced : kForced) {
      auto it = given.find(forced.first);
      if (it != given.end() && it->second != forced.second) {
        ZLOG_WARN("[exportd] kafka property %s=%s ignored: %s is required", forced.first,
                  it->second.c_str(), forced.second);
      }
      given[forced.first] = forced.second;
    }
    for (const auto& fallback : kDefaults) given.emplace(fallback.first, fallback.second);
    for (const auto& property : given) {
      if (rd_kafka_conf_set(conf.get(), property.first.c_str(), property.second.c_str(), reason,
                            sizeof reason) != RD_KAFKA_CONF_OK) {
        error = "kafka property " + property.first + ": " + reason;
        return false;
      }
    }
    rd_kafka_conf_set_opaque(conf.get(), this);
    rd_kafka_conf_set_dr_msg_cb(conf.get(), &KafkaSink::OnDelivery);
    rd_kafka_conf_set_error_cb(conf.get(), &KafkaSink::OnError);
    rd_kafka_t* rk = rd_kafka_new(RD_KAFKA_PRODUCER, conf.get(), reason, sizeof reason);
    if (rk == nullptr) {
      error = std::string("cannot create the kafka producer: ") + reason;
      return false;
    }
    conf.release();  // rd_kafka_new owns it now
    producer_.reset(rk);
    // Topics are looked up now: learnt on the first record, their partitions would come only
    // with the next periodic metadata refresh, a second later.
    topic_.reset(Topic(config_.topic));
    bool named = topic_ != nullptr;
    for (const auto& byType : config_.topicByType) {
      topicByType_[byType.first].reset(Topic(byType.second));
      named = named && topicByType_[byType.first] != nullptr;
    }
    if (!named) error = std::string("a topic name was refused: ") + rd_kafka_err2str(rd_kafka_last_error());
    return named;
  }

  ~KafkaSink() override {
    // What is still queued is reported as failed: the caller ships it again next time.
    if (producer_ == nullptr) return;
    rd_kafka_purge(producer_.get(), RD_KAFKA_PURGE_F_QUEUE | RD_KAFKA_PURGE_F_INFLIGHT);
    rd_kafka_poll(producer_.get(), 0);
  }

  SendResult Send(const StreamId& id, const Record& record, uint32_t slot,
                  std::string& why) override {
    auto byType = topicByType_.find(id.type);
    rd_kafka_topic_t* topic = byType == topicByType_.end() ? topic_.get() : byType->second.get();
    if (!(tagged_ == id)) {
      tagged_ = id;
      key_ = id.Key();
      pid_ = std::to_string(id.pid);
      type_ = std::to_string(id.type);
    }
    const std::string& key = key_;
    const std::string& pid = pid_;
    const std::string& type = type_;
    rd_kafka_headers_t* headers = rd_kafka_headers_new(4);
    rd_kafka_header_add(headers, "day", -1, id.day.data(), static_cast<ssize_t>(id.day.size()));
    rd_kafka_header_add(headers, "name", -1, id.name.data(), static_cast<ssize_t>(id.name.size()));
    rd_kafka_header_add(headers, "pid", -1, pid.data(), static_cast<ssize_t>(pid.size()));
    rd_kafka_header_add(headers, "type", -1, type.data(), static_cast<ssize_t>(type.size()));
    const rd_kafka_resp_err_t err = rd_kafka_producev(
        producer_.get(), RD_KAFKA_V_RKT(topic), RD_KAFKA_V_MSGFLAGS(RD_KAFKA_MSG_F_COPY),
        RD_KAFKA_V_KEY(key.data(), key.size()),
        RD_KAFKA_V_VALUE(const_cast<char*>(record.data), record.size),
        RD_KAFKA_V_HEADERS(headers), RD_KAFKA_V_TIMESTAMP(createdMs_),
        RD_KAFKA_V_OPAQUE(reinterpret_cast<void*>(static_cast<uintptr_t>(slot))), RD_KAFKA_V_END);
    if (err == RD_KAFKA_RESP_ERR_NO_ERROR) return SendResult::kTaken;
    rd_kafka_headers_destroy(headers);
    if (err == RD_KAFKA_RESP_ERR__QUEUE_FULL) return SendResult::kFull;
    why = rd_kafka_err2str(err);
    return SendResult::kRefused;
  }

  void Poll(int timeoutMs) override {
    rd_kafka_poll(producer_.get(), timeoutMs);
    createdMs_ = WallMs();
  }

  void Drain(int timeoutMs) override { rd_kafka_flush(producer_.get(), timeoutMs); }

  bool Broken(std::string& why) override {
    char reason[512];
    if (rd_kafka_fatal_error(producer_.get(), reason, sizeof reason) ==
        RD_KAFKA_RESP_ERR_NO_ERROR) {
      return false;
    }
    why = reason;
    return true;
  }

 private:
  rd_kafka_topic_t* Topic(const std::string& name) {
    rd_kafka_topic_t* topic = rd_kafka_topic_new(producer_.get(), name.c_str(), nullptr);
    const struct rd_kafka_metadata* metadata = nullptr;
    if (topic != nullptr &&
        rd_kafka_metadata(producer_.get(), 0, topic, &metadata, kMetadataWaitMs) ==
            RD_KAFKA_RESP_ERR_NO_ERROR) {
      rd_kafka_metadata_destroy(metadata);
    }
    return topic;
  }

  static void OnDelivery(rd_kafka_t*, const rd_kafka_message_t* message, void* opaque) {
    auto* self = static_cast<KafkaSink*>(opaque);
    const auto slot = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(message->_private));
    if (message->err == RD_KAFKA_RESP_ERR_NO_ERROR) self->lastError_ = 0;
    self->confirm_(slot, message->err == RD_KAFKA_RESP_ERR_NO_ERROR,
                   message->err == RD_KAFKA_RESP_ERR_NO_ERROR ? std::string()
                                                              : rd_kafka_err2str(message->err));
  }

  static void OnError(rd_kafka_t*, int err, const char* reason, void* opaque) {
    auto* self = static_cast<KafkaSink*>(opaque);
    // Transport errors repeat while a broker is away; the first of a run is enough.
    if (err == self->lastError_) return;
    self->lastError_ = err;
    ZLOG_WARN("[exportd] kafka: %s", reason);
  }

  const ExportConfig& config_;
  ConfirmFn confirm_;
  std::unique_ptr<rd_kafka_t, ProducerFree> producer_;
  TopicPtr topic_;
  // The key and header texts of the stream sent last: records come in runs per stream.
  StreamId tagged_;
  std::string key_;
  std::string pid_;
  std::string type_;
  std::map<unsigned int, TopicPtr> topicByType_;
  int lastError_ = 0;
  // The records' create time, read once per poll: read per record, the clock took 2% of the
  // exporter's CPU.
  int64_t createdMs_ = WallMs();
};

}  // namespace

std::unique_ptr<Sink> MakeKafkaSink(const ExportConfig& config, ConfirmFn confirm,
                                    std::string& error) {
  auto sink = std::make_unique<KafkaSink>(config, std::move(confirm));
  if (!sink->Init(error)) return nullptr;
  return sink;
}

}  // namespace nuvexport
