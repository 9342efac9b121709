#include <errno.h>
#include <libproc2/meminfo.h>
#include <libproc2/misc.h>
#include <libproc2/pids.h>
#include <libproc2/stat.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "internal.h"
#include "nuv_thread.h"
#include "nuv_perfprov.h"

static int g_monitor_type = NUV_PERF_MONITOR_ALL;
static int g_frequency = 5;

static void sm_body(struct pp_run *run, void *state, unsigned int session);
static void free_state(void *p);
static struct pp_run g_run = PP_RUN_INIT(sm_body, free_state);

int nuv_config_data_source(int monitor_type, int frequency) {
  if (frequency <= 0 || monitor_type < 0) return EINVAL;
  __atomic_store_n(&g_monitor_type, monitor_type, __ATOMIC_RELAXED);
  __atomic_store_n(&g_frequency, frequency, __ATOMIC_RELAXED);
  return 0;
}

/* Positions of the per-process items; an item that is not collected is PIDS_noop. */
enum { I_PID, I_PPID, I_STATE, I_NLWP, I_UTIME, I_STIME, I_BEGAN, I_RES, I_VIRT, I_CMD,
       I_RBYTES, I_WBYTES, I_CMDLINE, I_COUNT };

/* What a process had at the last sample, for the rates of the next. */
struct prev_proc {
  pid_t pid;
  int has_io;
  unsigned long long start, ticks, rbytes, wbytes;
};

struct sm_state {
  struct pids_info *pids;
  enum pids_item items[I_COUNT];
  struct stat_info *stat;
  struct meminfo_info *mem;
  long hz;
  struct prev_proc *prev;
  size_t nprev;
  int have_prev;
  uint64_t prev_boot_ms;
  unsigned long long prev_busy, prev_total, prev_iowait;
};

static void wanted_items(int monitor_type, enum pids_item *items) {
  int procs = monitor_type & NUV_PERF_MONITOR_PROCESS;
  items[I_PID] = PIDS_ID_PID;
  items[I_STATE] = PIDS_STATE;
  items[I_NLWP] = PIDS_NLWP;
  /* Times are read even for system-only sampling: the stat file is read anyway, and a later
   * switch to processes then has a baseline. */
  items[I_UTIME] = PIDS_TICS_USER;
  items[I_STIME] = PIDS_TICS_SYSTEM;
  items[I_BEGAN] = PIDS_TICS_BEGAN;
  items[I_PPID] = procs ? PIDS_ID_PPID : PIDS_noop;
  items[I_RES] = procs ? PIDS_MEM_RES : PIDS_noop;
  items[I_VIRT] = procs ? PIDS_MEM_VIRT : PIDS_noop;
  items[I_CMD] = PIDS_CMD;
  items[I_RBYTES] = procs && (monitor_type & NUV_PERF_MONITOR_PROCESS_IO) ? PIDS_IO_READ_BYTES
                                                                           : PIDS_noop;
  items[I_WBYTES] = procs && (monitor_type & NUV_PERF_MONITOR_PROCESS_IO) ? PIDS_IO_WRITE_BYTES
                                                                           : PIDS_noop;
  items[I_CMDLINE] = procs && (monitor_type & NUV_PERF_MONITOR_CMDLINE) ? PIDS_CMDLINE
                                                                         : PIDS_noop;
}

static void free_state(void *p) {
  struct sm_state *st = p;
  if (!st) return;
  if (st->pids) procps_pids_unref(&st->pids);
  if (st->stat) procps_stat_unref(&st->stat);
  if (st->mem) procps_meminfo_unref(&st->mem);
  free(st->prev);
  free(st);
}

static int cmp_prev(const void *a, const void *b) {
  pid_t x = ((const struct prev_proc *)a)->pid, y = ((const struct prev_proc *)b)->pid;
  return (x > y) - (x < y);
}

static const struct prev_proc *find_prev(const struct sm_state *st, pid_t pid) {
  struct prev_proc key = {.pid = pid};
  return st->nprev ? bsearch(&key, st->prev, st->nprev, sizeof key, cmp_prev) : NULL;
}

static uint32_t clamp32(double v) {
  if (!(v > 0)) return 0;
  return v >= 4294967295.0 ? UINT32_MAX : (uint32_t)v;
}

static float percent(double part, double whole) {
  if (!(whole > 0) || !(part > 0)) return 0.0f;
  double p = part * 100.0 / whole;
  return (float)(p > 100.0 ? 100.0 : p);
}

/* The system figures that libproc2's stat and meminfo give; 0 or -1. */
static int read_system(struct sm_state *st, _sys_info *sys, unsigned long long *busy,
                       unsigned long long *total, unsigned long long *iowait) {
  enum stat_item sitems[] = {STAT_TIC_SUM_BUSY, STAT_TIC_SUM_TOTAL, STAT_TIC_IOWAIT};
  struct stat_stack *ss = procps_stat_select(st->stat, sitems, 3);
  if (!ss) return -1;
  *busy = STAT_VAL(0, ull_int, ss, st->stat);
  *total = STAT_VAL(1, ull_int, ss, st->stat);
  *iowait = STAT_VAL(2, ull_int, ss, st->stat);
  enum meminfo_item mitems[] = {MEMINFO_MEM_TOTAL, MEMINFO_MEM_AVAILABLE, MEMINFO_SWAP_TOTAL,
                                MEMINFO_SWAP_USED};
  struct meminfo_stack *ms = procps_meminfo_select(st->mem, mitems, 4);
  if (!ms) return -1;
  sys->memtotal = MEMINFO_VAL(0, ul_int, ms, st->mem);
  sys->memavai = MEMINFO_VAL(1, ul_int, ms, st->mem);
  sys->swap_total = MEMINFO_VAL(2, ul_int, ms, st->mem);
  sys->swap_used = MEMINFO_VAL(3, ul_int, ms, st->mem);
  if (sys->memavai > sys->memtotal) sys->memavai = sys->memtotal;
  if (sys->swap_used > sys->swap_total) sys->swap_used = sys->swap_total;
  sys->swap_usage = percent((double)sys->swap_used, (double)sys->swap_total);
  sys->handlenum = pp_file_handles();
  long cpus = procps_cpu_count();
  sys->cpunum = cpus > 0 ? (uint32_t)cpus : 1;
  return 0;
}

/* Calls the current session's subscribers, unless `session` has ended meanwhile. */
static void deliver(unsigned int session, int monitor_type, const _sys_info *sys,
                    const _process_info *procs, uint32_t nprocs) {
  unsigned int collected = ((monitor_type & NUV_PERF_MONITOR_SYSTEM) ? NUV_PERF_TYPE_SYSTEM : 0) |
                           ((monitor_type & NUV_PERF_MONITOR_PROCESS) ? NUV_PERF_TYPE_PROCESS
                                                                      : 0);
  struct pp_sub subs[PP_MAX_SUBS];
  int n = pp_run_subs(&g_run, session, subs);
  for (int i = 0; i < n; i++) {
    unsigned int type = subs[i].mask & collected;
    if (!type) continue;
    /* A callback may end the session (unsubscribe from within): no further calls then. */
    if (pp_run_ended(&g_run, session)) break;
    _perf_information info = {
        .sys_info = (type & NUV_PERF_TYPE_SYSTEM) ? sys : NULL,
        .reserved = NULL,
        .process_info = (type & NUV_PERF_TYPE_PROCESS) ? procs : NULL,
        .process_count = (type & NUV_PERF_TYPE_PROCESS) ? nprocs : 0,
    };
    ((nuv_perf_notifier)subs[i].fn)(type, &info, subs[i].context);
  }
  pp_run_delivered(&g_run);
}

/* Which items libproc2 reads follows the monitor type; 0, or -1 when they cannot be set. */
static int select_items(struct sm_state *st, int monitor_type) {
  enum pids_item items[I_COUNT];
  wanted_items(monitor_type, items);
  if (memcmp(items, st->items, sizeof items) == 0) return 0;
  if (procps_pids_reset(st->pids, items, I_COUNT) < 0) return -1;
  memcpy(st->items, items, sizeof items);
  return 0;
}

/* The switches of one sample, from the monitor type. */
struct wanted {
  int procs, io, fds, cmdline;
};

/* The clocks of one sample and of the period it closes. */
struct period {
  uint64_t boot_ms, real_ms;
  double elapsed_ms, machine_ms, hz;
};

/* Fills p from one process's stack: its times, memory and threads, and its rates over the
 * period. `now` holds its identity and counters as read in this sample. */
static void process_figures(const struct sm_state *st, struct pids_stack *s, struct wanted w,
                            const struct period *pd, const struct prev_proc *now,
                            _process_info *p) {
  double hz = pd->hz;
  p->pid = (uint32_t)now->pid;
  p->parentid = (uint32_t)PIDS_VAL(I_PPID, s_int, s, st->pids);
  unsigned long long ut = PIDS_VAL(I_UTIME, ull_int, s, st->pids);
  unsigned long long kt = PIDS_VAL(I_STIME, ull_int, s, st->pids);
  p->usertime = (uint64_t)((double)ut * 1000.0 / hz);
  p->kerneltime = (uint64_t)((double)kt * 1000.0 / hz);
  p->cputime = p->usertime + p->kerneltime;
  uint64_t began_ms = (uint64_t)((double)now->start * 1000.0 / hz);
  p->totaltime = pd->boot_ms > began_ms ? pd->boot_ms - began_ms : 0;
  p->createtime = (uint32_t)((pd->real_ms - p->totaltime + 500) / 1000);
  p->memory = PIDS_VAL(I_RES, ul_int, s, st->pids);
  p->memorycommit = PIDS_VAL(I_VIRT, ul_int, s, st->pids);
  int nlwp = PIDS_VAL(I_NLWP, s_int, s, st->pids);
  p->threads = nlwp > 0 ? (uint32_t)nlwp : 0;
  p->readbytes = now->rbytes;
  p->writebytes = now->wbytes;

  /* Rates cover the last period only: against the previous sample, or from zero for a
   * process that started within the period; otherwise they are not known and stay 0. */
  const struct prev_proc *before = find_prev(st, now->pid);
  int known = before && before->start == now->start;
  int fresh = !known && st->have_prev && began_ms >= st->prev_boot_ms;
  if (!st->have_prev || !(known || fresh)) return;
  unsigned long long t0 = known ? before->ticks : 0;
  if (now->ticks > t0) p->cpu = percent((double)(now->ticks - t0) * 1000.0 / hz, pd->machine_ms);
  if (w.io && (fresh || before->has_io) && pd->elapsed_ms > 0) {
    unsigned long long r0 = fresh ? 0 : before->rbytes, w0 = fresh ? 0 : before->wbytes;
    double ms = pd->elapsed_ms;
    if (now->rbytes > r0) p->iorspeed = clamp32((double)(now->rbytes - r0) * 1000.0 / ms);
    if (now->wbytes > w0) p->iowspeed = clamp32((double)(now->wbytes - w0) * 1000.0 / ms);
  }
}

/* Image and path of a process into `texts`, its command line (libproc2's, valid until the next
 * reap) and its descriptor count. */
static void process_texts(struct wanted w, const char *comm, const char *cmdline,
                          _process_info *p, struct pp_texts *texts, size_t offs[2]) {
  char path[PP_PATH_MAX], image[PP_NAME_MAX];
  if (w.fds) {
    long fds = pp_count_fds((pid_t)p->pid);
    p->handles = fds > 0 ? (uint32_t)fds : 0;
  }
  pp_read_exe((pid_t)p->pid, path, sizeof path);
  pp_image_name(path, comm, image, sizeof image);
  offs[0] = pp_texts_add(texts, image);
  offs[1] = pp_texts_add(texts, path);
  p->commandline = cmdline ? cmdline : "";
}

/* The machine's CPU and I/O-wait shares over the period, from the tick sums. */
static void system_rates(const struct sm_state *st, unsigned long long busy,
                         unsigned long long total, unsigned long long iowait, _sys_info *sys) {
  if (total <= st->prev_total) return;
  double dt = (double)(total - st->prev_total);
  sys->cpu = busy > st->prev_busy ? percent((double)(busy - st->prev_busy), dt) : 0.0f;
  sys->cpu_iowait_percent =
      iowait > st->prev_iowait ? percent((double)(iowait - st->prev_iowait), dt) : 0.0f;
}

/* This sample becomes the baseline of the next; takes `next`. */
static void remember(struct sm_state *st, struct prev_proc *next, size_t nnext, uint64_t boot_ms,
                     unsigned long long busy, unsigned long long total,
                     unsigned long long iowait) {
  qsort(next, nnext, sizeof *next, cmp_prev);
  free(st->prev);
  st->prev = next;
  st->nprev = nnext;
  st->have_prev = 1;
  st->prev_boot_ms = boot_ms;
  st->prev_busy = busy;
  st->prev_total = total;
  st->prev_iowait = iowait;
}

/* What libproc2 read of one live process: its identity and counters, as the next sample will
 * compare them. */
static void read_counters(const struct sm_state *st, struct pids_stack *s, struct wanted w,
                          struct prev_proc *now) {
  (void)st; /* PIDS_VAL names its info argument but reads only the stack */
  now->pid = PIDS_VAL(I_PID, s_int, s, st->pids);
  now->has_io = w.io;
  now->start = PIDS_VAL(I_BEGAN, ull_int, s, st->pids);
  now->ticks = PIDS_VAL(I_UTIME, ull_int, s, st->pids) + PIDS_VAL(I_STIME, ull_int, s, st->pids);
  now->rbytes = w.io ? PIDS_VAL(I_RBYTES, ul_int, s, st->pids) : 0;
  now->wbytes = w.io ? PIDS_VAL(I_WBYTES, ul_int, s, st->pids) : 0;
}

/* Takes one sample. With `notify` 0 it only sets the baseline; otherwise it notifies the
 * subscribers of `session`. */
static void sample(struct sm_state *st, int notify, unsigned int session) {
  int monitor_type = __atomic_load_n(&g_monitor_type, __ATOMIC_RELAXED);
  if (select_items(st, monitor_type) != 0) return;
  struct wanted w = {0, 0, 0, 0};
  w.procs = (monitor_type & NUV_PERF_MONITOR_PROCESS) != 0;
  w.io = w.procs && (monitor_type & NUV_PERF_MONITOR_PROCESS_IO);
  w.fds = w.procs && (monitor_type & NUV_PERF_MONITOR_HANDLES);
  w.cmdline = w.procs && (monitor_type & NUV_PERF_MONITOR_CMDLINE);

  _sys_info sys;
  memset(&sys, 0, sizeof sys);
  unsigned long long busy = 0, total = 0, iowait = 0;
  if (read_system(st, &sys, &busy, &total, &iowait) != 0) return;
  struct pids_fetch *fetch = procps_pids_reap(st->pids, PIDS_FETCH_TASKS_ONLY);
  if (!fetch) return;
  struct period pd;
  pd.boot_ms = pp_clock_ms(CLOCK_BOOTTIME);
  pd.real_ms = pp_clock_ms(CLOCK_REALTIME);
  pd.elapsed_ms = st->have_prev ? (double)(pd.boot_ms - st->prev_boot_ms) : 0.0;
  pd.machine_ms = pd.elapsed_ms * (double)(sys.cpunum ? sys.cpunum : 1);
  pd.hz = (double)st->hz;
  int nstacks = fetch->counts ? fetch->counts->total : 0;
  size_t room = (size_t)(nstacks > 0 ? nstacks : 1);

  struct prev_proc *next = malloc(room * sizeof *next);
  _process_info *procs = calloc(room, sizeof *procs);
  size_t(*offs)[2] = malloc(room * sizeof *offs);
  struct pp_texts texts = {NULL, 0, 0};
  if (!next || !procs || !offs) goto out;

  uint32_t nprocs = 0, threads = 0;
  size_t nnext = 0;
  for (int i = 0; i < nstacks; i++) {
    struct pids_stack *s = fetch->stacks[i];
    char state = PIDS_VAL(I_STATE, s_ch, s, st->pids);
    if (state == 'Z' || state == 'X') continue;
    int nlwp = PIDS_VAL(I_NLWP, s_int, s, st->pids);
    threads += nlwp > 0 ? (uint32_t)nlwp : 0;
    struct prev_proc *now = &next[nnext++];
    read_counters(st, s, w, now);
    if (w.procs && notify) {
      process_figures(st, s, w, &pd, now, &procs[nprocs]);
      const char *cmdline = w.cmdline ? PIDS_VAL(I_CMDLINE, str, s, st->pids) : NULL;
      process_texts(w, PIDS_VAL(I_CMD, str, s, st->pids), cmdline, &procs[nprocs], &texts,
                    offs[nprocs]);
    }
    nprocs++;
  }

  if (notify && st->have_prev) {
    sys.procnum = nprocs;
    sys.threadnum = threads;
    system_rates(st, busy, total, iowait, &sys);
    uint32_t listed = w.procs ? nprocs : 0;
    for (uint32_t i = 0; i < listed; i++) {
      procs[i].image = pp_texts_at(&texts, offs[i][0]);
      procs[i].path = pp_texts_at(&texts, offs[i][1]);
    }
    deliver(session, monitor_type, &sys, procs, listed);
  }

  remember(st, next, nnext, pd.boot_ms, busy, total, iowait);
  next = NULL;
out:
  free(next);
  free(procs);
  free(offs);
  free(texts.buf);
}

/* One session: a baseline, then a sample every period (the frequency is read anew for each,
 * so a change applies from the next period on). */
static void sm_body(struct pp_run *run, void *state, unsigned int session) {
  struct sm_state *st = state;
  sample(st, 0, session); /* the first notification comes one period later */
  uint64_t last = pp_clock_ms(CLOCK_MONOTONIC);
  for (;;) {
    uint64_t due = last + (uint64_t)__atomic_load_n(&g_frequency, __ATOMIC_RELAXED) * 1000u;
    uint64_t now = pp_clock_ms(CLOCK_MONOTONIC);
    if (now < due) {
      if (pp_run_wait(run, session, due - now, -1)) return;
      continue;
    }
    last = now;
    sample(st, 1, session);
  }
}

static void *new_state(struct pp_run *run, unsigned int session, int *err) {
  (void)run;
  (void)session;
  struct sm_state *st = calloc(1, sizeof *st);
  if (!st) {
    *err = ENOMEM;
    return NULL;
  }
  st->hz = procps_hertz_get();
  if (st->hz <= 0) st->hz = 100;
  wanted_items(__atomic_load_n(&g_monitor_type, __ATOMIC_RELAXED), st->items);
  int rc = procps_pids_new(&st->pids, st->items, I_COUNT);
  if (rc >= 0) rc = procps_stat_new(&st->stat);
  if (rc >= 0) rc = procps_meminfo_new(&st->mem);
  if (rc < 0) {
    free_state(st);
    *err = -rc;
    return NULL;
  }
  return st;
}

int nuv_perf_regsiter_notifier(unsigned int mask, nuv_perf_notifier callback, void *context) {
  mask &= NUV_PERF_TYPE_SYSTEM | NUV_PERF_TYPE_PROCESS;
  if (!callback || !mask) return EINVAL;
  return pp_run_subscribe(&g_run, (struct pp_sub){(void (*)(void))callback, context, mask},
                          new_state);
}

int nuv_perf_unregsiter_notifier(int monitor_type) {
  (void)monitor_type;
  pp_run_unsubscribe(&g_run);
  return 0;
}
