// Process-wide instance of T, built on first use (thread-safe) and destroyed at process exit.
#ifndef NUV_COMMON_SINGLETON_H
#define NUV_COMMON_SINGLETON_H

template <typename T>
class CSingleton {
 public:
  static T& GetInstance() {
    static T instance;
    return instance;
  }

  CSingleton() = delete;
};

#endif
