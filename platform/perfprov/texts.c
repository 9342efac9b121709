#include <stdlib.h>
#include <string.h>

#include "internal.h"

size_t pp_texts_add(struct pp_texts *t, const char *s) {
  size_t len = strlen(s) + 1;
  if (t->cap - t->used < len) {
    size_t cap = t->cap ? t->cap : 16384;
    while (cap - t->used < len) cap *= 2;
    char *bigger = realloc(t->buf, cap);
    if (!bigger) return PP_NO_TEXT;
    t->buf = bigger;
    t->cap = cap;
  }
  memcpy(t->buf + t->used, s, len);
  t->used += len;
  return t->used - len;
}

const char *pp_texts_at(const struct pp_texts *t, size_t offset) {
  return offset == PP_NO_TEXT ? "" : t->buf + offset;
}
