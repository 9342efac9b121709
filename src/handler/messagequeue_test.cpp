#include "handler/messagequeue.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
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
    EXPECT_EQ(kept.front(), "2") << requested;
    EXPECT_EQ(kept.back(), std::to_string(effective + 1)) << requested;
  }
}

TEST(CMessageQueue, RefusedPutsAndMissingTopics) {
  CMessageQueue queue(100);
  const struct {
    std::string topic;
    int type;
    std::string desc;
  } rows[] = {
      {"t", 0, "invalid parameter type = 0."},
      {"t", 3, "invalid parameter type = 3."},
      {"", 1, "invalid parameter topic empty."},
      {"", -1, "invalid parameter type = -1."},  // the type is checked first
  };
  for (const auto& row : rows) {
    const CError error = queue.PutTopicMessage(row.topic, static_cast<QueueType>(row.type), "x");
    EXPECT_EQ(error.code, 102);
    EXPECT_EQ(error.desc, row.desc);
  }
  std::string topic;
  CMessage message;
  const CError empty = queue.GetTopicMessageItor(topic, message);
  EXPECT_EQ(empty.code, 101);
  EXPECT_EQ(empty.desc, "queue zero");

  // Taking the only message removes the topic.
  ASSERT_EQ(queue.PutTopicMessage("a", QUEUE_TYPE_PERSIST, "only").code, 0);
  EXPECT_EQ(queue.GetTopicMessage("a", message).code, 0);
  EXPECT_EQ(message.context, "only");
  EXPECT_EQ(message.type, QUEUE_TYPE_PERSIST);
  const CError gone = queue.GetTopicMessage("a", message);
  EXPECT_EQ(gone.code, 100);
  EXPECT_EQ(gone.desc, "n`t found topic a");
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
  Texts served;
  std::string topic;
  CMessage message;
  while (queue.GetTopicMessageItor(topic, message).code == 0) {
    EXPECT_EQ(topic, message.context.substr(0, 1));
    served.push_back(message.context);
  }
  Texts expected;
  for (const char* name : {"B", "a", "b"}) {
    for (int i = 0; i < (name[0] == 'a' ? 1001 : 1000); ++i)
      expected.push_back(name + std::to_string(i));
  }
  EXPECT_EQ(served, expected);
}

}  // namespace
