// The hub of performance monitoring: holds every registered monitor definition, turns each into
// workers once its target runs, routes the trigger's samples to them, and owns the long-lived
// parts (trigger, fired-record handler, clean-up thread, registration endpoint).
#ifndef NUV_MANAGER_COMM_PERF_MGR_H
#define NUV_MANAGER_COMM_PERF_MGR_H

#include <string>
#include <vector>

#include "clearn/clearn.h"
#include "common/error.h"
#include "common/rwlock.h"
#include "common/utils.h"
#include "export/register_endpoint.h"
#include "handler/handler.h"
#include "manager/perfinterface.h"
#include "notify/trigger.h"
#include "worker/data.h"
#include "worker/workermanager.h"

class CommonPerfMgr : public CPerfInterface {
 public:
  CommonPerfMgr();
  ~CommonPerfMgr();
  CommonPerfMgr(const CommonPerfMgr&) = delete;
  CommonPerfMgr& operator=(const CommonPerfMgr&) = delete;

  // Handler, trigger, clean-up thread, endpoint; on the first failure everything is stopped
  // again and false returned.
  bool StartPerfManager();
  // Stops everything and destroys every worker; the definitions are kept. Always true.
  bool StopPerfManager();

  // Files a validated definition and creates workers for targets that exist now. False when
  // its id is already pending (the manager's lock then stays held by the caller), or when the
  // image was found running but no worker came of it.
  bool RegisterMonitor(CMonitorData& monitor);
  // `id` is trimmed and lower-cased in place; an unknown id is only logged.
  void UnRegisterMonitor(std::string& id);

  // CPerfInterface: a process started, samples, a process ended.
  bool RegisterMonitor(const std::string& image, unsigned int pid) override;
  void Dispatch(const ProcessInfo& info) override;
  void Dispatch(const SystemInfo& info) override;
  void Dispatch(const std::vector<ProcessInfo>& infos) override;
  void UnRegisterMonitor(const std::string& image, unsigned int pid) override;

  // With the lock held: workers for every pending definition of that target and every
  // template of that image; the number created.
  unsigned int RegisterInternalMonitor(const std::string& image, unsigned int pid);
  // One worker for `monitor`'s own image and pid; 110 when it exists already.
  CError CreateMonitor(CMonitorData& monitor);
  // False when a definition with that id is already in the vector.
  bool InsertExact(CMonitorData& monitor);
  bool InsertNonExact(CMonitorData& monitor);

  // Definitions still held, for diagnostics.
  size_t ExactCount() const { return exact_.size(); }
  size_t NonExactCount() const { return nonExact_.size(); }
  // Whether a worker of definition `id` watches process `pid` of `image` (0 and "system" for
  // the machine), for diagnostics.
  bool HasWorker(const std::string& image, unsigned int pid, const std::string& id) {
    return workers_.FindWorker(CreateKey(image, pid), id);
  }

 private:
  std::vector<CMonitorData> exact_;
  std::vector<CMonitorData> nonExact_;
  CWorkerManager workers_;
  CRwLock lock_{"CommonPerfMgr"};
  CTrigger trigger_;
  CPerformanceHandler handler_;
  CClearn clearn_;
  CExportLPC endpoint_;
};

#endif
