// nuvctl post --each-line: one message per input line, sent ahead on one connection, so a file
// of burying points goes in at the bus's pace instead of one round trip per record.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bus_dir.h"
#include "command.h"
#include "local_check.h"
#include "nuv_comm.h"
#include "result_word.h"

namespace nuvctl {

namespace {

constexpr size_t kChunk = 4096;  // lines held at once
constexpr unsigned int kWindow = 64;

struct Line {
  size_t number;
  std::string text;
  std::string refusal;  // why it was not posted; empty when it was
};

// The bus messages of one chunk, released with it.
class Messages {
 public:
  explicit Messages(const std::vector<const Line*>& lines) {
    for (const Line* line : lines) {
      comm_data* d =
          nuv_comm_new_data(line->text.data(), static_cast<unsigned int>(line->text.size()));
      if (d == nullptr) ok_ = false;
      data_.push_back(d);
    }
  }
  ~Messages() {
    for (comm_data* d : data_) nuv_comm_delete_data(d);
  }
  Messages(const Messages&) = delete;
  Messages& operator=(const Messages&) = delete;
  bool ok() const { return ok_; }
  comm_data* const* data() const { return data_.data(); }

 private:
  std::vector<comm_data*> data_;
  bool ok_ = true;
};

struct Tally {
  size_t stored = 0, refused = 0;
  bool busFailed = false, handlerRefused = false;
};

// Posts the chunk's lines that passed the check and prints every refused line in order.
void PostChunk(const std::string& topic, std::vector<Line>& chunk, Tally& tally) {
  std::vector<const Line*> posted;
  for (const Line& line : chunk)
    if (line.refusal.empty()) posted.push_back(&line);
  std::vector<int> results(posted.size(), NUV_COMM_E_SYSTEM);
  Messages messages(posted);
  if (!posted.empty() && messages.ok()) {
    nuv_comm_post_many(topic.c_str(), messages.data(), static_cast<unsigned int>(posted.size()),
                       kWindow, results.data());
  }
  size_t next = 0;
  for (const Line& line : chunk) {
    if (!line.refusal.empty()) {
      ++tally.refused;
      std::printf("line %zu: not posted: %s\n", line.number, line.refusal.c_str());
      continue;
    }
    const uint32_t result = static_cast<uint32_t>(results[next++]);
    if (result == 0) {
      ++tally.stored;
      continue;
    }
    ++tally.refused;
    if (nuvtools::BusResultMeaning(result) != nullptr) tally.busFailed = true;
    else tally.handlerRefused = true;
    std::printf("line %zu: %s\n", line.number, nuvtools::DescribeResult(result).c_str());
  }
  chunk.clear();
}

}  // namespace

int PostEachLine(const std::string& topic, FILE* in, const char* source, bool check) {
  if (nuv_comm_init() != 0) {
    std::fprintf(stderr, "nuvctl post: cannot join the message bus\n");
    return kExitFailure;
  }
  Tally tally;
  std::vector<Line> chunk;
  char* buffer = nullptr;
  size_t capacity = 0;
  size_t number = 0;
  for (ssize_t n; (n = getline(&buffer, &capacity, in)) >= 0;) {
    ++number;
    std::string text(buffer, static_cast<size_t>(n));
    if (!text.empty() && text.back() == '\n') text.pop_back();
    if (text.empty()) continue;
    std::string reason;
    if (check && !CheckBeforePost(topic, text, reason)) reason = reason.empty() ? "refused" : reason;
    chunk.push_back({number, std::move(text), std::move(reason)});
    if (chunk.size() == kChunk) PostChunk(topic, chunk, tally);
  }
  std::free(buffer);
  const bool readFailed = std::ferror(in) != 0;
  PostChunk(topic, chunk, tally);
  nuv_comm_uninit();
  std::printf("%zu stored, %zu refused\n", tally.stored, tally.refused);
  if (readFailed) std::fprintf(stderr, "nuvctl post: cannot read %s\n", source);
  if (tally.busFailed) {
    std::fprintf(stderr, "nuvctl post: %s: bus directory %s\n", topic.c_str(),
                 nuvtools::DescribeBusDir(nuvtools::FindBusDir()).c_str());
  }
  if (tally.handlerRefused) std::fprintf(stderr, "nuvctl post: the daemon's log names the reasons\n");
  return tally.refused == 0 && !readFailed ? kExitOk : kExitFailure;
}

}  // namespace nuvctl
