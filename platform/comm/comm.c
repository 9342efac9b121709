/* Bus lifetime, configuration and the registry of topics served by this process. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "internal.h"

enum { TOPIC_STARTING, TOPIC_READY };

/* Lock order: g_mu, then a topic's mu. */
static pthread_mutex_t g_mu = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_cv = PTHREAD_COND_INITIALIZER; /* topic states and teardown */
static unsigned int g_users;
static int g_tearing; /* the last uninit is taking topics down */
static struct nuv__comm_cfg g_cfg;
static struct nuv__topic *g_topics;

static unsigned int g_timeout_cfg = 5000; /* atomic: read by bus threads without g_mu */
static unsigned int g_timeout_set;

/* Handler calls running on this thread, innermost first. */
struct frame {
  struct nuv__topic *t;
  struct frame *prev;
};
static __thread struct frame *t_frames;

/* ---- configuration ---- */

static unsigned int env_uint(const char *name, unsigned int def, unsigned int lo,
                             unsigned int hi) {
  const char *s = getenv(name);
  if (!s || *s < '0' || *s > '9') return def;
  char *end;
  errno = 0;
  unsigned long long v = strtoull(s, &end, 10);
  if (errno != 0 || *end != '\0' || v < lo || v > hi) return def;
  return (unsigned int)v;
}

static void read_config(void) {
  const char *dir = getenv("NUV_COMM_DIR");
  const char *xdg = getenv("XDG_RUNTIME_DIR");
  uid_t uid = geteuid();
  size_t size = sizeof g_cfg.dir;
  int n;
  if (dir && *dir) n = snprintf(g_cfg.dir, size, "%s", dir);
  else if (uid == 0) n = snprintf(g_cfg.dir, size, "/run/nuv-comm");
  else if (xdg && *xdg) n = snprintf(g_cfg.dir, size, "%s/nuv-comm", xdg);
  else n = snprintf(g_cfg.dir, size, "/tmp/nuv-comm-%u", (unsigned int)uid);
  /* Room for "/" and a topic; an empty dir makes register and post fail. */
  if (n < 0 || (size_t)n + 2 + NUV_COMM_TOPIC_MAX > size) {
    g_cfg.dir[0] = '\0';
  } else {
    while (n > 1 && g_cfg.dir[n - 1] == '/') g_cfg.dir[--n] = '\0';
  }
  g_cfg.max_msg = env_uint("NUV_COMM_MAX_MSG", 4u << 20, 0, UINT32_MAX - 8);
  g_cfg.max_conn = env_uint("NUV_COMM_MAX_CONN", 64, 1, 4096);
  g_cfg.idle_ms = env_uint("NUV_COMM_IDLE_MS", 30000, 1, INT32_MAX);
  __atomic_store_n(&g_timeout_cfg, env_uint("NUV_COMM_TIMEOUT_MS", 5000, 1, INT32_MAX),
                   __ATOMIC_RELAXED);
}

unsigned int nuv__comm_timeout_ms(void) {
  unsigned int set = __atomic_load_n(&g_timeout_set, __ATOMIC_RELAXED);
  return set ? set : __atomic_load_n(&g_timeout_cfg, __ATOMIC_RELAXED);
}

void nuv_comm_set_timeout_ms(unsigned int ms) {
  if (ms > INT32_MAX) ms = INT32_MAX;
  __atomic_store_n(&g_timeout_set, ms, __ATOMIC_RELAXED);
}

static int valid_topic(const char *s) {
  if (!s) return 0;
  size_t n = 0;
  for (; s[n]; ++n) {
    char c = s[n];
    int ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
             c == ':' || c == '.' || c == '_' || c == '-';
    if (!ok || n >= NUV_COMM_TOPIC_MAX) return 0;
  }
  return n > 0 && strcmp(s, ".") != 0 && strcmp(s, "..") != 0;
}

/* ---- topics ---- */

static void free_topic(struct nuv__topic *t) {
  pthread_cond_destroy(&t->cv);
  pthread_mutex_destroy(&t->mu);
  free(t);
}

void nuv__topic_unref(struct nuv__topic *t) {
  pthread_mutex_lock(&t->mu);
  int left = --t->refs;
  pthread_cond_broadcast(&t->cv);
  pthread_mutex_unlock(&t->mu);
  if (left == 0) free_topic(t);
}

static void pop_frame(void *arg) { t_frames = ((struct frame *)arg)->prev; }

void nuv__topic_call_batch(struct nuv__topic *t, comm_data *const *requests, unsigned int count,
                           int *results) {
  struct frame f = {.t = t, .prev = t_frames};
  t_frames = &f;
  /* A host thread cancelled inside the handler unwinds through here. */
  pthread_cleanup_push(pop_frame, &f);
  if (t->batch) {
    t->batch(requests, count, results, t->user);
  } else {
    for (unsigned int i = 0; i < count; ++i) {
      unsigned char nul = 0;
      comm_data none = {.bytes = &nul, .length = 0};
      results[i] = t->handler(requests[i], &none, t->user);
    }
  }
  pthread_cleanup_pop(1);
}

/* The caller holds g_mu. `ready_only` skips topics still being set up. */
static struct nuv__topic *find(const char *name, int ready_only) {
  for (struct nuv__topic *t = g_topics; t; t = t->next) {
    if (strcmp(t->name, name) == 0 && (!ready_only || t->state == TOPIC_READY)) return t;
  }
  return NULL;
}

static void unlink_topic(struct nuv__topic *t) {
  for (struct nuv__topic **p = &g_topics; *p; p = &(*p)->next) {
    if (*p == t) {
      *p = t->next;
      return;
    }
  }
}

/* Stops serving `t` (already out of the registry), waits for its handlers except those on
 * this thread's stack and drops the registry's reference. */
static void teardown(struct nuv__topic *t) {
  nuv__server_stop(t);
  int own = 0;
  for (struct frame *f = t_frames; f; f = f->prev) own += f->t == t;
  pthread_mutex_lock(&t->mu);
  while (t->refs > 1 + own) pthread_cond_wait(&t->cv, &t->mu);
  pthread_mutex_unlock(&t->mu);
  nuv__topic_unref(t);
}

/* ---- public calls ---- */

int nuv_comm_init(void) {
  pthread_mutex_lock(&g_mu);
  while (g_tearing) pthread_cond_wait(&g_cv, &g_mu);
  if (g_users++ == 0) read_config();
  pthread_mutex_unlock(&g_mu);
  return 0;
}

int nuv_comm_uninit(void) {
  pthread_mutex_lock(&g_mu);
  if (g_users == 0) {
    pthread_mutex_unlock(&g_mu);
    return NUV_COMM_E_NOINIT;
  }
  if (--g_users > 0) {
    pthread_mutex_unlock(&g_mu);
    return 0;
  }
  g_tearing = 1;
  for (;;) {
    int starting = 0;
    for (struct nuv__topic *t = g_topics; t; t = t->next) starting |= t->state != TOPIC_READY;
    if (!starting) break;
    pthread_cond_wait(&g_cv, &g_mu);
  }
  struct nuv__topic *list = g_topics;
  g_topics = NULL;
  pthread_mutex_unlock(&g_mu);

  while (list) {
    struct nuv__topic *next = list->next;
    teardown(list);
    list = next;
  }
  nuv__client_pool_clear();

  pthread_mutex_lock(&g_mu);
  g_tearing = 0;
  pthread_cond_broadcast(&g_cv);
  pthread_mutex_unlock(&g_mu);
  return 0;
}

static int register_topic(const char *topic, nuv_comm_handler handler,
                          nuv_comm_batch_handler batch, void *user_data) {
  if (!valid_topic(topic) || (!handler && !batch)) return NUV_COMM_E_INVAL;
  struct nuv__topic *t = calloc(1, sizeof *t);
  if (!t) return NUV_COMM_E_SYSTEM;
  strcpy(t->name, topic);
  t->handler = handler;
  t->batch = batch;
  t->user = user_data;
  t->state = TOPIC_STARTING;
  t->refs = 1;
  pthread_mutex_init(&t->mu, NULL);
  pthread_cond_init(&t->cv, NULL);

  pthread_mutex_lock(&g_mu);
  int rc = 0;
  if (g_users == 0 || g_tearing) rc = NUV_COMM_E_NOINIT;
  else if (find(topic, 0)) rc = NUV_COMM_E_BUSY;
  else if (!g_cfg.dir[0]) {
    errno = ENAMETOOLONG;
    rc = NUV_COMM_E_SYSTEM;
  }
  if (rc != 0) {
    pthread_mutex_unlock(&g_mu);
    free_topic(t);
    return rc;
  }
  memcpy(t->dir, g_cfg.dir, sizeof t->dir);
  t->max_msg = g_cfg.max_msg;
  t->max_conn = g_cfg.max_conn;
  t->idle_ms = g_cfg.idle_ms;
  /* Listed while starting, so a second register of the name in this process is refused. */
  t->next = g_topics;
  g_topics = t;
  pthread_mutex_unlock(&g_mu);

  rc = nuv__server_start(t);
  int err = errno;

  pthread_mutex_lock(&g_mu);
  if (rc == 0) t->state = TOPIC_READY;
  else unlink_topic(t);
  pthread_cond_broadcast(&g_cv);
  pthread_mutex_unlock(&g_mu);
  if (rc != 0) {
    free_topic(t);
    errno = err;
  }
  return rc;
}

int nuv_comm_register(const char *topic, nuv_comm_handler handler, void *user_data) {
  return register_topic(topic, handler, NULL, user_data);
}

int nuv_comm_register_batch(const char *topic, nuv_comm_batch_handler handler,
                            void *user_data) {
  return register_topic(topic, NULL, handler, user_data);
}

int nuv_comm_unregister(const char *topic) {
  if (!valid_topic(topic)) return NUV_COMM_E_INVAL;
  pthread_mutex_lock(&g_mu);
  if (g_users == 0) {
    pthread_mutex_unlock(&g_mu);
    return NUV_COMM_E_NOINIT;
  }
  struct nuv__topic *t = find(topic, 1);
  if (t) unlink_topic(t);
  pthread_mutex_unlock(&g_mu);
  if (!t) return NUV_COMM_E_NOTOPIC;
  teardown(t);
  return 0;
}

static void unref_cb(void *arg) { nuv__topic_unref(arg); }

int nuv_comm_served_here(const char *topic) {
  if (!valid_topic(topic)) return 0;
  pthread_mutex_lock(&g_mu);
  int here = g_users != 0 && find(topic, 1) != NULL;
  pthread_mutex_unlock(&g_mu);
  return here;
}

int nuv__comm_first_failure(const int *results, unsigned int count) {
  for (unsigned int i = 0; i < count; ++i) {
    uint32_t r = (uint32_t)results[i];
    if (r >= (uint32_t)NUV_COMM_E_NOTOPIC && r <= (uint32_t)NUV_COMM_E_UNTRUSTED) return results[i];
  }
  return 0;
}

/* Takes a reference on `topic` when this process serves it (*t set), else copies the socket
 * directory into `dir`. 0, or NUV_COMM_E_NOINIT. */
static int route(const char *topic, struct nuv__topic **t, char *dir, unsigned int *max_msg) {
  pthread_mutex_lock(&g_mu);
  if (g_users == 0) {
    pthread_mutex_unlock(&g_mu);
    return NUV_COMM_E_NOINIT;
  }
  *max_msg = g_cfg.max_msg;
  *t = find(topic, 1);
  if (*t) {
    pthread_mutex_lock(&(*t)->mu);
    (*t)->refs++;
    pthread_mutex_unlock(&(*t)->mu);
  } else {
    memcpy(dir, g_cfg.dir, strlen(g_cfg.dir) + 1);
  }
  pthread_mutex_unlock(&g_mu);
  return 0;
}

/* A post to a topic of this process, on the calling thread. */
static int call_here(struct nuv__topic *t, comm_data *data) {
  int result = 0;
  nuv__topic_call_batch(t, &data, 1, &result);
  return result;
}

int nuv_comm_post(const char *topic, comm_data *data) {
  if (!valid_topic(topic) || !data || !data->bytes) return NUV_COMM_E_INVAL;
  struct nuv__topic *t;
  char dir[sizeof g_cfg.dir];
  unsigned int max_msg;
  int rc = route(topic, &t, dir, &max_msg);
  if (rc != 0) return rc;
  if (data->length > max_msg) {
    if (t) nuv__topic_unref(t);
    return NUV_COMM_E_TOOBIG;
  }
  if (t) {
    int result;
    pthread_cleanup_push(unref_cb, t); /* a host thread cancelled in the handler */
    result = call_here(t, data);
    pthread_cleanup_pop(1);
    return result;
  }
  if (!dir[0]) {
    errno = ENAMETOOLONG;
    return NUV_COMM_E_SYSTEM;
  }
  return nuv__client_post(dir, topic, data, max_msg);
}

int nuv_comm_post_many(const char *topic, comm_data *const *msgs, unsigned int count,
                       unsigned int window, int *results) {
  if (count > 0 && !results) return NUV_COMM_E_INVAL;
  int rc = valid_topic(topic) && (count == 0 || msgs) ? 0 : NUV_COMM_E_INVAL;
  for (unsigned int i = 0; rc == 0 && i < count; ++i) {
    if (!msgs[i] || !msgs[i]->bytes) rc = NUV_COMM_E_INVAL;
  }
  struct nuv__topic *t = NULL;
  char dir[sizeof g_cfg.dir];
  unsigned int max_msg = 0;
  if (rc == 0 && count > 0) rc = route(topic, &t, dir, &max_msg);
  if (rc == 0 && !t && !dir[0] && count > 0) {
    errno = ENAMETOOLONG;
    rc = NUV_COMM_E_SYSTEM;
  }
  if (rc != 0) {
    for (unsigned int i = 0; i < count; ++i) results[i] = rc;
    return rc;
  }
  if (count == 0) return 0;
  if (!t) return nuv__client_post_many(dir, topic, msgs, count, window ? window : 64, results,
                                       max_msg);
  pthread_cleanup_push(unref_cb, t);
  for (unsigned int i = 0; i < count; ++i) {
    results[i] = msgs[i]->length > max_msg ? NUV_COMM_E_TOOBIG : call_here(t, msgs[i]);
  }
  pthread_cleanup_pop(1);
  return nuv__comm_first_failure(results, count);
}
