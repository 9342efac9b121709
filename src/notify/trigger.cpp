#include "notify/trigger.h"

#include <vector>

#include "common/log.h"
#include "common/reserved.h"
#include "common/rwlock.h"
#include "common/singleton.h"
#include "common/utils.h"
#include "config/config_collect.h"
#include "file/fileclassify.h"
#include "file/filemanager.h"

namespace {

// Both figure kinds: system (1) and processes (2).
const unsigned int kNotifyMask = NUV_PERF_TYPE_SYSTEM | NUV_PERF_TYPE_PROCESS;
// The store's classification of per-process performance records.

}  // namespace


bool CTrigger::StartTrigger() {
  if (started_) {
    return true;
  }
  const CCollectSdkCfg* collect = CCollectSdkCfg::GetInstance();
  nuv_config_data_source(collect->GetMonitorType(), collect->GetCollectFrequency());
  if (nuv_perf_regsiter_notifier(kNotifyMask, PerfMonTrigger, this) != 0) {
    ZLOG_ERROR("[CTrigger]::StartTrigger performance register notifier failed.");
    return false;
  }
  if (nuv_proc_regsiter_notifier(ProcMonTrigger, this) != 0) {
    ZLOG_ERROR("[CTrigger]::StartTrigger register process notifier failed.");
    return false;
  }
  started_ = true;
  ZLOG_INFO("[CTrigger]::StartTrigger register success.");
  return true;
}

void CTrigger::StopTrigger() {
  if (!started_) {
    return;
  }
  nuv_proc_unregsiter_notifier();
  nuv_perf_unregsiter_notifier(CCollectSdkCfg::GetInstance()->GetMonitorType());
  started_ = false;
  ZLOG_INFO("[CTrigger]::StopTrigger success.");
}

void CTrigger::SetPerfMonitor(CPerfInterface* monitor) {
  if (monitor == nullptr) {
    return;
  }
  CRwLockGuard guard(lock_, true);
  if (guard.Held()) monitor_ = monitor;
}

void CTrigger::ClearnPerfMonitor() {
  CRwLockGuard guard(lock_, true);
  if (guard.Held()) monitor_ = nullptr;
}

void CTrigger::PerfMonTrigger(unsigned int type, _perf_information* info, void* context) {
  if (info == nullptr || context == nullptr) {
    return;
  }
  static_cast<CTrigger*>(context)->OnPerformance(type, info);
}

int CTrigger::ProcMonTrigger(int event, void* procInfo, void* context) {
  if (procInfo == nullptr || context == nullptr) {
    return 0;
  }
  static_cast<CTrigger*>(context)->OnProcess(event,
                                             static_cast<const _process_mon_info*>(procInfo));
  return 0;
}

void CTrigger::OnPerformance(unsigned int type, const _perf_information* info) {
  // Process figures go first, so a receiver sees the system figures of a notification last.
  if ((type & NUV_PERF_TYPE_PROCESS) != 0) {
    std::vector<ProcessInfo> processes;
    processes.reserve(info->process_info != nullptr ? info->process_count : 0);
    // Held for the whole delivery, so the receiver cannot be detached halfway.
    CRwLockGuard guard(lock_, false);
    for (uint32_t i = 0; info->process_info != nullptr && i < info->process_count; ++i) {
      processes.emplace_back(&info->process_info[i]);
      if (guard.Held() && monitor_ != nullptr) {
        monitor_->Dispatch(processes.back());
      }
    }
    // The batch goes out even when it is empty. A receiver is attached before the trigger
    // starts and detached after it stops; the test only keeps a misuse from crashing.
    if (guard.Held() && monitor_ != nullptr) {
      monitor_->Dispatch(processes);
    }
  }
  if ((type & NUV_PERF_TYPE_SYSTEM) != 0) {
    const SystemInfo system(info->sys_info);
    CRwLockGuard guard(lock_, false);
    if (guard.Held() && monitor_ != nullptr) {
      monitor_->Dispatch(system);
    }
  }
}

void CTrigger::OnProcess(int event, const _process_mon_info* info) {
  const ProcessMonInfo process(info);
  if (event != NUV_PROC_EVENT_EXIT) {
    CRwLockGuard guard(lock_, false);
    if (guard.Held() && monitor_ != nullptr) {
      monitor_->RegisterMonitor(process.path, process.pid);
    }
    return;
  }
  {
    CRwLockGuard guard(lock_, false);
    if (guard.Held() && monitor_ != nullptr) {
      monitor_->UnRegisterMonitor(process.path, process.pid);
    }
  }
  // The ended process's performance stream is named after its process name without extension.
  CFileClassify classify;
  if (classify.InitFileClassify(GetProcessName(process.name), process.pid,
                                kPerformanceRecordType)) {
    CSingleton<CFileManager>::GetInstance().Delete(classify);
  }
}
