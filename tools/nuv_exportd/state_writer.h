// Writes the exporter's state on a thread of its own: an fsync can take tens of
// milliseconds, during which the loop keeps reading and sending. Only the newest state
// waiting is written; an older one it replaces was never needed.
#ifndef NUV_TOOLS_EXPORTD_STATE_WRITER_H
#define NUV_TOOLS_EXPORTD_STATE_WRITER_H

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "export_state.h"

namespace nuvexport {

class StateWriter {
 public:
  explicit StateWriter(std::string path);
  ~StateWriter();  // writes what waits, then stops
  StateWriter(const StateWriter&) = delete;
  StateWriter& operator=(const StateWriter&) = delete;

  void Submit(const ExportState& state);
  // Waits until everything submitted is written; false, with `error`, when a write failed.
  bool Flush(std::string& error);
  // False, with `error`, once a write has failed.
  bool Healthy(std::string& error);

 private:
  void Loop();

  const std::string path_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::unique_ptr<ExportState> waiting_;
  bool writing_ = false;
  bool stop_ = false;
  std::string error_;
  std::thread thread_;
};

}  // namespace nuvexport

#endif
