#include "worker/exception.h"

#include <muParserDLL.h>

#include <mutex>
#include <string>

#include "common/log.h"

namespace {

// The parser's error texts come back in one buffer shared by every handle in the process:
// each text is copied before the next call, and readers from different cells take turns.
std::mutex g_errorTextLock;

// The expression parsed on this thread, or null outside a CExpressionScope.
thread_local const std::string* t_expression = nullptr;

std::string Copy(const char* text) { return text != nullptr ? std::string(text) : std::string(); }

// At most kErrorExcerpt bytes of the expression from `position` on (clamped), marked when cut.
std::string Excerpt(const std::string& expression, int position) {
  size_t from = position < 0 ? 0 : static_cast<size_t>(position);
  if (from >= expression.size()) from = 0;
  std::string text = expression.substr(from, kErrorExcerpt);
  if (from + text.size() < expression.size()) text += "...";
  return text;
}

}  // namespace

CExpressionScope::CExpressionScope(const std::string& expression) : previous_(t_expression) {
  t_expression = &expression;
}

CExpressionScope::~CExpressionScope() { t_expression = previous_; }

void OnError(void* parser) {
  if (parser == nullptr) {
    return;
  }
  std::string message;
  std::string token;
  int position = 0;
  int code = 0;
  try {
    position = mupGetErrorPos(parser);
    code = mupGetErrorCode(parser);
    const std::string* expression = t_expression;
    if (expression != nullptr && expression->size() <= kParserSafeExpression) {
      std::lock_guard<std::mutex> guard(g_errorTextLock);
      message = Copy(mupGetErrorMsg(parser));
      token = Copy(mupGetErrorToken(parser));
    } else {
      // Reading the texts could overflow the parser's buffer: say so, with our own excerpt.
      const size_t length = expression != nullptr ? expression->size() : 0;
      message = "error text not read, the expression of " + std::to_string(length) +
                " bytes could overflow the parser's " + std::to_string(kParserTextBuffer) +
                "-byte text buffer";
      token = expression != nullptr ? Excerpt(*expression, position) : std::string();
    }
  } catch (...) {
    // Called from inside the parser's C interface: nothing may leave here.
  }
  ZLOG_ERROR("[Express]::Exception message = %s. ", message.c_str());
  ZLOG_ERROR("[Express]::Exception token = %s. ", token.c_str());
  ZLOG_ERROR("[Express]::Exception position = %d. ", position);
  ZLOG_ERROR("[Express]::Exception code = %d. ", code);
}
