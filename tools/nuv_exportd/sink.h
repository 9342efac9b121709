// Where nuv_exportd ships records. A sink takes records one by one, each with a slot number,
// and later reports every slot as confirmed or failed through the callback, from Poll or
// Drain on the caller's thread. A record is confirmed only once it is durable at the other
// end: acknowledged by every in-sync replica for Kafka, flushed (and synced) for NDJSON.
#ifndef NUV_TOOLS_EXPORTD_SINK_H
#define NUV_TOOLS_EXPORTD_SINK_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "export_config.h"
#include "export_state.h"
#include "store_view.h"

namespace nuvexport {

using ConfirmFn = std::function<void(uint32_t slot, bool ok, const std::string& error)>;

enum class SendResult {
  kTaken,    // the slot will be confirmed or failed later
  kFull,     // nothing more now: poll first
  kRefused,  // this record was refused; `why` says why
};

class Sink {
 public:
  virtual ~Sink() = default;
  virtual SendResult Send(const StreamId& id, const Record& record, uint32_t slot,
                          std::string& why) = 0;
  // Serves confirmations, waiting up to `timeoutMs` for one.
  virtual void Poll(int timeoutMs) = 0;
  // Waits up to `timeoutMs` for every record sent to be confirmed or failed.
  virtual void Drain(int timeoutMs) = 0;
  // True, with the reason, once the sink can take nothing any more and must be replaced.
  virtual bool Broken(std::string& why) = 0;
};

// The sink the configuration names; null, with `error`, when it cannot be made.
std::unique_ptr<Sink> MakeSink(const ExportConfig& config, ConfirmFn confirm, std::string& error);
std::unique_ptr<Sink> MakeKafkaSink(const ExportConfig& config, ConfirmFn confirm,
                                    std::string& error);
std::unique_ptr<Sink> MakeNdjsonSink(const ExportConfig& config, ConfirmFn confirm,
                                     std::string& error);

}  // namespace nuvexport

#endif
