// The shape every configuration section has: one instance behind a static pointer, made on its
// first use and released by the loader. Read without locks afterwards.
#ifndef NUV_CONFIG_CONFIG_SECTION_H
#define NUV_CONFIG_CONFIG_SECTION_H

template <typename T>
class CConfigSection {
 public:
  // Not locked: the first call happens during start, on one thread.
  static T* GetInstance() {
    if (instance_ == nullptr) {
      instance_ = new T();
    }
    return instance_;
  }
  static void ReleaseInstance() {
    delete instance_;
    instance_ = nullptr;
  }

 protected:
  CConfigSection() = default;
  ~CConfigSection() = default;

 private:
  static inline T* instance_ = nullptr;
};

#endif
