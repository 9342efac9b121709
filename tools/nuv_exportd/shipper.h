// The exporter's loop: follows the store, ships each stream's records in order through the
// sink, moves each stream's cursor only over records the sink confirmed, and writes the
// cursor atomically. What it holds in memory is bounded by the window (records and bytes read
// but not confirmed) and by the number of streams, never by the backlog.
#ifndef NUV_TOOLS_EXPORTD_SHIPPER_H
#define NUV_TOOLS_EXPORTD_SHIPPER_H

#include <csignal>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "archive.h"
#include "export_config.h"
#include "export_state.h"
#include "sink.h"
#include "state_writer.h"
#include "store_view.h"

namespace nuvexport {

class Shipper {
 public:
  Shipper(const ExportConfig& config, const StoreLayout& layout);
  ~Shipper();
  Shipper(const Shipper&) = delete;
  Shipper& operator=(const Shipper&) = delete;

  // Reads the cursor and opens the sink. False, with `error`, when either fails.
  bool Start(std::string& error);
  // Ships until *stop is set, or with `once` until everything stored is confirmed.
  // 0 on a clean stop, 1 when the state could not be kept.
  int Run(const volatile std::sig_atomic_t* stop, bool once);

 private:
  struct Stream {
    StoredStream files;
    Cursor* cursor = nullptr;  // in state_, which outlives this
    uint64_t sent = 0;         // lines handed to the sink
    uint32_t inflight = 0;
    std::set<uint64_t> confirmedAhead;  // confirmed past a gap left by an earlier record
    bool failed = false;       // a record failed: resend from the cursor once all are back
    bool blocked = false;      // a torn or unreadable tail: wait for the next look
    bool fromArchive = false;
    bool seen = false;
    int64_t retryAt = 0;       // steady ms
  };
  struct Slot {
    Stream* stream = nullptr;
    uint64_t line = 0;
    uint32_t bytes = 0;
  };

  void Tick();
  void Scan();
  void Track(const StoredStream& files, bool fromArchive);
  void OpenNextArchive();
  void FinishArchive();
  bool Feed();
  void OnConfirm(uint32_t slot, bool ok, const std::string& error);
  void Fail(Stream& stream, uint64_t line, const std::string& why);
  void Rewind(Stream& stream);
  bool Outstanding() const;
  void CheckHealth();
  bool Commit(bool force);
  void Progress();
  bool ReplaceBrokenSink();
  uint64_t Backlog() const;

  const ExportConfig& config_;
  const StoreLayout& layout_;
  std::string statePath_;
  ExportState state_;
  std::unique_ptr<StateWriter> writer_;
  std::unique_ptr<Sink> sink_;
  std::map<StreamId, Stream> streams_;
  std::vector<Slot> slots_;
  std::vector<uint32_t> freeSlots_;
  uint64_t inflightBytes_ = 0;
  RecordBatch batch_;  // reused, so reading allocates once
  std::vector<std::map<StreamId, Stream>::iterator> order_;
  std::unique_ptr<UnpackedArchive> archive_;
  bool archivePending_ = false;  // an archive waits to be opened
  StreamId feedFrom_;            // round robin over streams
  bool dirty_ = false;
  int64_t lastCommitMs_ = 0;
  int64_t lastAlarmLogMs_ = 0;
  uint64_t confirmedTotal_ = 0;
  uint64_t progressConfirmed_ = 0;
  int64_t lastProgressMs_ = 0;
  bool stateBroken_ = false;
  int64_t steadyNow_ = 0;  // ms, for intervals
  int64_t wallNow_ = 0;    // s, the library's clock, for what the state file records
};

}  // namespace nuvexport

#endif
