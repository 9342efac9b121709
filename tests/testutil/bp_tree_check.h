// The burying-point checks as they ran over a Jansson tree (JsonUtil) before the manager scanned
// documents in place: the oracle that bpmgr_test and the differential fuzz target hold
// CBpMgr::CheckBpData to, result code, message and classification alike.
#ifndef NUV_TESTUTIL_BP_TREE_CHECK_H
#define NUV_TESTUTIL_BP_TREE_CHECK_H

#include <string>

#include "buryingpoint/bpmgr.h"
#include "common/error.h"
#include "common/jsonutil.h"
#include "file/fileclassify.h"

namespace nuvtest {

inline CError CheckBpOverTree(const std::string& text, CFileClassify& classify) {
  auto invalid = [](const char* path) { return CError::CreateError(102, "bp %s is invalid", path); };
  const std::string::size_type nul = text.find('\0');
  if (nul != std::string::npos) {
    return CError::CreateError(102, "bp data holds a NUL byte at offset %u",
                               static_cast<unsigned int>(nul));
  }
  JsonUtil json;
  const int loaded = json.JsonLoadString(text);
  if (loaded != JsonUtil::kOk) {
    return CError::CreateError(102, "json load failed with error:%d", loaded);
  }
  int type = 0;
  if (json.JsonGetInteger("header/type", &type, -1) != JsonUtil::kOk) return invalid("header/type");
  std::string version;
  if (json.JsonGetString("header/version", version, -1) != JsonUtil::kOk) {
    return invalid("header/version");
  }
  if (version != "1.0") {
    return CError::CreateError(102, "BP %s:%s is not support", "header/type", version.c_str());
  }
  std::string focus;
  if (json.JsonGetString("header/focus", focus, -1) != JsonUtil::kOk) {
    return invalid("header/focus");
  }
  std::string name;
  unsigned int pid = 0;
  CError result = CBpMgr().GetBpFocus(focus, name, &pid);
  if (result.code != 0) return result;
  std::string scratch;
  for (const char* path : {"header/id", "header/name", "header/module", "header/function",
                           "header/time", "header/product", "header/product_version",
                           "header/agent_id"}) {
    if (json.JsonGetString(path, scratch, -1) != JsonUtil::kOk) return invalid(path);
  }
  if (!classify.InitFileClassify(name, pid, static_cast<unsigned int>(type))) {
    return CError::CreateError(302, "init file classify failed.");
  }
  if (classify.GetType() == 256) {
    int value = 0;
    for (const char* path : {"body/time_start", "body/time_end", "body/time_diff"}) {
      if (json.JsonGetInteger(path, &value, -1) != JsonUtil::kOk) return invalid(path);
    }
  }
  return CError();
}

}  // namespace nuvtest

#endif
