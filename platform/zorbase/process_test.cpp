#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "nuv_file.h"
#include "nuv_process.h"
#include "nuv_thread.h"
#include "testutil/testutil.h"

namespace {

TEST(Process, RunsThroughTheShellWithNothingOfOursInherited) {
  nuvtest::TempDir dir;
  std::string out = dir.Sub("out.txt");
  std::string cmd = "echo to-stdout; echo hello > " + out + "; ls -l /proc/self/fd/ > " +
                    dir.Sub("fds.txt") + "; exit 3";
  nuv_file_t* mine = nuv_file_open(dir.Sub("mine").c_str(), "ab+");
  ASSERT_NE(mine, nullptr);
  nuv_process_t* p = nullptr;
  ASSERT_EQ(nuv_process_create(cmd.c_str(), &p), 1);
  int status = -7;
  EXPECT_EQ(nuv_process_wait_status(p, 10000, &status), 1);  // an exit status is not a failure
  EXPECT_EQ(status, 3);
  EXPECT_EQ(nuvtest::ReadFile(out), "hello\n");
  std::string fds = nuvtest::ReadFile(dir.Sub("fds.txt"));
  EXPECT_NE(fds.find("0 -> /dev/null"), std::string::npos) << fds;
  EXPECT_EQ(fds.find(dir.Sub("mine")), std::string::npos) << fds;
  nuv_file_close(mine);
  EXPECT_TRUE(nuvtest::ChildPids(getpid()).empty());
  EXPECT_EQ(nuv_process_create(nullptr, &p), 0);
  EXPECT_EQ(nuv_process_wait(nullptr, 10, 0), 0);
}

// With SIGCHLD ignored too, so that the child cannot be reaped by a plain wait.
TEST(Process, TimeOutKillsTheWholeGroupAndLeavesNoZombie) {
  for (bool ignore_sigchld : {false, true}) {
    struct sigaction ign = {}, old = {};
    ign.sa_handler = SIG_IGN;
    ASSERT_EQ(sigaction(SIGCHLD, ignore_sigchld ? &ign : nullptr, &old), 0);
    nuvtest::TempDir dir;
    std::string pidfile = dir.Sub("grandchild.pid");
    // The shell starts a background grandchild, records its pid and waits.
    std::string cmd = "sleep 300 & echo $! > " + pidfile + "; wait";
    nuv_process_t* p = nullptr;
    ASSERT_EQ(nuv_process_create(cmd.c_str(), &p), 1);
    errno = 0;
    EXPECT_EQ(nuv_process_wait(p, 300, 0), 0);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_TRUE(nuvtest::ChildPids(getpid()).empty());  // the shell is reaped
    ASSERT_EQ(nuv_process_create("sleep 0.05; kill -TERM $$", &p), 1);
    int status = 0;
    EXPECT_EQ(nuv_process_wait_status(p, 5000, &status), 1);
    EXPECT_EQ(status, ignore_sigchld ? -1 : 128 + SIGTERM);  // reaped by the kernel: lost
    sigaction(SIGCHLD, &old, nullptr);
    // The grandchild got SIGKILL too: it is gone, or a zombie of whoever adopted it, once it
    // is next scheduled.
    std::string gc = nuvtest::ReadFile(pidfile), stat;
    ASSERT_FALSE(gc.empty());
    for (int i = 0; i < 200; ++i) {
      stat = nuvtest::ReadFile("/proc/" + std::to_string(std::stoi(gc)) + "/stat");
      if (stat.empty() || stat.find(") Z ") != std::string::npos) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(stat.empty() || stat.find(") Z ") != std::string::npos) << stat;
  }
}

struct WaitArgs {
  std::atomic<int> pid{0}, destructed{0};
};
struct Mark {
  WaitArgs* a;
  ~Mark() { a->destructed = 1; }
};

void* WaitForever(void* arg) {
  auto* a = static_cast<WaitArgs*>(arg);
  Mark m{a};
  nuv_process_t* p = nullptr;
  if (nuv_process_create("sleep 300", &p) != 1) return nullptr;
  auto kids = nuvtest::ChildPids(getpid());
  a->pid = kids.empty() ? -1 : kids.front();
  nuv_process_wait(p, -1, 0);
  return nullptr;
}

TEST(Process, CancelledWaitKillsAndReapsTheChild) {
  WaitArgs a;
  nuv_thread_t* t = nullptr;
  ASSERT_EQ(nuv_thread_start(&t, WaitForever, &a), 0);
  while (a.pid == 0) std::this_thread::yield();
  ASSERT_GT(a.pid, 0);
  EXPECT_EQ(nuv_thread_cancel(t), 0);
  EXPECT_EQ(a.destructed, 1);
  EXPECT_FALSE(nuvtest::ProcessExists(a.pid));
}

}  // namespace
