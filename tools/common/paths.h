// Where a tool runs from and the configuration files found beside it.
#ifndef NUV_TOOLS_COMMON_PATHS_H
#define NUV_TOOLS_COMMON_PATHS_H

#include <string>

namespace nuvtools {

// The running executable's full path, or `fallback` when it cannot be read.
std::string ExePath(const char* fallback);

// <dir of `exe_path`>/../config/<file>, normalised: where the library (maintenance.json) and
// the exporter (exportd.json) look for their configuration.
std::string ConfigPathFor(const std::string& exe_path, const char* file = "maintenance.json");

}  // namespace nuvtools

#endif
