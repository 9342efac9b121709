#include "worker/slidingwindow.h"

#include <cmath>
#include <map>
#include <memory>
#include <new>
#include <utility>

#include "common/log.h"
#include "common/per_thread.h"
#include "common/utils.h"
#include "worker/express.h"

namespace {
const char kConditionCharacters[] = "RWMCHTA ><=|&()/0123456789";
// Conditions kept parsed per thread; a host has far fewer distinct ones than this.
constexpr size_t kMaxParsedConditions = 4096;

// A parser for one kind of cell and one condition, kept by the delivering thread: parsing is
// most of a cell's cost, and a parser per worker would cost more memory than the worker.
// Each thread has its own, so deliveries in parallel never share a parser.
template <typename Cell>
CExpress& ParserFor(const std::string& condition) {
  struct Parsers {
    std::map<std::string, std::unique_ptr<CExpress>> byCondition;
  };
  auto& parsers = PerThread<Parsers>().byCondition;
  auto found = parsers.find(condition);
  if (found != parsers.end()) {
    return *found->second;
  }
  if (parsers.size() >= kMaxParsedConditions) {
    parsers.clear();
  }
  std::unique_ptr<CExpress>& slot = parsers[condition];
  slot.reset(new CExpress());
  return *slot;
}
}  // namespace

CSlidingWindow::CSlidingWindow() { Reset(); }

CSlidingWindow::~CSlidingWindow() { DeleteCells(); }

CSlidingWindow::CSlidingWindow(const CSlidingWindow& other) { CopyConfiguration(other); }

CSlidingWindow& CSlidingWindow::operator=(const CSlidingWindow& other) {
  if (this != &other) {
    DeleteCells();
    CopyConfiguration(other);
  }
  return *this;
}

CSlidingWindow::CSlidingWindow(CSlidingWindow&& other) noexcept { *this = std::move(other); }

CSlidingWindow& CSlidingWindow::operator=(CSlidingWindow&& other) noexcept {
  if (this != &other) {
    DeleteCells();
    cells_.swap(other.cells_);
    blockCounts_ = other.blockCounts_;
    frequency_ = other.frequency_;
    cycle_ = other.cycle_;
    expression_.swap(other.expression_);
    counter_ = other.counter_;
    collectorFrequency_ = other.collectorFrequency_;
    state_ = other.state_;
    other.Reset();
  }
  return *this;
}

void CSlidingWindow::CopyConfiguration(const CSlidingWindow& other) {
  blockCounts_ = other.blockCounts_;
  frequency_ = other.frequency_;
  cycle_ = other.cycle_;
  expression_ = other.expression_;
  counter_ = other.counter_;
  collectorFrequency_ = other.collectorFrequency_;
  state_ = other.state_ == kWindowUnset ? kWindowUnset : kWindowFilling;
}

CError CSlidingWindow::SetCondition(const std::string& condition,
                                    unsigned int collectorFrequency) {
  CError result = CError::CreateError(kErrExpress, "express failed, express = %s", condition.c_str());
  collectorFrequency_ = collectorFrequency;
  do {
    if (!IsStringContainer(condition, kConditionCharacters)) {
      ZLOG_ERROR(
          "[CSlidingWindow]::check condition failed, have invalid character. condition = %s.",
          condition.c_str());
      break;
    }
    std::vector<std::string> parts = SplitString(condition, '/');
    if (parts.size() != 2) {
      ZLOG_ERROR("[CSlidingWindow]::check condition split failed. condition = %s.",
                 condition.c_str());
      break;
    }
    std::string time = parts[1];
    CorrectString(time);
    if (!IsNumberA(time)) {
      ZLOG_ERROR("[CSlidingWindow]::check condition time failed. condition = %s.",
                 condition.c_str());
      break;
    }
    const long cycle = ConvertStringToNumber(time.c_str());
    if (cycle <= 0) {
      ZLOG_ERROR("[CSlidingWindow]::check condition time failed. condition = %s.",
                 condition.c_str());
      break;
    }
    cycle_ = cycle > static_cast<long>(kMaxCycle) ? kMaxCycle : static_cast<uint32_t>(cycle);
    ZLOG_INFO("[CSlidingWindow]::check condition, condition = %s, cycle = %d.",
              condition.c_str(), static_cast<int>(cycle_));
    expression_ = parts[0];
    CorrectString(expression_);
    if (!CalcBlockCounts()) {
      ZLOG_ERROR("[CSlidingWindow]::check condition calc block counts failed. condition = %s.",
                 condition.c_str());
      break;
    }
    result = CError();
    state_ = kWindowFilling;
    ZLOG_INFO("[CSlidingWindow]::check condition success. condition = %s.", condition.c_str());
  } while (false);
  if (!result.IsSuccess()) {
    Reset();
  }
  return result;
}

bool CSlidingWindow::CalcBlockCounts() {
  if (collectorFrequency_ == 0) {
    // Nothing can be sampled with no sampling period; the arithmetic below would never end.
    ZLOG_ERROR("[CSlidingWindow]::CalcBlockCounts, sdk_frequency is 0, condition = %s.",
               expression_.c_str());
    return false;
  }
  if (cycle_ < collectorFrequency_) {
    ZLOG_ERROR("[CSlidingWindow]::CalcBlockCounts, cycle(%d) < sdk_frequency(%d), condition = %s.",
               static_cast<int>(cycle_), static_cast<int>(collectorFrequency_),
               expression_.c_str());
    return false;
  }
  uint32_t factor = 1;
  frequency_ = collectorFrequency_;
  blockCounts_ = static_cast<uint32_t>(std::ceil(static_cast<double>(cycle_) / frequency_));
  while (blockCounts_ > kMaxBlockCounts) {
    ++factor;
    frequency_ = collectorFrequency_ * factor;
    blockCounts_ = static_cast<uint32_t>(std::ceil(static_cast<double>(cycle_) / frequency_));
  }
  ZLOG_INFO("[CSlidingWindow]::CalcBlockCounts, frequency = %d, block_counts = %d condition = %s.",
            static_cast<int>(frequency_), static_cast<int>(blockCounts_), expression_.c_str());
  return true;
}

bool CSlidingWindow::IsInsert() {
  ++counter_;
  if (frequency_ == 0) {
    return false;  // not configured
  }
  // 64 bits: the product outgrows 32 bits long before the counter does.
  const uint64_t elapsed = static_cast<uint64_t>(counter_) * collectorFrequency_;
  return elapsed % frequency_ == 0;
}

template <typename Cell, typename Sample>
CError CSlidingWindow::Insert(const Sample& sample, WindowState& state) {
  state = state_;
  if (!IsInsert()) {
    return CError();
  }
  Cell* cell = new (std::nothrow) Cell();
  if (cell == nullptr) {
    ZLOG_ERROR("[CSlidingWindow]:ConstructCell faild. not enough memory.");
    return CError::CreateError(kFileErrMalloc, "buffer malloc error  %u", 132u);
  }
  try {
    CError result = cell->ConstructCell(sample, expression_, ParserFor<Cell>(expression_));
    if (!result.IsSuccess()) {
      ZLOG_ERROR("[CSlidingWindow]::ConstructCell faild. condition = %s.", expression_.c_str());
      delete cell;
      return result;
    }
    // A full window drops its oldest cell for the new one.
    if (cells_.capacity() < blockCounts_ + 1) {
      cells_.reserve(blockCounts_ + 1);
    }
    cells_.insert(cells_.begin(), cell);
    if (cells_.size() > blockCounts_) {
      delete cells_.back();
      cells_.pop_back();
    }
  } catch (const std::bad_alloc&) {
    // Copying the sample's texts or growing the queue ran out of memory.
    delete cell;
    ZLOG_ERROR("[CSlidingWindow]:ConstructCell faild. not enough memory.");
    return CError::CreateError(kFileErrMalloc, "buffer malloc error  %u", 132u);
  }
  if (cells_.size() == blockCounts_) {
    state_ = kWindowFull;
    state = kWindowFull;
  }
  return CError();
}

CError CSlidingWindow::InsertSource(const ProcessInfo& info, WindowState& state) {
  return Insert<CProcessCell>(info, state);
}

CError CSlidingWindow::InsertSource(const SystemInfo& info, WindowState& state) {
  return Insert<CSystemCell>(info, state);
}

CError CSlidingWindow::InsertSource(const std::vector<ProcessInfo>& infos, WindowState& state) {
  return Insert<CAllProcessCell>(infos, state);
}

bool CSlidingWindow::CalcHitResult(unsigned int hitRate) {
  if (state_ != kWindowFull || blockCounts_ == 0) {
    return false;
  }
  uint32_t hits = 0;
  for (const CCell* cell : cells_) {
    if (cell->GetResult()) {
      ++hits;
    }
  }
  const int percent = static_cast<int>(static_cast<double>(hits) / blockCounts_ * 100.0);
  return static_cast<long long>(hitRate) <= percent;
}

bool CSlidingWindow::PopCell(CCell** out) {
  if (out == nullptr || cells_.empty()) {
    return false;
  }
  *out = cells_.back();
  cells_.pop_back();
  state_ = kWindowFilling;
  return true;
}

bool CSlidingWindow::PopAllCell(std::vector<CCell*>& out) {
  if (cells_.empty()) {
    return false;
  }
  try {
    out.insert(out.end(), cells_.begin(), cells_.end());
  } catch (const std::bad_alloc&) {
    return false;  // nothing handed over; the cells stay here
  }
  cells_.clear();
  state_ = kWindowFilling;
  return true;
}

void CSlidingWindow::DeleteCells() {
  for (CCell* cell : cells_) {
    delete cell;
  }
  cells_.clear();
}

void CSlidingWindow::Reset() {
  expression_.clear();
  blockCounts_ = 0;
  frequency_ = 0;
  cycle_ = 0;
  counter_ = 0;
  collectorFrequency_ = 0;
  state_ = kWindowUnset;
  DeleteCells();
}

void CSlidingWindow::ResetWindow() {
  DeleteCells();
  state_ = kWindowFilling;
}
