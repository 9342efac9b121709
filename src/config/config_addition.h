// Per-type overrides of the store directory, cache size and clean-up rule ("/addition"). A type
// without an entry falls back to the defaults of CMaintainceLogCfg and CClearnCfg.
#ifndef NUV_CONFIG_CONFIG_ADDITION_H
#define NUV_CONFIG_CONFIG_ADDITION_H

#include <map>
#include <string>
#include <vector>

#include "common/jsonutil.h"
#include "config/config_section.h"

struct CConfigSub {
  std::string filePath;  // absolute
  int fileCache = 0;
  int clearnDay = 0;
  int fileSize = 0;  // bytes
  int bpType = 0;    // equal to the map key
};

class CAdditionCtrlor : public CConfigSection<CAdditionCtrlor> {
 public:
  // One entry per member of the "/addition" object, keyed by its "/bp_type"; a later member
  // with the same type overwrites an earlier one. False, without a log line, when "/addition"
  // is not an object or a member lacks a key; entries of earlier members stay. Entries of types
  // that a later parse no longer lists are kept.
  bool Parse(JsonUtil& document);

  // The entry's value exactly as stored (no substitution for values below 1), else the default.
  std::string GetFilePath(int type) const;
  // The same without a copy; `scratch` holds the default when it has to be resolved.
  const std::string& FilePath(int type, std::string& scratch) const;
  int GetFileSize(int type) const;
  int GetClearnDay(int type) const;
  int GetFileCache(int type) const;
  // The types that have an entry, in ascending order.
  std::vector<int> GetTypes() const;

  CAdditionCtrlor(const CAdditionCtrlor&) = delete;
  CAdditionCtrlor& operator=(const CAdditionCtrlor&) = delete;

 private:
  friend class CConfigSection<CAdditionCtrlor>;
  CAdditionCtrlor() = default;
  ~CAdditionCtrlor() = default;

  const CConfigSub* Find(int type) const;

  std::map<int, CConfigSub> subs_;
};

#endif
