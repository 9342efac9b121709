#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "internal.h"
#include "nuv_process.h"
#include "nuv_syscall.h"

extern char **environ;

struct nuv_process {
  pid_t pid;
};

int nuv_process_create(const char *command, nuv_process_t **process) {
  if (!process) {
    errno = EINVAL;
    return 0;
  }
  *process = NULL;
  if (!command) {
    errno = EINVAL;
    return 0;
  }
  struct nuv_process *p = malloc(sizeof *p);
  if (!p) return 0;

  posix_spawn_file_actions_t fa;
  posix_spawnattr_t attr;
  posix_spawn_file_actions_init(&fa);
  posix_spawnattr_init(&attr);
  posix_spawn_file_actions_addopen(&fa, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&fa, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&fa, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  /* Own process group, so a time-out can kill the shell and everything it started. The host
   * may block or ignore signals; the child starts clean. */
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setpgroup(&attr, 0);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK |
                                      POSIX_SPAWN_SETSIGDEF);
  char *argv[] = {"sh", "-c", (char *)command, NULL};
  int rc = NUV_SYS_CALL(NUV_SYS_POSIX_SPAWN, nuv_sys_posix_spawn_fn)(&p->pid, "/bin/sh", &fa, &attr,
                                                                 argv, environ);
  posix_spawn_file_actions_destroy(&fa);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    free(p);
    errno = rc;
    return 0;
  }
  *process = p;
  return 1;
}

/* Reaps the child if it has ended: 1 ended (with *status as nuv_process_wait_status gives
 * it), 0 still running, -1 error. ECHILD means the child is gone already: a host that ignores
 * SIGCHLD has the kernel reap it, and its status is lost. */
static int try_reap(pid_t pid, int *status) {
  for (;;) {
    int raw = 0;
    pid_t r = waitpid(pid, &raw, WNOHANG);
    if (r == pid) {
      *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : WIFSIGNALED(raw) ? 128 + WTERMSIG(raw) : -1;
      return 1;
    }
    if (r == 0) return 0;
    if (errno == ECHILD) {
      *status = -1;
      return 1;
    }
    if (errno != EINTR) return -1;
  }
}

static void kill_and_reap(pid_t pid) {
  kill(-pid, SIGKILL);
  kill(pid, SIGKILL);
  while (waitpid(pid, NULL, 0) < 0 && errno == EINTR) {
  }
}

int nuv_process_wait(nuv_process_t *process, long long timeout_ms, int flags) {
  (void)flags;
  return nuv_process_wait_status(process, timeout_ms, NULL);
}

int nuv_process_wait_status(nuv_process_t *process, long long timeout_ms, int *status) {
  int ignored = 0;
  if (!status) status = &ignored;
  if (!process) {
    errno = EINVAL;
    return 0;
  }
  pid_t pid = process->pid;
  free(process);
  uint64_t start = nuv__monotonic_ms();
  /* Polling with a short, growing step keeps the wait a cancellation point without needing
   * SIGCHLD, which belongs to the host. */
  uint64_t step = 1;
  for (;;) {
    int r = try_reap(pid, status);
    if (r == 1) return 1;
    if (r < 0) return 0;
    uint64_t waited = nuv__monotonic_ms() - start;
    if (timeout_ms >= 0 && waited >= (uint64_t)timeout_ms) {
      kill_and_reap(pid);
      errno = ETIMEDOUT;
      return 0;
    }
    uint64_t left = timeout_ms >= 0 ? (uint64_t)timeout_ms - waited : step;
    if (nuv__wait_or_stop(step < left ? step : left)) {
      kill_and_reap(pid);
      nuv__stop_point();
    }
    if (step < 20) step *= 2;
  }
}
