#include "worker/workermanager.h"

#include <memory>
#include <new>

#include "common/log.h"
#include "common/rwlock_guard.h"
#include "common/utils.h"

CWorkerManager::CWorkerManager() {
  const int rc = nuv_rwlock_init(&lock_);
  nuv_rwlock_set_name(lock_, "CWorkerManager");
  if (rc != 0) {
    ZLOG_ERROR("[CWorkerManager]::CWorkerManager lock init failed, code = %d.", rc);
  }
}

CWorkerManager::~CWorkerManager() { nuv_rwlock_destroy(&lock_); }

CError CWorkerManager::CreateWorker(const CMonitorData& monitor, CWorker* worker) {
  if (worker == nullptr) {
    ZLOG_WARN("[CWorkerManager]::CreateWorker param error.");
    return CError::CreateError(102, "parameter check error");
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
    return CError::CreateError(102, "parameter check error");
  }
  std::unique_ptr<CWorker> owned(worker);
  bool inserted = false;
  {
    CRwLockGuard guard(lock_, true, "CWorkerManager");
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
      } else {
        workers_.push_back(owned.get());
        owned.release();
        inserted = true;
      }
    } catch (const std::bad_alloc&) {
      // Nothing half-done remains: a copy is either in its parent's children or not made.
    }
  }
  if (!inserted) {
    const CError result = CError::CreateError(109, "generate worker or insert worker failed");
    ZLOG_ERROR("[CWorkerManager]::InsertWorker failed. code = %d, desc = %s.", result.code,
               result.desc.c_str());
    return result;
  }
  return CError();
}

bool CWorkerManager::FindWorker(const std::string& key, const std::string& id) {
  CRwLockGuard guard(lock_, false, "CWorkerManager");
  if (!guard.Held()) return false;
  std::vector<CWorker*> found;
  for (CWorker* root : workers_) {
    root->FindWorker(key, id, found);
    if (!found.empty()) {
      return true;
    }
  }
  return false;
}

void CWorkerManager::FindWokerByKeyNolock(const std::string& key, std::vector<CWorker*>& out) {
  for (CWorker* root : workers_) {
    root->FindWokerByKey(key, out);
  }
}

void CWorkerManager::FindWokerByIDNolock(const std::string& id, std::vector<CWorker*>& out) {
  for (CWorker* root : workers_) {
    root->FindWokerByID(id, out);
  }
}

template <typename Match, typename Descend>
void CWorkerManager::DeleteMatching(const Match& match, const Descend& descend, Removal removal) {
  auto it = workers_.begin();
  while (it != workers_.end()) {
    CWorker* root = *it;
    if (!match(*root)) {
      if (root->HasChildrens()) {
        descend(*root);
      }
      ++it;
      continue;
    }
    if (root->WaitDeletable()) {
      delete root;  // its destructor takes the descendants and their cells
      it = workers_.erase(it);
      continue;
    }
    // A delivery is still running on it; removal never leaves a worker half-removed.
    if (removal == Removal::kByID) {
      ZLOG_ERROR("[CWorkerManager]::DeleteWorkerByID failed. IsDelete ref, id = %s.",
                 root->GetWorkerID().c_str());
    } else {
      ZLOG_ERROR("[CWorkerManager]::DeleteWorkerByKey failed. IsDelete ref, id = %s.",
                 root->GetWorkerID().c_str());
    }
  }
}

CError CWorkerManager::DeleteWorkerByID(const std::string& id) {
  CRwLockGuard guard(lock_, true, "CWorkerManager");
  if (!guard.Held()) return CError::CreateError(102, "parameter check error");
  DeleteMatching([&id](CWorker& root) { return root.GetWorkerID() == id; },
                 [&id](CWorker& root) { root.DeleteWorkerByID(id); }, Removal::kByID);
  return CError();
}

CError CWorkerManager::DeleteWorkerByKey(const std::string& key) {
  CRwLockGuard guard(lock_, true, "CWorkerManager");
  if (!guard.Held()) return CError::CreateError(102, "parameter check error");
  DeleteMatching([&key](CWorker& root) { return root.GetKey() == key; },
                 [&key](CWorker& root) { root.DeleteWorkerByKey(key); }, Removal::kByKey);
  return CError();
}

void CWorkerManager::DestroyWorker() {
  CRwLockGuard guard(lock_, true, "CWorkerManager");
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
}

template <typename Sample>
void CWorkerManager::DispatchByKey(const std::string& key, const Sample& sample) {
  CRwLockGuard guard(lock_, false, "CWorkerManager");
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
  DispatchByKey(CreateKey("system", 0), info);
}

void CWorkerManager::Dispatch(const std::vector<ProcessInfo>& infos) {
  DispatchByKey(CreateKey("processpoint", 3), infos);
}
