// Result record returned by value from every operation that can fail.
#ifndef NUV_COMMON_ERROR_H
#define NUV_COMMON_ERROR_H

#include <string>
#include <utility>

class CError {
 public:
  // A fresh record is the success value; operations replace it on their first failure.
  CError() : desc("success"), code(0) {}
  CError(int errCode, std::string text) : desc(std::move(text)), code(errCode) {}

  // `desc` is `fmt` filled in printf style and cut to 1023 characters.
  static CError CreateError(int code, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  bool IsSuccess() const { return code == 0; }

  std::string desc;
  int code;
};

#endif
