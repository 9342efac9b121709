// Holds a platform read-write lock for one scope.
#ifndef NUV_COMMON_RWLOCK_GUARD_H
#define NUV_COMMON_RWLOCK_GUARD_H

#include "nuv_lock.h"

class CRwLockGuard {
 public:
  // Takes `lock` shared or exclusively. A lock that cannot be taken is logged under `owner`
  // (e.g. "CFileManager") and Held() is false: the caller must then skip its critical section
  // (a critical section never runs unlocked). When the calling thread already holds the lock
  // exclusively, the scope runs under that hold (Held() is true) and leaves it to its owner.
  CRwLockGuard(nuv_rwlock_t* lock, bool exclusive, const char* owner);
  ~CRwLockGuard();
  CRwLockGuard(const CRwLockGuard&) = delete;
  CRwLockGuard& operator=(const CRwLockGuard&) = delete;

  bool Held() const { return held_; }

 private:
  nuv_rwlock_t* lock_;
  bool exclusive_;
  bool held_ = false;
  bool release_ = false;
};

#endif
