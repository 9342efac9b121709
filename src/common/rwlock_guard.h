// Holds a platform read-write lock for one scope.
#ifndef NUV_COMMON_RWLOCK_GUARD_H
#define NUV_COMMON_RWLOCK_GUARD_H

#include "nuv_lock.h"

class CRwLockGuard {
 public:
  // A lock that cannot be taken is logged under `owner` (e.g. "CFileManager"); the scope then
  // runs without it, since the owners would rather serve a producer than fail it.
  CRwLockGuard(nuv_rwlock_t* lock, bool exclusive, const char* owner);
  ~CRwLockGuard();
  CRwLockGuard(const CRwLockGuard&) = delete;
  CRwLockGuard& operator=(const CRwLockGuard&) = delete;

 private:
  nuv_rwlock_t* lock_;
  bool exclusive_;
  bool held_;
};

#endif
