#include "config/config_collect.h"

CCollectSdkCfg* CCollectSdkCfg::instance_ = nullptr;

CCollectSdkCfg* CCollectSdkCfg::GetInstance() {
  if (instance_ == nullptr) {
    instance_ = new CCollectSdkCfg();
  }
  return instance_;
}

void CCollectSdkCfg::ReleaseInstance() {
  delete instance_;
  instance_ = nullptr;
}

bool CCollectSdkCfg::Parse(JsonUtil& document) {
  if (document.JsonGetInteger("/default/collect_sdk/frequency", &collectFrequency_, -1) !=
      JsonUtil::kOk) {
    return false;
  }
  if (document.JsonGetInteger("/default/collect_sdk/monitor_type", &monitorType_, -1) !=
      JsonUtil::kOk) {
    return false;
  }
  return document.JsonGetInteger("/default/collect_sdk/hit_rate", &hitRate_, -1) ==
         JsonUtil::kOk;
}
