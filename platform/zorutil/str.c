/* Bounded string copies and formatting, and wide-to-UTF-8 conversion. */
#include "nuv_str.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The converter reads each wchar_t as one UTF-32 code unit. */
_Static_assert(sizeof(wchar_t) == 4, "wchar_t is not 32 bits");

int nuv_str_snprintf(char *buf, size_t size, const char *format, ...)
{
  va_list ap;
  int n;

  if ((buf == NULL && size > 0) || format == NULL) {
    if (buf != NULL && size > 0)
      buf[0] = '\0';
    return -1;
  }
  va_start(ap, format);
  n = vsnprintf(buf, size, format, ap);
  va_end(ap);
  /* On failure the buffer may hold a partial, unterminated text. */
  if (n < 0 && size > 0)
    buf[0] = '\0';
  return n < 0 ? -1 : n;
}

size_t nuv_str_strlcpy(char *dst, const char *src, size_t size)
{
  size_t len = src != NULL ? strlen(src) : 0;
  size_t n;

  if (dst == NULL || size == 0)
    return len;
  n = len < size - 1 ? len : size - 1;
  if (n > 0)
    memcpy(dst, src, n);
  dst[n] = '\0';
  return len;
}

char *nuv_strncpy(char *dst, size_t dst_size, const char *src, size_t count)
{
  size_t limit;
  size_t n;

  if (dst == NULL || dst_size == 0)
    return dst;
  if (src == NULL) {
    dst[0] = '\0';
    return dst;
  }
  /* The destination size wins over `count`, which callers often pass as the source length. */
  limit = count < dst_size - 1 ? count : dst_size - 1;
  n = strnlen(src, limit);
  memcpy(dst, src, n);
  dst[n] = '\0';
  return dst;
}

/* Bytes needed for `c` in UTF-8, or 0 when it is not a Unicode scalar value. */
static size_t utf8_len(uint32_t c)
{
  if (c < 0x80)
    return 1;
  if (c < 0x800)
    return 2;
  if (c >= 0xD800 && c <= 0xDFFF)
    return 0;
  if (c < 0x10000)
    return 3;
  if (c <= 0x10FFFF)
    return 4;
  return 0;
}

char *nuv_str_unicode_to_utf8(const wchar_t *in)
{
  size_t total = 0;
  size_t i;
  char *out;
  unsigned char *p;

  if (in == NULL)
    return NULL;
  /* First pass validates and sizes, so nothing is allocated for a text that is refused. A
   * negative wchar_t becomes a value above 0x10FFFF here and is refused with the rest. */
  for (i = 0; in[i] != L'\0'; i++) {
    size_t n = utf8_len((uint32_t)in[i]);

    if (n == 0 || total > SIZE_MAX - 1 - n)
      return NULL;
    total += n;
  }
  out = malloc(total + 1);
  if (out == NULL)
    return NULL;
  p = (unsigned char *)out;
  for (i = 0; in[i] != L'\0'; i++) {
    uint32_t c = (uint32_t)in[i];

    switch (utf8_len(c)) {
    case 1:
      *p++ = (unsigned char)c;
      break;
    case 2:
      *p++ = (unsigned char)(0xC0 | (c >> 6));
      *p++ = (unsigned char)(0x80 | (c & 0x3F));
      break;
    case 3:
      *p++ = (unsigned char)(0xE0 | (c >> 12));
      *p++ = (unsigned char)(0x80 | ((c >> 6) & 0x3F));
      *p++ = (unsigned char)(0x80 | (c & 0x3F));
      break;
    default:
      *p++ = (unsigned char)(0xF0 | (c >> 18));
      *p++ = (unsigned char)(0x80 | ((c >> 12) & 0x3F));
      *p++ = (unsigned char)(0x80 | ((c >> 6) & 0x3F));
      *p++ = (unsigned char)(0x80 | (c & 0x3F));
      break;
    }
  }
  *p = '\0';
  return out;
}

void nuv_str_free(void *text)
{
  free(text);
}
