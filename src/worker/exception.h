// The expression parser's error callback.
#ifndef NUV_WORKER_EXCEPTION_H
#define NUV_WORKER_EXCEPTION_H

#include <cstddef>
#include <string>

// Installed on every parser handle with mupSetErrorHandler. The parser calls it instead of
// throwing; it logs the message, token, position and code of the failure as four ERROR lines.
// Never throws.
//
// libmuparser's C interface copies the error message and token into one fixed process-wide
// buffer of kParserTextBuffer bytes without bounding the copy (glibc's fortified sprintf then
// aborts the process). The token is a piece of the expression, the message a short text
// around it, so the texts are read from the parser only while the expression being parsed on
// this thread (see CExpressionScope) is short enough for both to fit; otherwise the lines
// carry a bounded excerpt of the expression taken on our side.
void OnError(void* parser);

// libmuparser's text buffer (s_tmpOutBuf in muParserDLL.cpp).
constexpr size_t kParserTextBuffer = 2048;
// Room kept in that buffer for the message around the token (the longest of libmuparser's
// message templates is under 100 bytes) and the blank the parser appends to an expression.
constexpr size_t kParserMessageRoom = 256;
// Longest expression whose error texts are read from the parser.
constexpr size_t kParserSafeExpression = kParserTextBuffer - kParserMessageRoom;
// Longest excerpt of the expression shown instead of an unread token.
constexpr size_t kErrorExcerpt = 64;

// Names the expression that the parser works on, on this thread, for the scope.
class CExpressionScope {
 public:
  explicit CExpressionScope(const std::string& expression);
  ~CExpressionScope();
  CExpressionScope(const CExpressionScope&) = delete;
  CExpressionScope& operator=(const CExpressionScope&) = delete;

 private:
  const std::string* previous_;
};

#endif
