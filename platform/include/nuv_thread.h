/* Threads with cooperative cancellation.
 *
 * A thread started here can be cancelled only at a cancellation point: nuv_sleep, nuv_msleep
 * and nuv_process_wait. There the thread unwinds as if by an exception, so C++ destructors
 * (and C cleanup handlers) of every frame run, and it is never stopped while it holds a lock
 * taken elsewhere in its body. A thread body may also poll nuv_thread_should_stop().
 *
 * The unwinding is a forced one that cannot be stopped: a frame that swallows it (catch (...)
 * without rethrowing) or a noexcept frame on the way (a destructor that sleeps, say) aborts the
 * process. A body that catches everything must rethrow, and no destructor may sleep.
 *
 * Results: 0, or an errno value. */
#ifndef NUV_THREAD_H
#define NUV_THREAD_H

#include <pthread.h>

#include "nuv_api.h"

NUV_BEGIN_DECLS

typedef struct nuv_thread nuv_thread_t;
typedef void *(*nuv_thread_fn)(void *arg);

/* Starts `fn(arg)` on a new thread (every signal blocked in it, see
 * nuv_pthread_create_masked) and stores its handle in *thread. Returns 0, or an errno
 * value (then *thread is NULL). The handle must be released with nuv_thread_cancel. */
NUV_API int nuv_thread_start(nuv_thread_t **thread, nuv_thread_fn fn, void *arg);

/* The one way the platform starts a thread: pthread_create(tid, attr, fn, arg) with every
 * signal blocked in the new thread (the caller's mask is restored before returning), so a
 * host's signals reach only the host's own threads, and a host that blocks SIGTERM and waits
 * for it with sigwait is never killed by a platform thread that left it unblocked. Used by
 * nuv_thread_start, the bus and the performance provider. Returns 0 or an errno value. */
NUV_API int nuv_pthread_create_masked(pthread_t *tid, const pthread_attr_t *attr,
                                      void *(*fn)(void *), void *arg);

/* Flags the thread to stop, wakes it if it waits in a cancellation point, waits for it to end
 * and releases the handle. A thread that already returned is just reaped. Returns 0, EINVAL on
 * NULL, EDEADLK when a thread cancels itself (the handle is then left alone). Blocks for as
 * long as the thread runs without reaching a cancellation point. */
NUV_API int nuv_thread_cancel(nuv_thread_t *thread);

/* 1 when the calling thread was started here and has been asked to stop, else 0. */
NUV_API int nuv_thread_should_stop(void);

/* Sleeps `seconds` plus `milliseconds` (divided by the tick scale, see nuv_time.h). A
 * cancellation point for threads started here; other threads just sleep, resuming after
 * signals. Returns 0. */
NUV_API int nuv_sleep(unsigned int seconds, unsigned int milliseconds);

/* Sleeps `milliseconds` plus `microseconds`, as nuv_sleep. */
NUV_API int nuv_msleep(unsigned int milliseconds, unsigned int microseconds);

NUV_END_DECLS

#endif
