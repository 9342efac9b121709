/* Second process for the bus tests.
 *
 *   comm_peer serve <topic>                 serves the topic; prints "ready" (or "fail <code>"),
 *                                           runs until SIGTERM (also sent when its parent
 *                                           dies), then prints "count <n>"
 *   comm_peer post <topic> <n> <prefix>     posts "<prefix>-<i>" n times; exit 0 when every
 *                                           result is the served hash of its message
 *   comm_peer post <topic> <n> <prefix> <window>
 *                                           the same, sent ahead with nuv_comm_post_many
 *
 * Served results: "ret:<number>" returns that number; "block" prints "busy" and never returns;
 * anything else returns the 32-bit FNV-1a hash of the bytes. */
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "nuv_comm.h"

static unsigned long g_count;

static uint32_t fnv1a(const unsigned char *p, unsigned int n) {
  uint32_t h = 2166136261u;
  for (unsigned int i = 0; i < n; ++i) h = (h ^ p[i]) * 16777619u;
  return h;
}

static int handler(comm_data *request, comm_data *reply, void *user) {
  (void)reply;
  (void)user;
  void *p;
  unsigned int n;
  if (nuv_comm_get_data(request, &p, &n) != 0) return -1;
  __atomic_add_fetch(&g_count, 1, __ATOMIC_RELAXED);
  if (n == 5 && memcmp(p, "block", 5) == 0) {
    dprintf(1, "busy\n");
    for (;;) pause();
  }
  if (n > 4 && memcmp(p, "ret:", 4) == 0) return (int)(uint32_t)strtoll((char *)p + 4, NULL, 0);
  return (int)fnv1a(p, n);
}

static int serve(const char *topic) {
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  sigprocmask(SIG_BLOCK, &term, NULL); /* before the bus threads, which inherit the mask */
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  nuv_comm_init();
  int rc = nuv_comm_register(topic, handler, NULL);
  if (rc != 0) {
    dprintf(1, "fail %d\n", rc);
    return 1;
  }
  dprintf(1, "ready\n");
  int sig;
  sigwait(&term, &sig);
  dprintf(1, "count %lu\n", __atomic_load_n(&g_count, __ATOMIC_RELAXED));
  rc = nuv_comm_unregister(topic);
  nuv_comm_uninit();
  return rc == 0 ? 0 : 1;
}

/* window 0: one synchronous post per message. */
static int post(const char *topic, long n, const char *prefix, unsigned int window) {
  nuv_comm_init();
  comm_data **msgs = calloc((size_t)n + 1, sizeof *msgs);
  int *results = calloc((size_t)n + 1, sizeof *results);
  if (!msgs || !results) return 1;
  for (long i = 0; i < n; ++i) {
    char msg[256];
    int len = snprintf(msg, sizeof msg, "%s-%ld", prefix, i);
    msgs[i] = nuv_comm_new_data(msg, (unsigned int)len);
    if (!msgs[i]) return 1;
    if (window == 0) results[i] = nuv_comm_post(topic, msgs[i]);
  }
  if (window > 0) nuv_comm_post_many(topic, msgs, (unsigned int)n, window, results);
  int bad = 0;
  for (long i = 0; i < n; ++i) {
    void *p;
    unsigned int len;
    nuv_comm_get_data(msgs[i], &p, &len);
    if ((uint32_t)results[i] != fnv1a(p, len)) {
      fprintf(stderr, "%s: result %#x\n", (char *)p, (unsigned int)results[i]);
      ++bad;
    }
    nuv_comm_delete_data(msgs[i]);
  }
  free(msgs);
  free(results);
  nuv_comm_uninit();
  return bad ? 1 : 0;
}

int main(int argc, char **argv) {
  if (argc == 3 && strcmp(argv[1], "serve") == 0) return serve(argv[2]);
  if ((argc == 5 || argc == 6) && strcmp(argv[1], "post") == 0) {
    return post(argv[2], atol(argv[3]), argv[4], argc == 6 ? (unsigned int)atoi(argv[5]) : 0);
  }
  fprintf(stderr, "usage: comm_peer serve <topic> | post <topic> <n> <prefix> [<window>]\n");
  return 2;
}
