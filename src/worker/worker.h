// One registered monitor at work: its definition, its key, its sliding window and the workers
// that depend on it.
#ifndef NUV_WORKER_WORKER_H
#define NUV_WORKER_WORKER_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/reserved.h"
#include "nuv_atomic.h"
#include "worker/data.h"
#include "worker/slidingwindow.h"

// Not synchronised apart from the reference count: the worker manager's lock is shared while
// samples are delivered and exclusive while workers are inserted or removed.
//
// Children are held by value. A copy takes the definition and the window's configuration but
// no cells (the copy is a new worker); a move takes the cells along, so growing, shrinking or
// reordering the children never duplicates or loses a cell.
class CWorker {
 public:
  // The one monitor that starts a fresh window after each report.
  static constexpr const char* kProcessPointID = kProcessPointId;

  CWorker();
  ~CWorker();
  CWorker(const CWorker& other);
  CWorker& operator=(const CWorker& other);
  CWorker(CWorker&& other) noexcept;
  CWorker& operator=(CWorker&& other) noexcept;

  // Copies the definition, derives key and parent flag and configures the window with the
  // collector frequency. On failure (106, 107) the worker is Reset.
  CError CreateWorker(const CMonitorData& monitor);
  // Alarm, key, parent flag, reference count, definition and children cleared; the window is
  // left alone.
  void Reset();

  const std::string& GetKey() const { return key_; }
  const std::string& GetWorkerID() const { return monitor_->id; }
  std::string GetHandler() const { return monitor_->handler; }
  // The dependent_id, or "" for an independent worker.
  std::string GetDependID() const { return hasParent_ ? monitor_->dependent_id : std::string(); }
  bool HasParents() const { return hasParent_; }
  bool HasChildrens() const { return !children_.empty(); }
  const CSlidingWindow& GetSlidingWindow() const { return window_; }

  // Deliveries in progress; the new count.
  int32_t AddRef();
  int32_t SubRef();
  // True when neither this worker nor any descendant has a delivery in progress.
  bool IsDelete();
  // Asks IsDelete up to three times, sleeping 10 ms after each refusal.
  bool WaitDeletable();

  // Appends a copy of `child` (109 when it has no key).
  CError InsertChildWorker(const CWorker& child);

  // Depth-first, pre-order over this worker and its descendants, appending every match. The
  // pointers stay valid only until a children vector on their path changes.
  void FindWokerByKey(const std::string& key, std::vector<CWorker*>& out);
  void FindWokerByID(const std::string& id, std::vector<CWorker*>& out);
  void FindWorker(const std::string& key, const std::string& id, std::vector<CWorker*>& out);

  // Remove matching descendants (not this worker), waiting for deliveries in progress on them
  // for as long as it takes.
  bool DeleteWorkerByID(const std::string& id);
  bool DeleteWorkerByKey(const std::string& key);
  void DestroyWorker();

  // Delivers one sample to the window; a full window of an independent worker executes.
  CError Do(const ProcessInfo& info);
  CError Do(const SystemInfo& info);
  CError Do(const std::vector<ProcessInfo>& infos);

  // Posts the oldest cell while the hit rate is reached, every remaining cell newest first
  // once it is no longer reached after having been, then runs the children.
  CError Execute();

 private:
  template <typename Sample>
  CError Deliver(const Sample& sample);
  template <typename Match>
  void Find(const Match& match, std::vector<CWorker*>& out);
  enum class Removal { kByID, kByKey };
  template <typename Match>
  void DeleteMatching(const Match& match, Removal removal);
  void PostCell(CCell& cell);

  // Shared by the workers made from one definition; only their pids differ, and the pid lives
  // in the key. Never null.
  std::shared_ptr<const CMonitorData> monitor_;
  std::string key_;
  std::vector<CWorker> children_;
  bool hasParent_ = false;
  nuv_atomic32_t refCount_ = NUV_ATOMIC32_INIT(0);
  CSlidingWindow window_;
  int32_t alarm_ = 0;
};

#endif
