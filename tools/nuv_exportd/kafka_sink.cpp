// Kafka through librdkafka: an idempotent producer with acks=all, so a record is confirmed
// only when every in-sync replica has it, and retries neither reorder nor duplicate it.
#include <librdkafka/rdkafka.h>

#include <cstring>
#include <map>

#include "common/log.h"
#include "sink.h"

namespace nuvexport {
namespace {

struct ProducerFree {
  void operator()(rd_kafka_t* rk) const { rd_kafka_destroy(rk); }
};
struct ConfFree {
  void operator()(rd_kafka_conf_t* conf) const { rd_kafka_conf_destroy(conf); }
};

// Set whatever the configuration says: the delivery guarantee rests on them.
const std::pair<const char*, const char*> kForced[] = {
    {"enable.idempotence", "true"},
    {"acks", "all"},
};
// Defaults the configuration may change. A record waits for the broker as long as it takes:
// an at-least-once exporter has nowhere else to put it.
const std::pair<const char*, const char*> kDefaults[] = {
    {"message.timeout.ms", "0"},
    {"linger.ms", "5"},
    {"client.id", "nuv_exportd"},
};

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
    return true;
  }

  ~KafkaSink() override {
    // What is still queued is reported as failed: the caller ships it again next time.
    if (producer_ == nullptr) return;
    rd_kafka_purge(producer_.get(), RD_KAFKA_PURGE_F_QUEUE | RD_KAFKA_PURGE_F_INFLIGHT);
    rd_kafka_poll(producer_.get(), 0);
  }

  bool Send(const StreamId& id, const Record& record, uint32_t slot) override {
    auto topic = config_.topicByType.find(id.type);
    const std::string& name = topic == config_.topicByType.end() ? config_.topic : topic->second;
    const std::string key = id.Key();
    const std::string pid = std::to_string(id.pid);
    const std::string type = std::to_string(id.type);
    rd_kafka_headers_t* headers = rd_kafka_headers_new(4);
    rd_kafka_header_add(headers, "day", -1, id.day.data(), static_cast<ssize_t>(id.day.size()));
    rd_kafka_header_add(headers, "name", -1, id.name.data(), static_cast<ssize_t>(id.name.size()));
    rd_kafka_header_add(headers, "pid", -1, pid.data(), static_cast<ssize_t>(pid.size()));
    rd_kafka_header_add(headers, "type", -1, type.data(), static_cast<ssize_t>(type.size()));
    const rd_kafka_resp_err_t err = rd_kafka_producev(
        producer_.get(), RD_KAFKA_V_TOPIC(name.c_str()), RD_KAFKA_V_MSGFLAGS(RD_KAFKA_MSG_F_COPY),
        RD_KAFKA_V_KEY(key.data(), key.size()),
        RD_KAFKA_V_VALUE(const_cast<char*>(record.bytes.data()), record.bytes.size()),
        RD_KAFKA_V_HEADERS(headers),
        RD_KAFKA_V_OPAQUE(reinterpret_cast<void*>(static_cast<uintptr_t>(slot))), RD_KAFKA_V_END);
    if (err == RD_KAFKA_RESP_ERR_NO_ERROR) return true;
    rd_kafka_headers_destroy(headers);
    if (err != RD_KAFKA_RESP_ERR__QUEUE_FULL) {
      ZLOG_ERROR("[exportd] kafka refused a record of %s: %s", id.Describe().c_str(),
                 rd_kafka_err2str(err));
    }
    return false;
  }

  void Poll(int timeoutMs) override { rd_kafka_poll(producer_.get(), timeoutMs); }

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
  int lastError_ = 0;
};

}  // namespace

std::unique_ptr<Sink> MakeKafkaSink(const ExportConfig& config, ConfirmFn confirm,
                                    std::string& error) {
  auto sink = std::make_unique<KafkaSink>(config, std::move(confirm));
  if (!sink->Init(error)) return nullptr;
  return sink;
}

}  // namespace nuvexport
