#include "config/config_queue.h"

CMessageQueueCfg* CMessageQueueCfg::instance_ = nullptr;

CMessageQueueCfg* CMessageQueueCfg::GetInstance() {
  if (instance_ == nullptr) {
    instance_ = new CMessageQueueCfg();
  }
  return instance_;
}

void CMessageQueueCfg::ReleaseInstance() {
  delete instance_;
  instance_ = nullptr;
}

bool CMessageQueueCfg::Parse(JsonUtil& document) {
  return document.JsonGetInteger("/default/cache/size", &queueSize_, -1) == JsonUtil::kOk;
}
