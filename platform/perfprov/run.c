#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include "internal.h"
#include "nuv_thread.h"

struct pp_run *pp_run_new(void) {
  struct pp_run *run = calloc(1, sizeof *run);
  if (!run) return NULL;
  run->wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (run->wake_fd < 0) {
    int saved = errno;
    free(run);
    errno = saved;
    return NULL;
  }
  pthread_mutex_init(&run->mu, NULL);
  return run;
}

void pp_run_free(struct pp_run *run) {
  if (!run) return;
  if (run->free_state) run->free_state(run->state);
  pthread_mutex_destroy(&run->mu);
  close(run->wake_fd);
  free(run);
}

int pp_run_launch(struct pp_run *run, void *(*body)(void *)) {
  /* The host's signals belong to the host's threads. */
  return nuv_pthread_create_masked(&run->tid, NULL, body, run);
}

int pp_run_add(struct pp_run *run, void (*fn)(void), void *context, unsigned int mask) {
  int rc = 0;
  pthread_mutex_lock(&run->mu);
  if (run->nsubs == PP_MAX_SUBS) {
    rc = ENOSPC;
  } else {
    run->subs[run->nsubs].fn = fn;
    run->subs[run->nsubs].context = context;
    run->subs[run->nsubs].mask = mask;
    run->nsubs++;
  }
  pthread_mutex_unlock(&run->mu);
  return rc;
}

int pp_run_subs(struct pp_run *run, struct pp_sub *subs) {
  pthread_mutex_lock(&run->mu);
  int n = run->stop ? 0 : run->nsubs;
  memcpy(subs, run->subs, (size_t)n * sizeof *subs);
  pthread_mutex_unlock(&run->mu);
  return n;
}

int pp_run_stopping(struct pp_run *run) {
  return __atomic_load_n(&run->stop, __ATOMIC_ACQUIRE);
}

int pp_run_wait(struct pp_run *run, uint64_t ms, int extra_fd) {
  uint64_t deadline = pp_clock_ms(CLOCK_MONOTONIC) + ms;
  for (;;) {
    if (pp_run_stopping(run)) return 1;
    uint64_t now = pp_clock_ms(CLOCK_MONOTONIC);
    if (now >= deadline) return 0;
    uint64_t left = deadline - now;
    struct pollfd fds[2] = {{.fd = run->wake_fd, .events = POLLIN},
                            {.fd = extra_fd, .events = POLLIN}};
    int rc = poll(fds, extra_fd >= 0 ? 2 : 1, left > 60000 ? 60000 : (int)left);
    if (rc < 0 && errno != EINTR) return pp_run_stopping(run);
    if (pp_run_stopping(run)) return 1;
    if (rc > 0 && extra_fd >= 0 && fds[1].revents) return 0;
  }
}

void pp_run_finish(struct pp_run *run) {
  pthread_mutex_lock(&run->mu);
  __atomic_store_n(&run->stop, 1, __ATOMIC_RELEASE);
  run->nsubs = 0;
  pthread_mutex_unlock(&run->mu);
  uint64_t one = 1;
  ssize_t w;
  do {
    w = write(run->wake_fd, &one, sizeof one);
  } while (w < 0 && errno == EINTR);
  if (pthread_equal(run->tid, pthread_self())) {
    /* Called from one of our own callbacks: the thread cannot wait for itself. It sees the
     * stop flag before any further callback and frees the run when its body returns. */
    run->detached = 1;
    pthread_detach(run->tid);
    return;
  }
  pthread_join(run->tid, NULL);
  pp_run_free(run);
}

void pp_run_exit(struct pp_run *run) {
  if (run->detached) pp_run_free(run);
}
