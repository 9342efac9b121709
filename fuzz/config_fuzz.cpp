// The configuration loader, behind the check the daemon runs first: a text that the check
// passes must load without aborting (the loader's overflow traps would end the run), and the
// loader must never crash on any text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "config/config_addition.h"
#include "config/config_check.h"
#include "config/config_clearn.h"
#include "config/config_mgr.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  nuvfuzz::QuietLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (const ConfigProblem& p : CheckConfigText(text)) (void)p.ToString();
  // What the daemon does: check the file, start the library only when nothing aborts.
  const std::string path = nuvfuzz::WorkDir() + "/maintenance.json";
  if (!nuvfuzz::WriteAll(path, data, size)) return 0;
  const std::vector<ConfigProblem> problems = CheckConfigFile(path);
  for (const ConfigProblem& p : problems) (void)p.ToString();
  if (HasConfigRangeErrors(problems)) return 0;
  ConfigMgr loader;
  if (loader.LoadConfig(path).IsSuccess()) {
    // What the clean-up pass computes from the ages: must not trap either.
    for (int type : {512, 8192, 16384, 32768}) {
      const int keep = type == 512 ? CClearnCfg::GetInstance()->GetTimeInterval()
                                   : CAdditionCtrlor::GetInstance()->GetClearnDay(type);
      int seconds = 0;
      if (__builtin_mul_overflow(keep, 86400, &seconds)) __builtin_trap();
    }
  }
  ConfigMgr::ReleaseSections();
  return 0;
}
