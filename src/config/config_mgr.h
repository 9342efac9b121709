// Loads "maintenance.json" once and hands it to the section parsers, in a fixed order, each
// filling its process-wide singleton. Created on the caller's stack for one load.
#ifndef NUV_CONFIG_CONFIG_MGR_H
#define NUV_CONFIG_CONFIG_MGR_H

#include <string>

#include "common/error.h"
#include "common/jsonutil.h"

class ConfigMgr {
 public:
  ConfigMgr();
  ~ConfigMgr();

  ConfigMgr(const ConfigMgr&) = delete;
  ConfigMgr& operator=(const ConfigMgr&) = delete;

  // The file beside the running executable, "<dir>/../config/maintenance.json".
  // 0 "success", 103 (no file), 104 (not loadable JSON) or 105 (a section failed; the tag
  // names it). Sections parsed before a failing one keep what they stored.
  CError LoadConfig();
  // The same from an explicit file, for tools and tests.
  CError LoadConfig(const std::string& path);

  // The path of the last load, as far as it was formed.
  const std::string& GetPath() const { return path_; }

  // Deletes every section's singleton, for tools and tests that load one file after another.
  static void ReleaseSections();

 private:
  CError LoadFound();
  CError ParseSections();

  JsonUtil document_;
  std::string path_;
};

#endif
