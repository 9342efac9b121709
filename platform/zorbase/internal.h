/* Pieces shared between the files of zorbase; not exported. */
#ifndef NUV_ZORBASE_INTERNAL_H
#define NUV_ZORBASE_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

/* Waits up to `ms` real milliseconds (already scaled by the caller) or until the calling
 * thread, if started by nuv_thread_start, is asked to stop. Returns 1 when the wait ended
 * because of a stop request, else 0. Never unwinds. */
int nuv__wait_or_stop(uint64_t ms);

/* Unwinds the calling thread when it was asked to stop; returns otherwise. */
void nuv__stop_point(void);

/* Directory of the running executable into `out`; 0 or -1 with errno. */
int nuv__exe_dir(char *out, size_t size);

/* Joins `base` and `rel` with "/" into `out` and normalises; 0 or -1 (ENAMETOOLONG). */
int nuv__join_normalise(const char *base, const char *rel, char *out, size_t size);

/* Monotonic real milliseconds (unscaled). */
uint64_t nuv__monotonic_ms(void);

#endif
