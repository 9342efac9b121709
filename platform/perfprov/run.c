#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include "internal.h"
#include "nuv_thread.h"

static void wake(struct pp_run *run) {
  uint64_t one = 1;
  ssize_t w;
  do {
    w = write(run->wake_fd, &one, sizeof one);
  } while (w < 0 && errno == EINTR);
}

static void *run_body(void *arg) {
  struct pp_run *run = arg;
  pthread_mutex_lock(&run->mu);
  for (;;) {
    if (!run->next_state) {
      pthread_cond_wait(&run->work, &run->mu);
      continue;
    }
    void *state = run->next_state;
    run->next_state = NULL;
    unsigned int session = run->session;
    pthread_mutex_unlock(&run->mu);
    run->body(run, state, session);
    run->free_state(state);
    pthread_mutex_lock(&run->mu);
  }
  return NULL; /* not reached: the thread serves until the process ends */
}

int pp_run_subscribe(struct pp_run *run, struct pp_sub sub,
                     void *(*make_state)(struct pp_run *run, unsigned int session, int *err)) {
  int rc = 0;
  pthread_mutex_lock(&run->mu);
  if (run->nsubs == PP_MAX_SUBS) {
    rc = ENOSPC;
  } else if (run->nsubs == 0) {
    if (!run->started) {
      run->wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
      if (run->wake_fd < 0) rc = errno;
      /* The host's signals stay with the host. */
      if (rc == 0) rc = nuv_pthread_create_masked(&run->tid, NULL, run_body, run);
      if (rc == 0) {
        run->started = 1;
      } else if (run->wake_fd >= 0) {
        close(run->wake_fd);
      }
    }
    /* A new session, numbered before its state is made: the state may look at it. Its setup
     * happens here, so that a failure reaches the caller. */
    void *state = NULL;
    if (rc == 0) {
      __atomic_store_n(&run->session, run->session + 1, __ATOMIC_RELEASE);
      state = make_state(run, run->session, &rc);
    }
    if (state) {
      if (run->next_state) run->free_state(run->next_state);
      run->next_state = state;
      pthread_cond_signal(&run->work);
    }
  }
  if (rc == 0) run->subs[run->nsubs++] = sub;
  pthread_mutex_unlock(&run->mu);
  return rc;
}

void pp_run_unsubscribe(struct pp_run *run) {
  pthread_mutex_lock(&run->mu);
  if (run->nsubs > 0) {
    run->nsubs = 0;
    __atomic_store_n(&run->session, run->session + 1, __ATOMIC_RELEASE);
    if (run->next_state) run->free_state(run->next_state);
    run->next_state = NULL;
    wake(run);
  }
  /* A callback in flight ends before this returns, unless this is that callback. */
  if (!run->started || !pthread_equal(run->tid, pthread_self())) {
    while (run->delivering) pthread_cond_wait(&run->idle, &run->mu);
  }
  pthread_mutex_unlock(&run->mu);
}

int pp_run_ended(struct pp_run *run, unsigned int session) {
  return __atomic_load_n(&run->session, __ATOMIC_ACQUIRE) != session;
}

int pp_run_subs(struct pp_run *run, unsigned int session, struct pp_sub *subs) {
  pthread_mutex_lock(&run->mu);
  int n = session == run->session ? run->nsubs : 0;
  memcpy(subs, run->subs, (size_t)n * sizeof *subs);
  run->delivering = n > 0;
  pthread_mutex_unlock(&run->mu);
  return n;
}

void pp_run_delivered(struct pp_run *run) {
  pthread_mutex_lock(&run->mu);
  run->delivering = 0;
  pthread_cond_broadcast(&run->idle);
  pthread_mutex_unlock(&run->mu);
}

int pp_run_wait(struct pp_run *run, unsigned int session, uint64_t ms, int extra_fd) {
  uint64_t deadline = pp_clock_ms(CLOCK_MONOTONIC) + ms;
  for (;;) {
    if (pp_run_ended(run, session)) return 1;
    uint64_t now = pp_clock_ms(CLOCK_MONOTONIC);
    if (now >= deadline) return 0;
    uint64_t left = deadline - now;
    struct pollfd fds[2] = {{.fd = run->wake_fd, .events = POLLIN},
                            {.fd = extra_fd, .events = POLLIN}};
    int rc = poll(fds, extra_fd >= 0 ? 2 : 1, left > 60000 ? 60000 : (int)left);
    if (rc < 0 && errno != EINTR) return pp_run_ended(run, session);
    if (rc > 0 && fds[0].revents) {
      /* Consumed here and the session checked after: a wake is only ever "look again". */
      uint64_t count;
      ssize_t r;
      do {
        r = read(run->wake_fd, &count, sizeof count);
      } while (r < 0 && errno == EINTR);
    }
    if (pp_run_ended(run, session)) return 1;
    if (rc > 0 && extra_fd >= 0 && fds[1].revents) return 0;
  }
}
