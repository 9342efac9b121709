#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <time.h>

#include "internal.h"
#include "nuv_thread.h"
#include "nuv_time.h"

/* Cancellation is built on deferred pthread cancellation, kept disabled except inside our own
 * cancellation points: glibc then unwinds the thread with a forced exception, which runs C++
 * destructors and C cleanup handlers on the way out. A stop flag and a condition variable let
 * a sleeping thread be woken at once. Beware: unwinding through a noexcept frame (a
 * destructor, say) that sleeps terminates the process. */
struct nuv_thread {
  pthread_t tid;
  pthread_mutex_t mu;
  pthread_cond_t cv;
  int stop;
  nuv_thread_fn fn;
  void *arg;
};

static __thread struct nuv_thread *t_self;

static void *trampoline(void *p) {
  struct nuv_thread *t = p;
  t_self = t;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, NULL);
  pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, NULL);
  return t->fn(t->arg);
}

static void release(struct nuv_thread *t) {
  pthread_cond_destroy(&t->cv);
  pthread_mutex_destroy(&t->mu);
  free(t);
}

int nuv_pthread_create_masked(pthread_t *tid, const pthread_attr_t *attr, void *(*fn)(void *),
                              void *arg) {
  if (!tid || !fn) return EINVAL;
  sigset_t all, old;
  sigfillset(&all);
  int rc = pthread_sigmask(SIG_SETMASK, &all, &old);
  if (rc != 0) return rc;
  rc = pthread_create(tid, attr, fn, arg);
  pthread_sigmask(SIG_SETMASK, &old, NULL);
  return rc;
}

int nuv_thread_start(nuv_thread_t **thread, nuv_thread_fn fn, void *arg) {
  if (!thread) return EINVAL;
  *thread = NULL;
  if (!fn) return EINVAL;
  struct nuv_thread *t = calloc(1, sizeof *t);
  if (!t) return ENOMEM;
  t->fn = fn;
  t->arg = arg;
  pthread_condattr_t ca;
  pthread_condattr_init(&ca);
  pthread_condattr_setclock(&ca, CLOCK_MONOTONIC);
  int rc = pthread_cond_init(&t->cv, &ca);
  pthread_condattr_destroy(&ca);
  if (rc != 0) {
    free(t);
    return rc;
  }
  pthread_mutex_init(&t->mu, NULL);
  rc = nuv_pthread_create_masked(&t->tid, NULL, trampoline, t);
  if (rc != 0) {
    release(t);
    return rc;
  }
  *thread = t;
  return 0;
}

int nuv_thread_cancel(nuv_thread_t *t) {
  if (!t) return EINVAL;
  if (pthread_equal(t->tid, pthread_self())) return EDEADLK;
  /* The pthread request goes first: it stays pending until the thread enables cancellation in
   * a cancellation point, which it only does after seeing the flag set below. */
  pthread_cancel(t->tid);
  pthread_mutex_lock(&t->mu);
  t->stop = 1;
  pthread_cond_broadcast(&t->cv);
  pthread_mutex_unlock(&t->mu);
  pthread_join(t->tid, NULL);
  release(t);
  return 0;
}

int nuv_thread_should_stop(void) {
  struct nuv_thread *t = t_self;
  if (!t) return 0;
  pthread_mutex_lock(&t->mu);
  int stop = t->stop;
  pthread_mutex_unlock(&t->mu);
  return stop;
}

void nuv__stop_point(void) {
  if (!nuv_thread_should_stop()) return;
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, NULL);
  pthread_testcancel();
  /* Not reached: the request was made before the flag was set. */
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, NULL);
}

static struct timespec deadline_after(uint64_t ms) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  ts.tv_sec += (time_t)(ms / 1000u);
  ts.tv_nsec += (long)(ms % 1000u) * 1000000L;
  if (ts.tv_nsec >= 1000000000L) {
    ts.tv_sec += 1;
    ts.tv_nsec -= 1000000000L;
  }
  return ts;
}

int nuv__wait_or_stop(uint64_t ms) {
  struct timespec until = deadline_after(ms);
  struct nuv_thread *t = t_self;
  if (!t) {
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, NULL) == EINTR) {
    }
    return 0;
  }
  pthread_mutex_lock(&t->mu);
  while (!t->stop) {
    if (pthread_cond_timedwait(&t->cv, &t->mu, &until) == ETIMEDOUT) break;
  }
  int stop = t->stop;
  pthread_mutex_unlock(&t->mu);
  return stop;
}

static int scaled_sleep(uint64_t ms) {
  nuv__stop_point();
  uint64_t scale = nuv_time_get_tick_scale();
  if (nuv__wait_or_stop(ms / scale)) nuv__stop_point();
  return 0;
}

int nuv_sleep(unsigned int seconds, unsigned int milliseconds) {
  return scaled_sleep((uint64_t)seconds * 1000u + milliseconds);
}

int nuv_msleep(unsigned int milliseconds, unsigned int microseconds) {
  return scaled_sleep((uint64_t)milliseconds + microseconds / 1000u);
}
