/* A release/acquire pair built without the sanitizer, as a library that is not instrumented
 * orders its threads. */
#include <sched.h>
#include <stddef.h>

void unseen_publish(void **slot, void *value) { __atomic_store_n(slot, value, __ATOMIC_RELEASE); }

void *unseen_wait(void **slot) {
  void *value;
  while ((value = __atomic_load_n(slot, __ATOMIC_ACQUIRE)) == NULL) sched_yield();
  return value;
}
