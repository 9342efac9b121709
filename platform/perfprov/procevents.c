#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "internal.h"
#include "nuv_perfprov.h"

/* One subscription's event source and what it remembers of every process. Owned by the event
 * thread once it runs. */
struct ev_state {
  struct pp_run *run;
  unsigned int session;
  int nl_fd;
  struct pp_table table;
  unsigned int generation;
  /* Children forked and not yet announced, oldest first, with their fork times. */
  struct forked *forked;
  size_t nforked, capforked;
};

struct forked {
  pid_t pid;
  uint64_t at_ms;
};

/* A child that runs this long without executing another program is a process of its parent's
 * image, as a /proc snapshot would see it; most children execute within microseconds. */
#define FORK_GRACE_MS 500

static void ev_body(struct pp_run *run, void *state, unsigned int session);
static void free_state(void *p);
static struct pp_run g_run = PP_RUN_INIT(ev_body, free_state);

static pthread_mutex_t g_mu = PTHREAD_MUTEX_INITIALIZER; /* guards g_choice */
static int g_choice = -1; /* -1: not chosen yet, the environment decides */
/* The subscribed session's source, 0 while nobody subscribes; atomic. */
static int g_source;

static int ended(const struct ev_state *st) { return pp_run_ended(st->run, st->session); }

static int chosen_source(void) {
  if (g_choice < 0) {
    const char *env = getenv("NUV_PROC_EVENTS");
    if (env && strcmp(env, "proc") == 0)
      g_choice = NUV_PROC_EVENTS_PROC;
    else if (env && strcmp(env, "netlink") == 0)
      g_choice = NUV_PROC_EVENTS_NETLINK;
    else
      g_choice = NUV_PROC_EVENTS_AUTO;
  }
  return g_choice;
}

static void deliver(struct ev_state *st, int event, pid_t pid, const char *name,
                    const char *path) {
  struct pp_sub subs[PP_MAX_SUBS];
  int n = pp_run_subs(st->run, st->session, subs);
  for (int i = 0; i < n && !ended(st); i++) {
    _process_mon_info info = {(uint32_t)pid, name, path};
    ((nuv_proc_notifier)subs[i].fn)(event, &info, subs[i].context);
  }
  pp_run_delivered(st->run);
}

/* An entry whose identity was lost (it ended before we could read it) has no name and is
 * not worth an exit of its own. */
static void report_exit(struct ev_state *st, const struct pp_proc *p) {
  if (p->name[0]) deliver(st, NUV_PROC_EVENT_EXIT, p->pid, p->name, p->path);
}

static void sweep_gone(struct pp_proc *p, void *arg) { report_exit(arg, p); }

/* Compares /proc with what is remembered: new processes start, missing ones (and zombies)
 * exit, a changed executable is an exit of the old image and a start of the new. With
 * `events` 0 it only fills the table (a process found now counts as announced: a process
 * query could have listed it). */
static void scan(struct ev_state *st, int events) {
  pid_t *pids;
  size_t n;
  if (pp_list_pids(&pids, &n) != 0) return;
  unsigned int gen = ++st->generation;
  char name[PP_NAME_MAX], path[PP_PATH_MAX];
  for (size_t i = 0; i < n && !ended(st); i++) {
    struct pp_stat ps;
    if (pp_read_ident(pids[i], &ps, name, sizeof name, path, sizeof path) != 0) continue;
    struct pp_proc *e = pp_table_find(&st->table, pids[i]);
    int reused = e && e->start && e->start != ps.start;
    int exec = e && !reused && path[0] && strcmp(e->path, path) != 0;
    if (e && !reused && !exec) {
      e->start = ps.start;
      e->seen = gen;
      continue;
    }
    if (events && e && (reused || e->announced)) report_exit(st, e);
    e = pp_table_put(&st->table, pids[i], ps.start, name, path);
    if (!e) continue; /* out of memory: it is seen again next time */
    e->announced = 1;
    e->seen = gen;
    if (events) deliver(st, NUV_PROC_EVENT_START, e->pid, e->name, e->path);
  }
  free(pids);
  if (!ended(st)) pp_table_sweep(&st->table, gen, events ? sweep_gone : NULL, st);
}

static void remember_fork(struct ev_state *st, pid_t pid) {
  if (st->nforked == st->capforked) {
    size_t cap = st->capforked ? st->capforked * 2 : 64;
    struct forked *grown = realloc(st->forked, cap * sizeof *grown);
    if (!grown) return; /* announced by the next overflow scan instead */
    st->forked = grown;
    st->capforked = cap;
  }
  st->forked[st->nforked].pid = pid;
  st->forked[st->nforked].at_ms = pp_clock_ms(CLOCK_MONOTONIC);
  st->nforked++;
}

/* Announces the children that have run past the grace without executing; returns the
 * milliseconds until the next one is due (or a minute when none waits). */
static uint64_t announce_forked(struct ev_state *st) {
  uint64_t now = pp_clock_ms(CLOCK_MONOTONIC);
  size_t done = 0;
  for (; done < st->nforked && !ended(st); done++) {
    const struct forked *f = &st->forked[done];
    if (now - f->at_ms < FORK_GRACE_MS) break;
    struct pp_proc *e = pp_table_find(&st->table, f->pid);
    /* Executed (announced then) or gone (its exit removed it) meanwhile: nothing to say. */
    if (!e || e->announced) continue;
    e->announced = 1;
    deliver(st, NUV_PROC_EVENT_START, e->pid, e->name, e->path);
  }
  if (done > 0) {
    memmove(st->forked, st->forked + done, (st->nforked - done) * sizeof *st->forked);
    st->nforked -= done;
  }
  if (st->nforked == 0) return 60000;
  uint64_t age = now - st->forked[0].at_ms;
  return age >= FORK_GRACE_MS ? 0 : FORK_GRACE_MS - age;
}

static void on_netlink(const struct pp_nl_event *ev, void *arg) {
  struct ev_state *st = arg;
  if (ended(st)) return;
  char name[PP_NAME_MAX], path[PP_PATH_MAX];
  struct pp_stat ps;
  struct pp_proc *e;
  switch (ev->kind) {
    case PP_NL_FORK:
      /* No start yet: the child is remembered, so that its exit carries a name, and announced
       * once it has run a while without executing anything else. */
      if (pp_table_find(&st->table, ev->pid)) break;
      if (pp_read_ident(ev->pid, &ps, name, sizeof name, path, sizeof path) == 0) {
        e = pp_table_put(&st->table, ev->pid, ps.start, name, path);
      } else {
        const struct pp_proc *parent = pp_table_find(&st->table, ev->parent);
        e = parent ? pp_table_put(&st->table, ev->pid, 0, parent->name, parent->path) : NULL;
      }
      if (e) {
        e->announced = 0;
        remember_fork(st, ev->pid);
      }
      break;
    case PP_NL_EXEC:
      e = pp_table_find(&st->table, ev->pid);
      if (pp_read_ident(ev->pid, &ps, name, sizeof name, path, sizeof path) != 0) {
        /* Gone before we could look: what we remember is the image it replaced. */
        if (e) pp_table_put(&st->table, ev->pid, 0, "", "");
        break;
      }
      if (e && e->announced && strcmp(e->path, path) == 0) break; /* the same program again */
      if (e && e->announced) report_exit(st, e);
      e = pp_table_put(&st->table, ev->pid, ps.start, name, path);
      if (!e) break;
      e->announced = 1;
      deliver(st, NUV_PROC_EVENT_START, e->pid, e->name, e->path);
      break;
    case PP_NL_EXIT:
      e = pp_table_find(&st->table, ev->pid);
      if (!e) break;
      report_exit(st, e);
      pp_table_remove(&st->table, ev->pid);
      break;
    case PP_NL_OVERFLOW:
      /* Events were lost: /proc tells what changed meanwhile. */
      scan(st, 1);
      break;
    case PP_NL_NONE:
      break;
  }
}

static void ev_body(struct pp_run *run, void *state, unsigned int session) {
  struct ev_state *st = state;
  uint64_t next_fork_due = 60000;
  while (!pp_run_ended(run, session)) {
    if (st->nl_fd >= 0) {
      if (pp_run_wait(run, session, next_fork_due, st->nl_fd)) break;
      int drained = pp_nl_drain(st->nl_fd, on_netlink, st);
      next_fork_due = announce_forked(st);
      if (drained != 0) {
        /* The socket failed for good: carry on from /proc. */
        pp_nl_close(st->nl_fd);
        st->nl_fd = -1;
        int netlink = NUV_PROC_EVENTS_NETLINK;
        __atomic_compare_exchange_n(&g_source, &netlink, NUV_PROC_EVENTS_PROC, 0,
                                    __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
        scan(st, 1);
      }
    } else {
      if (pp_run_wait(run, session, 1000, -1)) break;
      scan(st, 1);
    }
  }
}

static void free_state(void *p) {
  struct ev_state *st = p;
  if (!st) return;
  pp_nl_close(st->nl_fd);
  pp_table_free(&st->table);
  free(st->forked);
  free(st);
}

/* A session's source: the netlink connector unless /proc was chosen or it is refused, then
 * a snapshot of /proc. */
static void *make_state(struct pp_run *run, unsigned int session, int *err) {
  struct ev_state *st = calloc(1, sizeof *st);
  if (!st) {
    *err = ENOMEM;
    return NULL;
  }
  st->run = run;
  st->session = session;
  st->nl_fd = -1;
  int rc = pp_table_init(&st->table);
  if (rc != 0) {
    free(st);
    *err = rc;
    return NULL;
  }
  pthread_mutex_lock(&g_mu);
  int choice = chosen_source();
  pthread_mutex_unlock(&g_mu);
  int source = NUV_PROC_EVENTS_PROC;
  if (choice != NUV_PROC_EVENTS_PROC) {
    st->nl_fd = pp_nl_open();
    if (st->nl_fd >= 0) {
      source = NUV_PROC_EVENTS_NETLINK;
    } else if (choice == NUV_PROC_EVENTS_NETLINK) {
      *err = errno ? errno : EPERM;
      free_state(st);
      return NULL;
    }
  }
  /* After the socket is listening, so that a process is either in the snapshot or announced
   * by an event. */
  scan(st, 0);
  __atomic_store_n(&g_source, source, __ATOMIC_RELEASE);
  return st;
}

int nuv_proc_regsiter_notifier(nuv_proc_notifier callback, void *context) {
  if (!callback) return EINVAL;
  return pp_run_subscribe(&g_run, (struct pp_sub){(void (*)(void))callback, context, 0},
                          make_state);
}

int nuv_proc_unregsiter_notifier(void) {
  pp_run_unsubscribe(&g_run);
  __atomic_store_n(&g_source, 0, __ATOMIC_RELEASE);
  return 0;
}

int nuv_proc_set_event_source(int source) {
  if (source != NUV_PROC_EVENTS_AUTO && source != NUV_PROC_EVENTS_NETLINK &&
      source != NUV_PROC_EVENTS_PROC)
    return EINVAL;
  pthread_mutex_lock(&g_mu);
  g_choice = source;
  pthread_mutex_unlock(&g_mu);
  return 0;
}

int nuv_proc_event_source(void) { return __atomic_load_n(&g_source, __ATOMIC_ACQUIRE); }
