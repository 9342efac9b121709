// NDJSON lines {"day","name","pid","type","offset","record"} on standard output or appended to
// a file, for any other shipper to take from there. A record is confirmed once its line is
// flushed, and for a file synced.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "common/log.h"
#include "json_text.h"
#include "sink.h"

namespace nuvexport {
namespace {

class NdjsonSink : public Sink {
 public:
  explicit NdjsonSink(ConfirmFn confirm) : confirm_(std::move(confirm)) {}
  ~NdjsonSink() override {
    if (fd_ > STDOUT_FILENO) ::close(fd_);
  }

  bool Open(const std::string& path, std::string& error) {
    if (path == "-") {
      fd_ = STDOUT_FILENO;
      return true;
    }
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    if (fd_ < 0) {
      error = "cannot open " + path + ": " + std::strerror(errno);
      return false;
    }
    return CutPartialLine(path, error);
  }

  SendResult Send(const StreamId& id, const Record& record, uint32_t slot,
                  std::string&) override {
    buffer_ += "{\"day\":";
    AppendJsonString(buffer_, id.day.data(), id.day.size());
    buffer_ += ",\"name\":";
    AppendJsonString(buffer_, id.name.data(), id.name.size());
    buffer_ += ",\"pid\":" + std::to_string(id.pid) + ",\"type\":" + std::to_string(id.type) +
               ",\"offset\":" + std::to_string(record.offset) + ",\"record\":";
    AppendJsonString(buffer_, record.data, record.size);
    buffer_ += "}\n";
    pending_.push_back(slot);
    return SendResult::kTaken;
  }

  void Poll(int timeoutMs) override {
    if (pending_.empty()) {
      ::usleep(static_cast<useconds_t>(timeoutMs) * 1000);
      return;
    }
    Write();
  }
  void Drain(int) override { Write(); }
  bool Broken(std::string&) override { return false; }

 private:
  // An exporter killed in the middle of a write can leave part of a line. Its records were
  // never confirmed and are written again, so the part is cut rather than left to corrupt the
  // line appended after it.
  bool CutPartialLine(const std::string& path, std::string& error) {
    struct stat st;
    if (::fstat(fd_, &st) != 0) {
      error = "cannot stat " + path + ": " + std::strerror(errno);
      return false;
    }
    off_t end = st.st_size;
    char chunk[4096];
    while (end > 0) {
      const off_t start = end > static_cast<off_t>(sizeof chunk) ? end - sizeof chunk : 0;
      const ssize_t n = ::pread(fd_, chunk, static_cast<size_t>(end - start), start);
      if (n != end - start) {
        error = "cannot read " + path + ": " + std::strerror(errno);
        return false;
      }
      const void* feed = memrchr(chunk, '\n', static_cast<size_t>(n));
      if (feed != nullptr) {
        end = start + (static_cast<const char*>(feed) - chunk) + 1;
        break;
      }
      end = start;
    }
    if (end == st.st_size) return true;
    ZLOG_WARN("[exportd] %s ended in a partial line of %lld bytes; cut", path.c_str(),
              static_cast<long long>(st.st_size - end));
    if (::ftruncate(fd_, end) != 0) {
      error = "cannot cut " + path + ": " + std::strerror(errno);
      return false;
    }
    return true;
  }

  void Write() {
    if (pending_.empty()) return;
    std::string error;
    size_t done = 0;
    while (done < buffer_.size()) {
      const ssize_t n = ::write(fd_, buffer_.data() + done, buffer_.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        error = std::strerror(errno);
        break;
      }
      done += static_cast<size_t>(n);
    }
    // A pipe or terminal cannot be synced; what the kernel took is as far as it goes.
    if (error.empty() && ::fsync(fd_) != 0 && errno != EINVAL && errno != EROFS) {
      error = std::strerror(errno);
    }
    if (!error.empty()) ZLOG_ERROR("[exportd] cannot write NDJSON: %s", error.c_str());
    // A partly written batch is shipped again whole: lines before the cut may repeat.
    buffer_.clear();
    std::vector<uint32_t> slots;
    slots.swap(pending_);
    for (uint32_t slot : slots) confirm_(slot, error.empty(), error);
  }

  ConfirmFn confirm_;
  int fd_ = -1;
  std::string buffer_;
  std::vector<uint32_t> pending_;
};

}  // namespace

std::unique_ptr<Sink> MakeNdjsonSink(const ExportConfig& config, ConfirmFn confirm,
                                     std::string& error) {
  auto sink = std::make_unique<NdjsonSink>(std::move(confirm));
  if (!sink->Open(config.ndjsonPath, error)) return nullptr;
  return sink;
}

std::unique_ptr<Sink> MakeSink(const ExportConfig& config, ConfirmFn confirm, std::string& error) {
  return config.output == "ndjson" ? MakeNdjsonSink(config, std::move(confirm), error)
                                   : MakeKafkaSink(config, std::move(confirm), error);
}

}  // namespace nuvexport
