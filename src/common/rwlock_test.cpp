#include "common/rwlock.h"

#include <gtest/gtest.h>

#include <thread>

#include "nuv_lock.h"

namespace {

TEST(RwLock, ANestedScopeRunsUnderTheOuterHoldAndLeavesIt) {
  CRwLock lock("Nested");
  {
    CRwLockGuard outer(lock, true);
    ASSERT_TRUE(outer.Held());
    {
      CRwLockGuard inner(lock, true);
      CRwLockGuard reader(lock, false);
      EXPECT_TRUE(inner.Held());
      EXPECT_TRUE(reader.Held());
    }
    EXPECT_TRUE(lock.HeldExclusivelyHere());
  }
  EXPECT_FALSE(lock.HeldExclusivelyHere());
}

TEST(RwLock, AKeptHoldOutlivesItsScopeUntilTheNextScopeOfTheHolder) {
  CRwLock lock("Kept");
  {
    CRwLockGuard refused(lock, true);
    refused.Keep();
  }
  EXPECT_TRUE(lock.HeldExclusivelyHere());
  {
    CRwLockGuard next(lock, false);
    EXPECT_TRUE(next.Held());
  }
  EXPECT_FALSE(lock.HeldExclusivelyHere());

  // A shared scope has no hold to keep.
  {
    CRwLockGuard reader(lock, false);
    reader.Keep();
  }
  CRwLockGuard writer(lock, true);
  EXPECT_TRUE(writer.Held());
}

// The thread that takes a kept hold over owns a plain hold: its own nested scopes must not
// mistake it for a kept one and release it early.
TEST(RwLock, AHoldTakenOverFromAKeeperIsAnOrdinaryHold) {
  nuv_lock_set_takeover_ms(50);
  CRwLock lock("TakenOver");
  std::thread([&] {
    CRwLockGuard refused(lock, true);
    refused.Keep();
  }).join();
  {
    CRwLockGuard outer(lock, true);
    ASSERT_TRUE(outer.Held());
    { CRwLockGuard inner(lock, true); }
    EXPECT_TRUE(lock.HeldExclusivelyHere());
  }
  EXPECT_FALSE(lock.HeldExclusivelyHere());
  nuv_lock_set_takeover_ms(0);
}

}  // namespace
