#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "internal.h"
#include "nuv_perfprov.h"

/* One query result: the entries, then their texts, in one block that the calling thread owns
 * until its next query, its clean call or its end. */
static pthread_key_t g_key;
static pthread_once_t g_once = PTHREAD_ONCE_INIT;
static int g_key_ok;

static void make_key(void) { g_key_ok = pthread_key_create(&g_key, free) == 0; }

void nuv_clean_query_proc_info(void) {
  pthread_once(&g_once, make_key);
  if (!g_key_ok) return;
  free(pthread_getspecific(g_key));
  pthread_setspecific(g_key, NULL);
}

struct texts {
  char *buf;
  size_t used, cap;
};

/* Appends s with its NUL; returns its offset, or (size_t)-1 when out of memory. */
static size_t add_text(struct texts *t, const char *s) {
  size_t len = strlen(s) + 1;
  if (t->cap - t->used < len) {
    size_t cap = t->cap ? t->cap : 16384;
    while (cap - t->used < len) cap *= 2;
    char *bigger = realloc(t->buf, cap);
    if (!bigger) return (size_t)-1;
    t->buf = bigger;
    t->cap = cap;
  }
  memcpy(t->buf + t->used, s, len);
  t->used += len;
  return t->used - len;
}

int nuv_query_proc_info(_process_mon_list *result) {
  if (!result) return EINVAL;
  result->info = NULL;
  result->count = 0;
  nuv_clean_query_proc_info();
  if (!g_key_ok) return EAGAIN;

  pid_t *pids;
  size_t n;
  int rc = pp_list_pids(&pids, &n);
  if (rc != 0) return rc;
  struct {
    pid_t pid;
    size_t name, path;
  } *found = malloc((n ? n : 1) * sizeof *found);
  struct texts texts = {NULL, 0, 0};
  size_t count = 0;
  rc = found ? 0 : ENOMEM;
  char name[PP_NAME_MAX], path[PP_PATH_MAX];
  for (size_t i = 0; i < n && rc == 0; i++) {
    struct pp_stat st;
    if (pp_read_ident(pids[i], &st, name, sizeof name, path, sizeof path) != 0) continue;
    found[count].pid = pids[i];
    found[count].name = add_text(&texts, name);
    found[count].path = add_text(&texts, path);
    if (found[count].name == (size_t)-1 || found[count].path == (size_t)-1) rc = ENOMEM;
    count++;
  }
  free(pids);

  _process_mon_info *block = NULL;
  if (rc == 0) {
    block = malloc(count * sizeof *block + texts.used + 1);
    if (!block) rc = ENOMEM;
  }
  if (rc == 0) {
    char *text = (char *)(block + count);
    if (texts.used) memcpy(text, texts.buf, texts.used);
    for (size_t i = 0; i < count; i++) {
      block[i].pid = (uint32_t)found[i].pid;
      block[i].name = text + found[i].name;
      block[i].path = text + found[i].path;
    }
    if (pthread_setspecific(g_key, block) != 0) {
      free(block);
      rc = ENOMEM;
    } else {
      result->info = block;
      result->count = (uint32_t)count;
    }
  }
  free(found);
  free(texts.buf);
  return rc;
}
