#include "common/rwlock.h"

#include <cerrno>

#include "common/log.h"

CRwLock::CRwLock(const char* owner) : owner_(owner) {
  const int rc = nuv_rwlock_init(&lock_);
  if (rc != 0) {
    ZLOG_ERROR("[%s]::%s lock init failed, code = %d.", owner_, owner_, rc);
    return;
  }
  nuv_rwlock_set_name(lock_, owner_);
}

CRwLock::~CRwLock() { nuv_rwlock_destroy(&lock_); }

CRwLockGuard::CRwLockGuard(CRwLock& lock, bool exclusive) : lock_(lock), exclusive_(exclusive) {
  nuv_rwlock_t* handle = lock_.lock_;
  const int rc = handle == nullptr  ? EINVAL
                 : exclusive_       ? nuv_rwlock_exclusive_acquire(handle)
                                    : nuv_rwlock_shared_acquire(handle);
  if (rc == 0) {
    held_ = true;
    release_ = true;
    // A hold kept by another thread may just have been taken over.
    if (exclusive_) lock_.kept_ = false;
  } else if (rc == EDEADLK && nuv_rwlock_exclusive_held(handle) != 0) {
    held_ = true;
    if (lock_.kept_) {
      // Adopt the kept hold as this scope's own, released like an exclusive one.
      lock_.kept_ = false;
      exclusive_ = true;
      release_ = true;
    }
  } else {
    ZLOG_ERROR("[%s]::lock acquire failed, exclusive = %d, code = %d.", lock_.owner_,
               exclusive_ ? 1 : 0, rc);
  }
}

void CRwLockGuard::Keep() {
  if (!release_ || !exclusive_) return;
  lock_.kept_ = true;
  release_ = false;
}

CRwLockGuard::~CRwLockGuard() {
  if (!release_) return;
  if (exclusive_) {
    nuv_rwlock_exclusive_release(lock_.lock_);
  } else {
    nuv_rwlock_shared_release(lock_.lock_);
  }
}
