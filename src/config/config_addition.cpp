#include "config/config_addition.h"

#include <vector>

#include "config/config_clearn.h"
#include "config/config_file.h"

bool CAdditionCtrlor::Parse(JsonUtil& document) {
  std::vector<JsonUtil> members;
  if (document.JsonGetJsonObjectList("/addition", members) != JsonUtil::kOk) {
    return false;
  }
  for (const JsonUtil& member : members) {
    CConfigSub sub;
    if (member.JsonGetString("/file/path", sub.filePath, -1) != JsonUtil::kOk ||
        member.JsonGetInteger("/file/cache", &sub.fileCache, -1) != JsonUtil::kOk ||
        member.JsonGetInteger("/clearn/day", &sub.clearnDay, -1) != JsonUtil::kOk ||
        member.JsonGetInteger("/clearn/file_size", &sub.fileSize, -1) != JsonUtil::kOk ||
        member.JsonGetInteger("/bp_type", &sub.bpType, -1) != JsonUtil::kOk) {
      return false;
    }
    sub.filePath = TransformConfigPath(sub.filePath);
    sub.fileSize = ConvertMiBToBytes(sub.fileSize);
    subs_[sub.bpType] = sub;
  }
  return true;
}

const CConfigSub* CAdditionCtrlor::Find(int type) const {
  auto it = subs_.find(type);
  return it == subs_.end() ? nullptr : &it->second;
}

std::string CAdditionCtrlor::GetFilePath(int type) const {
  std::string scratch;
  return FilePath(type, scratch);
}

const std::string& CAdditionCtrlor::FilePath(int type, std::string& scratch) const {
  const CConfigSub* sub = Find(type);
  return sub != nullptr ? sub->filePath
                        : CMaintainceLogCfg::GetInstance()->AbsoluteLogPath(scratch);
}

std::vector<int> CAdditionCtrlor::GetTypes() const {
  std::vector<int> types;
  for (const auto& entry : subs_) {
    types.push_back(entry.first);
  }
  return types;
}

int CAdditionCtrlor::GetFileSize(int type) const {
  const CConfigSub* sub = Find(type);
  return sub != nullptr ? sub->fileSize : CClearnCfg::GetInstance()->GetLimitFileSize();
}

int CAdditionCtrlor::GetClearnDay(int type) const {
  const CConfigSub* sub = Find(type);
  return sub != nullptr ? sub->clearnDay : CClearnCfg::GetInstance()->GetTimeInterval();
}

int CAdditionCtrlor::GetFileCache(int type) const {
  const CConfigSub* sub = Find(type);
  return sub != nullptr ? sub->fileCache : CMaintainceLogCfg::GetInstance()->GetLogCacheSize();
}
