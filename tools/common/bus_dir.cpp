#include "bus_dir.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace nuvtools {

BusDir FindBusDir() {
  BusDir dir;
  const char* env = std::getenv("NUV_COMM_DIR");
  const char* xdg = std::getenv("XDG_RUNTIME_DIR");
  if (env != nullptr && *env != '\0') {
    dir.path = env;
    dir.source = "NUV_COMM_DIR";
  } else if (geteuid() == 0) {
    dir.path = "/run/nuv-comm";
    dir.source = "default for root";
  } else if (xdg != nullptr && *xdg != '\0') {
    dir.path = std::string(xdg) + "/nuv-comm";
    dir.source = "XDG_RUNTIME_DIR";
  } else {
    dir.path = "/tmp/nuv-comm-" + std::to_string(geteuid());
    dir.source = "no XDG_RUNTIME_DIR";
  }
  struct stat st {};
  dir.exists = stat(dir.path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  if (DIR* d = dir.exists ? opendir(dir.path.c_str()) : nullptr) {
    while (const dirent* entry = readdir(d)) {
      const std::string file = dir.path + "/" + entry->d_name;
      if (lstat(file.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) dir.sockets.push_back(entry->d_name);
    }
    closedir(d);
  }
  std::sort(dir.sockets.begin(), dir.sockets.end());
  return dir;
}

std::string DescribeBusDir(const BusDir& dir) {
  std::string text = dir.path + " (" + dir.source + "): ";
  if (!dir.exists) {
    text += "does not exist";
  } else if (dir.sockets.empty()) {
    text += "exists, no sockets in it";
  } else {
    text += "exists, sockets:";
    for (const std::string& socket : dir.sockets) text += " " + socket;
  }
  if (dir.source == "default for root")
    text += "; a daemon run by another user serves its own directory, set NUV_COMM_DIR to it";
  return text;
}

}  // namespace nuvtools
