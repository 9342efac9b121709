#include "nuv_atomic.h"

int32_t nuv_atomic32_get(nuv_atomic32_t *atomic) {
  return __atomic_load_n(&atomic->value, __ATOMIC_SEQ_CST);
}

void nuv_atomic32_set(nuv_atomic32_t *atomic, int32_t value) {
  __atomic_store_n(&atomic->value, value, __ATOMIC_SEQ_CST);
}

int32_t nuv_atomic32_add_and_fetch(nuv_atomic32_t *atomic, int32_t delta) {
  /* Through unsigned so that wrapping is defined. */
  return (int32_t)__atomic_add_fetch((uint32_t *)&atomic->value, (uint32_t)delta,
                                     __ATOMIC_SEQ_CST);
}
