#include "config/config_collect.h"

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
