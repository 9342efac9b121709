#include "worker/express.h"

#include <muParserDLL.h>

#include "common/log.h"
#include "worker/exception.h"

namespace {
// mupCreate's floating-point parser.
constexpr int kFloatParser = 0;
constexpr char kLetters[] = "ACMTHRW";

int Slot(char letter) {
  for (int i = 0; kLetters[i] != '\0'; ++i) {
    if (kLetters[i] == letter) return i;
  }
  return -1;
}
}  // namespace

CExpress::CExpress() {
  try {
    parser_ = mupCreate(kFloatParser);
  } catch (...) {
    // Creation allocates inside the library; keep the failure on our side.
    parser_ = nullptr;
  }
  if (parser_ == nullptr) {
    ZLOG_ERROR("[CExpress]::init mup express failed.");
    return;
  }
  mupSetErrorHandler(parser_, OnError);
}

CExpress::~CExpress() {
  if (parser_ != nullptr) {
    mupRelease(parser_);
  }
}

int CExpress::SetValue(const std::string& name) {
  if (observer_ || parser_ == nullptr) {
    return 0;
  }
  double& value = variables_.emplace(name, 0.0).first->second;
  mupDefineVar(parser_, name.c_str(), &value);
  return 0;
}

void CExpress::Store(char letter, double value) {
  double*& slot = defined_[Slot(letter)];
  if (slot != nullptr) {
    *slot = value;  // defining again would make the parser parse again
    return;
  }
  const std::string name(1, letter);
  variables_[name] = value;
  SetValue(name);
  if (!observer_ && parser_ != nullptr) {
    slot = &variables_[name];
  }
}

void CExpress::SetAllValue(bool value) { Store('A', value ? 1.0 : 0.0); }
void CExpress::SetCpuValue(float value) { Store('C', static_cast<double>(value)); }
void CExpress::SetMemoryValue(unsigned int value) { Store('M', value); }
void CExpress::SetThreadValue(unsigned int value) { Store('T', value); }
void CExpress::SetHandleValue(unsigned int value) { Store('H', value); }
void CExpress::SetRIoValue(unsigned int value) { Store('R', value); }
void CExpress::SetWIoValue(unsigned int value) { Store('W', value); }

void CExpress::SetExpress(const std::string& text) {
  if (parser_ == nullptr) {
    return;
  }
  if (!expression_.empty() && text == expression_) {
    return;  // parsed already; the parser keeps its bytecode
  }
  expression_ = text;
  observer_ = text.find('A') != std::string::npos;
  CExpressionScope scope(expression_);
  mupSetExpr(parser_, expression_.c_str());
}

CError CExpress::EvalExpress(bool& hit) {
  if (parser_ == nullptr) {
    ZLOG_ERROR("[CExpress]::EvalExpress, express executer engine empty.");
    return CError::CreateError(kErrEval, "eval parse nullptr");
  }
  if (expression_.empty()) {
    ZLOG_ERROR("[CExpress]::EvalExpress, express string empty.");
    return CError::CreateError(kErrExpress, "express failed, express = %s", "empty");
  }
  if (observer_) {
    hit = true;
    return CError();
  }
  double value = 0.0;
  {
    CExpressionScope scope(expression_);
    value = mupEval(parser_);
  }
  if (mupError(parser_) != 0) {
    ZLOG_ERROR("[CExpress]::EvalExpress, express execute failed, express str = %s.",
               expression_.c_str());
    return CError::CreateError(kErrEval, "eval express failed, express = %s", expression_.c_str());
  }
  hit = value > 0.0;
  return CError();
}
