// The calling thread's own T, built on its first use and destroyed when the thread ends.
//
// Code in a shared library reaches a thread_local through a call to __tls_get_addr, and the
// compiler repeats that call at every use of the variable rather than keep its address. A T
// reached through the pointer PerThread returns is looked up once per call of PerThread.
// Each T is one object per thread for the whole process: give every use its own type.
#ifndef NUV_COMMON_PER_THREAD_H
#define NUV_COMMON_PER_THREAD_H

#include <memory>

template <typename T>
T& PerThread() {
  // A plain pointer needs no guard of its own, so a call after the first costs one lookup; the
  // owner, which frees the T when the thread ends, is touched only to make it.
  thread_local T* held = nullptr;
  if (held == nullptr) {
    thread_local std::unique_ptr<T> owner;
    owner.reset(new T());
    held = owner.get();
  }
  return *held;
}

#endif
