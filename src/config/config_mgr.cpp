#include "config/config_mgr.h"

#include "common/log.h"
#include "common/utils.h"
#include "config/config_addition.h"
#include "config/config_clearn.h"
#include "config/config_collect.h"
#include "config/config_file.h"
#include "config/config_perfor.h"
#include "config/config_queue.h"
#include "nuv_path.h"

ConfigMgr::ConfigMgr() = default;
ConfigMgr::~ConfigMgr() = default;

CError ConfigMgr::LoadConfig() {
  ZLOG_INFO("[ConfigMgr]::LoadConfig start.");
  path_.clear();
  if (!GetConfigFilePath(path_)) {
    ZLOG_ERROR("[ConfigMgr]::LoadConfig faild, not find config file %s.", path_.c_str());
    return CError::CreateError(kErrConfigNotFound, "n`t found config");
  }
  return LoadFound();
}

CError ConfigMgr::LoadConfig(const std::string& path) {
  ZLOG_INFO("[ConfigMgr]::LoadConfig start.");
  path_ = path;
  if (nuv_path_is_exist_a(path_.c_str()) == 0) {
    ZLOG_ERROR("[ConfigMgr]::LoadConfig faild, not find config file %s.", path_.c_str());
    return CError::CreateError(kErrConfigNotFound, "n`t found config");
  }
  return LoadFound();
}

void ConfigMgr::ReleaseSections() {
  CMessageQueueCfg::ReleaseInstance();
  CCollectSdkCfg::ReleaseInstance();
  CPerforMonitorCfg::ReleaseInstance();
  CMaintainceLogCfg::ReleaseInstance();
  CClearnCfg::ReleaseInstance();
  CAdditionCtrlor::ReleaseInstance();
}

CError ConfigMgr::LoadFound() {
  if (document_.JsonLoadFile(path_) != JsonUtil::kOk) {
    ZLOG_ERROR("[ConfigMgr]::LoadConfig faild, parse config file failed.");
    return CError::CreateError(kErrConfigLoad, "load config failed, path = %s", path_.c_str());
  }
  CError result = ParseSections();
  if (result.IsSuccess()) {
    ZLOG_INFO("[ConfigMgr]::LoadConfig success.");
  }
  return result;
}

CError ConfigMgr::ParseSections() {
  if (!CMessageQueueCfg::GetInstance()->Parse(document_)) {
    ZLOG_ERROR("[ConfigMgr]::LoadConfig faild, parse message queue config failed.");
    return CError::CreateError(kErrConfigParse, "parse config failed, tag name = %s",
                               "message queue config");
  }
  if (!CCollectSdkCfg::GetInstance()->Parse(document_)) {
    ZLOG_ERROR("[ConfigMgr]::LoadConfig faild, parse collect sdk config failed.");
    return CError::CreateError(kErrConfigParse, "parse config failed, tag name = %s",
                               "collect sdk config");
  }
  if (!CPerforMonitorCfg::GetInstance()->Parse(document_)) {
    ZLOG_ERROR("[ConfigMgr]::LoadConfig faild, parse performance monitor config failed.");
    return CError::CreateError(kErrConfigParse, "parse config failed, tag name = %s",
                               "performance monitor config");
  }
  if (!CMaintainceLogCfg::GetInstance()->Parse(document_)) {
    ZLOG_ERROR("[ConfigMgr]::LoadConfig faild, parse maintaince log config failed.");
    return CError::CreateError(kErrConfigParse, "parse config failed, tag name = %s",
                               "maintaince log config");
  }
  // The next two lines repeat the log section's wording on purpose; the tag tells them apart.
  if (!CClearnCfg::GetInstance()->Parse(document_)) {
    ZLOG_ERROR("[ConfigMgr]::LoadConfig faild, parse maintaince log config failed.");
    return CError::CreateError(kErrConfigParse, "parse config failed, tag name = %s",
                               "clearn log config");
  }
  if (!CAdditionCtrlor::GetInstance()->Parse(document_)) {
    ZLOG_ERROR("[ConfigMgr]::LoadConfig faild, parse maintaince log config failed.");
    return CError::CreateError(kErrConfigParse, "parse config failed, tag name = %s",
                               "CAdditionCtrlor log config");
  }
  return CError();
}
