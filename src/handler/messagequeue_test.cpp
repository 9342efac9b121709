#include "handler/messagequeue.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

TEST(CMessageQueue, CapacityIsClampedAndTheOldestMessagesGo) {
  const unsigned int rows[][2] = {{0, 100},     {50, 100},    {100, 100},   {101, 101},
                                  {4999, 4999}, {5000, 5000}, {70000, 5000}};
  for (const auto& [requested, effective] : rows) {
    CMessageQueue queue(requested);
    for (unsigned int i = 1; i <= effective + 1; ++i) {
      ASSERT_EQ(queue.PutTopicMessage("t", QUEUE_TYPE_MEMORY, std::to_string(i)).code, 0);
    }
    Texts kept;
    CMessage message;
    while (queue.GetTopicMessage("t", message).code == 0) kept.push_back(message.context);
    ASSERT_EQ(kept.size(), effective) << requested;
    EXPECT_EQ(kept.front() + " " + kept.back(), "2 " + std::to_string(effective + 1));
  }
}

TEST(CMessageQueue, RefusedPutsAndMissingTopics) {
  CMessageQueue queue(100);
  const std::tuple<std::string, int, std::string> rows[] = {
      {"t", 0, "invalid parameter type = 0."}, {"t", 3, "invalid parameter type = 3."},
      {"", 1, "invalid parameter topic empty."},
      {"", -1, "invalid parameter type = -1."}};  // the type is checked first
  for (const auto& [topic, type, desc] : rows) {
    const CError error = queue.PutTopicMessage(topic, static_cast<QueueType>(type), "x");
    EXPECT_EQ(std::to_string(error.code) + " " + error.desc, "102 " + desc);
  }
  std::string topic;
  CMessage message;
  EXPECT_EQ(queue.GetTopicMessageItor(topic, message).code, 101);  // no topic at all
  // Taking the only message removes the topic.
  ASSERT_EQ(queue.PutTopicMessage("a", QUEUE_TYPE_PERSIST, "only").code, 0);
  EXPECT_EQ(queue.GetTopicMessage("a", message).code, 0);
  EXPECT_EQ(message.context + std::to_string(message.type), "only" + std::to_string(QUEUE_TYPE_PERSIST));
  EXPECT_EQ(queue.GetTopicMessage("a", message).code, 100);
}

TEST(CMessageQueue, AnyTopicIsServedInByteOrderWhileProducersRun) {
  CMessageQueue queue(5000);
  std::vector<std::thread> producers;
  for (const char* topic : {"b", "B", "a"}) {
    producers.emplace_back([&queue, topic] {
      for (int i = 0; i < 1000; ++i) {
        queue.PutTopicMessage(topic, QUEUE_TYPE_MEMORY, topic + std::to_string(i));
      }
    });
  }
  for (std::thread& producer : producers) producer.join();
  ASSERT_EQ(queue.PutTopicMessage("a", QUEUE_TYPE_MEMORY, "a1000").code, 0);
  // Each call starts again from the first name: "B" < "a" < "b", each topic in its own order.
  Texts served, expected;
  std::string topic;
  CMessage message;
  while (queue.GetTopicMessageItor(topic, message).code == 0) {
    EXPECT_EQ(topic, message.context.substr(0, 1));
    served.push_back(message.context);
  }
  for (const char* name : {"B", "a", "b"}) {
    for (int i = 0; i < (name[0] == 'a' ? 1001 : 1000); ++i) expected.push_back(name + std::to_string(i));
  }
  EXPECT_EQ(served, expected);
}

}  // namespace
