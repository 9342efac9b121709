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

/* ---- The process-event thread of one subscription period and its subscribers (run.c). */

#define PP_MAX_SUBS 32

struct pp_sub {
  void (*fn)(void);
  void *context;
  unsigned int mask;
};

struct pp_run {
  pthread_t tid;
  pthread_mutex_t mu; /* guards subs, nsubs, stop */
  struct pp_sub subs[PP_MAX_SUBS];
  int nsubs;
  int stop;     /* also read with __atomic loads between callbacks */
  int wake_fd;  /* eventfd, written to stop the thread */
  int detached; /* set by the thread itself when it unsubscribed from its own callback */
  void *state;
  void (*free_state)(void *state);
};

/* A run with no thread yet, or NULL (errno set). */
struct pp_run *pp_run_new(void);
/* Starts body(run) on a thread with every signal blocked. 0 or an errno value. */
int pp_run_launch(struct pp_run *run, void *(*body)(void *));
/* Frees a run whose thread never started. */
void pp_run_free(struct pp_run *run);
/* 0, or ENOSPC. */
int pp_run_add(struct pp_run *run, void (*fn)(void), void *context, unsigned int mask);
/* Copies the subscribers into subs; 0 once the run is stopping. */
int pp_run_subs(struct pp_run *run, struct pp_sub *subs);
/* True once the run is stopping. */
int pp_run_stopping(struct pp_run *run);
/* Waits up to ms milliseconds, or until stopped, or until extra_fd (when >= 0) is readable.
 * Returns 1 when stopped, 0 otherwise. */
int pp_run_wait(struct pp_run *run, uint64_t ms, int extra_fd);
/* Stops the run: no callback starts afterwards. From another thread it waits for the thread
 * (so for a callback in flight) and frees the run; from the run's own thread the run is freed
 * when its body returns. */
void pp_run_finish(struct pp_run *run);
/* Called by the body as it returns. */
void pp_run_exit(struct pp_run *run);

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
