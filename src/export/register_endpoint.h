// The registration endpoint: serves "maintenance:register" and "maintenance:unregister" on the
// message bus so that other processes register and unregister monitors with the performance
// manager. The handlers answer with a result word only.
#ifndef NUV_EXPORT_REGISTER_ENDPOINT_H
#define NUV_EXPORT_REGISTER_ENDPOINT_H

#include <cstdint>

#include "nuv_comm.h"

class CExportLPC {
 public:
  static constexpr uint32_t kDone = 0;
  static constexpr uint32_t kRefused = 0x84CE0001u;
  static constexpr uint32_t kInvalid = 0x84CE0002u;
  static constexpr uint32_t kNoData = 0x84CE0003u;

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
