// The registration endpoint: serves "maintenance:register" and "maintenance:unregister" on the
// message bus so that other processes register and unregister monitors with the performance
// manager. The handlers answer with a result word only.
#ifndef NUV_EXPORT_REGISTER_ENDPOINT_H
#define NUV_EXPORT_REGISTER_ENDPOINT_H

#include <cstdint>

#include "nuv_comm.h"
#include "nuv_maintenance.h"

class CExportLPC {
 public:
  static constexpr uint32_t kDone = 0;
  static constexpr uint32_t kRefused = NUV_MAINT_REFUSED;
  static constexpr uint32_t kInvalid = NUV_MAINT_INVALID_PARAMETER;
  static constexpr uint32_t kNoData = NUV_MAINT_BUS_DATA;

  // Joins the bus and serves both topics. A failure is logged and stops there; what was done
  // is left for StopExportLPC to undo.
  bool StartExportLPC();
  // Stops serving both topics and leaves the bus, ignoring failures.
  void StopExportLPC();

  // Bus handlers; `context` is the CExportLPC that registered them.
  static int RegisterMonitor(comm_data* request, comm_data* reply, void* context);
  static int UnRegisterMonitor(comm_data* request, comm_data* reply, void* context);
};

#endif
