#include "handler/messagequeue.h"

namespace {

constexpr unsigned int kMinCapacity = 100;
constexpr unsigned int kMaxCapacity = 5000;


}  // namespace

// Holds the queue's mutex for one operation.
class CMessageQueue::Locked {
 public:
  explicit Locked(nuv_mutex_t* mutex) : mutex_(mutex) { nuv_mutex_lock(mutex_); }
  ~Locked() { nuv_mutex_unlock(mutex_); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  nuv_mutex_t* mutex_;
};

CMessageQueue::CMessageQueue(unsigned int capacity) {
  if (nuv_mutex_init(&lock_) != 0) {
    lock_ = nullptr;
    return;
  }
  if (capacity <= kMinCapacity) {
    capacity_ = kMinCapacity;
  } else if (capacity >= kMaxCapacity) {
    capacity_ = kMaxCapacity;
  } else {
    capacity_ = capacity;
  }
}

CMessageQueue::~CMessageQueue() { nuv_mutex_destroy(&lock_); }

CError CMessageQueue::PutTopicMessage(const std::string& topic, QueueType type,
                                      const std::string& context) {
  Locked locked(lock_);
  if (type != QUEUE_TYPE_MEMORY && type != QUEUE_TYPE_PERSIST) {
    return CError::CreateError(kErrParam, "invalid parameter type = %d.",
                               static_cast<int>(type));
  }
  if (topic.empty()) {
    return CError::CreateError(kErrParam, "invalid parameter topic empty.");
  }
  std::queue<CMessage>& queue = queues_[topic];
  // A slow or absent consumer costs memory only up to the bound: the oldest message goes.
  if (!queue.empty() && queue.size() >= capacity_) {
    queue.pop();
  }
  queue.push(CMessage{context, type});
  return CError();
}

CError CMessageQueue::GetTopicMessage(const std::string& topic, CMessage& message) {
  Locked locked(lock_);
  auto found = queues_.find(topic);
  if (found == queues_.end()) {
    return CError::CreateError(kErrTopicNotFound, "n`t found topic %s", topic.c_str());
  }
  if (found->second.empty()) {
    queues_.erase(found);
    return CError::CreateError(kErrQueueEmpty, "topic %s context zero", topic.c_str());
  }
  message = found->second.front();
  found->second.pop();
  if (found->second.empty()) {
    queues_.erase(found);
  }
  return CError();
}

CError CMessageQueue::GetTopicMessageItor(std::string& topic, CMessage& message) {
  Locked locked(lock_);
  for (auto it = queues_.begin(); it != queues_.end();) {
    if (it->second.empty()) {
      it = queues_.erase(it);
      continue;
    }
    topic = it->first;
    message = it->second.front();
    it->second.pop();
    if (it->second.empty()) {
      queues_.erase(it);
    }
    return CError();
  }
  return CError::CreateError(kErrQueueEmpty, "queue zero");
}

CError CMessageQueue::LoadQueueFromFile(std::string /*path*/) { return CError(); }

CError CMessageQueue::SerializeQueueToFile(std::string /*path*/) { return CError(); }
