// A monitor condition through the definition's validation, the window's condition check and
// the evaluation of process, system and all-process samples. The first byte picks the focus.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "config/config_collect.h"
#include "fuzz_support.h"
#include "worker/data.h"
#include "worker/express.h"
#include "worker/slidingwindow.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  nuvfuzz::QuietLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  static const char* const kFocus[] = {"system:0", "processpoint:3", "/bin/sh:*", "/bin/sh:1"};
  CMonitorData monitor;
  monitor.id = "fuzz";
  monitor.name = "fuzz";
  monitor.subscriber = "fuzz";
  monitor.version = "1.0";
  monitor.product = "fuzz";
  monitor.product_version = "1.0";
  monitor.focus = kFocus[data[0] % 4];
  monitor.handler = "maintenance:reciver";
  monitor.condition.assign(reinterpret_cast<const char*>(data + 1), size - 1);
  if (!monitor.CheckValid().IsSuccess()) return 0;

  CSlidingWindow window;
  if (!window.SetCondition(monitor.condition, 1).IsSuccess()) {
    // Evaluated anyway, as a cell would if the text got this far.
    CExpress express;
    express.SetAllValue(true);
    express.SetCpuValue(50.5f);
    express.SetMemoryValue(1024);
    express.SetExpress(monitor.condition);
    bool hit = false;
    express.EvalExpress(hit);
    return 0;
  }
  WindowState state = kWindowUnset;
  ProcessInfo process;
  process.pid = 1;
  process.cpu = 12.5f;
  process.memory = 4096;
  process.threads = 3;
  process.handles = 9;
  process.iorspeed = 100;
  process.iowspeed = 7;
  process.path = "/bin/sh";
  SystemInfo system;
  window.InsertSource(process, state);
  window.InsertSource(system, state);
  std::vector<ProcessInfo> all(2, process);
  window.InsertSource(all, state);
  window.CalcHitResult(80);
  return 0;
}
