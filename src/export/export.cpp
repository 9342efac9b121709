// The library's four exported entry points and its process-wide started flag.
#include <string>
#include <vector>

#include "buryingpoint/bpmgr.h"
#include "common/log.h"
#include "common/singleton.h"
#include "config/config_file.h"
#include "config/config_mgr.h"
#include "config/config_perfor.h"
#include "export/monitor_registry.h"
#include "manager/comm_perf_mgr.h"
#include "nuv_atomic.h"
#include "nuv_log.h"
#include "nuv_maintenance.h"
#include "worker/data.h"

namespace {

nuv_atomic32_t g_started = NUV_ATOMIC32_INIT(0);

void CopyIfSet(std::string& field, const char* value) {
  if (value != nullptr) field = value;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) uint32_t nuv_start_perf_manager(void) {
  if (nuv_atomic32_get(&g_started) == 1) return NUV_MAINT_OK;
  nuv_log_start(0);
  {
    ConfigMgr config;
    CError loaded = config.LoadConfig();
    if (loaded.code != 0) {
      ZLOG_ERROR("[nuv_maintenance]::nuv_start_perf_manager load config failed.");
      return NUV_MAINT_START_FAILED;
    }
  }
  ZLOG_DEBUG("[nuv_maintain] maintain log file path is: [%s]",
             CMaintainceLogCfg::GetInstance()->GetAbsoluteLogPath().c_str());
  CommonPerfMgr& manager = CSingleton<CommonPerfMgr>::GetInstance();
  {
    std::vector<CMonitorData> monitors = CPerforMonitorCfg::GetInstance()->GetMonitor();
    for (CMonitorData& monitor : monitors) {
      if (!manager.RegisterMonitor(monitor)) {
        ZLOG_ERROR("[nuv_maintenance]::register monitor failed, monitor id = %s.",
                   monitor.id.c_str());
      } else {
        CSingleton<CMonitorRegistry>::GetInstance().Filed(monitor, "config");
      }
    }
  }
  if (!manager.StartPerfManager()) {
    ZLOG_ERROR("[nuv_maintenance]::start perf monitor failed.");
    return NUV_MAINT_START_FAILED;
  }
  // Burying points are an extra: the library runs without them.
  if (CSingleton<CBpMgr>::GetInstance().Start().code != 0) {
    ZLOG_WARN("[nuv_maintenance]::buryingpoint start failed.");
  }
  nuv_atomic32_set(&g_started, 1);
  return NUV_MAINT_OK;
}

extern "C" __attribute__((visibility("default"))) void nuv_stop_perf_manager(void) {
  if (nuv_atomic32_get(&g_started) == 0) return;
  CSingleton<CBpMgr>::GetInstance().Stop();
  CSingleton<CommonPerfMgr>::GetInstance().StopPerfManager();
  nuv_atomic32_set(&g_started, 0);
  nuv_log_stop();
}

extern "C" __attribute__((visibility("default"))) uint32_t nuv_register_perf_monitor(
    const char* id, const char* agent_id, const char* name, const char* subscriber,
    const char* product, const char* product_version, const char* focus, const char* handler,
    const char* condition, const char* dependent_id) {
  CMonitorData monitor;
  CopyIfSet(monitor.id, id);
  CopyIfSet(monitor.agent_id, agent_id);
  CopyIfSet(monitor.name, name);
  CopyIfSet(monitor.subscriber, subscriber);
  CopyIfSet(monitor.product, product);
  CopyIfSet(monitor.product_version, product_version);
  CopyIfSet(monitor.focus, focus);
  CopyIfSet(monitor.handler, handler);
  CopyIfSet(monitor.condition, condition);
  CopyIfSet(monitor.dependent_id, dependent_id);
  monitor.version = "1.0";
  if (monitor.CheckValid().code != 0) {
    ZLOG_ERROR("[nuv_maintenance]::nuv_register_perf_monitor invalid parameters.");
    return NUV_MAINT_INVALID_PARAMETER;
  }
  if (!CSingleton<CommonPerfMgr>::GetInstance().RegisterMonitor(monitor)) {
    ZLOG_ERROR("[nuv_maintenance]::nuv_register_perf_monitor register monitor failed.");
    return NUV_MAINT_REFUSED;
  }
  CSingleton<CMonitorRegistry>::GetInstance().Filed(monitor, "api");
  return NUV_MAINT_OK;
}

extern "C" __attribute__((visibility("default"))) void nuv_unregister_perf_monitor(
    const char* id) {
  if (id == nullptr) return;
  std::string monitorId = id;
  CSingleton<CommonPerfMgr>::GetInstance().UnRegisterMonitor(monitorId);
  CSingleton<CMonitorRegistry>::GetInstance().Removed(monitorId);
}
