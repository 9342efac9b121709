// Capacity of the topic message queue, read from "/default/cache/size".
#ifndef NUV_CONFIG_CONFIG_QUEUE_H
#define NUV_CONFIG_CONFIG_QUEUE_H

#include "common/jsonutil.h"
#include "config/config_section.h"

class CMessageQueueCfg : public CConfigSection<CMessageQueueCfg> {
 public:
  // True when "/default/cache/size" is an integer. No log line.
  bool Parse(JsonUtil& document);
  int GetQueueSize() const { return queueSize_; }

  CMessageQueueCfg(const CMessageQueueCfg&) = delete;
  CMessageQueueCfg& operator=(const CMessageQueueCfg&) = delete;

 private:
  friend class CConfigSection<CMessageQueueCfg>;
  CMessageQueueCfg() = default;
  ~CMessageQueueCfg() = default;

  int queueSize_ = 0;
};

#endif
