// The seam between the source of samples (the trigger) and whoever consumes them (the
// performance manager). The base versions accept everything and do nothing, so a receiver
// overrides only what it needs.
#ifndef NUV_MANAGER_PERFINTERFACE_H
#define NUV_MANAGER_PERFINTERFACE_H

#include <string>
#include <vector>

#include "worker/data.h"

// Held through a non-owning pointer and never deleted through it, hence no virtual destructor.
class CPerfInterface {
 public:
  // A process of that image (full path) and pid now exists; true when something was made of it.
  virtual bool RegisterMonitor(const std::string& image, unsigned int pid) {
    (void)image;
    (void)pid;
    return false;
  }
  // One process sample.
  virtual void Dispatch(const ProcessInfo& info) { (void)info; }
  // One system sample.
  virtual void Dispatch(const SystemInfo& info) { (void)info; }
  // Every process sample of one notification, possibly none.
  virtual void Dispatch(const std::vector<ProcessInfo>& infos) { (void)infos; }
  // That process has ended.
  virtual void UnRegisterMonitor(const std::string& image, unsigned int pid) {
    (void)image;
    (void)pid;
  }
};

#endif
