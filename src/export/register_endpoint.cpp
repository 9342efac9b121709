#include "export/register_endpoint.h"

#include <string>

#include "common/log.h"
#include "common/singleton.h"
#include "config/config_perfor.h"
#include "export/monitor_registry.h"
#include "export/status_endpoint.h"
#include "manager/comm_perf_mgr.h"
#include "worker/data.h"

namespace {

const char kRegisterTopic[] = "maintenance:register";
const char kUnRegisterTopic[] = "maintenance:unregister";

// The request's bytes, exactly as long as the bus says (the body need not be terminated).
bool ReadBody(comm_data* request, std::string& body) {
  void* data = nullptr;
  unsigned int length = 0;
  if (nuv_comm_get_data(request, &data, &length) != 0) return false;
  body.assign(static_cast<const char*>(data), length);
  return true;
}

}  // namespace

bool CExportLPC::StartExportLPC() {
  int code = nuv_comm_init();
  if (code == 0) code = nuv_comm_register(kRegisterTopic, RegisterMonitor, this);
  if (code == 0) code = nuv_comm_register(kUnRegisterTopic, UnRegisterMonitor, this);
  if (code != 0) {
    ZLOG_ERROR("[CExportLPC]::start export lpc failed, code:%d", code);
    return false;
  }
  // Operators' questions are an extra: monitoring runs without them.
  CStatusEndpoint::Start();
  return true;
}

void CExportLPC::StopExportLPC() {
  CStatusEndpoint::Stop();
  nuv_comm_unregister(kRegisterTopic);
  nuv_comm_unregister(kUnRegisterTopic);
  nuv_comm_uninit();
}

int CExportLPC::RegisterMonitor(comm_data* request, comm_data* reply, void* context) {
  (void)reply;
  if (context == nullptr) return static_cast<int>(kInvalid);
  std::string body;
  if (!ReadBody(request, body)) return static_cast<int>(kNoData);
  CMonitorData monitor;
  if (!CPerforMonitorCfg::ParseRegisterJson(body, monitor)) return static_cast<int>(kInvalid);
  if (!CSingleton<CommonPerfMgr>::GetInstance().RegisterMonitor(monitor)) {
    // The exported function's wording: a refusal reads the same whichever way it came.
    ZLOG_ERROR("[nuv_maintenance]::nuv_register_perf_monitor register monitor failed.");
    return static_cast<int>(kRefused);
  }
  CSingleton<CMonitorRegistry>::GetInstance().Filed(monitor, "bus");
  return static_cast<int>(kDone);
}

int CExportLPC::UnRegisterMonitor(comm_data* request, comm_data* reply, void* context) {
  (void)reply;
  if (context == nullptr) return static_cast<int>(kInvalid);
  std::string body;
  if (!ReadBody(request, body)) return static_cast<int>(kNoData);
  std::string id;
  if (!CPerforMonitorCfg::ParseUnRegisterJson(body, id)) return static_cast<int>(kInvalid);
  CSingleton<CommonPerfMgr>::GetInstance().UnRegisterMonitor(id);
  CSingleton<CMonitorRegistry>::GetInstance().Removed(id);
  return static_cast<int>(kDone);
}
