#include "manager/comm_perf_mgr.h"

#include <algorithm>
#include <new>

#include "common/log.h"
#include "common/reserved.h"
#include "common/utils.h"
#include "handler/topicposter.h"
#include "notify/find.h"

namespace {

const char kWorkerExists[] = "insert worker exist, id = %s, image = %s, pid = %d";

bool Insert(std::vector<CMonitorData>& into, const CMonitorData& monitor) {
  for (const CMonitorData& held : into) {
    if (held.id == monitor.id) return false;
  }
  into.push_back(monitor);
  return true;
}

}  // namespace

CommonPerfMgr::CommonPerfMgr() {
  trigger_.SetPerfMonitor(this);
}

CommonPerfMgr::~CommonPerfMgr() {
  // The trigger must not report into a manager that is going, and workers left by a host
  // that never stopped would otherwise be lost with the worker manager.
  trigger_.ClearnPerfMonitor();
  workers_.DestroyWorker();
}

bool CommonPerfMgr::StartPerfManager() {
  // A stop detached the trigger; without this a second start would sample into nothing.
  trigger_.SetPerfMonitor(this);
  const bool started = CPerformanceHandler::StartHandler() && trigger_.StartTrigger() &&
                       clearn_.StartClearn() && endpoint_.StartExportLPC();
  if (!started) StopPerfManager();
  return started;
}

bool CommonPerfMgr::StopPerfManager() {
  CPerformanceHandler::StopHandler();
  trigger_.StopTrigger();
  trigger_.ClearnPerfMonitor();
  workers_.DestroyWorker();
  // No worker fires any more; what still waits for a silent subscriber goes.
  CTopicPoster::GetInstance().Stop();
  clearn_.StopClearn();
  endpoint_.StopExportLPC();
  return true;
}

bool CommonPerfMgr::InsertExact(CMonitorData& monitor) { return Insert(exact_, monitor); }

bool CommonPerfMgr::InsertNonExact(CMonitorData& monitor) { return Insert(nonExact_, monitor); }

bool CommonPerfMgr::RegisterMonitor(CMonitorData& monitor) {
  CRwLockGuard scope(lock_, true);
  if (!scope.Held()) return false;
  const int type = monitor.GetDataType();
  if (type == CMonitorData::kTypeExact || type == CMonitorData::kTypeExactDepend) {
    if (!InsertExact(monitor)) {
      ZLOG_ERROR("[CommonPerfMgr]::RegisterMonitor insert exact monitor failed. id = %s.",
                 monitor.id.c_str());
      scope.Keep();
      return false;
    }
  } else if (type == CMonitorData::kTypeImage || type == CMonitorData::kTypeImageDepend) {
    if (!InsertNonExact(monitor)) {
      ZLOG_ERROR("[CommonPerfMgr]::RegisterMonitor insert non exact monitor failed. id = %s.",
                 monitor.id.c_str());
      scope.Keep();
      return false;
    }
  }

  std::string image = monitor.image;
  const unsigned int pid = static_cast<unsigned int>(monitor.pid);
  const bool exact = type == CMonitorData::kTypeExact || type == CMonitorData::kTypeExactDepend;
  unsigned int count = 0;
  if (type == CMonitorData::kTypeExact && image == kSystemImage && pid == 0) {
    count = RegisterInternalMonitor(image, pid);
  } else {
    CProcessFinder finder;
    std::vector<unsigned int> pids;
    if (exact && finder.IsProcessExist(image, pid)) {
      count = RegisterInternalMonitor(image, pid);
    } else if (type == CMonitorData::kTypeExactDepend && image == kProcessPointImage &&
               pid == kProcessPointPid) {
      count = RegisterInternalMonitor(image, pid);
    } else if (finder.FindProcess(image, pids)) {
      for (unsigned int found : pids) count += RegisterInternalMonitor(image, found);
    } else {
      // Nothing runs it yet: the definition waits for the trigger's process reports.
      count = 1;
    }
  }
  return count > 0;
}

unsigned int CommonPerfMgr::RegisterInternalMonitor(const std::string& image, unsigned int pid) {
  unsigned int count = 0;
  // Returns whether the definition is done with (a worker exists for it now).
  auto create = [&](CMonitorData& monitor) {
    const CError result = CreateMonitor(monitor);
    if (result.code == kErrWorkerExists) {
      ZLOG_INFO("[CommonPerfMgr]::RegisterInternalMonitor success, image = %s, pid = %d, code = %d, des = %s.",
                image.c_str(), static_cast<int>(pid), result.code, result.desc.c_str());
      return true;
    }
    if (result.code != 0) {
      ZLOG_ERROR("[CommonPerfMgr]::RegisterInternalMonitor failed, image = %s, pid = %d, code = %d, des = %s.",
                 image.c_str(), static_cast<int>(pid), result.code, result.desc.c_str());
      return false;
    }
    ZLOG_INFO("[CommonPerfMgr]::RegisterInternalMonitor success, image = %s, pid = %d.",
              image.c_str(), static_cast<int>(pid));
    ++count;
    return true;
  };

  for (size_t i = 0; i < exact_.size();) {
    CMonitorData& monitor = exact_[i];
    const bool matches = (monitor.image == kSystemImage && monitor.pid == 0) ||
                         (monitor.image == image && static_cast<unsigned int>(monitor.pid) == pid);
    if (matches && create(monitor)) {
      exact_.erase(exact_.begin() + static_cast<std::ptrdiff_t>(i));
    } else {
      ++i;
    }
  }
  for (const CMonitorData& templ : nonExact_) {
    if (templ.image != image) continue;
    CMonitorData copy = templ;
    copy.pid = static_cast<int32_t>(pid);
    create(copy);
  }
  return count;
}

CError CommonPerfMgr::CreateMonitor(CMonitorData& monitor) {
  const unsigned int pid = static_cast<unsigned int>(monitor.pid);
  if (workers_.FindWorker(CreateKey(monitor.image, pid), monitor.id)) {
    ZLOG_INFO("[CommonPerfMgr]::CreateMonitor exists, id = %s, code = %d, desc = %s.",
              monitor.id.c_str(), 110, kWorkerExists);
    return CError::CreateError(kErrWorkerExists, kWorkerExists, monitor.id.c_str(), monitor.image.c_str(),
                               static_cast<int>(pid));
  }
  CWorker* worker = new (std::nothrow) CWorker();
  if (worker == nullptr) {
    const CError result(102, "memory new fail");
    ZLOG_ERROR("[CommonPerfMgr]::CreateMonitor failed, id = %s, code = %d, desc = %s.",
               monitor.id.c_str(), result.code, result.desc.c_str());
    return result;
  }
  CError result = workers_.CreateWorker(monitor, worker);
  if (result.code != 0) {
    delete worker;
    ZLOG_ERROR("[CommonPerfMgr]::CreateMonitor failed, id = %s, code = %d, desc = %s.",
               monitor.id.c_str(), result.code, result.desc.c_str());
    return result;
  }
  // The worker manager owns the worker from here on, inserted or not.
  result = workers_.InsertWorker(worker);
  if (result.code != 0) {
    ZLOG_ERROR("[CommonPerfMgr]::CreateMonitor failed, id = %s, code = %d, desc = %s.",
               monitor.id.c_str(), result.code, result.desc.c_str());
    return result;
  }
  ZLOG_INFO("[CommonPerfMgr]::CreateMonitor success, id = %s, code = %d, desc = %s.",
            monitor.id.c_str(), result.code, result.desc.c_str());
  return result;
}

bool CommonPerfMgr::RegisterMonitor(const std::string& image, unsigned int pid) {
  CRwLockGuard scope(lock_, true);
  if (!scope.Held()) return false;
  return RegisterInternalMonitor(image, pid) != 0;
}

void CommonPerfMgr::UnRegisterMonitor(std::string& id) {
  CorrectLowerString(id);
  CRwLockGuard scope(lock_, true);
  if (!scope.Held()) return;
  auto sameId = [&id](const CMonitorData& monitor) { return monitor.id == id; };
  exact_.erase(std::remove_if(exact_.begin(), exact_.end(), sameId), exact_.end());
  nonExact_.erase(std::remove_if(nonExact_.begin(), nonExact_.end(), sameId), nonExact_.end());
  const CError result = workers_.DeleteWorkerByID(id);
  if (result.code != 0) {
    ZLOG_ERROR("[CommonPerfMgr]::UnRegisterMonitor failed, id = %s, code = %d, des = %s.",
               id.c_str(), result.code, result.desc.c_str());
  }
  ZLOG_DEBUG("[nuv_maintain] unregister monitor [%s] succeeded, exactly num: %d, nonexactly num: %d",
             id.c_str(), static_cast<int>(exact_.size()), static_cast<int>(nonExact_.size()));
}

void CommonPerfMgr::UnRegisterMonitor(const std::string& image, unsigned int pid) {
  const CError result = workers_.DeleteWorkerByKey(CreateKey(image, pid));
  if (result.code != 0) {
    ZLOG_ERROR("[CommonPerfMgr]::UnRegisterMonitor failed, image = %s, pid = %d, code = %d, des = %s.",
               image.c_str(), static_cast<int>(pid), result.code, result.desc.c_str());
  }
}

void CommonPerfMgr::Dispatch(const ProcessInfo& info) { workers_.Dispatch(info); }

void CommonPerfMgr::Dispatch(const SystemInfo& info) { workers_.Dispatch(info); }

void CommonPerfMgr::Dispatch(const std::vector<ProcessInfo>& infos) { workers_.Dispatch(infos); }
