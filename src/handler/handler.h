// The library's own subscriber for fired monitors: serves "maintenance:reciver" and appends the
// context of every CLogData it receives to the classified file store, in the stream named by
// the record's name, pid and type.
#ifndef NUV_HANDLER_HANDLER_H
#define NUV_HANDLER_HANDLER_H

#include "nuv_comm.h"

class CPerformanceHandler {
 public:
  // Joins the bus and serves the topic; false (logged) when either step fails. A successful
  // join is not undone.
  static bool StartHandler();
  // Stops serving the topic and leaves the bus, always both; false (logged) when either fails.
  static bool StopHandler();

  // The bus callback. 0x84CE0002 when the message cannot be had or is empty; 0 otherwise,
  // also when the record is unreadable or cannot be classified (it is then dropped).
  static int MaintanceReceiver(comm_data* request, comm_data* reply, void* userData);
};

#endif
