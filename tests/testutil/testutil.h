// Helpers for tests: per-test temporary directories and small file utilities.
#ifndef NUV_TESTS_TESTUTIL_H
#define NUV_TESTS_TESTUTIL_H

#include <string>
#include <vector>

namespace nuvtest {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + rel
  std::string Sub(const std::string& rel) const;

 private:
  std::string path_;
};

// Writes `data` to `path` (creating or truncating it); false on failure.
bool WriteFile(const std::string& path, const std::string& data);
// The whole file, or "" when it cannot be read.
std::string ReadFile(const std::string& path);
// The lines of a file, without their line feeds.
std::vector<std::string> ReadLines(const std::string& path);
// True when /proc/<pid> exists (the process or zombie is still there).
bool ProcessExists(int pid);
// Pids of the children of `ppid`, read from /proc/*/stat.
std::vector<int> ChildPids(int ppid);

}  // namespace nuvtest

#endif
