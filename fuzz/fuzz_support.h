// Shared set-up of the fuzz targets: a private temporary directory for the whole run, a
// configuration whose store lives there, and the platform log sent to /dev/null (the library
// logs every refused input; at fuzzing rates that is only noise).
#ifndef NUV_FUZZ_FUZZ_SUPPORT_H
#define NUV_FUZZ_FUZZ_SUPPORT_H

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "nuv_log.h"

namespace nuvfuzz {

// A directory that lives as long as the fuzzing process (removed by the OS's tmp cleaning or
// by scripts/fuzz.sh; a fuzzer that crashes would not run a destructor anyway).
inline const std::string& WorkDir() {
  static const std::string dir = [] {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                          "/nuv-fuzz-XXXXXX";
    char* made = mkdtemp(&pattern[0]);
    return made != nullptr ? std::string(made) : std::string("/tmp");
  }();
  return dir;
}

inline bool WriteAll(const std::string& path, const void* data, size_t size) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = size == 0 || std::fwrite(data, 1, size, f) == size;
  return std::fclose(f) == 0 && ok;
}

// Silences the platform log once.
inline void QuietLog() {
  static const bool done = [] {
    nuv_log_set_file("/dev/null");
    nuv_log_set_level(0);
    nuv_log_start(0);
    return true;
  }();
  (void)done;
}

// A valid configuration text with the store under WorkDir()/store and type 8192 under
// WorkDir()/small.
inline std::string StoreConfigText() {
  const std::string& dir = WorkDir();
  return R"({"default": {"cache": {"size": 100}, "collect_sdk": {"frequency": 5,
      "monitor_type": 31, "hit_rate": 80}, "perf_monitor": [],
      "file": {"cahce": 1024, "path": ")" + dir + R"(/store"},
      "clearn": {"day": 7, "file_size": 1}},
      "addition": {"small": {"file": {"path": ")" + dir + R"(/small", "cache": 1},
                             "clearn": {"day": 1, "file_size": 1}, "bp_type": 8192}}})";
}

}  // namespace nuvfuzz

#endif
