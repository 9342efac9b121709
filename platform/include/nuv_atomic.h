/* 32-bit atomics with sequentially consistent ordering. */
#ifndef NUV_ATOMIC_H
#define NUV_ATOMIC_H

#include <stdint.h>

#include "nuv_api.h"

NUV_BEGIN_DECLS

/* A 32-bit value touched only through the calls below. Zero-initialise, or use
 * NUV_ATOMIC32_INIT(v). */
typedef struct {
  int32_t value;
} nuv_atomic32_t;

#define NUV_ATOMIC32_INIT(v) {(v)}

/* Reads the value. */
NUV_API int32_t nuv_atomic32_get(nuv_atomic32_t *atomic);

/* Stores `value`. */
NUV_API void nuv_atomic32_set(nuv_atomic32_t *atomic, int32_t value);

/* Adds `delta` (wrapping) and returns the new value. */
NUV_API int32_t nuv_atomic32_add_and_fetch(nuv_atomic32_t *atomic, int32_t delta);

NUV_END_DECLS

#endif
