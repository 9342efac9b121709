#include "result_word.h"

#include <cstdio>

#include "nuv_comm.h"
#include "nuv_maintenance.h"

namespace nuvtools {

std::string ResultWord(uint32_t result) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08X", result);
  return buf;
}

const char* ResultMeaning(uint32_t result) {
  switch (result) {
    case NUV_MAINT_OK:
      return "success";
    case NUV_MAINT_REFUSED:
      return "refused, or a process could not be started";
    case NUV_MAINT_INVALID_PARAMETER:
      return "invalid parameters or data";
    case NUV_MAINT_BUS_DATA:
      return "bus data could not be taken";
    case NUV_MAINT_BP_INVALID:
      return "burying point invalid";
    case NUV_MAINT_START_FAILED:
      return "start failed";
    default: {
      const char* bus = BusResultMeaning(result);
      return bus != nullptr ? bus : "unknown result";
    }
  }
}

const char* BusResultMeaning(uint32_t result) {
  switch (static_cast<int>(result)) {
    case NUV_COMM_E_NOTOPIC:
      return "nobody serves the topic";
    case NUV_COMM_E_TIMEOUT:
      return "no answer within the time-out";
    case NUV_COMM_E_TOOBIG:
      return "message too large for the bus";
    case NUV_COMM_E_NOINIT:
      return "bus not initialised";
    case NUV_COMM_E_INVAL:
      return "bad topic name or argument";
    case NUV_COMM_E_BUSY:
      return "topic already served";
    case NUV_COMM_E_CONN:
      return "bus connection refused or dropped";
    case NUV_COMM_E_SYSTEM:
      return "bus system call failed";
    case NUV_COMM_E_UNTRUSTED:
      return "topic served by an untrusted user";
    default:
      return nullptr;
  }
}

std::string DescribeResult(uint32_t result) {
  return ResultWord(result) + " (" + ResultMeaning(result) + ")";
}

}  // namespace nuvtools
