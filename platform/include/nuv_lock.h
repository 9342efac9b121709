/* Read-write locks and mutexes behind opaque handles. */
#ifndef NUV_LOCK_H
#define NUV_LOCK_H

#include "nuv_api.h"

NUV_BEGIN_DECLS

typedef struct nuv_rwlock nuv_rwlock_t;
typedef struct nuv_mutex nuv_mutex_t;

/* Creates a read-write lock into *lock. Returns 0, or an errno value (then *lock is NULL). */
NUV_API int nuv_rwlock_init(nuv_rwlock_t **lock);

/* Destroys a lock nobody holds and sets *lock to NULL (NULL or *lock NULL is ignored). */
NUV_API void nuv_rwlock_destroy(nuv_rwlock_t **lock);

/* Takes the lock shared; blocks while a writer holds it. Returns 0, or EDEADLK when the
 * calling thread holds it exclusively, EAGAIN when too many readers hold it, EINVAL on NULL. */
NUV_API int nuv_rwlock_shared_acquire(nuv_rwlock_t *lock);
NUV_API int nuv_rwlock_shared_release(nuv_rwlock_t *lock);

/* Takes the lock exclusively; blocks while anyone else holds it. Returns 0, or EDEADLK at once
 * when the calling thread already holds it exclusively (it never deadlocks on itself), EINVAL
 * on NULL. Releasing returns 0, or EPERM when the caller is not the exclusive owner. */
NUV_API int nuv_rwlock_exclusive_acquire(nuv_rwlock_t *lock);
NUV_API int nuv_rwlock_exclusive_release(nuv_rwlock_t *lock);

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
