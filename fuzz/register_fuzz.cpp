// The bodies of register and unregister messages through their parsers (and, for a register
// body that parses, the definition's own checks that the endpoint relies on).
#include <cstddef>
#include <cstdint>
#include <string>

#include "config/config_perfor.h"
#include "fuzz_support.h"
#include "worker/data.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  nuvfuzz::QuietLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CMonitorData monitor;
  if (CPerforMonitorCfg::ParseRegisterJson(text, monitor)) {
    (void)monitor.GetDataType();
  }
  std::string id;
  CPerforMonitorCfg::ParseUnRegisterJson(text, id);
  return 0;
}
