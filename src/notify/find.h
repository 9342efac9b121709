// One snapshot of the running processes, taken at construction and never refreshed, answering
// which pids run an image and whether an image and pid belong together. Images are full
// executable paths; the snapshot holds them trimmed and lower-cased and compares them exactly,
// so callers pass normalised paths.
#ifndef NUV_NOTIFY_FIND_H
#define NUV_NOTIFY_FIND_H

#include <string>
#include <vector>

#include "worker/data.h"

class CProcessFinder {
 public:
  CProcessFinder();
  ~CProcessFinder();
  CProcessFinder(const CProcessFinder&) = delete;
  CProcessFinder& operator=(const CProcessFinder&) = delete;

  // Empties `pids`, then appends every pid that runs `image`, in snapshot order. True when
  // there was at least one.
  bool FindProcess(std::string& image, std::vector<unsigned int>& pids);
  // True when `pid` runs `image`.
  bool IsProcessExist(std::string& image, unsigned int pid);

 private:
  std::vector<ProcessMonInfo> processes_;
};

#endif
