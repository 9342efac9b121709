// The housekeeping thread: flushes every open stream of the store every 11 seconds and, every
// 3601 seconds, packs finished day directories into "<day>.tgz" archives beside them and
// deletes day directories and archives older than the configured number of days.
//
// A day directory goes through three stages: written today; compressed on the first pass
// after the day is over; its archive deleted once it is as old as the days to keep. One that
// is already expired when first seen is deleted without being compressed.
#ifndef NUV_CLEARN_CLEARN_H
#define NUV_CLEARN_CLEARN_H

#include <cstdint>
#include <string>

#include "nuv_atomic.h"
#include "nuv_thread.h"

class CClearn {
 public:
  static constexpr uint64_t kFlushInterval = 11000;    // ms
  static constexpr uint64_t kCleanInterval = 3601000;  // ms
  static constexpr unsigned int kPauseSeconds = 5;
  static constexpr int kSecondsPerDay = 86400;
  static constexpr long long kCompressTimeout = 60000;  // ms
  // The types that get a pass, in pass order. 512 covers 256 and 4096 too: they share the
  // maintenance-log directory.
  static constexpr int kClearnTypes[] = {512, 8192, 16384, 32768};

  // Both intervals count from construction.
  CClearn();
  ~CClearn();
  CClearn(const CClearn&) = delete;
  CClearn& operator=(const CClearn&) = delete;

  // Starts the thread unless it runs; false when the platform cannot start it. Before the
  // thread starts, today's streams are repaired: a crash may have torn their tails.
  bool StartClearn();
  // Cancels the thread wherever it is, also in the middle of a pass.
  void StopClearn();

  bool IsFlushTickCount() const;
  bool IsCleanTickCount() const;
  void SetFlushStartTickCount();
  void SetCleanStartTickCount();

  // One clean-up pass over the base directory of `type`: expired archives and day directories
  // are deleted, past days compressed. The thread runs it; so may an operator's tool.
  static void ClearnFiles(int type);
  // ClearnFiles for every type of kClearnTypes, in order.
  static void ClearnAllTypes();
  // Repairs every stream of today's day directory under each base directory of the store.
  static void RepairToday();

 private:
  nuv_thread_t* thread_ = nullptr;
  nuv_atomic32_t running_ = NUV_ATOMIC32_INIT(0);
  uint64_t flushStart_ = 0;
  uint64_t cleanStart_ = 0;
};

// The thread body; `arg` is the CClearn. Ends only by cancellation.
void* ClearnThread(void* arg);

// Closes every open stream of the store whose files lie under `directory`, so that none keeps
// a file of a day about to be packed open.
void CloseFiles(std::string directory);

// Cuts the torn tails a crash left in the streams under `directory` (the unit's WARN line
// names each), so that a day is packed as it reads back.
void RepairStreams(const std::string& directory);

#endif
