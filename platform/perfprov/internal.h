/* Pieces shared between the files of nuv_perfprov; not exported. */
#ifndef NUV_PERFPROV_INTERNAL_H
#define NUV_PERFPROV_INTERNAL_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#define PP_PATH_MAX 4096
#define PP_NAME_MAX 256

/* ---- /proc readers (procfs.c). A process that vanishes mid-read is an ordinary failure. */

/* Reads a whole small file into buf (NUL-terminated, truncated to size - 1). Returns the byte
 * count or -1 with errno. */
ssize_t pp_read_file(const char *path, char *buf, size_t size);

/* From /proc/<pid>/stat: state letter, start time in clock ticks since boot and the command
 * name. 0, or -1 when the process is gone or unreadable. */
struct pp_stat {
  char state;
  unsigned long long start;
  char comm[64];
};
int pp_read_stat(pid_t pid, struct pp_stat *st);

/* Full executable path of pid into path (empty when it cannot be read; a " (deleted)" mark
 * of a removed file is dropped). Returns 0 when read, -1 otherwise. */
int pp_read_exe(pid_t pid, char *path, size_t size);

/* The image name: the last component of path, or comm when path is empty. */
void pp_image_name(const char *path, const char *comm, char *name, size_t size);

/* Identity of a live process: name and path as the events and queries report them, plus its
 * stat. 0, or -1 when the process is gone or a zombie. */
int pp_read_ident(pid_t pid, struct pp_stat *st, char *name, size_t name_size, char *path,
                  size_t path_size);

/* Open descriptors of pid, or -1. */
long pp_count_fds(pid_t pid);

/* Allocated file handles of the system (first field of /proc/sys/fs/file-nr), or 0. */
uint32_t pp_file_handles(void);

/* The process ids listed in /proc, ascending, into a malloc'd array. 0 or an errno value. */
int pp_list_pids(pid_t **pids, size_t *count);

/* Milliseconds of a clock. */
uint64_t pp_clock_ms(clockid_t clock);

/* ---- Texts of one result, addressed by offset until the buffer stops growing (texts.c). */

struct pp_texts {
  char *buf;
  size_t used, cap;
};

#define PP_NO_TEXT ((size_t)-1)

/* Appends s with its NUL; its offset, or PP_NO_TEXT when out of memory. */
size_t pp_texts_add(struct pp_texts *t, const char *s);
/* The text at an offset pp_texts_add gave; "" for PP_NO_TEXT. */
const char *pp_texts_at(const struct pp_texts *t, size_t offset);

/* ---- A provider's thread and its subscribers (run.c).
 *
 * Each provider (the sampler, the event source) has one thread, started by its first
 * subscription and kept until the process ends: libproc2 keeps per-thread buffers that a
 * thread's end would leak, and one design serves both. The time from a first subscription to
 * the unsubscription is a session, numbered, with a state of its own that the subscribing call
 * makes (so that a failure reaches that caller) and the thread frees when the session ends. */

#define PP_MAX_SUBS 32

struct pp_sub {
  void (*fn)(void);
  void *context;
  unsigned int mask;
};

struct pp_run {
  /* Set once, in the initializer. */
  void (*body)(struct pp_run *run, void *state, unsigned int session);
  void (*free_state)(void *state);
  pthread_mutex_t mu; /* guards everything below */
  pthread_cond_t work; /* to the thread: a session's state waits */
  pthread_cond_t idle; /* from the thread: a delivery ended */
  pthread_t tid;
  int started;
  int wake_fd; /* eventfd, written when a session ends; valid once started */
  unsigned int session; /* also read with __atomic loads */
  struct pp_sub subs[PP_MAX_SUBS];
  int nsubs;
  void *next_state; /* made by the subscribing call, taken by the thread */
  int delivering;
};

#define PP_RUN_INIT(body, free_state)                                                  \
  {(body), (free_state), PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER,           \
   PTHREAD_COND_INITIALIZER, 0, 0, -1, 0, {{0, 0, 0}}, 0, NULL, 0}

/* Adds a subscriber. The first one of a session starts it: make_state(run, session, &err)
 * makes its state (NULL with err set refuses the subscription), and the thread then runs
 * body(run, state, session) until the session ends. 0, ENOSPC, or an errno value. */
int pp_run_subscribe(struct pp_run *run, struct pp_sub sub,
                     void *(*make_state)(struct pp_run *run, unsigned int session, int *err));
/* Ends the session: no callback starts afterwards, and one in flight has ended when this
 * returns, unless this is called from that callback. */
void pp_run_unsubscribe(struct pp_run *run);
/* True once `session` has ended. */
int pp_run_ended(struct pp_run *run, unsigned int session);
/* Copies the session's subscribers into subs (0 once it ended) and marks a delivery in
 * flight; pp_run_delivered ends it. */
int pp_run_subs(struct pp_run *run, unsigned int session, struct pp_sub *subs);
void pp_run_delivered(struct pp_run *run);
/* Waits up to ms milliseconds, or until the session ends, or until extra_fd (when >= 0) is
 * readable. Returns 1 when it ended, 0 otherwise. */
int pp_run_wait(struct pp_run *run, unsigned int session, uint64_t ms, int extra_fd);

/* ---- Remembered process identities (table.c), owned by one thread. */

struct pp_proc {
  struct pp_proc *next;
  pid_t pid;
  unsigned long long start; /* start ticks; 0 when not known */
  int announced;            /* a start was reported or the finder could have seen it */
  unsigned int seen;        /* generation of the last /proc scan that saw it */
  char *name;
  char *path;
};

struct pp_table {
  struct pp_proc **buckets;
  size_t nbuckets;
  size_t count;
};

int pp_table_init(struct pp_table *t);
void pp_table_free(struct pp_table *t);
struct pp_proc *pp_table_find(struct pp_table *t, pid_t pid);
/* Inserts pid or replaces its identity; NULL on ENOMEM (the table is unchanged). */
struct pp_proc *pp_table_put(struct pp_table *t, pid_t pid, unsigned long long start,
                             const char *name, const char *path);
void pp_table_remove(struct pp_table *t, pid_t pid);
/* Calls gone(p, arg) for, then removes, every entry whose `seen` differs from generation. */
void pp_table_sweep(struct pp_table *t, unsigned int generation,
                    void (*gone)(struct pp_proc *p, void *arg), void *arg);

/* ---- Netlink process connector (netlink.c). */

enum pp_nl_kind { PP_NL_NONE, PP_NL_FORK, PP_NL_EXEC, PP_NL_EXIT, PP_NL_OVERFLOW };

struct pp_nl_event {
  enum pp_nl_kind kind;
  pid_t pid;    /* FORK: the child; EXEC, EXIT: the process */
  pid_t parent; /* FORK: the parent process */
};

/* Opens, subscribes and waits for the kernel's acknowledgement. The socket, or -1 with errno
 * (EPERM when not allowed, ETIMEDOUT when the kernel does not answer, e.g. in a pid namespace
 * other than the initial one). */
int pp_nl_open(void);
/* Reads what is queued without blocking and calls fn for every process event; thread events
 * are dropped. A lost-events overflow is reported as PP_NL_OVERFLOW. Returns 0, or -1 when the
 * socket failed for good. */
int pp_nl_drain(int fd, void (*fn)(const struct pp_nl_event *ev, void *arg), void *arg);
/* Unsubscribes and closes. */
void pp_nl_close(int fd);

#endif
