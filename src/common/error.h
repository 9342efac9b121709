// Result record returned by value from every operation that can fail.
#ifndef NUV_COMMON_ERROR_H
#define NUV_COMMON_ERROR_H

#include <string>
#include <utility>

// Every code a CError carries. 1xx: parameters, the topic queues, configuration and the
// condition engine; 2xx: the store; 3xx: burying points.
enum ErrorCode : int {
  kErrTopicNotFound = 100,
  kErrQueueEmpty = 101,
  kErrParam = 102,
  kErrBpInvalid = kErrParam,
  kErrConfigNotFound = 103,
  kErrConfigLoad = 104,
  kErrConfigParse = 105,
  kErrExpress = 106,
  kErrEval = 107,
  kErrWorker = 109,
  kErrWorkerExists = 110,
  kFileErrOpen = 203,
  kFileErrRead = 204,
  kFileErrWrite = 205,
  kFileErrMalloc = 206,
  kFileErrOffset = 208,
  kFileErrReadEnd = 209,  // the read reached the end of the file: carries data, not a failure
  kFileErrFindFail = 210,
  kFileErrFindEmpty = 211,
  kFileErrIndexWrite = 212,
  kFileErrReset = 213,
  kErrBpRegister = 301,
  kErrBpClassify = 302,
};

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
