#include "paths.h"

#include <vector>

#include "nuv_path.h"

namespace nuvtools {

std::string ExePath(const char* fallback) {
  char exe[4096];
  return nuv_path_get_cur_proc_a(exe, sizeof exe) == 0 ? exe : fallback;
}

std::string ConfigPathFor(const std::string& exe_path, const char* file) {
  std::vector<char> buf(exe_path.begin(), exe_path.end());
  buf.push_back('\0');
  nuv_path_remove_name_a(buf.data());
  std::string path = std::string(buf.data()) + "/../config/" + file;
  buf.assign(path.begin(), path.end());
  buf.push_back('\0');
  nuv_path_format_a(buf.data());
  return buf.data();
}

}  // namespace nuvtools
