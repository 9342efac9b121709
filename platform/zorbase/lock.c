#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "nuv_lock.h"
#include "nuv_log.h"

/* The read-write lock is a mutex, a condition variable and a little state, so that a waiter
 * can see how long the exclusive hold it waits behind has lasted and take over a hold that no
 * thread releases (see nuv_lock.h). Reader preference: a shared acquire waits only while a
 * writer holds the lock, never behind a waiting writer, so a thread that already reads can
 * read again without deadlocking. */
struct nuv_rwlock {
  pthread_mutex_t mu;
  pthread_cond_t cv;
  unsigned int readers;
  int writer;            /* 1 while held exclusively */
  pthread_t owner;       /* the exclusive holder, valid while writer */
  long owner_tid;        /* its kernel thread id, for the log */
  int64_t held_since_ms; /* monotonic, when the exclusive hold began */
  unsigned long hold_id; /* bumped by every exclusive acquire and take-over */
  char name[48];
};

struct nuv_mutex {
  pthread_mutex_t mu;
};

static unsigned int g_takeover_set; /* atomic; 0: the environment's or the default */
static unsigned int g_takeover_env; /* atomic; read once */
static int g_env_read;              /* atomic */

static unsigned int takeover_ms(void) {
  unsigned int set = __atomic_load_n(&g_takeover_set, __ATOMIC_RELAXED);
  if (set) return set;
  if (!__atomic_load_n(&g_env_read, __ATOMIC_ACQUIRE)) {
    unsigned int ms = NUV_LOCK_TAKEOVER_DEFAULT_MS;
    const char *s = getenv("NUV_LOCK_TAKEOVER_MS");
    if (s && *s >= '0' && *s <= '9') {
      char *end;
      unsigned long v = strtoul(s, &end, 10);
      if (*end == '\0' && v >= 1 && v <= 3600000ul) ms = (unsigned int)v;
    }
    __atomic_store_n(&g_takeover_env, ms, __ATOMIC_RELAXED);
    __atomic_store_n(&g_env_read, 1, __ATOMIC_RELEASE);
  }
  return __atomic_load_n(&g_takeover_env, __ATOMIC_RELAXED);
}

void nuv_lock_set_takeover_ms(unsigned int ms) {
  if (ms > 3600000u) ms = 3600000u;
  __atomic_store_n(&g_takeover_set, ms, __ATOMIC_RELAXED);
}

unsigned int nuv_lock_get_takeover_ms(void) { return takeover_ms(); }

/* How long a waiter spins before it sleeps: a few holds of the store's lock, which last about
 * a microsecond and a half each. A sleep and a wake-up cost more than that at every handover. */
#define SPIN_NS 20000

static int64_t now_ms(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

static struct timespec at_ms(int64_t ms) {
  struct timespec ts = {.tv_sec = (time_t)(ms / 1000), .tv_nsec = (long)(ms % 1000) * 1000000L};
  return ts;
}

int nuv_rwlock_init(nuv_rwlock_t **lock) {
  if (!lock) return EINVAL;
  *lock = NULL;
  struct nuv_rwlock *l = calloc(1, sizeof *l);
  if (!l) return ENOMEM;
  pthread_condattr_t ca;
  int rc = pthread_condattr_init(&ca);
  if (rc != 0) {
    free(l);
    return rc;
  }
  pthread_condattr_setclock(&ca, CLOCK_MONOTONIC);
  rc = pthread_cond_init(&l->cv, &ca);
  pthread_condattr_destroy(&ca);
  if (rc != 0) {
    free(l);
    return rc;
  }
  rc = pthread_mutex_init(&l->mu, NULL);
  if (rc != 0) {
    pthread_cond_destroy(&l->cv);
    free(l);
    return rc;
  }
  snprintf(l->name, sizeof l->name, "rwlock@%p", (void *)l);
  *lock = l;
  return 0;
}

void nuv_rwlock_set_name(nuv_rwlock_t *lock, const char *name) {
  if (!lock || !name) return;
  pthread_mutex_lock(&lock->mu);
  snprintf(lock->name, sizeof lock->name, "%s", name);
  pthread_mutex_unlock(&lock->mu);
}

void nuv_rwlock_destroy(nuv_rwlock_t **lock) {
  if (!lock || !*lock) return;
  pthread_cond_destroy(&(*lock)->cv);
  pthread_mutex_destroy(&(*lock)->mu);
  free(*lock);
  *lock = NULL;
}

/* The calling thread's kernel id, asked of the kernel once per thread: every exclusive acquire
 * notes it, and a system call per store write only for a log line was too dear. A forked
 * child asks again (its one thread has a new id). */
static __thread long t_tid;

static void forget_tid(void) { t_tid = 0; }

static void register_forget_tid(void) { pthread_atfork(NULL, NULL, forget_tid); }

static long current_tid(void) {
  static pthread_once_t once = PTHREAD_ONCE_INIT;
  if (t_tid == 0) {
    pthread_once(&once, register_forget_tid);
    t_tid = (long)syscall(SYS_gettid);
  }
  return t_tid;
}

static int self_holds(const struct nuv_rwlock *l) {
  return l->writer && pthread_equal(l->owner, pthread_self());
}

static int64_t now_ns(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (int64_t)ts.tv_sec * 1000000000 + ts.tv_nsec;
}

/* Without l->mu: waits a little while a writer holds the lock. */
static void spin_while_written(struct nuv_rwlock *l) {
  const int64_t until = now_ns() + SPIN_NS;
  while (__atomic_load_n(&l->writer, __ATOMIC_RELAXED)) {
    for (int i = 0; i < 16; i++) {
#if defined(__x86_64__) || defined(__i386__)
      __builtin_ia32_pause();
#endif
    }
    if (now_ns() >= until) return;
  }
}

/* With l->mu held: waits while a writer holds the lock; a hold older than the bound is taken
 * over (dropped, with a WARN). Returns when no writer holds it. */
static void wait_no_writer(struct nuv_rwlock *l, const char *how) {
  if (l->writer) {
    pthread_mutex_unlock(&l->mu);
    spin_while_written(l);
    pthread_mutex_lock(&l->mu);
  }
  while (l->writer) {
    int64_t limit = l->held_since_ms + (int64_t)takeover_ms();
    if (now_ms() >= limit) {
      unsigned long held = (unsigned long)(now_ms() - l->held_since_ms);
      long old_tid = l->owner_tid;
      __atomic_store_n(&l->writer, 0, __ATOMIC_RELAXED);
      l->hold_id++;
      nuv_log_output(NUV_LOG_WARN,
                     "[PID:%-5ld]\t[WARN]\t%-10s [%s(%d)] [nuv_rwlock]::lock %s held "
                     "exclusively by thread %ld for %lu ms without release, taken over by "
                     "thread %ld (%s).",
                     (long)getpid(), "[ZOR]", "zorbase/lock.c", __LINE__, l->name, old_tid,
                     held, current_tid(), how);
      pthread_cond_broadcast(&l->cv);
      break;
    }
    struct timespec until = at_ms(limit);
    pthread_cond_timedwait(&l->cv, &l->mu, &until);
  }
}

int nuv_rwlock_shared_acquire(nuv_rwlock_t *lock) {
  if (!lock) return EINVAL;
  pthread_mutex_lock(&lock->mu);
  int rc = 0;
  if (self_holds(lock)) {
    rc = EDEADLK;
  } else {
    wait_no_writer(lock, "shared");
    if (lock->readers == UINT_MAX) rc = EAGAIN;
    else lock->readers++;
  }
  pthread_mutex_unlock(&lock->mu);
  return rc;
}

int nuv_rwlock_shared_release(nuv_rwlock_t *lock) {
  if (!lock) return EINVAL;
  pthread_mutex_lock(&lock->mu);
  int rc = 0;
  if (lock->readers == 0) {
    rc = EPERM;
  } else if (--lock->readers == 0) {
    pthread_cond_broadcast(&lock->cv);
  }
  pthread_mutex_unlock(&lock->mu);
  return rc;
}

int nuv_rwlock_exclusive_acquire(nuv_rwlock_t *lock) {
  if (!lock) return EINVAL;
  pthread_mutex_lock(&lock->mu);
  if (self_holds(lock)) {
    pthread_mutex_unlock(&lock->mu);
    return EDEADLK;
  }
  for (;;) {
    wait_no_writer(lock, "exclusive");
    if (lock->readers == 0) break;
    /* Readers always release: wait for them without a bound. */
    pthread_cond_wait(&lock->cv, &lock->mu);
  }
  __atomic_store_n(&lock->writer, 1, __ATOMIC_RELAXED);
  lock->owner = pthread_self();
  lock->owner_tid = current_tid();
  lock->held_since_ms = now_ms();
  lock->hold_id++;
  pthread_mutex_unlock(&lock->mu);
  return 0;
}

int nuv_rwlock_exclusive_release(nuv_rwlock_t *lock) {
  if (!lock) return EINVAL;
  pthread_mutex_lock(&lock->mu);
  int rc = 0;
  if (!self_holds(lock)) {
    rc = EPERM; /* not ours, or taken over meanwhile */
  } else {
    __atomic_store_n(&lock->writer, 0, __ATOMIC_RELAXED);
    pthread_cond_broadcast(&lock->cv);
  }
  pthread_mutex_unlock(&lock->mu);
  return rc;
}

int nuv_rwlock_exclusive_held(nuv_rwlock_t *lock) {
  if (!lock) return 0;
  pthread_mutex_lock(&lock->mu);
  int held = self_holds(lock);
  pthread_mutex_unlock(&lock->mu);
  return held;
}

int nuv_mutex_init(nuv_mutex_t **mutex) {
  if (!mutex) return EINVAL;
  *mutex = NULL;
  struct nuv_mutex *m = malloc(sizeof *m);
  if (!m) return ENOMEM;
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
  int rc = pthread_mutex_init(&m->mu, &attr);
  pthread_mutexattr_destroy(&attr);
  if (rc != 0) {
    free(m);
    return rc;
  }
  *mutex = m;
  return 0;
}

void nuv_mutex_destroy(nuv_mutex_t **mutex) {
  if (!mutex || !*mutex) return;
  pthread_mutex_destroy(&(*mutex)->mu);
  free(*mutex);
  *mutex = NULL;
}

int nuv_mutex_lock(nuv_mutex_t *mutex) {
  return mutex ? pthread_mutex_lock(&mutex->mu) : EINVAL;
}

int nuv_mutex_unlock(nuv_mutex_t *mutex) {
  return mutex ? pthread_mutex_unlock(&mutex->mu) : EINVAL;
}
