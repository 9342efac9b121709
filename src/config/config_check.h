// The configuration checked the way start reads it, before the library is started: every key
// of the configuration, its JSON type, and the ranges outside which the library would abort
// (the overflow traps of the clean-up sizes and ages) or could never work. Nothing here logs,
// touches a configuration singleton or the file system beyond reading the file.
#ifndef NUV_CONFIG_CONFIG_CHECK_H
#define NUV_CONFIG_CONFIG_CHECK_H

#include <string>
#include <vector>

#include "common/jsonutil.h"

struct ConfigProblem {
  enum Kind {
    // Start refuses the file by itself, cleanly (result 103, 104 or 105 and its log lines).
    kLoad,
    // Start would accept the file and then abort (at start or at the first hourly clean-up
    // pass), or run with a setting that can never work.
    kRange,
    // Start goes on without this part: a monitor element that the loader skips.
    kSkipped,
  };
  Kind kind;
  std::string key;      // the key path, e.g. "/default/clearn/file_size"; "" for the file
  std::string message;  // what is wrong and why

  bool IsError() const { return kind != kSkipped; }
  // "error: /default/clearn/file_size: ..." or "warning: ..."
  std::string ToString() const;
};

// Largest and smallest sizes in MiB whose conversion to bytes fits in 32 bits.
constexpr int kConfigMaxFileSizeMiB = 2047;
constexpr int kConfigMinFileSizeMiB = -2048;
// Largest age in days whose conversion to seconds fits in 32 bits (24855 * 86400 < 2^31).
constexpr int kConfigMaxClearnDay = 24855;

// Checks the file at `path`, read exactly as start reads it.
std::vector<ConfigProblem> CheckConfigFile(const std::string& path);
// Checks configuration text (parsed up to its first NUL byte).
std::vector<ConfigProblem> CheckConfigText(const std::string& text);
// Checks a loaded document.
std::vector<ConfigProblem> CheckConfigDocument(const JsonUtil& document);

// True when any problem is an error (not only skipped monitors).
bool HasConfigErrors(const std::vector<ConfigProblem>& problems);
// True when some error is of kind kRange: start would not refuse the file by itself.
bool HasConfigRangeErrors(const std::vector<ConfigProblem>& problems);

#endif
