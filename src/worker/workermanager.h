// Owns every worker of the engine and routes samples to them by the key of their target.
#ifndef NUV_WORKER_WORKERMANAGER_H
#define NUV_WORKER_WORKERMANAGER_H

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/error.h"
#include "common/rwlock.h"
#include "worker/data.h"
#include "worker/worker.h"

// Independent workers are roots in a list; dependent workers live inside their parents. The
// lock is shared while samples are delivered (deliveries may run in parallel) and exclusive
// for insertion and removal.
//
// Beside the list, an index finds the roots of one key or one id without walking the list:
// a host with a thousand processes of one image carries a hundred thousand workers. Roots
// that have children are few; they are searched in full, so dependants are found as well.
// Every lookup visits its roots in list order, the order a walk of the list would give.
class CWorkerManager {
 public:
  CWorkerManager() = default;
  // Does not delete workers: DestroyWorker() must have run before.
  ~CWorkerManager() = default;
  CWorkerManager(const CWorkerManager&) = delete;
  CWorkerManager& operator=(const CWorkerManager&) = delete;

  // Fills a worker allocated by the caller; neither inserts it nor locks. 102 for a null
  // worker; the worker's own error (after a Reset) when the definition is refused.
  CError CreateWorker(const CMonitorData& monitor, CWorker* worker);
  // Takes ownership of `worker` in every case. A dependent worker is copied under every worker
  // that carries its dependent_id and then freed; 109 when nothing was inserted.
  CError InsertWorker(CWorker* worker);
  // Whether some worker, root or descendant, has both this key and this id.
  bool FindWorker(const std::string& key, const std::string& id);
  // Every match over all roots in list order, depth-first; the caller holds the lock.
  void FindWokerByKeyNolock(const std::string& key, std::vector<CWorker*>& out);
  void FindWokerByIDNolock(const std::string& id, std::vector<CWorker*>& out);

  // Remove matching workers anywhere in the forest, waiting for deliveries in progress for as
  // long as it takes. Always success.
  CError DeleteWorkerByID(const std::string& id);
  CError DeleteWorkerByKey(const std::string& key);
  // Removes every worker, with the same waiting.
  void DestroyWorker();

  // Delivers the sample to every worker with the key of its target: the path and pid of a
  // process, "system" and 0, or "processpoint" and 3 for all processes of one notification.
  void Dispatch(const ProcessInfo& info);
  void Dispatch(const SystemInfo& info);
  void Dispatch(const std::vector<ProcessInfo>& infos);

 private:
  enum class Removal { kByID, kByKey };
  // Over the roots that may match, in list order, with the lock held: matching roots are freed
  // once deletable, the others are searched by `descend`.
  template <typename Match, typename Descend>
  void DeleteMatching(const std::vector<CWorker*>* indexed, const Match& match,
                      const Descend& descend, Removal removal);
  template <typename Sample>
  void DispatchByKey(const std::string& key, const Sample& sample);

  // The roots that may hold a match: those of `indexed` and every root with children, merged
  // in list order.
  std::vector<CWorker*> Candidates(const std::vector<CWorker*>* indexed) const;
  const std::vector<CWorker*>* RootsOfKey(const std::string& key) const;
  const std::vector<CWorker*>* RootsOfID(const std::string& id) const;
  void IndexRoot(CWorker* root);
  void UnindexRoot(CWorker* root);
  // Rebuilds the list of roots with children after dependants were inserted.
  void RefreshParents();

  std::vector<CWorker*> workers_;
  // Roots by key and by id, each vector in list order; the sequence number gives that order.
  std::unordered_map<std::string, std::vector<CWorker*>> byKey_;
  std::unordered_map<std::string, std::vector<CWorker*>> byID_;
  std::unordered_map<const CWorker*, uint64_t> sequence_;
  std::vector<CWorker*> parents_;
  uint64_t nextSequence_ = 0;
  CRwLock lock_{"CWorkerManager"};
};

#endif
