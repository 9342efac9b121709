/* Read-write locks and mutexes behind opaque handles.
 *
 * Take-over of an abandoned exclusive hold. An exclusive hold that lasts longer than the
 * take-over bound (NUV_LOCK_TAKEOVER_MS, read once, 1..3600000, default 2000 ms; or
 * nuv_lock_set_takeover_ms) is taken to be one that no thread will release (the library's
 * performance manager leaves its lock held after a refused registration, by design): a thread
 * that waits for the lock, shared or exclusive, then drops that hold and takes the lock itself,
 * and writes one WARN line naming the lock (nuv_rwlock_set_name), the thread that held it and
 * for how long:
 *   [nuv_rwlock]::lock <name> held exclusively by thread <tid> for <ms> ms without release,
 *   taken over by thread <tid> (<shared|exclusive>).
 * So no waiter waits longer than the bound behind one hold, and a critical section that needs
 * mutual exclusion must end well within the bound (everything in the library takes
 * milliseconds). The former holder's release then returns EPERM and changes nothing. Shared
 * holds are never taken over. A thread never runs a critical section without the lock: every
 * acquire either returns 0 with the lock held, or an error with nothing taken.
 *
 * A waiter spins for up to 20 us before it sleeps: the library's holds are shorter than a
 * sleep and a wake-up.
 *
 * Results: 0, or an errno value. */
#ifndef NUV_LOCK_H
#define NUV_LOCK_H

#include "nuv_api.h"

NUV_BEGIN_DECLS

typedef struct nuv_rwlock nuv_rwlock_t;
typedef struct nuv_mutex nuv_mutex_t;

/* Creates a read-write lock into *lock. Returns 0, or an errno value (then *lock is NULL). */
NUV_API int nuv_rwlock_init(nuv_rwlock_t **lock);

/* Names the lock in the take-over WARN (copied, up to 47 bytes; the default is its address). */
NUV_API void nuv_rwlock_set_name(nuv_rwlock_t *lock, const char *name);

/* Destroys a lock nobody holds and sets *lock to NULL (NULL or *lock NULL is ignored). */
NUV_API void nuv_rwlock_destroy(nuv_rwlock_t **lock);

/* Takes the lock shared; blocks while a writer holds it, at most until that hold is older than
 * the take-over bound. Returns 0, or EDEADLK when the calling thread holds it exclusively,
 * EAGAIN when too many readers hold it, EINVAL on NULL. Readers do not wait behind waiting
 * writers, so a thread that already reads can read again. */
NUV_API int nuv_rwlock_shared_acquire(nuv_rwlock_t *lock);
NUV_API int nuv_rwlock_shared_release(nuv_rwlock_t *lock);

/* Takes the lock exclusively; blocks while anyone else holds it (behind another thread's
 * exclusive hold at most until that hold is older than the take-over bound; readers are
 * always waited for). Returns 0, or EDEADLK at once when the calling thread already holds it
 * exclusively (it never deadlocks on itself, and the hold stays as it is), EINVAL on NULL.
 * Releasing returns 0, or EPERM when the caller is not the exclusive owner (also when its
 * hold was taken over). */
NUV_API int nuv_rwlock_exclusive_acquire(nuv_rwlock_t *lock);
NUV_API int nuv_rwlock_exclusive_release(nuv_rwlock_t *lock);

/* 1 when the calling thread holds the lock exclusively, else 0 (also for NULL). */
NUV_API int nuv_rwlock_exclusive_held(nuv_rwlock_t *lock);

/* The take-over bound in milliseconds (see the top of this file), and its override for this
 * process: 0 restores NUV_LOCK_TAKEOVER_MS or the default. Thread-safe. */
#define NUV_LOCK_TAKEOVER_DEFAULT_MS 2000u
NUV_API void nuv_lock_set_takeover_ms(unsigned int ms);
NUV_API unsigned int nuv_lock_get_takeover_ms(void);

/* Creates a non-recursive, error-checking mutex into *mutex. Returns 0 or an errno value. */
NUV_API int nuv_mutex_init(nuv_mutex_t **mutex);

/* Destroys an unlocked mutex and sets *mutex to NULL (NULL is ignored). */
NUV_API void nuv_mutex_destroy(nuv_mutex_t **mutex);

/* Locks; returns 0, or EDEADLK when the caller already holds it. Unlock returns 0 or EPERM
 * when the caller does not hold it. */
NUV_API int nuv_mutex_lock(nuv_mutex_t *mutex);
NUV_API int nuv_mutex_unlock(nuv_mutex_t *mutex);

NUV_END_DECLS

#endif
