// Collection settings: sampling frequency and monitor type handed to the platform notifiers,
// and the hit rate each worker applies to its window.
#ifndef NUV_CONFIG_CONFIG_COLLECT_H
#define NUV_CONFIG_CONFIG_COLLECT_H

#include "common/jsonutil.h"
#include "config/config_section.h"

class CCollectSdkCfg : public CConfigSection<CCollectSdkCfg> {
 public:
  // Reads frequency, monitor type and hit rate in that order; the first failed read returns
  // false and keeps what was read before it. No log line.
  bool Parse(JsonUtil& document);

  int GetCollectFrequency() const { return collectFrequency_; }
  int GetMonitorType() const { return monitorType_; }
  int GetHitRate() const { return hitRate_; }

  CCollectSdkCfg(const CCollectSdkCfg&) = delete;
  CCollectSdkCfg& operator=(const CCollectSdkCfg&) = delete;

 private:
  friend class CConfigSection<CCollectSdkCfg>;
  CCollectSdkCfg() = default;
  ~CCollectSdkCfg() = default;

  int collectFrequency_ = 5;
  int monitorType_ = 31;
  int hitRate_ = 80;
};

#endif
