/* librdkafka hands a lock to another of its threads through ordering the sanitizer cannot see.
 * The hand-off below does the same through functions built without the sanitizer: the lock's
 * first use on the other thread must not be reported, or the exporter's tests fail at random
 * under ThreadSanitizer. Exits non-zero (the sanitizer's code) when it is reported. */
#include <stddef.h>
#include <stdlib.h>
#include <threads.h>

/* In tsan_unseen_order.c, built without the sanitizer. */
void unseen_publish(void **slot, void *value);
void *unseen_wait(void **slot);

static void *slot;

static int lock_once_handed_over(void *arg) {
  (void)arg;
  mtx_t *lock = unseen_wait(&slot);
  if (mtx_lock(lock) != thrd_success) return 1;
  return mtx_unlock(lock) == thrd_success ? 0 : 1;
}

int main(void) {
  thrd_t thread;
  if (thrd_create(&thread, lock_once_handed_over, NULL) != thrd_success) return 2;
  mtx_t *lock = malloc(sizeof *lock);
  if (lock == NULL || mtx_init(lock, mtx_plain) != thrd_success) return 2;
  unseen_publish(&slot, lock);
  int result = -1;
  if (thrd_join(thread, &result) != thrd_success || result != 0) return 3;
  mtx_destroy(lock);
  free(lock);
  return 0;
}
