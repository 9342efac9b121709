#include "config/config_file.h"

#include "common/log.h"
#include "nuv_dir.h"
#include "nuv_path.h"

std::string TransformConfigPath(const std::string& path) {
  if (nuv_path_is_absolute(path.c_str()) != 0) {
    return path;
  }
  char buffer[4096] = {0};
  if (nuv_dirutils_path_transform(path.c_str(), buffer, sizeof(buffer)) != 0) {
    return path;
  }
  return buffer;
}

bool CMaintainceLogCfg::Parse(JsonUtil& document) {
  if (document.JsonGetInteger("/default/file/cahce", &logCacheSize_, -1) != JsonUtil::kOk) {
    ZLOG_ERROR("[CMaintainceLogCfg]::Parse maintaince log cach size failed.");
    return false;
  }
  if (document.JsonGetString("/default/file/path", logPath_, -1) != JsonUtil::kOk) {
    ZLOG_ERROR("[CMaintainceLogCfg]::Parse maintaince log path failed.");
    return false;
  }
  logPath_ = TransformConfigPath(logPath_);
  return true;
}

std::string CMaintainceLogCfg::GetAbsoluteLogPath() const {
  std::string scratch;
  return AbsoluteLogPath(scratch);
}

const std::string& CMaintainceLogCfg::AbsoluteLogPath(std::string& scratch) const {
  if (nuv_path_is_absolute(logPath_.c_str()) != 0) {
    return logPath_;
  }
  char buffer[512] = {0};
  if (nuv_path_absolute(logPath_.c_str(), buffer, sizeof(buffer)) != 0) {
    scratch.clear();
  } else {
    scratch.assign(buffer);
  }
  return scratch;
}
