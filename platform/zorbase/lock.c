#include <errno.h>
#include <pthread.h>
#include <stdlib.h>

#include "nuv_lock.h"

struct nuv_rwlock {
  pthread_rwlock_t rw;
};

struct nuv_mutex {
  pthread_mutex_t mu;
};

int nuv_rwlock_init(nuv_rwlock_t **lock) {
  if (!lock) return EINVAL;
  *lock = NULL;
  struct nuv_rwlock *l = malloc(sizeof *l);
  if (!l) return ENOMEM;
  /* Reader preference (the default) keeps a shared acquire by a thread that already reads
   * from deadlocking behind a waiting writer. */
  int rc = pthread_rwlock_init(&l->rw, NULL);
  if (rc != 0) {
    free(l);
    return rc;
  }
  *lock = l;
  return 0;
}

void nuv_rwlock_destroy(nuv_rwlock_t **lock) {
  if (!lock || !*lock) return;
  pthread_rwlock_destroy(&(*lock)->rw);
  free(*lock);
  *lock = NULL;
}

/* glibc reports EDEADLK for a writer re-acquiring its own lock, and for a reader who holds it
 * exclusively; both come back to the caller at once instead of blocking. */
int nuv_rwlock_shared_acquire(nuv_rwlock_t *lock) {
  return lock ? pthread_rwlock_rdlock(&lock->rw) : EINVAL;
}

int nuv_rwlock_shared_release(nuv_rwlock_t *lock) {
  return lock ? pthread_rwlock_unlock(&lock->rw) : EINVAL;
}

int nuv_rwlock_exclusive_acquire(nuv_rwlock_t *lock) {
  return lock ? pthread_rwlock_wrlock(&lock->rw) : EINVAL;
}

int nuv_rwlock_exclusive_release(nuv_rwlock_t *lock) {
  return lock ? pthread_rwlock_unlock(&lock->rw) : EINVAL;
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
