// What an operator asks about monitors: every definition the manager accepted (with where it
// came from) and, per monitor id, when its last record reached the library's handler and what
// that record said. Fed by the registration paths and the handler; read by the status topic.
#ifndef NUV_EXPORT_MONITOR_REGISTRY_H
#define NUV_EXPORT_MONITOR_REGISTRY_H

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "worker/data.h"

class CMonitorRegistry {
 public:
  // A definition the manager filed; `source` is "config", "bus" or "api".
  void Filed(const CMonitorData& monitor, const char* source);
  // `id` as the manager normalises it (trimmed, lower-case).
  void Removed(const std::string& id);
  // A fired-monitor record as the handler received it.
  void Fired(const std::string& id, const std::string& name, unsigned int pid,
             const std::string& context);
  // One JSON array: per monitor its definition, kind, source, targets running now (from a
  // fresh process snapshot), fire count, last fired time and last evidence. Records of ids no
  // longer filed are listed with kind "gone" while the daemon remembers them.
  std::string MonitorsJson();

 private:
  struct Entry {
    CMonitorData monitor;
    std::string source;
    bool filed = false;
    uint64_t fired = 0;
    std::string lastFired;  // local ISO-8601 time
    std::string lastName;
    unsigned int lastPid = 0;
    std::string evidence;
  };
  std::mutex lock_;
  std::map<std::string, Entry> entries_;
};

#endif
