// Diagnostic lines. One macro per level; each expands to a single nuv_log_output call whose
// format is the fixed prefix literal joined with the message literal at compile time, so a
// line can be found in the source by its full text and nothing is assembled at run time:
//
//   [PID:<pid, 5 columns>]\t[LEVEL]\t<tag, 10 columns> [<source path>(<line>)] <message>
//
// Usage: ZLOG_ERROR("[ConfigMgr]::LoadConfig failed, code = %d.", code);
//        ZLOG_INFO("[ConfigMgr]::LoadConfig start.");
#ifndef NUV_COMMON_LOG_H
#define NUV_COMMON_LOG_H

#include <unistd.h>

#include "nuv_log.h"

#define ZLOG_TAG "[ZOR]"

#define ZLOG_ERROR(...) ZLOG_DISPATCH_(0, "[ERROR]", __VA_ARGS__)
#define ZLOG_WARN(...) ZLOG_DISPATCH_(1, "[WARN]", __VA_ARGS__)
#define ZLOG_INFO(...) ZLOG_DISPATCH_(2, "[INFO]", __VA_ARGS__)
#define ZLOG_DEBUG(...) ZLOG_DISPATCH_(3, "[DEBUG]", __VA_ARGS__)

// Messages with and without arguments take different expansions so that no empty variadic
// list reaches a macro (that would need a GNU extension and trips -Wpedantic in C++17).
// ZLOG_SHAPE_ yields ONE for a lone message and MANY when arguments follow (up to 30).
#define ZLOG_DISPATCH_(level, word, ...) \
  ZLOG_CAT_(ZLOG_EMIT_, ZLOG_SHAPE_(__VA_ARGS__))(level, word, __VA_ARGS__)
#define ZLOG_CAT_(a, b) ZLOG_CAT2_(a, b)
#define ZLOG_CAT2_(a, b) a##b
#define ZLOG_SHAPE_(...)                                                                    \
  ZLOG_PICK32_(__VA_ARGS__, MANY, MANY, MANY, MANY, MANY, MANY, MANY, MANY, MANY, MANY,     \
               MANY, MANY, MANY, MANY, MANY, MANY, MANY, MANY, MANY, MANY, MANY, MANY, MANY, \
               MANY, MANY, MANY, MANY, MANY, MANY, MANY, ONE, unused)
#define ZLOG_PICK32_(a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12, a13, a14, a15, a16,   \
                     a17, a18, a19, a20, a21, a22, a23, a24, a25, a26, a27, a28, a29, a30,    \
                     a31, a32, ...)                                                           \
  a32

// A line below the threshold costs one comparison: no pid, no arguments, no formatting.
#define ZLOG_EMIT_ONE(level, word, msg)                                                     \
  ((level) > nuv_log_get_level()                                                           \
       ? (void)0                                                                            \
       : nuv_log_output(level, "[PID:%-5ld]\t" word "\t%-10s [%s(%d)] " msg,               \
                        (long)getpid(), ZLOG_TAG, __FILE__, __LINE__))
#define ZLOG_EMIT_MANY(level, word, msg, ...)                                               \
  ((level) > nuv_log_get_level()                                                           \
       ? (void)0                                                                            \
       : nuv_log_output(level, "[PID:%-5ld]\t" word "\t%-10s [%s(%d)] " msg,               \
                        (long)getpid(), ZLOG_TAG, __FILE__, __LINE__, __VA_ARGS__))

#endif
