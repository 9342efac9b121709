#include "config/config_clearn.h"

#include <cstdlib>

#include "common/log.h"

int ConvertMiBToBytes(int mib) {
  int bytes = 0;
  if (__builtin_mul_overflow(mib, 1048576, &bytes)) {
    std::abort();
  }
  return bytes;
}

bool CClearnCfg::Parse(JsonUtil& document) {
  // Both messages name the maintenance-log section although this is the clean-up section.
  if (document.JsonGetInteger("/default/clearn/day", &timeInterval_, -1) != JsonUtil::kOk) {
    ZLOG_ERROR("[CMaintainceLogCfg]::Parse maintaince log cach size failed.");
    return false;
  }
  if (document.JsonGetInteger("/default/clearn/file_size", &limitFileSize_, -1) !=
      JsonUtil::kOk) {
    ZLOG_ERROR("[CMaintainceLogCfg]::Parse maintaince file size failed.");
    return false;
  }
  limitFileSize_ = ConvertMiBToBytes(limitFileSize_);
  return true;
}

int CClearnCfg::GetTimeInterval() const {
  return timeInterval_ < 1 ? kDefaultTimeInterval : timeInterval_;
}

int CClearnCfg::GetLimitFileSize() const {
  return limitFileSize_ < 1 ? kDefaultLimitFileSize : limitFileSize_;
}
