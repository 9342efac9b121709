// A host that blocks SIGTERM in its own threads after starting the library's threads, and
// waits for it with sigwait, receives it: no thread of the library or the platform takes it
// (which would kill the host). Tests against failing platform calls beside it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "clearn/clearn.h"
#include "nuv_comm.h"
#include "nuv_perfprov.h"
#include "nuv_process.h"
#include "nuv_syscall.h"
#include "nuv_thread.h"
#include "testutil/testutil.h"

namespace {

void* SleepLong(void*) {
  nuv_sleep(3600, 0);
  return nullptr;
}

int Answer(comm_data*, comm_data*, void*) { return 0; }
void Ignore(unsigned int, _perf_information*, void*) {}

// In a child: threads of every kind the library starts, then the host's own block and wait.
// Exit 0 when sigwait got SIGTERM.
int HostThatSigwaits(const std::string& busDir) {
  setenv("NUV_COMM_DIR", busDir.c_str(), 1);
  nuv_thread_t* plain = nullptr;
  CClearn clearn;  // the clean-up thread
  if (nuv_thread_start(&plain, SleepLong, nullptr) != 0 || !clearn.StartClearn()) return 10;
  if (nuv_comm_init() != 0 || nuv_comm_register("host:topic", Answer, nullptr) != 0) return 11;
  if (nuv_perf_regsiter_notifier(NUV_PERF_TYPE_SYSTEM, Ignore, nullptr) != 0) return 12;
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, nullptr);
  int got = 0;
  std::thread waiter([&] { sigwait(&term, &got); });
  kill(getpid(), SIGTERM);
  waiter.join();
  return got == SIGTERM ? 0 : 13;
}

TEST(Signals, AHostThatBlocksSigtermAndSigwaitsReceivesIt) {
  nuvtest::TempDir dir;
  const pid_t pid = fork();
  if (pid == 0) _exit(HostThatSigwaits(dir.Sub("bus")));
  ASSERT_GT(pid, 0);
  EXPECT_EQ(nuvtest::WaitExit(pid), 0) << "128 + 15: killed by the SIGTERM it waited for";
}

int RefusingSpawn(pid_t*, const char*, const posix_spawn_file_actions_t*,
                  const posix_spawnattr_t*, char* const[], char* const[]) {
  return EAGAIN;
}

TEST(FaultInjection, AProcessThatCannotBeSpawnedIsReportedAndLeavesNoChild) {
  nuv_sys_override(NUV_SYS_POSIX_SPAWN, reinterpret_cast<nuv_sys_fn>(RefusingSpawn));
  nuv_process_t* process = nullptr;
  errno = 0;
  const int started = nuv_process_create("true", &process);
  const int error = errno;
  nuv_sys_override(NUV_SYS_POSIX_SPAWN, nullptr);
  EXPECT_EQ(started, 0);
  EXPECT_EQ(error, EAGAIN);
  EXPECT_EQ(process, nullptr);
  EXPECT_TRUE(nuvtest::ChildPids(getpid()).empty());
  ASSERT_EQ(nuv_process_create("true", &process), 1);  // the real call is back
  EXPECT_TRUE(nuv_process_wait(process, 5000, 0));
}

}  // namespace
