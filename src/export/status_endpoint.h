// The status topic, served beside the registration endpoint: "maintenance:status" takes
// {"query": "status" | "monitors", "reply": "nuvctl.reply.<anything>"} and posts the answer, one
// JSON object, to the reply topic, which the asking process serves for the one answer. The
// bus admits only peers of the daemon's own uid or root both ways, so only they can ask and
// only they are answered. Results: 0 answered, 0x84CE0002 a request it cannot read or a reply
// topic outside "nuvctl.reply.", 0x84CE0001 when the answer could not be delivered.
#ifndef NUV_EXPORT_STATUS_ENDPOINT_H
#define NUV_EXPORT_STATUS_ENDPOINT_H

#include <string>

#include "nuv_comm.h"

class CStatusEndpoint {
 public:
  static constexpr const char* kTopic = "maintenance:status";
  static constexpr const char* kReplyPrefix = "nuvctl.reply.";

  // Serves the topic; false (logged) when it cannot. Call after nuv_comm_init.
  static bool Start();
  static void Stop();

  // The answers, as JSON text.
  static std::string StatusJson();
  static std::string MonitorsJson();

  static int Query(comm_data* request, comm_data* reply, void* context);
};

#endif
