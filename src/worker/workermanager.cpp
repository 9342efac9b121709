#include "worker/workermanager.h"

#include <algorithm>
#include <memory>
#include <new>
#include <unordered_set>

#include "common/log.h"
#include "common/reserved.h"
#include "common/rwlock.h"
#include "common/utils.h"


CError CWorkerManager::CreateWorker(const CMonitorData& monitor, CWorker* worker) {
  if (worker == nullptr) {
    ZLOG_WARN("[CWorkerManager]::CreateWorker param error.");
    return CError::CreateError(kErrParam, "parameter check error");
  }
  CError result = worker->CreateWorker(monitor);
  if (!result.IsSuccess()) {
    ZLOG_ERROR("[CWorkerManager]::CreateWorker failed. code = %d, desc = %s.", result.code,
               result.desc.c_str());
    worker->Reset();
  }
  return result;
}

CError CWorkerManager::InsertWorker(CWorker* worker) {
  if (worker == nullptr) {
    ZLOG_WARN("[CWorkerManager]::InsertWorker param error.");
    return CError::CreateError(kErrParam, "parameter check error");
  }
  std::unique_ptr<CWorker> owned(worker);
  bool inserted = false;
  {
    CRwLockGuard guard(lock_, true);
    try {
      if (!guard.Held()) {
        // Not inserted: reported below like any failed insertion.
      } else if (owned->HasParents()) {
        // Only copies live on, one under each parent with that id. The search is pre-order, so
        // going backwards fills descendants before their ancestors: growing an ancestor's
        // children would move the descendants still waiting in the list.
        std::vector<CWorker*> parents;
        FindWokerByIDNolock(owned->GetDependID(), parents);
        for (auto it = parents.rbegin(); it != parents.rend(); ++it) {
          if ((*it)->InsertChildWorker(*owned).IsSuccess()) {
            inserted = true;
          }
        }
        RefreshParents();
      } else {
        workers_.push_back(owned.get());
        IndexRoot(owned.release());
        inserted = true;
      }
    } catch (const std::bad_alloc&) {
      // Nothing half-done remains: a copy is either in its parent's children or not made.
    }
  }
  if (!inserted) {
    const CError result = CError::CreateError(kErrWorker, "generate worker or insert worker failed");
    ZLOG_ERROR("[CWorkerManager]::InsertWorker failed. code = %d, desc = %s.", result.code,
               result.desc.c_str());
    return result;
  }
  return CError();
}

bool CWorkerManager::FindWorker(const std::string& key, const std::string& id) {
  CRwLockGuard guard(lock_, false);
  if (!guard.Held()) return false;
  std::vector<CWorker*> found;
  for (CWorker* root : Candidates(RootsOfKey(key))) {
    root->FindWorker(key, id, found);
    if (!found.empty()) {
      return true;
    }
  }
  return false;
}

void CWorkerManager::FindWokerByKeyNolock(const std::string& key, std::vector<CWorker*>& out) {
  for (CWorker* root : Candidates(RootsOfKey(key))) {
    root->FindWokerByKey(key, out);
  }
}

void CWorkerManager::FindWokerByIDNolock(const std::string& id, std::vector<CWorker*>& out) {
  for (CWorker* root : Candidates(RootsOfID(id))) {
    root->FindWokerByID(id, out);
  }
}

const std::vector<CWorker*>* CWorkerManager::RootsOfKey(const std::string& key) const {
  auto found = byKey_.find(key);
  return found == byKey_.end() ? nullptr : &found->second;
}

const std::vector<CWorker*>* CWorkerManager::RootsOfID(const std::string& id) const {
  auto found = byID_.find(id);
  return found == byID_.end() ? nullptr : &found->second;
}

std::vector<CWorker*> CWorkerManager::Candidates(const std::vector<CWorker*>* indexed) const {
  static const std::vector<CWorker*> kNone;
  const std::vector<CWorker*>& roots = indexed != nullptr ? *indexed : kNone;
  if (parents_.empty()) {
    return roots;
  }
  const auto earlier = [this](const CWorker* a, const CWorker* b) {
    return sequence_.at(a) < sequence_.at(b);
  };
  std::vector<CWorker*> merged;
  merged.reserve(roots.size() + parents_.size());
  std::set_union(roots.begin(), roots.end(), parents_.begin(), parents_.end(),
                 std::back_inserter(merged), earlier);
  return merged;
}

void CWorkerManager::IndexRoot(CWorker* root) {
  sequence_[root] = nextSequence_++;
  byKey_[root->GetKey()].push_back(root);
  byID_[root->GetWorkerID()].push_back(root);
}

void CWorkerManager::UnindexRoot(CWorker* root) {
  const auto drop = [root](std::unordered_map<std::string, std::vector<CWorker*>>& index,
                           const std::string& name) {
    auto found = index.find(name);
    if (found == index.end()) {
      return;
    }
    std::vector<CWorker*>& roots = found->second;
    roots.erase(std::remove(roots.begin(), roots.end(), root), roots.end());
    if (roots.empty()) {
      index.erase(found);
    }
  };
  drop(byKey_, root->GetKey());
  drop(byID_, root->GetWorkerID());
  parents_.erase(std::remove(parents_.begin(), parents_.end(), root), parents_.end());
  sequence_.erase(root);
}

void CWorkerManager::RefreshParents() {
  parents_.clear();
  for (CWorker* root : workers_) {
    if (root->HasChildrens()) {
      parents_.push_back(root);
    }
  }
}

template <typename Match, typename Descend>
void CWorkerManager::DeleteMatching(const std::vector<CWorker*>* indexed, const Match& match,
                                    const Descend& descend, Removal removal) {
  std::unordered_set<const CWorker*> deleted;
  for (CWorker* root : Candidates(indexed)) {
    if (!match(*root)) {
      if (root->HasChildrens()) {
        descend(*root);
      }
      continue;
    }
    // A delivery still running on it: removal never leaves a worker half-removed.
    while (!root->WaitDeletable()) {
      if (removal == Removal::kByID) {
        ZLOG_ERROR("[CWorkerManager]::DeleteWorkerByID failed. IsDelete ref, id = %s.",
                   root->GetWorkerID().c_str());
      } else {
        ZLOG_ERROR("[CWorkerManager]::DeleteWorkerByKey failed. IsDelete ref, id = %s.",
                   root->GetWorkerID().c_str());
      }
    }
    UnindexRoot(root);
    deleted.insert(root);
    delete root;  // its destructor takes the descendants and their cells
  }
  if (!deleted.empty()) {
    // One pass over the list, whatever the number of roots removed.
    workers_.erase(std::remove_if(workers_.begin(), workers_.end(),
                                  [&deleted](const CWorker* w) { return deleted.count(w) != 0; }),
                   workers_.end());
  }
}

CError CWorkerManager::DeleteWorkerByID(const std::string& id) {
  CRwLockGuard guard(lock_, true);
  if (!guard.Held()) return CError::CreateError(kErrParam, "parameter check error");
  DeleteMatching(RootsOfID(id), [&id](CWorker& root) { return root.GetWorkerID() == id; },
                 [&id](CWorker& root) { root.DeleteWorkerByID(id); }, Removal::kByID);
  return CError();
}

CError CWorkerManager::DeleteWorkerByKey(const std::string& key) {
  CRwLockGuard guard(lock_, true);
  if (!guard.Held()) return CError::CreateError(kErrParam, "parameter check error");
  DeleteMatching(RootsOfKey(key), [&key](CWorker& root) { return root.GetKey() == key; },
                 [&key](CWorker& root) { root.DeleteWorkerByKey(key); }, Removal::kByKey);
  return CError();
}

void CWorkerManager::DestroyWorker() {
  CRwLockGuard guard(lock_, true);
  if (!guard.Held()) return;
  auto it = workers_.begin();
  while (it != workers_.end()) {
    CWorker* root = *it;
    if (root->HasChildrens()) {
      root->DestroyWorker();
    }
    if (root->WaitDeletable()) {
      delete root;
      it = workers_.erase(it);
      continue;
    }
    ZLOG_ERROR("[CWorkerManager]::DestroyWorker failed. IsDelete ref, id = %s.",
               root->GetWorkerID().c_str());
  }
  byKey_.clear();
  byID_.clear();
  sequence_.clear();
  parents_.clear();
}

template <typename Sample>
void CWorkerManager::DispatchByKey(const std::string& key, const Sample& sample) {
  CRwLockGuard guard(lock_, false);
  if (!guard.Held()) return;
  std::vector<CWorker*> targets;
  try {
    FindWokerByKeyNolock(key, targets);
  } catch (const std::bad_alloc&) {
    ZLOG_ERROR("[CWorkerManager]::Dispatch failed. not enough memory.");
    return;
  }
  for (CWorker* worker : targets) {
    worker->Do(sample);
  }
}

void CWorkerManager::Dispatch(const ProcessInfo& info) {
  DispatchByKey(CreateKey(info.path, info.pid), info);
}

void CWorkerManager::Dispatch(const SystemInfo& info) {
  DispatchByKey(CreateKey(kSystemImage, kSystemPid), info);
}

void CWorkerManager::Dispatch(const std::vector<ProcessInfo>& infos) {
  DispatchByKey(CreateKey(kProcessPointImage, kProcessPointPid), infos);
}
