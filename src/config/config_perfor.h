// Monitor definitions read from JSON: the "/default/perf_monitor" array of the configuration
// file (kept here for the start operation to register) and the bodies of register and
// unregister messages.
#ifndef NUV_CONFIG_CONFIG_PERFOR_H
#define NUV_CONFIG_CONFIG_PERFOR_H

#include <string>
#include <vector>

#include "common/jsonutil.h"
#include "worker/data.h"
#include "config/config_section.h"

class CPerforMonitorCfg : public CConfigSection<CPerforMonitorCfg> {
 public:
  // Appends the valid elements of "/default/perf_monitor" that are not already listed (by
  // id; the first definition wins). False only when that array is missing or not an array;
  // a bad element is logged and skipped.
  bool Parse(JsonUtil& document);

  // A register message's body into `out`, validated. On false `out` is left cleared.
  // Touch no member state, so they may run on several bus threads at once.
  static bool ParseRegisterJson(const std::string& text, CMonitorData& out);
  // The "/id" string of an unregister message's body.
  static bool ParseUnRegisterJson(const std::string& text, std::string& id);

  // `pattern` holds one "%d", filled with `index`.
  static std::string FormatIndexPath(const std::string& pattern, int index);

  std::vector<CMonitorData>& GetMonitor() { return monitors_; }

  CPerforMonitorCfg(const CPerforMonitorCfg&) = delete;
  CPerforMonitorCfg& operator=(const CPerforMonitorCfg&) = delete;

 private:
  friend class CConfigSection<CPerforMonitorCfg>;
  CPerforMonitorCfg() = default;
  ~CPerforMonitorCfg() = default;

  std::vector<CMonitorData> monitors_;
};

#endif
