// The expression parser's error callback.
#ifndef NUV_WORKER_EXCEPTION_H
#define NUV_WORKER_EXCEPTION_H

// Installed on every parser handle with mupSetErrorHandler. The parser calls it instead of
// throwing; it logs the message, token, position and code of the failure as four ERROR lines.
// Never throws.
void OnError(void* parser);

#endif
