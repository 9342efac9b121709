#include "common/error.h"

#include <cstdarg>
#include <cstdio>

CError CError::CreateError(int code, const char* fmt, ...) {
  // Fixed stack buffer: safe from any thread, and long texts are cut silently.
  char buffer[1024] = {0};
  if (fmt != nullptr) {
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buffer, sizeof(buffer), fmt, args);
    va_end(args);
  }
  return CError(code, buffer);
}
