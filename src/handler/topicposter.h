// Posts the records of fired monitors without holding up sampling. A topic served in this
// process is called at once, as before; a record for another process's topic waits in that
// topic's lane, whose own thread posts it. A subscriber that does not answer stalls only its
// own lane: its records wait (at most kLaneCapacity, the oldest dropped with a WARN), while
// every other topic is served as usual. Each lane keeps its records in the order they fired.
#ifndef NUV_HANDLER_TOPICPOSTER_H
#define NUV_HANDLER_TOPICPOSTER_H

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

class CTopicPoster {
 public:
  static constexpr size_t kLaneCapacity = 1000;

  static CTopicPoster& GetInstance();

  // Told the text of a record the bus did not take.
  using FailureReport = void (*)(const std::string& text);

  // Posts `text` to `topic` now or through its lane; `failed` is called (on whichever thread
  // posted) when the bus refuses it. Records posted while stopping are dropped.
  void Post(const std::string& topic, std::string text, FailureReport failed);
  // Drops what waits (with a WARN per lane), lets posts in flight finish and ends the lanes'
  // threads. Later posts start lanes afresh.
  void Stop();
  // Waits until every lane is empty and idle, its last failure reported; for tests and orderly
  // shutdowns.
  void Drain();

  CTopicPoster() = default;
  ~CTopicPoster();
  CTopicPoster(const CTopicPoster&) = delete;
  CTopicPoster& operator=(const CTopicPoster&) = delete;

 private:
  struct Record {
    std::string text;
    FailureReport failed;
  };
  struct Lane {
    std::deque<Record> pending;
    bool posting = false;
    size_t dropped = 0;
    std::string topic;
    CTopicPoster* owner = nullptr;
    pthread_t thread{};
    bool started = false;
  };
  static void* LaneMain(void* arg);
  void Serve(Lane* lane);

  std::mutex mutex_;
  std::condition_variable wake_;  // a lane has work, or stopping
  std::condition_variable idle_;  // a lane emptied
  std::map<std::string, std::unique_ptr<Lane>> lanes_;
  bool stopping_ = false;
};

#endif
