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

struct Flags {
  std::atomic<int> started{0}, destructed{0}, reached{0};
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
  f->reached = 1;  // never, when cancelled
  return nullptr;
}

void* BusyUntilAskedThenSleep(void* arg) {
  auto* f = static_cast<Flags*>(arg);
  Guard g{f};
  f->started = 1;
  // Not a cancellation point: the thread runs on until it reaches one.
  while (!nuv_thread_should_stop()) std::this_thread::yield();
  f->reached = 2;
  nuv_msleep(10, 0);
  f->reached = 3;
  return nullptr;
}

void* ReturnAtOnce(void* arg) {
  static_cast<Flags*>(arg)->started = 1;
  return nullptr;
}

// Cancel wakes a sleeper, unwinds its destructors, waits for a busy thread to reach a
// cancellation point, and reaps a thread that already returned.
TEST(Thread, CancelUnwindsAtCancellationPointsOnly) {
  const struct { void* (*fn)(void*); int destructed, reached; } cases[] = {
      {SleepAnHour, 1, 0}, {BusyUntilAskedThenSleep, 1, 2}, {ReturnAtOnce, 0, 0}};
  for (const auto& c : cases) {
    Flags f;
    nuv_thread_t* t = nullptr;
    ASSERT_EQ(nuv_thread_start(&t, c.fn, &f), 0);
    while (!f.started) std::this_thread::yield();
    if (c.fn == ReturnAtOnce) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(nuv_thread_cancel(t), 0);
    EXPECT_EQ(f.destructed, c.destructed);
    EXPECT_EQ(f.reached, c.reached);
  }
  EXPECT_EQ(nuv_thread_cancel(nullptr), EINVAL);
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

TEST(Lock, ExclusiveExcludesOwnerReacquireFailsAndCountsStayExact) {
  nuv_rwlock_t* l = nullptr;
  nuv_mutex_t* m = nullptr;
  ASSERT_EQ(nuv_rwlock_init(&l), 0);
  ASSERT_EQ(nuv_mutex_init(&m), 0);
  ASSERT_EQ(nuv_rwlock_exclusive_acquire(l), 0);
  EXPECT_EQ(nuv_rwlock_exclusive_acquire(l), EDEADLK);
  EXPECT_EQ(nuv_rwlock_shared_acquire(l), EDEADLK);
  EXPECT_EQ(nuv_rwlock_exclusive_release(l), 0);
  EXPECT_EQ(nuv_rwlock_shared_acquire(l), 0);  // shared recursively by one
  EXPECT_EQ(nuv_rwlock_shared_acquire(l), 0);
  EXPECT_EQ(nuv_rwlock_shared_release(l), 0);
  EXPECT_EQ(nuv_rwlock_shared_release(l), 0);
  EXPECT_EQ(nuv_mutex_lock(m), 0);
  EXPECT_EQ(nuv_mutex_lock(m), EDEADLK);
  EXPECT_EQ(nuv_mutex_unlock(m), 0);

  long plain_rw = 0, plain_mu = 0;
  nuv_atomic32_t counter = NUV_ATOMIC32_INIT(INT32_MAX - 40000);
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
  EXPECT_EQ(nuv_atomic32_get(&counter), INT32_MIN + 39999);  // wrapped
  nuv_mutex_destroy(&m);
  nuv_rwlock_destroy(&l);
  EXPECT_EQ(l, nullptr);
}

}  // namespace
