#include "worker/exception.h"

#include <muParserDLL.h>

#include <mutex>
#include <string>

#include "common/log.h"

namespace {

// The parser's error texts come back in one buffer shared by every handle in the process:
// each text is copied before the next call, and readers from different cells take turns.
std::mutex g_errorTextLock;

std::string Copy(const char* text) { return text != nullptr ? std::string(text) : std::string(); }

}  // namespace

void OnError(void* parser) {
  if (parser == nullptr) {
    return;
  }
  std::string message;
  std::string token;
  int position = 0;
  int code = 0;
  try {
    std::lock_guard<std::mutex> guard(g_errorTextLock);
    message = Copy(mupGetErrorMsg(parser));
    token = Copy(mupGetErrorToken(parser));
    position = mupGetErrorPos(parser);
    code = mupGetErrorCode(parser);
  } catch (...) {
    // Called from inside the parser's C interface: nothing may leave here.
  }
  ZLOG_ERROR("[Express]::Exception message = %s. ", message.c_str());
  ZLOG_ERROR("[Express]::Exception token = %s. ", token.c_str());
  ZLOG_ERROR("[Express]::Exception position = %d. ", position);
  ZLOG_ERROR("[Express]::Exception code = %d. ", code);
}
