/* Bounded string copies and formatting, and wide-to-UTF-8 conversion.
 *
 * Results: lengths and pointers as the C library's counterparts give them. */
#ifndef NUV_STR_H
#define NUV_STR_H

#include <stdarg.h>
#include <stddef.h>
#include <wchar.h>

#include "nuv_api.h"

NUV_BEGIN_DECLS

/* vsnprintf(3) into `buf` of `size` bytes: always terminated when size > 0. Returns the length
 * the full text would have (so a result >= size means it was cut), or -1 on a format error. */
NUV_API int nuv_str_snprintf(char *buf, size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/* Copies `src` into `dst` of `size` bytes, cutting it to size - 1 bytes, always terminated
 * when size > 0. Returns strlen(src). */
NUV_API size_t nuv_str_strlcpy(char *dst, const char *src, size_t size);

/* Copies at most `count` bytes of `src` (stopping after its terminator) into `dst`, and never
 * more than dst_size - 1 of them, whatever `count` says; `dst` is always terminated when
 * dst_size > 0. Returns dst. */
NUV_API char *nuv_strncpy(char *dst, size_t dst_size, const char *src, size_t count);

/* Converts the wide (UTF-32) text `in` to a newly allocated UTF-8 text. Returns NULL when
 * `in` is NULL, holds a value that is not a Unicode scalar value, or memory runs out. The
 * result is released with nuv_str_free. */
NUV_API char *nuv_str_unicode_to_utf8(const wchar_t *in);

/* Releases a text returned by this library (NULL is ignored). */
NUV_API void nuv_str_free(void *text);

NUV_END_DECLS

#endif
