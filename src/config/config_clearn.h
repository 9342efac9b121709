// Default clean-up rule: how many days stored directories are kept and the size limit of one
// content file ("/default/clearn/...").
#ifndef NUV_CONFIG_CONFIG_CLEARN_H
#define NUV_CONFIG_CONFIG_CLEARN_H

#include "common/jsonutil.h"
#include "config/config_section.h"

// mib × 1,048,576. A result outside 32 bits aborts the process: a wrapped limit would silently
// change what the store rolls over on.
int ConvertMiBToBytes(int mib);

class CClearnCfg : public CConfigSection<CClearnCfg> {
 public:
  static constexpr int kDefaultTimeInterval = 7;
  static constexpr int kDefaultLimitFileSize = 10 * 1024 * 1024;

  // Reads "/default/clearn/day" and "/default/clearn/file_size" (MiB, stored as bytes). Logs
  // and returns false on the first missing or mistyped key.
  bool Parse(JsonUtil& document);

  // The stored values, or the defaults above when the stored value is below 1.
  int GetTimeInterval() const;
  int GetLimitFileSize() const;

  CClearnCfg(const CClearnCfg&) = delete;
  CClearnCfg& operator=(const CClearnCfg&) = delete;

 private:
  friend class CConfigSection<CClearnCfg>;
  CClearnCfg() = default;
  ~CClearnCfg() = default;

  int timeInterval_ = 0;
  int limitFileSize_ = 0;
};

#endif
