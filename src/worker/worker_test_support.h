// Shared by the engine's tests: log capture reduced to "[LEVEL] message" per line.
#ifndef NUV_WORKER_WORKER_TEST_SUPPORT_H
#define NUV_WORKER_WORKER_TEST_SUPPORT_H

#include <string>
#include <vector>

#include "file/file_test_support.h"

namespace workertest {

template <typename Fn>
std::vector<std::string> CaptureMessages(Fn emit) {
  std::vector<std::string> out;
  for (const std::string& line : filetest::CaptureLog(emit)) {
    const size_t level = line.find('\t') + 1;  // the prefix's first tab precedes the level
    const size_t msg = line.find(")] ");
    out.push_back(line.substr(level, line.find('\t', level) - level) + " " +
                  (msg == std::string::npos ? line : line.substr(msg + 3)));
  }
  return out;
}

}  // namespace workertest

#endif
