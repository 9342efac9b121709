#include "config/config_queue.h"

bool CMessageQueueCfg::Parse(JsonUtil& document) {
  return document.JsonGetInteger("/default/cache/size", &queueSize_, -1) == JsonUtil::kOk;
}
