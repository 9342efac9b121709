// Default location of the on-disk store and of the maintenance log, and the default stream
// cache size ("/default/file/...").
#ifndef NUV_CONFIG_CONFIG_FILE_H
#define NUV_CONFIG_CONFIG_FILE_H

#include <string>

#include "common/jsonutil.h"
#include "config/config_section.h"

// `path` itself when absolute, else resolved against the executable's directory. A path the
// platform cannot resolve (too long for 4096 bytes) is returned unchanged.
std::string TransformConfigPath(const std::string& path);

class CMaintainceLogCfg : public CConfigSection<CMaintainceLogCfg> {
 public:
  // Reads "/default/file/cahce" and "/default/file/path"; a relative path is stored in its
  // absolute form. Logs and returns false on the first missing or mistyped key.
  bool Parse(JsonUtil& document);

  int GetLogCacheSize() const { return logCacheSize_; }
  // The stored path when absolute, else resolved now; empty when that fails.
  std::string GetAbsoluteLogPath() const;
  // The same without a copy of an absolute path: the stored path itself, else `scratch`
  // holding the resolved one.
  const std::string& AbsoluteLogPath(std::string& scratch) const;

  CMaintainceLogCfg(const CMaintainceLogCfg&) = delete;
  CMaintainceLogCfg& operator=(const CMaintainceLogCfg&) = delete;

 private:
  friend class CConfigSection<CMaintainceLogCfg>;
  CMaintainceLogCfg() = default;
  ~CMaintainceLogCfg() = default;

  int logCacheSize_ = 0;
  std::string logPath_;
};

#endif
