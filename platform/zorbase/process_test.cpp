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

using Clock = std::chrono::steady_clock;

TEST(Process, RunsThroughTheShellWithOutputDiscarded) {
  nuvtest::TempDir dir;
  std::string out = dir.Sub("out.txt");
  std::string cmd = "echo to-stdout; echo hello > " + out + "; ls -l /proc/self/fd/ > " +
                    dir.Sub("fds.txt");
  // An open descriptor of ours must not leak into the child.
  nuv_file_t* mine = nuv_file_open(dir.Sub("mine").c_str(), "ab+");
  ASSERT_NE(mine, nullptr);
  nuv_process_t* p = nullptr;
  ASSERT_EQ(nuv_process_create(cmd.c_str(), &p), 1);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(nuv_process_wait(p, 10000, 0), 1);
  EXPECT_EQ(nuvtest::ReadFile(out), "hello\n");
  std::string fds = nuvtest::ReadFile(dir.Sub("fds.txt"));
  EXPECT_NE(fds.find("0 -> /dev/null"), std::string::npos) << fds;
  EXPECT_EQ(fds.find(dir.Sub("mine")), std::string::npos) << fds;
  nuv_file_close(mine);
  EXPECT_TRUE(nuvtest::ChildPids(getpid()).empty());
}

TEST(Process, TimeOutKillsTheWholeGroupAndLeavesNoZombie) {
  nuvtest::TempDir dir;
  std::string pidfile = dir.Sub("grandchild.pid");
  // The shell starts a background grandchild, records its pid and waits.
  std::string cmd = "sleep 300 & echo $! > " + pidfile + "; wait";
  nuv_process_t* p = nullptr;
  ASSERT_EQ(nuv_process_create(cmd.c_str(), &p), 1);
  auto t0 = Clock::now();
  errno = 0;
  EXPECT_EQ(nuv_process_wait(p, 300, 0), 0);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_LT(Clock::now() - t0, std::chrono::seconds(5));
  EXPECT_TRUE(nuvtest::ChildPids(getpid()).empty());  // the shell is reaped
  std::string gc = nuvtest::ReadFile(pidfile);
  ASSERT_FALSE(gc.empty());
  int gpid = std::stoi(gc);
  // The grandchild got SIGKILL too: it is gone, or a zombie waiting for whoever adopted it.
  // SIGKILL is delivered at once but takes effect when the process is next scheduled.
  std::string stat;
  for (int i = 0; i < 200; ++i) {
    stat = nuvtest::ReadFile("/proc/" + std::to_string(gpid) + "/stat");
    if (stat.empty() || stat.find(") Z ") != std::string::npos) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(stat.empty() || stat.find(") Z ") != std::string::npos) << stat;
}

TEST(Process, ExitStatusIsNotAFailureAndBadInputIs) {
  nuv_process_t* p = nullptr;
  ASSERT_EQ(nuv_process_create("exit 3", &p), 1);
  EXPECT_EQ(nuv_process_wait(p, -1, 0), 1);
  EXPECT_EQ(nuv_process_create(nullptr, &p), 0);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(nuv_process_create("true", nullptr), 0);
  EXPECT_EQ(nuv_process_wait(nullptr, 10, 0), 0);
}

TEST(Process, AHostIgnoringSigchldStillSeesItsChildEnd) {
  struct sigaction ignore = {}, old = {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(sigaction(SIGCHLD, &ignore, &old), 0);
  nuv_process_t* p = nullptr;
  ASSERT_EQ(nuv_process_create("sleep 0.05", &p), 1);
  EXPECT_EQ(nuv_process_wait(p, 5000, 0), 1);
  ASSERT_EQ(nuv_process_create("sleep 300", &p), 1);
  EXPECT_EQ(nuv_process_wait(p, 100, 0), 0);  // a time-out is still a time-out
  sigaction(SIGCHLD, &old, nullptr);
}

struct WaitArgs {
  std::atomic<int> pid{0};
  std::atomic<int> destructed{0};
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
  auto t0 = Clock::now();
  EXPECT_EQ(nuv_thread_cancel(t), 0);
  EXPECT_LT(Clock::now() - t0, std::chrono::seconds(5));
  EXPECT_EQ(a.destructed, 1);
  EXPECT_FALSE(nuvtest::ProcessExists(a.pid));
}

}  // namespace
