// A bounded, thread-safe store of pending messages grouped by topic. Each topic keeps its
// messages in arrival order and holds at most `capacity` of them: a put on a full topic drops
// that topic's oldest message. Consumers take from one named topic, or from the topic whose
// name sorts first.
#ifndef NUV_HANDLER_MESSAGEQUEUE_H
#define NUV_HANDLER_MESSAGEQUEUE_H

#include <map>
#include <queue>
#include <string>

#include "common/error.h"
#include "nuv_lock.h"

// Kind of a queued message; the queue only stores it. Other values are refused.
enum QueueType : int {
  QUEUE_TYPE_MEMORY = 1,   // lives only as long as the queue
  QUEUE_TYPE_PERSIST = 2,  // meant to outlive it through the file hooks
};

struct CMessage {
  std::string context;
  QueueType type = QUEUE_TYPE_MEMORY;
};

class CMessageQueue {
 public:
  // The capacity is clamped to 100 .. 5000 messages per topic.
  explicit CMessageQueue(unsigned int capacity);
  ~CMessageQueue();
  CMessageQueue(const CMessageQueue&) = delete;
  CMessageQueue& operator=(const CMessageQueue&) = delete;

  // 102 for a type other than 1 or 2 (checked first) or an empty topic.
  CError PutTopicMessage(const std::string& topic, QueueType type, const std::string& context);
  // The oldest message of `topic`; 100 when the topic holds nothing.
  CError GetTopicMessage(const std::string& topic, CMessage& message);
  // The oldest message of the first topic, in byte-wise name order, that holds one, and that
  // topic's name; 101 "queue zero" when no topic does.
  CError GetTopicMessageItor(std::string& topic, CMessage& message);

  // Persistence hooks: nothing is kept on disk yet; both report success.
  CError LoadQueueFromFile(std::string path);
  CError SerializeQueueToFile(std::string path);

 private:
  class Locked;

  std::map<std::string, std::queue<CMessage>> queues_;
  nuv_mutex_t* lock_ = nullptr;
  unsigned int capacity_ = 0;
};

#endif
