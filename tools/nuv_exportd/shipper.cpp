#include "shipper.h"

#include <unistd.h>

#include <filesystem>

#include "common/log.h"
#include "file/fileclassify.h"
#include "nuv_time.h"

namespace nuvexport {
namespace {

constexpr size_t kBatchRecords = 1024;     // records read from one stream at a time
constexpr int64_t kRetryMs = 1000;         // before a stream whose record failed is resent
constexpr int64_t kAlarmRepeatMs = 60000;  // an alarm is said again this often
constexpr int64_t kProgressMs = 5000;
constexpr uint64_t kProgressBacklog = 10000;  // a backlog this large gets progress lines
constexpr int64_t kHeartbeatMs = 5000;     // the state is rewritten at least this often
constexpr int kIdleWaitMs = 50;

// The platform's tick count, so NUV_TICK_SCALE shortens the intervals in tests.
int64_t SteadyMs() { return static_cast<int64_t>(nuv_time_get_tick_cout()); }

unsigned long long U(uint64_t value) { return static_cast<unsigned long long>(value); }

}  // namespace

Shipper::Shipper(const ExportConfig& config, const StoreLayout& layout)
    : config_(config), layout_(layout), statePath_(StatePath(config)) {}

// The sink goes first: its last confirmations still reach the streams.
Shipper::~Shipper() { sink_.reset(); }

bool Shipper::Start(std::string& error) {
  std::error_code failed;
  std::filesystem::create_directories(config_.stateDir, failed);
  if (failed) {
    error = "cannot make the state directory " + config_.stateDir + ": " + failed.message();
    return false;
  }
  if (!LoadState(statePath_, state_, error)) return false;
  UnpackedArchive::RemoveLeftovers(config_.stateDir);
  writer_ = std::make_unique<StateWriter>(statePath_);
  state_.pid = static_cast<long>(::getpid());
  state_.alarm.clear();
  slots_.assign(config_.windowRecords, Slot());
  for (uint32_t slot = config_.windowRecords; slot > 0; --slot) freeSlots_.push_back(slot - 1);
  sink_ = MakeSink(
      config_, [this](uint32_t slot, bool ok, const std::string& why) { OnConfirm(slot, ok, why); },
      error);
  return sink_ != nullptr;
}

int Shipper::Run(const volatile std::sig_atomic_t* stop, bool once) {
  int64_t lastScan = 0;
  bool first = true;
  bool idle = false;  // the last turn sent nothing and nothing is in flight
  while (*stop == 0 && !stateBroken_) {
    Tick();
    // Run once, an idle turn looks again at once: whether there is more, or it is done.
    const bool scan = first || steadyNow_ - lastScan >= config_.pollMs || (once && idle);
    if (scan) {
      Scan();
      lastScan = steadyNow_;
      first = false;
    }
    const bool fed = Feed();
    // Run once, a look that found nothing to send and nothing outstanding ends the run: no
    // confirmation can come, so it does not wait for one.
    const bool done =
        once && scan && !fed && !Outstanding() && archive_ == nullptr && !archivePending_;
    sink_->Poll(fed || done ? 0 : kIdleWaitMs);
    Tick();
    if (!ReplaceBrokenSink()) return 1;
    CheckHealth();
    Progress();
    Commit(false);
    idle = !fed && freeSlots_.size() == slots_.size();
    if (done && state_.unconfirmedSince == 0) break;
  }
  sink_->Drain(5000);
  Tick();
  return Commit(true) && !stateBroken_ ? 0 : 1;
}

// The clocks are read once per turn of the loop: per record they cost more than the rest.
void Shipper::Tick() {
  steadyNow_ = SteadyMs();
  wallNow_ = nuv_time();
}

void Shipper::Scan() {
  for (auto& entry : streams_) entry.second.seen = false;
  for (const std::string& base : layout_.bases) {
    for (const StoredStream& files : ListStreams(base)) Track(files, false);
  }
  if (archive_ != nullptr) {
    for (const StoredStream& files : ListStreams(archive_->Root())) Track(files, true);
  }
  for (auto it = streams_.begin(); it != streams_.end();) {
    it = !it->second.seen && it->second.inflight == 0 ? streams_.erase(it) : std::next(it);
  }
  if (archive_ != nullptr) {
    bool done = true;
    for (const auto& entry : streams_) {
      const Stream& s = entry.second;
      if (s.fromArchive && (s.inflight != 0 || s.failed ||
                            (s.cursor->shipped < s.cursor->stored && !s.blocked))) {
        done = false;
      }
    }
    if (done) FinishArchive();
  }
  if (archive_ == nullptr) OpenNextArchive();

  // Archives and cursors of days that are gone from the store are forgotten.
  std::set<std::string> days;
  for (auto it = state_.archivesDone.begin(); it != state_.archivesDone.end();) {
    const bool gone = !std::filesystem::exists(*it);
    if (!gone) days.insert(CFileClassify::GetCompressFileTime(*it, ".tgz"));
    it = gone ? state_.archivesDone.erase(it) : std::next(it);
    dirty_ = dirty_ || gone;
  }
  for (const std::string& base : layout_.bases) {
    for (const DayArchive& archive : ListArchives(base)) days.insert(archive.day);
    std::error_code failed;
    for (std::filesystem::directory_iterator it(base, failed), end; !failed && it != end;
         it.increment(failed)) {
      days.insert(it->path().filename().string());
    }
  }
  for (auto it = state_.streams.begin(); it != state_.streams.end();) {
    const bool gone = days.count(it->first.day) == 0 && streams_.count(it->first) == 0;
    if (gone && it->second.shipped < it->second.stored) {
      ZLOG_ERROR("[exportd] %s was deleted from the store with %llu records not shipped",
                 it->first.Describe().c_str(), U(it->second.stored - it->second.shipped));
    }
    it = gone ? state_.streams.erase(it) : std::next(it);
    dirty_ = dirty_ || gone;
  }
}

void Shipper::Track(const StoredStream& files, bool fromArchive) {
  auto inserted = streams_.try_emplace(files.id);
  Stream& s = inserted.first->second;
  if (inserted.second) {
    s.cursor = &state_.streams[files.id];
    s.sent = s.cursor->shipped;
  }
  Cursor& c = *s.cursor;
  s.files = files;
  s.seen = true;
  s.fromArchive = fromArchive;
  const uint64_t stored = WholeLines(files.indexPath);
  // An archive's files never change, so what blocked a stream of it stays.
  if (!fromArchive) {
    s.blocked = false;
    const FileIdentity file = IdentityOf(files.indexPath);
    const bool replaced = (c.inode != 0 && file.inode != c.inode) ||
                          (c.bornNs != 0 && file.bornNs != 0 && file.bornNs != c.bornNs);
    if (replaced || stored < c.shipped) {
      // The daemon started the stream again: at its size limit, or after its files were
      // deleted or cut by hand.
      if (s.inflight != 0) {
        s.blocked = true;
        return;
      }
      if (c.stored > c.shipped) {
        ZLOG_ERROR("[exportd] %s started again: %llu records were deleted "
                   "before they were shipped",
                   files.id.Describe().c_str(), U(c.stored - c.shipped));
      }
      ZLOG_WARN("[exportd] %s started again; shipping it from its first record",
                files.id.Describe().c_str());
      c.shipped = 0;
      s.sent = 0;
      s.confirmedAhead.clear();
      dirty_ = true;
    }
    if (c.inode != file.inode || c.bornNs != file.bornNs) dirty_ = true;
    c.inode = file.inode;
    c.bornNs = file.bornNs;
  }
  if (c.stored != stored) {
    c.stored = stored;
    dirty_ = true;
  }
  if (c.shipped >= c.stored) c.caughtUpAt = wallNow_;
}

void Shipper::OpenNextArchive() {
  archivePending_ = false;
  for (const std::string& base : layout_.bases) {
    for (const DayArchive& archive : ListArchives(base)) {
      // A day directory beside its archive is still being packed; it is shipped from there.
      if (state_.archivesDone.count(archive.path) != 0 ||
          std::filesystem::exists(base + "/" + archive.day)) {
        continue;
      }
      if (archive_ != nullptr) {
        archivePending_ = true;
        return;
      }
      auto unpacked = std::make_unique<UnpackedArchive>();
      std::string error;
      if (!unpacked->Unpack(archive.path, archive.day, config_.stateDir, error)) {
        ZLOG_ERROR("[exportd] cannot unpack %s: %s", archive.path.c_str(), error.c_str());
        continue;
      }
      archive_ = std::move(unpacked);
      for (const StoredStream& files : ListStreams(archive_->Root())) Track(files, true);
      ZLOG_INFO("[exportd] day %s was packed; shipping what is left of it from %s",
                archive.day.c_str(), archive.path.c_str());
    }
  }
}

void Shipper::FinishArchive() {
  for (auto it = streams_.begin(); it != streams_.end();) {
    const Stream& s = it->second;
    if (s.fromArchive && s.cursor->shipped < s.cursor->stored) {
      ZLOG_ERROR("[exportd] %s: %llu records of %s are torn and cannot be shipped",
                 it->first.Describe().c_str(), U(s.cursor->stored - s.cursor->shipped),
                 archive_->Archive().c_str());
    }
    it = s.fromArchive ? streams_.erase(it) : std::next(it);
  }
  ZLOG_INFO("[exportd] %s shipped", archive_->Archive().c_str());
  state_.archivesDone.insert(archive_->Archive());
  dirty_ = true;
  archive_.reset();
}

bool Shipper::Feed() {
  if (streams_.empty()) return false;
  // Round robin: start after the stream fed last, so one large backlog does not starve others.
  std::vector<std::map<StreamId, Stream>::iterator>& order = order_;
  order.clear();
  for (auto it = streams_.upper_bound(feedFrom_); it != streams_.end(); ++it) order.push_back(it);
  for (auto it = streams_.begin(); it != streams_.end() && order.size() < streams_.size(); ++it) {
    order.push_back(it);
  }
  bool fed = false;
  const int64_t now = steadyNow_;
  for (auto it : order) {
    if (freeSlots_.empty() || inflightBytes_ >= config_.windowBytes) break;
    Stream& s = it->second;
    if (s.failed || s.blocked || now < s.retryAt || s.sent >= s.cursor->stored) continue;
    const size_t room = std::min(freeSlots_.size(), kBatchRecords);
    if (!ReadRecords(s.files, s.sent + 1, room, config_.windowBytes - inflightBytes_, batch_) ||
        batch_.records.empty()) {
      s.blocked = true;  // a torn tail, or files that went away: look again at the next scan
      continue;
    }
    for (const Record& record : batch_.records) {
      const uint32_t slot = freeSlots_.back();
      slots_[slot] = Slot{&s, record.line, record.size};
      std::string why;
      const SendResult sent = sink_->Send(it->first, record, slot, why);
      if (sent == SendResult::kFull) return fed;  // poll first
      if (sent == SendResult::kRefused) {
        Fail(s, record.line, why);
        break;
      }
      freeSlots_.pop_back();
      s.sent = record.line;
      ++s.inflight;
      inflightBytes_ += record.size;
      fed = true;
    }
    feedFrom_ = it->first;
  }
  return fed;
}

void Shipper::OnConfirm(uint32_t slot, bool ok, const std::string& error) {
  const Slot confirmed = slots_[slot];
  freeSlots_.push_back(slot);
  inflightBytes_ -= confirmed.bytes;
  Stream& s = *confirmed.stream;
  --s.inflight;
  Cursor& c = *s.cursor;
  if (ok) {
    ++confirmedTotal_;
    state_.unconfirmedSince = wallNow_;
    if (confirmed.line == c.shipped + 1) {
      ++c.shipped;
      while (s.confirmedAhead.erase(c.shipped + 1) != 0) ++c.shipped;
      dirty_ = true;
    } else if (confirmed.line > c.shipped) {
      s.confirmedAhead.insert(confirmed.line);
    }
    if (c.shipped >= c.stored) c.caughtUpAt = wallNow_;
  } else {
    Fail(s, confirmed.line, error);
  }
  if (s.failed && s.inflight == 0) Rewind(s);
}

// The stream is sent again from its cursor once every record in flight is back.
void Shipper::Fail(Stream& s, uint64_t line, const std::string& why) {
  if (!s.failed) {
    ZLOG_ERROR("[exportd] %s: record %llu was not delivered (%s); it is shipped again from "
               "record %llu",
               s.files.id.Describe().c_str(), U(line), why.c_str(), U(s.cursor->shipped + 1));
  }
  s.failed = true;
  if (s.inflight == 0) Rewind(s);
}

void Shipper::Rewind(Stream& s) {
  s.sent = s.cursor->shipped;
  s.confirmedAhead.clear();
  s.failed = false;
  s.retryAt = steadyNow_ + kRetryMs;
}

// Records in flight, or a stream waiting to send failed records again.
bool Shipper::Outstanding() const {
  if (freeSlots_.size() != slots_.size()) return true;
  for (const auto& entry : streams_) {
    if (entry.second.retryAt > steadyNow_) return true;
  }
  return false;
}

void Shipper::CheckHealth() {
  const int64_t now = wallNow_;
  const bool waiting = Outstanding();
  if (!waiting) {
    dirty_ = dirty_ || state_.unconfirmedSince != 0;
    state_.unconfirmedSince = 0;
  } else if (state_.unconfirmedSince == 0) {
    state_.unconfirmedSince = now;
  }
  const bool keep = config_.alarmAfterSeconds <= 0;
  const int64_t limit = keep ? layout_.keepSeconds : config_.alarmAfterSeconds;
  if (waiting && now - state_.unconfirmedSince >= limit) {
    const std::string alarm =
        "nothing confirmed for more than " + std::to_string(limit) + " s (" +
        (keep ? "the store's keep period" : "alarm_after_seconds") +
        "): the store may delete records before they are shipped";
    if (state_.alarm != alarm || steadyNow_ - lastAlarmLogMs_ >= kAlarmRepeatMs) {
      ZLOG_ERROR("[exportd] %s", alarm.c_str());
      lastAlarmLogMs_ = steadyNow_;
    }
    dirty_ = dirty_ || state_.alarm != alarm;
    state_.alarm = alarm;
  } else if (!state_.alarm.empty() && !waiting) {
    ZLOG_INFO("[exportd] records are confirmed again");
    state_.alarm.clear();
    dirty_ = true;
  }
}

bool Shipper::Commit(bool force) {
  std::string error;
  if (!writer_->Healthy(error)) {
    ZLOG_ERROR("[exportd] %s; stopping, the cursor cannot be kept", error.c_str());
    stateBroken_ = true;
    return false;
  }
  const bool due = dirty_ && steadyNow_ - lastCommitMs_ >= config_.commitMs;
  if (force || due || steadyNow_ - lastCommitMs_ >= kHeartbeatMs) {
    state_.updatedAt = wallNow_;
    writer_->Submit(state_);
    dirty_ = false;
    lastCommitMs_ = steadyNow_;
  }
  if (force && !writer_->Flush(error)) {
    ZLOG_ERROR("[exportd] %s; the cursor is behind what was shipped", error.c_str());
    stateBroken_ = true;
    return false;
  }
  return true;
}

uint64_t Shipper::Backlog() const {
  uint64_t backlog = 0;
  for (const auto& entry : streams_) {
    const Cursor& c = *entry.second.cursor;
    if (c.stored > c.shipped) backlog += c.stored - c.shipped;
  }
  return backlog;
}

void Shipper::Progress() {
  const int64_t now = steadyNow_;
  if (now - lastProgressMs_ < kProgressMs) return;
  const uint64_t backlog = Backlog();
  if (backlog >= kProgressBacklog && lastProgressMs_ != 0) {
    const uint64_t confirmed = confirmedTotal_ - progressConfirmed_;
    ZLOG_INFO("[exportd] catching up: %llu records to ship, %llu confirmed in the last %lld s "
              "(%llu/s)",
              U(backlog), U(confirmed), static_cast<long long>((now - lastProgressMs_) / 1000),
              U(confirmed * 1000 / static_cast<uint64_t>(now - lastProgressMs_)));
  }
  lastProgressMs_ = now;
  progressConfirmed_ = confirmedTotal_;
}

bool Shipper::ReplaceBrokenSink() {
  std::string why;
  if (!sink_->Broken(why)) return true;
  ZLOG_ERROR("[exportd] the sink failed for good (%s); starting a new one", why.c_str());
  sink_.reset();
  // Whatever the old sink did not report is shipped again.
  for (auto& entry : streams_) {
    if (entry.second.inflight != 0) {
      entry.second.inflight = 0;
      Rewind(entry.second);
    }
  }
  freeSlots_.clear();
  for (uint32_t slot = config_.windowRecords; slot > 0; --slot) freeSlots_.push_back(slot - 1);
  inflightBytes_ = 0;
  std::string error;
  sink_ = MakeSink(
      config_, [this](uint32_t slot, bool ok, const std::string& e) { OnConfirm(slot, ok, e); },
      error);
  if (sink_ == nullptr) ZLOG_ERROR("[exportd] %s", error.c_str());
  return sink_ != nullptr;
}

}  // namespace nuvexport
