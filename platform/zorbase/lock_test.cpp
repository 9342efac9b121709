// The read-write lock's take-over of an exclusive hold that no thread releases, and the
// signal mask of every thread the platform starts.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "nuv_lock.h"
#include "nuv_log.h"
#include "nuv_thread.h"
#include "testutil/testutil.h"

namespace {

using Clock = std::chrono::steady_clock;

long ElapsedMs(Clock::time_point since) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

class TakeOver : public ::testing::Test {
 protected:
  void SetUp() override {
    nuv_lock_set_takeover_ms(300);
    ASSERT_EQ(nuv_rwlock_init(&lock_), 0);
    nuv_rwlock_set_name(lock_, "TestLock");
  }
  void TearDown() override {
    nuv_rwlock_destroy(&lock_);
    nuv_lock_set_takeover_ms(0);
  }
  nuv_rwlock_t* lock_ = nullptr;
};

TEST_F(TakeOver, AnAbandonedExclusiveHoldIsTakenOverAfterTheBoundWithOneWarn) {
  EXPECT_EQ(nuv_lock_get_takeover_ms(), 300u);
  // A thread that takes the lock and ends without releasing it.
  long holder = 0;
  std::thread([&] {
    holder = static_cast<long>(syscall(SYS_gettid));
    ASSERT_EQ(nuv_rwlock_exclusive_acquire(lock_), 0);
  }).join();
  long waited = 0;
  int exclusive = -1;
  int shared = -1;
  const std::vector<std::string> lines = nuvtest::CaptureMessages([&] {
    const auto start = Clock::now();
    exclusive = nuv_rwlock_exclusive_acquire(lock_);
    waited = ElapsedMs(start);
    EXPECT_EQ(nuv_rwlock_exclusive_held(lock_), 1);
    EXPECT_EQ(nuv_rwlock_exclusive_release(lock_), 0);
    shared = nuv_rwlock_shared_acquire(lock_);  // nothing held now: at once, no WARN
    EXPECT_EQ(nuv_rwlock_shared_release(lock_), 0);
  });
  EXPECT_EQ(exclusive, 0);
  EXPECT_EQ(shared, 0);
  EXPECT_GE(waited, 250);
  EXPECT_LT(waited, 2000);
  ASSERT_EQ(lines.size(), 1u) << (lines.empty() ? "" : lines[0]);
  EXPECT_EQ(lines[0].rfind("[WARN] [nuv_rwlock]::lock TestLock held exclusively by thread ", 0), 0u)
      << lines[0];
  // Each side is named by its own kernel thread id.
  EXPECT_NE(lines[0].find("by thread " + std::to_string(holder) + " for "), std::string::npos)
      << lines[0];
  EXPECT_NE(lines[0].find("without release, taken over by thread " +
                          std::to_string(static_cast<long>(syscall(SYS_gettid))) +
                          " (exclusive)."),
            std::string::npos)
      << lines[0];
}

TEST_F(TakeOver, AForkedChildNamesItsOwnThread) {
  ASSERT_EQ(nuv_rwlock_exclusive_acquire(lock_), 0);  // this thread's id is known from here on
  ASSERT_EQ(nuv_rwlock_exclusive_release(lock_), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The child's one thread holds the lock and another takes it over: the WARN must name the
    // child's thread (its id is the child's pid), not the parent's.
    bool named = false;
    nuv_rwlock_exclusive_acquire(lock_);
    const std::vector<std::string> lines = nuvtest::CaptureMessages([&] {
      std::thread([&] { nuv_rwlock_exclusive_acquire(lock_); }).join();
    });
    named = lines.size() == 1 &&
            lines[0].find("by thread " + std::to_string(getpid()) + " for ") != std::string::npos;
    _exit(named ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST_F(TakeOver, ReadersTakeOverTooAndTheFormerHolderCanNoLongerRelease) {
  std::atomic<int> stage{0};
  std::thread holder([&] {
    ASSERT_EQ(nuv_rwlock_exclusive_acquire(lock_), 0);
    stage = 1;
    while (stage != 2) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    // Its hold was taken over meanwhile: the late release changes nothing.
    EXPECT_EQ(nuv_rwlock_exclusive_held(lock_), 0);
    EXPECT_EQ(nuv_rwlock_exclusive_release(lock_), EPERM);
    stage = 3;
  });
  while (stage != 1) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const auto start = Clock::now();
  nuv_log_set_level(0);  // the WARN is the other test's subject
  EXPECT_EQ(nuv_rwlock_shared_acquire(lock_), 0);
  nuv_log_set_level(2);
  EXPECT_GE(ElapsedMs(start), 250);
  stage = 2;
  while (stage != 3) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  // Still held shared by us: a writer waits for the reader, without a bound.
  std::atomic<bool> wrote{false};
  std::thread writer([&] {
    EXPECT_EQ(nuv_rwlock_exclusive_acquire(lock_), 0);
    wrote = true;
    EXPECT_EQ(nuv_rwlock_exclusive_release(lock_), 0);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_FALSE(wrote);
  EXPECT_EQ(nuv_rwlock_shared_release(lock_), 0);
  writer.join();
  EXPECT_TRUE(wrote);
  holder.join();
}

TEST_F(TakeOver, AHoldWithinTheBoundIsWaitedForAndTheOwnerIsRefusedAtOnce) {
  ASSERT_EQ(nuv_rwlock_exclusive_acquire(lock_), 0);
  const auto start = Clock::now();
  EXPECT_EQ(nuv_rwlock_exclusive_acquire(lock_), EDEADLK);
  EXPECT_EQ(nuv_rwlock_shared_acquire(lock_), EDEADLK);
  EXPECT_LT(ElapsedMs(start), 100);
  std::atomic<bool> got{false};
  std::thread waiter([&] {
    EXPECT_EQ(nuv_rwlock_exclusive_acquire(lock_), 0);
    got = true;
    EXPECT_EQ(nuv_rwlock_exclusive_release(lock_), 0);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(got);
  EXPECT_EQ(nuv_rwlock_exclusive_release(lock_), 0);  // released in time: no take-over
  waiter.join();
  EXPECT_TRUE(got);
  EXPECT_EQ(nuv_rwlock_exclusive_release(nullptr), EINVAL);
  EXPECT_EQ(nuv_rwlock_shared_release(lock_), EPERM);
}

// Mutual exclusion holds under contention with holds far shorter than the bound.
TEST_F(TakeOver, ShortHoldsAreNeverTakenOver) {
  nuv_lock_set_takeover_ms(5000);  // far above any scheduling delay of a loaded machine
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        ASSERT_EQ(nuv_rwlock_exclusive_acquire(lock_), 0);
        long seen = counter;
        counter = seen + 1;
        ASSERT_EQ(nuv_rwlock_exclusive_release(lock_), 0);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(counter, 80000);
}

// Every thread started through the platform's helper blocks every signal, whatever the mask
// of the thread that started it.
void* ReportMask(void* arg) {
  sigset_t* mask = static_cast<sigset_t*>(arg);
  pthread_sigmask(SIG_SETMASK, nullptr, mask);
  return nullptr;
}

TEST(ThreadSignals, PlatformThreadsBlockEverySignalAndTheCallerKeepsItsMask) {
  sigset_t none, before, after;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, &before);
  sigset_t seen;
  sigemptyset(&seen);
  pthread_t tid;
  ASSERT_EQ(nuv_pthread_create_masked(&tid, nullptr, ReportMask, &seen), 0);
  pthread_join(tid, nullptr);
  for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGCHLD}) {
    EXPECT_EQ(sigismember(&seen, sig), 1) << sig;
  }
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), 0);

  sigemptyset(&seen);
  nuv_thread_t* thread = nullptr;
  ASSERT_EQ(nuv_thread_start(&thread, ReportMask, &seen), 0);
  nuv_thread_cancel(thread);
  EXPECT_EQ(sigismember(&seen, SIGTERM), 1);
  EXPECT_EQ(nuv_pthread_create_masked(nullptr, nullptr, ReportMask, &seen), EINVAL);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace
