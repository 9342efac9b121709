#include "compress/compress_file.h"

#include <cerrno>
#include <cstdio>

#include "common/log.h"
#include "nuv_maintenance.h"
#include "nuv_path.h"
#include "nuv_process.h"

namespace {

constexpr size_t kCommandSize = 16384;

}  // namespace

uint32_t GenCompressFile(const char* source, const char* target, const char* suffix,
                         long long timeout) {
  if (source == nullptr || target == nullptr || suffix == nullptr) {
    return NUV_MAINT_INVALID_PARAMETER;
  }
  char command[kCommandSize] = {0};
  if (nuv_path_is_exist_a(source) == 0) {
    return NUV_MAINT_INVALID_PARAMETER;
  }
  std::snprintf(command, sizeof(command), "tar -zcvf %s.%s -C %s .", source, suffix, target);

  nuv_process_t* process = nullptr;
  if (nuv_process_create(command, &process) == 0 || process == nullptr) {
    ZLOG_ERROR("start process failed(%s)", command);
    return NUV_MAINT_REFUSED;
  }
  if (nuv_process_wait(process, timeout, 0) != 0) {
    return NUV_MAINT_OK;
  }
  const long long waitError = errno;
  ZLOG_ERROR("call nuv_process_wait error ret=%lld", waitError);
  return NUV_MAINT_REFUSED;
}
