#include "common/rwlock_guard.h"

#include "common/log.h"

CRwLockGuard::CRwLockGuard(nuv_rwlock_t* lock, bool exclusive, const char* owner)
    : lock_(lock), exclusive_(exclusive) {
  const int rc =
      exclusive_ ? nuv_rwlock_exclusive_acquire(lock_) : nuv_rwlock_shared_acquire(lock_);
  held_ = rc == 0;
  if (!held_) {
    ZLOG_ERROR("[%s]::lock acquire failed, exclusive = %d, code = %d.", owner, exclusive_ ? 1 : 0,
               rc);
  }
}

CRwLockGuard::~CRwLockGuard() {
  if (held_ && exclusive_) {
    nuv_rwlock_exclusive_release(lock_);
  } else if (held_) {
    nuv_rwlock_shared_release(lock_);
  }
}
