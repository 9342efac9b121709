#include "handler/topicposter.h"

#include <pthread.h>

#include <utility>

#include "common/log.h"
#include "handler/logdata.h"
#include "nuv_comm.h"
#include "nuv_thread.h"

CTopicPoster& CTopicPoster::GetInstance() {
  static CTopicPoster poster;
  return poster;
}

CTopicPoster::~CTopicPoster() { Stop(); }

void CTopicPoster::Post(const std::string& topic, std::string text, FailureReport failed) {
  if (nuv_comm_served_here(topic.c_str())) {
    if (!PostMessage(topic, text)) {
      failed(text);
    }
    return;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopping_) {
    return;
  }
  std::unique_ptr<Lane>& lane = lanes_[topic];
  if (!lane) {
    lane.reset(new Lane);
    lane->topic = topic;
    lane->owner = this;
    const int rc = nuv_pthread_create_masked(&lane->thread, nullptr, &CTopicPoster::LaneMain,
                                             lane.get());
    if (rc != 0) {
      ZLOG_ERROR("[CTopicPoster]::Post cannot start a lane, code = %d. topic = %s.", rc,
                 topic.c_str());
      lanes_.erase(topic);
      failed(text);
      return;
    }
    lane->started = true;
  }
  if (lane->pending.size() >= kLaneCapacity) {
    lane->pending.pop_front();
    if (lane->dropped++ == 0) {
      ZLOG_WARN("[CTopicPoster]::Post topic does not keep up, dropping its oldest records. "
                "topic = %s.", topic.c_str());
    }
  }
  lane->pending.push_back(Record{std::move(text), failed});
  wake_.notify_all();
}

void* CTopicPoster::LaneMain(void* arg) {
  Lane* lane = static_cast<Lane*>(arg);
  lane->owner->Serve(lane);
  return nullptr;
}

void CTopicPoster::Serve(Lane* lane) {
  const std::string& topic = lane->topic;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [&] { return stopping_ || !lane->pending.empty(); });
    if (stopping_) {
      return;
    }
    Record record = std::move(lane->pending.front());
    lane->pending.pop_front();
    lane->posting = true;
    lock.unlock();
    const bool posted = PostMessage(topic, record.text);
    // Reported while the lane still counts as posting, so that Drain waits for the report.
    if (!posted) {
      record.failed(record.text);
    }
    lock.lock();
    lane->posting = false;
    if (posted && lane->dropped != 0) {
      ZLOG_WARN("[CTopicPoster]::Serve topic answers again, %zu records were dropped. topic = %s.",
                lane->dropped, topic.c_str());
      lane->dropped = 0;
    }
    idle_.notify_all();
  }
}

void CTopicPoster::Drain() {
  std::unique_lock<std::mutex> lock(mutex_);
  idle_.wait(lock, [this] {
    for (const auto& entry : lanes_) {
      if (!entry.second->pending.empty() || entry.second->posting) return false;
    }
    return true;
  });
}

void CTopicPoster::Stop() {
  std::map<std::string, std::unique_ptr<Lane>> lanes;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    for (const auto& entry : lanes_) {
      if (!entry.second->pending.empty()) {
        ZLOG_WARN("[CTopicPoster]::Stop %zu records not posted. topic = %s.",
                  entry.second->pending.size(), entry.first.c_str());
      }
    }
    wake_.notify_all();
    lanes.swap(lanes_);
  }
  // A post in flight ends within the bus time-out.
  for (auto& entry : lanes) {
    if (entry.second->started) pthread_join(entry.second->thread, nullptr);
  }
  std::lock_guard<std::mutex> lock(mutex_);
  stopping_ = false;
}
