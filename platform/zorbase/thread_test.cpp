#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "nuv_atomic.h"
#include "nuv_lock.h"
#include "nuv_thread.h"
#include "nuv_time.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Flags {
  std::atomic<int> started{0};
  std::atomic<int> destructed{0};
  std::atomic<int> after_sleep{0};
};

struct Guard {
  Flags* f;
  ~Guard() { f->destructed.fetch_add(1); }
};

void* SleepAnHour(void* arg) {
  auto* f = static_cast<Flags*>(arg);
  Guard g{f};
  f->started = 1;
  nuv_sleep(3600, 0);
  f->after_sleep = 1;  // never reached when cancelled
  return nullptr;
}

TEST(Thread, CancelWakesASleeperAndRunsItsDestructors) {
  Flags f;
  nuv_thread_t* t = nullptr;
  ASSERT_EQ(nuv_thread_start(&t, SleepAnHour, &f), 0);
  while (!f.started) std::this_thread::yield();
  auto t0 = Clock::now();
  EXPECT_EQ(nuv_thread_cancel(t), 0);
  EXPECT_LT(Clock::now() - t0, std::chrono::seconds(5));
  EXPECT_EQ(f.destructed, 1);
  EXPECT_EQ(f.after_sleep, 0);
}

void* BusyUntilAskedThenSleep(void* arg) {
  auto* f = static_cast<Flags*>(arg);
  Guard g{f};
  f->started = 1;
  // Not a cancellation point: the thread keeps running until it reaches one.
  while (!nuv_thread_should_stop()) std::this_thread::yield();
  f->after_sleep = 2;
  nuv_msleep(10, 0);
  f->after_sleep = 3;
  return nullptr;
}

TEST(Thread, CancellationOnlyHappensAtCancellationPoints) {
  Flags f;
  nuv_thread_t* t = nullptr;
  ASSERT_EQ(nuv_thread_start(&t, BusyUntilAskedThenSleep, &f), 0);
  while (!f.started) std::this_thread::yield();
  EXPECT_EQ(nuv_thread_cancel(t), 0);
  EXPECT_EQ(f.after_sleep, 2);
  EXPECT_EQ(f.destructed, 1);
}

void* ReturnAtOnce(void* arg) {
  static_cast<Flags*>(arg)->started = 1;
  return nullptr;
}

TEST(Thread, CancelReapsAThreadThatAlreadyReturned) {
  Flags f;
  nuv_thread_t* t = nullptr;
  ASSERT_EQ(nuv_thread_start(&t, ReturnAtOnce, &f), 0);
  while (!f.started) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(nuv_thread_cancel(t), 0);
  EXPECT_EQ(nuv_thread_cancel(nullptr), EINVAL);
  EXPECT_EQ(nuv_thread_start(&t, nullptr, nullptr), EINVAL);
  EXPECT_EQ(t, nullptr);
  EXPECT_EQ(nuv_thread_should_stop(), 0);  // not a platform thread
}

std::atomic<nuv_thread_t*> g_self{nullptr};
std::atomic<int> g_self_rc{-1};
void* CancelSelf(void*) {
  while (!g_self) std::this_thread::yield();
  g_self_rc = nuv_thread_cancel(g_self);
  return nullptr;
}

TEST(Thread, SelfCancelIsRefused) {
  nuv_thread_t* t = nullptr;
  ASSERT_EQ(nuv_thread_start(&t, CancelSelf, nullptr), 0);
  g_self = t;
  while (g_self_rc == -1) std::this_thread::yield();
  EXPECT_EQ(g_self_rc, EDEADLK);
  EXPECT_EQ(nuv_thread_cancel(t), 0);
}

TEST(Lock, ExclusiveReacquireByOwnerFailsAtOnce) {
  nuv_rwlock_t* l = nullptr;
  ASSERT_EQ(nuv_rwlock_init(&l), 0);
  ASSERT_EQ(nuv_rwlock_exclusive_acquire(l), 0);
  EXPECT_EQ(nuv_rwlock_exclusive_acquire(l), EDEADLK);
  EXPECT_EQ(nuv_rwlock_shared_acquire(l), EDEADLK);
  EXPECT_EQ(nuv_rwlock_exclusive_release(l), 0);
  // Shared by many, recursively by one.
  EXPECT_EQ(nuv_rwlock_shared_acquire(l), 0);
  EXPECT_EQ(nuv_rwlock_shared_acquire(l), 0);
  EXPECT_EQ(nuv_rwlock_shared_release(l), 0);
  EXPECT_EQ(nuv_rwlock_shared_release(l), 0);
  nuv_rwlock_destroy(&l);
  EXPECT_EQ(l, nullptr);
  nuv_rwlock_destroy(&l);  // harmless
  EXPECT_EQ(nuv_rwlock_exclusive_acquire(nullptr), EINVAL);
}

TEST(Lock, ExclusiveExcludesAndCountsStayExact) {
  nuv_rwlock_t* l = nullptr;
  nuv_mutex_t* m = nullptr;
  ASSERT_EQ(nuv_rwlock_init(&l), 0);
  ASSERT_EQ(nuv_mutex_init(&m), 0);
  long plain_rw = 0, plain_mu = 0;
  nuv_atomic32_t counter = NUV_ATOMIC32_INIT(0);
  std::vector<std::thread> ts;
  for (int i = 0; i < 4; ++i) {
    ts.emplace_back([&] {
      for (int j = 0; j < 20000; ++j) {
        nuv_rwlock_exclusive_acquire(l);
        ++plain_rw;
        nuv_rwlock_exclusive_release(l);
        nuv_mutex_lock(m);
        ++plain_mu;
        nuv_mutex_unlock(m);
        nuv_atomic32_add_and_fetch(&counter, 1);
      }
    });
  }
  for (auto& t : ts) t.join();
  EXPECT_EQ(plain_rw, 80000);
  EXPECT_EQ(plain_mu, 80000);
  EXPECT_EQ(nuv_atomic32_get(&counter), 80000);
  EXPECT_EQ(nuv_mutex_lock(m), 0);
  EXPECT_EQ(nuv_mutex_lock(m), EDEADLK);
  EXPECT_EQ(nuv_mutex_unlock(m), 0);
  nuv_mutex_destroy(&m);
  nuv_rwlock_destroy(&l);
}

TEST(Atomic, SetGetAndWrap) {
  nuv_atomic32_t a = NUV_ATOMIC32_INIT(5);
  EXPECT_EQ(nuv_atomic32_get(&a), 5);
  nuv_atomic32_set(&a, INT32_MAX);
  EXPECT_EQ(nuv_atomic32_add_and_fetch(&a, 1), INT32_MIN);
  EXPECT_EQ(nuv_atomic32_add_and_fetch(&a, -1), INT32_MAX);
}

}  // namespace
