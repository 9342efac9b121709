// A platform read-write lock owned by one object, and the one guard that holds it for a scope.
#ifndef NUV_COMMON_RWLOCK_H
#define NUV_COMMON_RWLOCK_H

#include "nuv_lock.h"

class CRwLock {
 public:
  // Creates the lock, named `owner` (e.g. "CFileManager", a literal) in the platform's take-over
  // WARN and in our own failure lines. A lock that cannot be created is logged; every guard on
  // it then reports Held() false.
  explicit CRwLock(const char* owner);
  ~CRwLock();
  CRwLock(const CRwLock&) = delete;
  CRwLock& operator=(const CRwLock&) = delete;

  // True when the calling thread holds it exclusively (for the Nolock callers' contracts).
  bool HeldExclusivelyHere() const { return nuv_rwlock_exclusive_held(lock_) != 0; }

 private:
  friend class CRwLockGuard;
  nuv_rwlock_t* lock_ = nullptr;
  const char* owner_;
  // Set by CRwLockGuard::Keep; read and written only by the thread holding the lock exclusively.
  bool kept_ = false;
};

class CRwLockGuard {
 public:
  // Takes `lock` shared or exclusively. A lock that cannot be taken is logged and Held() is
  // false: the caller must then skip its critical section (one never runs unlocked). When the
  // calling thread already holds the lock exclusively, the scope runs under that hold: a hold
  // left by Keep is adopted and released at the end of this scope; any other is left to the
  // scope that took it.
  CRwLockGuard(CRwLock& lock, bool exclusive);
  ~CRwLockGuard();
  CRwLockGuard(const CRwLockGuard&) = delete;
  CRwLockGuard& operator=(const CRwLockGuard&) = delete;

  bool Held() const { return held_; }

  // Leaves an exclusive hold in place past this scope. The holder's next exclusive scope adopts
  // it; another thread takes it over after the platform's bound (nuv_lock.h).
  void Keep();

 private:
  CRwLock& lock_;
  bool exclusive_;
  bool held_ = false;
  bool release_ = false;
};

#endif
