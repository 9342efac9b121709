/* Built into the programs that load librdkafka, under ThreadSanitizer only.
 *
 * librdkafka starts its threads and takes its locks through C11 <threads.h>, which glibc
 * implements on its internal pthread calls, past the sanitizer's interceptors: the sanitizer
 * never set those threads up, and they crashed in its allocator at their first malloc. These
 * definitions come first in the lookup order and call the intercepted pthread functions, so
 * the threads are known and their locks seen. glibc lays out mtx_t, cnd_t and once_flag as
 * the pthread types they wrap.
 *
 * librdkafka itself is not instrumented; what it does is not checked (see the suppression at
 * the end), the code that calls it is. */
#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <threads.h>

struct thread_start {
  thrd_start_t func;
  void *arg;
};

static void *run_thread(void *p) {
  struct thread_start start = *(struct thread_start *)p;
  free(p);
  return (void *)(intptr_t)start.func(start.arg);
}

static int c11_result(int err) {
  return err == 0 ? thrd_success : err == ENOMEM ? thrd_nomem : err == EBUSY ? thrd_busy
                                                                              : thrd_error;
}

int thrd_create(thrd_t *thr, thrd_start_t func, void *arg) {
  struct thread_start *start = malloc(sizeof *start);
  if (start == NULL) return thrd_nomem;
  start->func = func;
  start->arg = arg;
  const int err = pthread_create(thr, NULL, run_thread, start);
  if (err != 0) free(start);
  return c11_result(err);
}

int thrd_join(thrd_t thr, int *res) {
  void *result = NULL;
  const int err = pthread_join(thr, &result);
  if (err == 0 && res != NULL) *res = (int)(intptr_t)result;
  return c11_result(err);
}

int thrd_detach(thrd_t thr) { return c11_result(pthread_detach(thr)); }

int mtx_init(mtx_t *mtx, int type) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  if ((type & mtx_recursive) != 0) pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  const int err = pthread_mutex_init((pthread_mutex_t *)mtx, &attr);
  pthread_mutexattr_destroy(&attr);
  return c11_result(err);
}

int mtx_lock(mtx_t *mtx) { return c11_result(pthread_mutex_lock((pthread_mutex_t *)mtx)); }

int mtx_trylock(mtx_t *mtx) { return c11_result(pthread_mutex_trylock((pthread_mutex_t *)mtx)); }

int mtx_unlock(mtx_t *mtx) { return c11_result(pthread_mutex_unlock((pthread_mutex_t *)mtx)); }

void mtx_destroy(mtx_t *mtx) { pthread_mutex_destroy((pthread_mutex_t *)mtx); }

int cnd_init(cnd_t *cond) { return c11_result(pthread_cond_init((pthread_cond_t *)cond, NULL)); }

int cnd_signal(cnd_t *cond) { return c11_result(pthread_cond_signal((pthread_cond_t *)cond)); }

int cnd_broadcast(cnd_t *cond) {
  return c11_result(pthread_cond_broadcast((pthread_cond_t *)cond));
}

int cnd_wait(cnd_t *cond, mtx_t *mtx) {
  return c11_result(pthread_cond_wait((pthread_cond_t *)cond, (pthread_mutex_t *)mtx));
}

int cnd_timedwait(cnd_t *cond, mtx_t *mtx, const struct timespec *until) {
  const int err =
      pthread_cond_timedwait((pthread_cond_t *)cond, (pthread_mutex_t *)mtx, until);
  return err == ETIMEDOUT ? thrd_timedout : c11_result(err);
}

void cnd_destroy(cnd_t *cond) { pthread_cond_destroy((pthread_cond_t *)cond); }

void call_once(once_flag *flag, void (*func)(void)) { pthread_once((pthread_once_t *)flag, func); }

/* Read by the sanitizer at start. librdkafka orders some of its own work with atomics the
 * sanitizer cannot see (reference counts before a lock is destroyed, a lock set up after the
 * thread that takes it was started); reports from calls it makes are its own, not this
 * program's. Its calls reach the lock functions above through this file, past the library
 * filter, so races on the locks themselves are left out by name: nothing else calls them. */
const char *__tsan_default_suppressions(void) {
  return "called_from_lib:librdkafka.so.1\n"
         "race:^mtx_\n"
         "race:^cnd_\n";
}
