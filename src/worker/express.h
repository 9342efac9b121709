// Evaluation of the value part of a monitor condition against one sample.
#ifndef NUV_WORKER_EXPRESS_H
#define NUV_WORKER_EXPRESS_H

#include <map>
#include <string>

#include "common/error.h"

// One parser over the one-letter variables of a condition:
//   A always (1), C processor usage, M memory, T threads, H handles, R read rate, W write rate.
// Used by one thread from construction to destruction; the parser handle is never shared.
// Calling order: SetAllValue(true); the value setters; SetExpress; EvalExpress. A letter that
// was not set is an undefined variable and fails evaluation.
class CExpress {
 public:
  CExpress();
  ~CExpress();
  CExpress(const CExpress&) = delete;
  CExpress& operator=(const CExpress&) = delete;

  // Defines `name` in the parser over its entry in the variable map (0.0 when new). Does
  // nothing once the expression is an observer one or without a parser. The result means
  // nothing.
  int SetValue(const std::string& name);

  void SetAllValue(bool value);
  void SetCpuValue(float value);
  void SetMemoryValue(unsigned int value);
  void SetThreadValue(unsigned int value);
  void SetHandleValue(unsigned int value);
  void SetRIoValue(unsigned int value);
  void SetWIoValue(unsigned int value);

  // An expression containing "A" anywhere is an observer one: it always hits unevaluated.
  void SetExpress(const std::string& text);
  bool IsObserverExpress() const { return observer_; }

  // Success with `hit` = value > 0; 107 without a parser or when evaluation fails, 106 for an
  // empty expression. `hit` is left alone on failure.
  CError EvalExpress(bool& hit);

 private:
  void Store(const std::string& name, double value);

  bool observer_ = false;
  void* parser_ = nullptr;
  std::string expression_;
  // The parser keeps the address of each value: map nodes never move.
  std::map<std::string, double> variables_;
};

#endif
