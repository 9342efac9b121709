// Set-up of the targets that reach the store: the library's configuration loaded once.
#ifndef NUV_FUZZ_FUZZ_STORE_H
#define NUV_FUZZ_FUZZ_STORE_H

#include <string>

#include "config/config_mgr.h"
#include "fuzz_support.h"

namespace nuvfuzz {

// Silences the log and loads StoreConfigText() through the real loader.
inline void LoadStoreConfig() {
  QuietLog();
  const std::string path = WorkDir() + "/maintenance.json";
  const std::string text = StoreConfigText();
  if (!WriteAll(path, text.data(), text.size())) return;
  ConfigMgr loader;
  loader.LoadConfig(path);
}

}  // namespace nuvfuzz

#endif
