#include "common/rwlock_guard.h"

#include <cerrno>

#include "common/log.h"

CRwLockGuard::CRwLockGuard(nuv_rwlock_t* lock, bool exclusive, const char* owner)
    : lock_(lock), exclusive_(exclusive) {
  const int rc =
      exclusive_ ? nuv_rwlock_exclusive_acquire(lock_) : nuv_rwlock_shared_acquire(lock_);
  if (rc == 0) {
    held_ = true;
    release_ = true;
  } else if (rc == EDEADLK && nuv_rwlock_exclusive_held(lock_) != 0) {
    // This thread holds it exclusively already: the scope is covered by that hold.
    held_ = true;
  } else {
    ZLOG_ERROR("[%s]::lock acquire failed, exclusive = %d, code = %d.", owner, exclusive_ ? 1 : 0,
               rc);
  }
}

CRwLockGuard::~CRwLockGuard() {
  if (!release_) return;
  if (exclusive_) {
    nuv_rwlock_exclusive_release(lock_);
  } else {
    nuv_rwlock_shared_release(lock_);
  }
}
