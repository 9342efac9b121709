#include "state_writer.h"

namespace nuvexport {

StateWriter::StateWriter(std::string path) : path_(std::move(path)) {
  thread_ = std::thread(&StateWriter::Loop, this);
}

StateWriter::~StateWriter() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void StateWriter::Submit(const ExportState& state) {
  auto copy = std::make_unique<ExportState>(state);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    waiting_ = std::move(copy);
  }
  changed_.notify_all();
}

bool StateWriter::Flush(std::string& error) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return (waiting_ == nullptr && !writing_) || !error_.empty(); });
  error = error_;
  return error_.empty();
}

bool StateWriter::Healthy(std::string& error) {
  std::lock_guard<std::mutex> lock(mutex_);
  error = error_;
  return error_.empty();
}

void StateWriter::Loop() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return waiting_ != nullptr || stop_; });
    if (waiting_ == nullptr) return;  // stopping, and everything is written
    std::unique_ptr<ExportState> state = std::move(waiting_);
    writing_ = true;
    lock.unlock();
    std::string error;
    const bool saved = SaveState(path_, *state, error);
    lock.lock();
    writing_ = false;
    if (!saved) error_ = error;
    changed_.notify_all();
  }
}

}  // namespace nuvexport
