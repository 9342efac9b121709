// Where samples enter the library: subscribes to the provider's periodic performance
// notifications and to its process start / end events, turns the provider's records into the
// library's sample records and hands them to the attached CPerfInterface. On a process end it
// also closes that process's performance stream (type 100) in the store.
#ifndef NUV_NOTIFY_TRIGGER_H
#define NUV_NOTIFY_TRIGGER_H

#include "common/rwlock.h"
#include "manager/perfinterface.h"
#include "nuv_perfprov.h"

class CTrigger {
 public:
  CTrigger() = default;
  // Does not unsubscribe: the owner calls StopTrigger first.
  ~CTrigger() = default;
  CTrigger(const CTrigger&) = delete;
  CTrigger& operator=(const CTrigger&) = delete;

  // Configures the provider from the collection settings and subscribes to both streams.
  // True when subscribed, also when it already was. A failed process subscription leaves the
  // performance one in place.
  bool StartTrigger();
  // Unsubscribes both streams when started; otherwise does nothing.
  void StopTrigger();

  // Attach the receiver (a null one is ignored) / detach it; both wait for a delivery in
  // progress to end. Attach before StartTrigger.
  void SetPerfMonitor(CPerfInterface* monitor);
  void ClearnPerfMonitor();

  // Provider callbacks; `context` is the CTrigger.
  static void PerfMonTrigger(unsigned int type, _perf_information* info, void* context);
  static int ProcMonTrigger(int event, void* procInfo, void* context);

 private:

  void OnPerformance(unsigned int type, const _perf_information* info);
  void OnProcess(int event, const _process_mon_info* info);

  bool started_ = false;
  CPerfInterface* monitor_ = nullptr;
  CRwLock lock_{"CTrigger"};
};

#endif
