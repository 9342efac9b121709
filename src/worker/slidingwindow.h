// The sliding window of one worker: turns the time part of a condition into a fixed number of
// sample slots, takes every k-th sample, keeps the newest cells and decides on the hit rate.
#ifndef NUV_WORKER_SLIDINGWINDOW_H
#define NUV_WORKER_SLIDINGWINDOW_H

#include <cstdint>
#include <string>
#include <vector>

#include "common/error.h"
#include "worker/cell.h"
#include "worker/data.h"

enum WindowState : uint32_t {
  kWindowUnset = 0,    // new, or after Reset (also after a failed SetCondition)
  kWindowFilling = 1,  // configured; after SetCondition, ResetWindow, PopCell, PopAllCell
  kWindowFull = 2,     // holds block counts cells
};

// Not synchronised: the owning worker is used under the worker manager's lock.
//
// Cells belong to exactly one window. A copy takes the configuration and the counter but no
// cells (it starts empty, filling when configured), so no cell is ever owned twice; a move
// takes the cells along.
class CSlidingWindow {
 public:
  static constexpr uint32_t kMaxBlockCounts = 180;
  static constexpr uint32_t kMaxCycle = 1800;

  CSlidingWindow();
  ~CSlidingWindow();
  CSlidingWindow(const CSlidingWindow& other);
  CSlidingWindow& operator=(const CSlidingWindow& other);
  CSlidingWindow(CSlidingWindow&& other) noexcept;
  CSlidingWindow& operator=(CSlidingWindow&& other) noexcept;

  // "<value part>/<cycle>" over the characters "RWMCHTA ><=|&()/0123456789", with the
  // collector's sampling period in the cycle's unit. A failure (106) resets the window; a
  // collector frequency of 0 is refused like a cycle below it.
  CError SetCondition(const std::string& condition, unsigned int collectorFrequency);
  // Slots for the cycle at the collector frequency, taking every k-th sample (k = 2, 3, ...)
  // while more than 180 would be needed.
  bool CalcBlockCounts();
  // Counts the offered sample; true when it falls on the window's sampling period.
  bool IsInsert();

  // Offers one sample. `state` receives the window state, also when the sample is skipped.
  // Errors: 206 when the cell cannot be allocated, the evaluation's 106/107 (sample dropped).
  CError InsertSource(const ProcessInfo& info, WindowState& state);
  CError InsertSource(const SystemInfo& info, WindowState& state);
  CError InsertSource(const std::vector<ProcessInfo>& infos, WindowState& state);

  // True on a full window whose share of hitting cells, in whole percent, reaches hitRate.
  bool CalcHitResult(unsigned int hitRate);

  // The oldest cell, handed over to the caller. False when empty.
  bool PopCell(CCell** out);
  // Appends every cell, newest first, handing all of them over. False when empty.
  bool PopAllCell(std::vector<CCell*>& out);

  WindowState GetSlidingWindowState() const { return state_; }
  uint32_t GetBlockCounts() const { return blockCounts_; }
  uint32_t GetFrequency() const { return frequency_; }
  uint32_t GetCycle() const { return cycle_; }
  const std::string& GetExpression() const { return expression_; }
  size_t GetCellCount() const { return cells_.size(); }

  // Back to unconfigured, every cell deleted.
  void Reset();
  // Every cell deleted; configuration and counter kept; filling again.
  void ResetWindow();

 private:
  template <typename Cell, typename Sample>
  CError Insert(const Sample& sample, WindowState& state);
  void DeleteCells();
  void CopyConfiguration(const CSlidingWindow& other);

  // Newest at the front. A vector sized to the window: a deque's first block alone would
  // outweigh a whole window of pointers, and a host keeps a window per worker.
  std::vector<CCell*> cells_;
  uint32_t blockCounts_ = 0;
  uint32_t frequency_ = 0;
  uint32_t cycle_ = 0;
  std::string expression_;
  uint32_t counter_ = 0;
  uint32_t collectorFrequency_ = 0;
  WindowState state_ = kWindowUnset;
};

#endif
