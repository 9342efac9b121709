#include "worker/worker.h"

#include <iterator>
#include <memory>
#include <mutex>
#include <new>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "common/log.h"
#include "common/reserved.h"
#include "common/utils.h"
#include "config/config_collect.h"
#include "handler/logdata.h"
#include "handler/topicposter.h"
#include "nuv_thread.h"

// Children live in a vector that must move them when it grows: a copy would start with an
// empty window and the original's cells would be deleted with it.
static_assert(std::is_nothrow_move_constructible<CWorker>::value,
              "growing the children must move them");


namespace {

constexpr int kDeleteTries = 3;
constexpr unsigned int kDeleteWaitMs = 10;

// Keeps the reference count raised for the whole delivery, whatever way it is left.
class DeliveryRef {
 public:
  explicit DeliveryRef(CWorker& worker) : worker_(worker) { worker_.AddRef(); }
  ~DeliveryRef() { worker_.SubRef(); }
  DeliveryRef(const DeliveryRef&) = delete;
  DeliveryRef& operator=(const DeliveryRef&) = delete;

 private:
  CWorker& worker_;
};

// Everything a worker reads of its definition: all but the pid, which only makes the key.
bool SameDefinition(const CMonitorData& a, const CMonitorData& b) {
  return a.id == b.id && a.agent_id == b.agent_id && a.name == b.name &&
         a.subscriber == b.subscriber && a.version == b.version && a.product == b.product &&
         a.product_version == b.product_version && a.focus == b.focus &&
         a.handler == b.handler && a.condition == b.condition &&
         a.dependent_id == b.dependent_id && a.data_type == b.data_type && a.image == b.image;
}

// One copy per definition however many processes it watches.
std::shared_ptr<const CMonitorData> SharedDefinition(const CMonitorData& monitor) {
  constexpr size_t kPruneAbove = 4096;
  static std::mutex mutex;
  static std::unordered_map<std::string, std::weak_ptr<const CMonitorData>> byID;
  std::lock_guard<std::mutex> lock(mutex);
  std::shared_ptr<const CMonitorData> held = byID[monitor.id].lock();
  if (held != nullptr && SameDefinition(*held, monitor)) {
    return held;
  }
  if (byID.size() > kPruneAbove) {
    for (auto it = byID.begin(); it != byID.end();) {
      it = it->second.expired() ? byID.erase(it) : std::next(it);
    }
  }
  held = std::make_shared<const CMonitorData>(monitor);
  byID[monitor.id] = held;
  return held;
}

std::shared_ptr<const CMonitorData> EmptyDefinition() {
  static const std::shared_ptr<const CMonitorData> empty = std::make_shared<CMonitorData>();
  return empty;
}

void ReportPostFailure(const std::string& text) {
  ZLOG_ERROR("[CWorker]::Execute post message failed, message = %s.", text.c_str());
}

}  // namespace

CWorker::CWorker() { Reset(); }

CWorker::~CWorker() = default;

// A copy is a new worker: nothing is being delivered to it yet.
CWorker::CWorker(const CWorker& other)
    : monitor_(other.monitor_),
      key_(other.key_),
      children_(other.children_),
      hasParent_(other.hasParent_),
      window_(other.window_),
      alarm_(other.alarm_) {}

CWorker& CWorker::operator=(const CWorker& other) {
  if (this != &other) {
    CWorker copy(other);
    *this = std::move(copy);
  }
  return *this;
}

CWorker::CWorker(CWorker&& other) noexcept
    : monitor_(std::exchange(other.monitor_, EmptyDefinition())),
      key_(std::move(other.key_)),
      children_(std::move(other.children_)),
      hasParent_(other.hasParent_),
      window_(std::move(other.window_)),
      alarm_(other.alarm_) {
  nuv_atomic32_set(&refCount_, nuv_atomic32_get(&other.refCount_));
  nuv_atomic32_set(&other.refCount_, 0);
}

CWorker& CWorker::operator=(CWorker&& other) noexcept {
  if (this != &other) {
    monitor_ = std::exchange(other.monitor_, EmptyDefinition());
    key_ = std::move(other.key_);
    children_ = std::move(other.children_);
    hasParent_ = other.hasParent_;
    nuv_atomic32_set(&refCount_, nuv_atomic32_get(&other.refCount_));
    nuv_atomic32_set(&other.refCount_, 0);
    window_ = std::move(other.window_);
    alarm_ = other.alarm_;
  }
  return *this;
}

CError CWorker::CreateWorker(const CMonitorData& monitor) {
  monitor_ = SharedDefinition(monitor);
  hasParent_ = !monitor.dependent_id.empty();
  key_ = CreateKey(monitor.image, static_cast<unsigned int>(monitor.pid));
  alarm_ = 0;
  CError result;
  const int frequency = CCollectSdkCfg::GetInstance()->GetCollectFrequency();
  if (frequency <= 0) {
    // The window's slot arithmetic needs a positive sampling period.
    ZLOG_ERROR("[CWorker]::CreateWorker failed. collect frequency = %d, condition = %s.",
               frequency, monitor.condition.c_str());
    window_.Reset();
    result = CError::CreateError(kErrExpress, "express failed, express = %s", monitor.condition.c_str());
  } else {
    result = window_.SetCondition(monitor.condition, static_cast<unsigned int>(frequency));
    if (!result.IsSuccess()) {
      ZLOG_ERROR("[CWorker]::CreateWorker failed. set condition failed, condition = %s.",
                 monitor.condition.c_str());
    }
  }
  if (!result.IsSuccess()) {
    Reset();
  }
  return result;
}

void CWorker::Reset() {
  alarm_ = 0;
  key_.clear();
  hasParent_ = false;
  nuv_atomic32_set(&refCount_, 0);
  if (monitor_ == nullptr || monitor_->agent_id.empty()) {
    monitor_ = EmptyDefinition();
  } else {
    // A reused record keeps its agent_id.
    auto cleared = std::make_shared<CMonitorData>(*monitor_);
    cleared->Clear();
    monitor_ = std::move(cleared);
  }
  children_.clear();
}

int32_t CWorker::AddRef() { return nuv_atomic32_add_and_fetch(&refCount_, 1); }

int32_t CWorker::SubRef() { return nuv_atomic32_add_and_fetch(&refCount_, -1); }

bool CWorker::IsDelete() {
  if (nuv_atomic32_get(&refCount_) != 0) {
    return false;
  }
  for (CWorker& child : children_) {
    if (!child.IsDelete()) {
      return false;
    }
  }
  return true;
}

bool CWorker::WaitDeletable() {
  for (int attempt = 0; attempt < kDeleteTries; ++attempt) {
    if (IsDelete()) {
      return true;
    }
    nuv_msleep(kDeleteWaitMs, 0);
  }
  return false;
}

CError CWorker::InsertChildWorker(const CWorker& child) {
  if (child.key_.empty()) {
    return CError::CreateError(kErrWorker, "generate worker or insert worker failed");
  }
  try {
    children_.push_back(child);
  } catch (const std::bad_alloc&) {
    return CError::CreateError(kErrWorker, "generate worker or insert worker failed");
  }
  return CError();
}

template <typename Match>
void CWorker::Find(const Match& match, std::vector<CWorker*>& out) {
  if (match(*this)) {
    out.push_back(this);
  }
  for (CWorker& child : children_) {
    child.Find(match, out);
  }
}

void CWorker::FindWokerByKey(const std::string& key, std::vector<CWorker*>& out) {
  Find([&key](const CWorker& w) { return w.key_ == key; }, out);
}

void CWorker::FindWokerByID(const std::string& id, std::vector<CWorker*>& out) {
  Find([&id](const CWorker& w) { return w.monitor_->id == id; }, out);
}

void CWorker::FindWorker(const std::string& key, const std::string& id,
                         std::vector<CWorker*>& out) {
  Find([&key, &id](const CWorker& w) { return w.key_ == key && w.monitor_->id == id; }, out);
}

template <typename Match>
void CWorker::DeleteMatching(const Match& match, Removal removal) {
  auto it = children_.begin();
  while (it != children_.end()) {
    if (!match(*it)) {
      if (it->HasChildrens()) {
        it->DeleteMatching(match, removal);
      }
      ++it;
      continue;
    }
    if (it->WaitDeletable()) {
      it = children_.erase(it);  // the child's destructor takes its subtree and cells
      continue;
    }
    // A delivery is still running on it; removal never leaves a worker half-removed.
    if (removal == Removal::kByID) {
      ZLOG_ERROR("[CWorker]::DeleteWorkerByID failed. IsDelete ref, id = %s.",
                 it->monitor_->id.c_str());
    } else {
      ZLOG_ERROR("[CWorker]::DeleteWorkerByKey failed. IsDelete ref, id = %s.",
                 it->monitor_->id.c_str());
    }
  }
}

bool CWorker::DeleteWorkerByID(const std::string& id) {
  DeleteMatching([&id](const CWorker& w) { return w.monitor_->id == id; }, Removal::kByID);
  return true;
}

bool CWorker::DeleteWorkerByKey(const std::string& key) {
  DeleteMatching([&key](const CWorker& w) { return w.key_ == key; }, Removal::kByKey);
  return true;
}

void CWorker::DestroyWorker() {
  auto it = children_.begin();
  while (it != children_.end()) {
    if (it->HasChildrens()) {
      it->DestroyWorker();
      continue;
    }
    if (it->WaitDeletable()) {
      it = children_.erase(it);
      continue;
    }
    ZLOG_ERROR("[CWorker]::DestroyWorker failed. IsDelete ref, id = %s.",
               it->monitor_->id.c_str());
  }
}

template <typename Sample>
CError CWorker::Deliver(const Sample& sample) {
  DeliveryRef ref(*this);
  WindowState state = kWindowUnset;
  CError result = window_.InsertSource(sample, state);
  if (!result.IsSuccess()) {
    ZLOG_ERROR("[CWorker]::InsertSource failed. code = %d, desc = %s.", result.code,
               result.desc.c_str());
    return result;
  }
  // Dependent workers run only from their parent's Execute.
  if (state == kWindowFull && !hasParent_) {
    result = Execute();
  }
  return result;
}

CError CWorker::Do(const ProcessInfo& info) { return Deliver(info); }

CError CWorker::Do(const SystemInfo& info) { return Deliver(info); }

CError CWorker::Do(const std::vector<ProcessInfo>& infos) { return Deliver(infos); }

CError CWorker::Execute() {
  CError result;
  const unsigned int hitRate =
      static_cast<unsigned int>(CCollectSdkCfg::GetInstance()->GetHitRate());
  if (window_.CalcHitResult(hitRate)) {
    alarm_ = 1;
    CCell* raw = nullptr;
    if (window_.PopCell(&raw)) {
      std::unique_ptr<CCell> cell(raw);
      PostCell(*cell);
    }
    if (monitor_->id == kProcessPointID) {
      window_.ResetWindow();
    }
  } else {
    if (alarm_ != 1) {
      return result;
    }
    std::vector<CCell*> raw;
    window_.PopAllCell(raw);
    std::vector<std::unique_ptr<CCell>> cells(raw.begin(), raw.end());
    for (const std::unique_ptr<CCell>& cell : cells) {
      PostCell(*cell);
    }
    alarm_ = 0;
  }
  for (CWorker& child : children_) {
    const CError childResult = child.Execute();
    if (!childResult.IsSuccess()) {
      ZLOG_ERROR("[CWorker]::execute failed. code = %d, desc = %s.", childResult.code,
                 childResult.desc.c_str());
    }
  }
  return result;
}

void CWorker::PostCell(CCell& cell) {
  std::string text;
  try {
    std::string context;
    cell.GetString(*monitor_, context);
    const CLogData data(GetProcessName(cell.GetName()), monitor_->id, cell.GetPid(),
                        kPerformanceRecordType, context);
    text = data.LogDataToString();
  } catch (const std::bad_alloc&) {
    ZLOG_ERROR("[CWorker]::Execute post message failed, not enough memory, id = %s.",
               monitor_->id.c_str());
    return;
  }
  CTopicPoster::GetInstance().Post(monitor_->handler, std::move(text), &ReportPostFailure);
}
