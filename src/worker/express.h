// Evaluation of the value part of a monitor condition against one sample.
#ifndef NUV_WORKER_EXPRESS_H
#define NUV_WORKER_EXPRESS_H

#include <map>
#include <string>

#include "common/error.h"

// One parser over the one-letter variables of a condition:
//   A always (1), C processor usage, M memory, T threads, H handles, R read rate, W write rate.
// Used by one thread at a time; the parser handle is never shared.
// Calling order: SetAllValue(true); the value setters; SetExpress; EvalExpress. A letter that
// was not set is an undefined variable and fails evaluation.
//
// One object may serve sample after sample: a letter is defined to the parser once and later
// values are written in place, and the same expression is parsed once, so evaluating the next
// sample costs only the evaluation.
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
  void Store(char letter, double value);

  bool observer_ = false;
  void* parser_ = nullptr;
  std::string expression_;
  // The parser keeps the address of each value: map nodes never move.
  std::map<std::string, double> variables_;
  // Each letter's value once defined (A, C, M, T, H, R, W), so setting it again is a store.
  double* defined_[7] = {};
};

#endif
