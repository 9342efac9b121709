#include "handler/handler.h"

#include <string>

#include "common/log.h"
#include "common/reserved.h"
#include "common/singleton.h"
#include "export/monitor_registry.h"
#include "file/fileclassify.h"
#include "file/filemanager.h"
#include "handler/logdata.h"
#include "nuv_maintenance.h"

namespace {

const char kReceiverTopic[] = "maintenance:reciver";

constexpr int kResultInvalidParameter = static_cast<int>(NUV_MAINT_INVALID_PARAMETER);
// Codes from 200 on come from the store itself.
constexpr int kFirstStoreError = 200;

}  // namespace

bool CPerformanceHandler::StartHandler() {
  if (nuv_comm_init() == 0 &&
      nuv_comm_register(kReceiverTopic, &CPerformanceHandler::MaintanceReceiver, nullptr) == 0) {
    return true;
  }
  ZLOG_ERROR("[CPerformanceHandler]::StartHandler failed.");
  return false;
}

bool CPerformanceHandler::StopHandler() {
  const int unregistered = nuv_comm_unregister(kReceiverTopic);
  const int left = nuv_comm_uninit();
  if (unregistered == 0 && left == 0) {
    return true;
  }
  ZLOG_ERROR("[CPerformanceHandler]::StopHandler failed.");
  return false;
}

int CPerformanceHandler::MaintanceReceiver(comm_data* request, comm_data* /*reply*/,
                                           void* /*userData*/) {
  void* data = nullptr;
  unsigned int length = 0;
  if (nuv_comm_get_data(request, &data, &length) != 0) {
    return kResultInvalidParameter;
  }
  const std::string text(static_cast<const char*>(data), length);
  if (text.empty()) {
    return kResultInvalidParameter;
  }
  CLogData record;
  if (!record.StringToLogData(text)) {
    // Whatever was read before the failure still classifies the record below.
    ZLOG_ERROR("[CPerformanceHandler]::MaintanceReceiver parse logdata failed. str = %s",
               text.c_str());
  }
  // Records from this sender are gathered into one stream whatever process they came from.
  if (record.GetID() == kProcessPointId) {
    record.SetPid(kProcessPointPid);
    record.SetName(kProcessPointImage);
  }
  if (!record.GetName().empty() && !CFileClassify::IsStoreName(record.GetName())) {
    ZLOG_ERROR("[CPerformanceHandler]::MaintanceReceiver name is not a store name. name = %s",
               record.GetName().c_str());
    return kResultInvalidParameter;
  }
  if (!record.GetID().empty()) {
    CSingleton<CMonitorRegistry>::GetInstance().Fired(record.GetID(), record.GetName(),
                                                      record.GetPid(), record.GetContext());
  }
  CFileClassify classify;
  if (!classify.InitFileClassify(record.GetName(), record.GetPid(), record.GetType())) {
    return 0;
  }
  // A record the store refused for want of content is dropped quietly; one the disk would not
  // take is reported, so nobody takes it for stored.
  const CError written =
      CSingleton<CFileManager>::GetInstance().WriteFile(classify, record.GetContext());
  if (written.code >= kFirstStoreError) {
    ZLOG_ERROR("[CPerformanceHandler]::MaintanceReceiver write failed with error:%d-%s",
               written.code, written.desc.c_str());
    return written.code;
  }
  return 0;
}
