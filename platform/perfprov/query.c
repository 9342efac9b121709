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
  struct pp_texts texts = {NULL, 0, 0};
  size_t count = 0;
  rc = found ? 0 : ENOMEM;
  char name[PP_NAME_MAX], path[PP_PATH_MAX];
  for (size_t i = 0; i < n && rc == 0; i++) {
    struct pp_stat st;
    if (pp_read_ident(pids[i], &st, name, sizeof name, path, sizeof path) != 0) continue;
    found[count].pid = pids[i];
    found[count].name = pp_texts_add(&texts, name);
    found[count].path = pp_texts_add(&texts, path);
    if (found[count].name == PP_NO_TEXT || found[count].path == PP_NO_TEXT) rc = ENOMEM;
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
