#include "common/per_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

std::atomic<int> g_alive{0};

struct Counted {
  Counted() { ++g_alive; }
  ~Counted() { --g_alive; }
  int uses = 0;
};

struct Other {
  int uses = 0;
};

}  // namespace

TEST(PerThreadTest, OneObjectPerThreadAndTypeFreedWithItsThread) {
  Counted& mine = PerThread<Counted>();
  ++mine.uses;
  EXPECT_EQ(&PerThread<Counted>(), &mine);
  EXPECT_EQ(PerThread<Counted>().uses, 1);
  EXPECT_EQ(PerThread<Other>().uses, 0);  // a type of its own is an object of its own

  const int aliveBefore = g_alive.load();
  const Counted* theirs = nullptr;
  int theirUses = -1;
  std::thread other([&] {
    theirs = &PerThread<Counted>();
    theirUses = PerThread<Counted>().uses;
    ++PerThread<Counted>().uses;
    EXPECT_EQ(g_alive.load(), aliveBefore + 1);
  });
  other.join();
  EXPECT_NE(theirs, &mine);
  EXPECT_EQ(theirUses, 0);
  EXPECT_EQ(g_alive.load(), aliveBefore);  // the other thread's copy went with it
  EXPECT_EQ(mine.uses, 1);
}
