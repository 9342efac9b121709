// Capacity of the topic message queue, read from "/default/cache/size".
#ifndef NUV_CONFIG_CONFIG_QUEUE_H
#define NUV_CONFIG_CONFIG_QUEUE_H

#include "common/jsonutil.h"

class CMessageQueueCfg {
 public:
  // Not locked: the first call happens during start, on one thread.
  static CMessageQueueCfg* GetInstance();
  static void ReleaseInstance();

  // True when "/default/cache/size" is an integer. No log line.
  bool Parse(JsonUtil& document);
  int GetQueueSize() const { return queueSize_; }

  CMessageQueueCfg(const CMessageQueueCfg&) = delete;
  CMessageQueueCfg& operator=(const CMessageQueueCfg&) = delete;

 private:
  CMessageQueueCfg() = default;
  ~CMessageQueueCfg() = default;

  static CMessageQueueCfg* instance_;

  int queueSize_ = 0;
};

#endif
