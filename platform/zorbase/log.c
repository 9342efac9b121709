#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "nuv_log.h"

/* Each line is one write(2) on an O_APPEND descriptor, which the kernel keeps whole. Writers
 * share g_fd_lock so that the descriptor cannot be closed (and its number reused for another
 * file) while a line is being written; start and stop take it exclusively. */
static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_rwlock_t g_fd_lock = PTHREAD_RWLOCK_INITIALIZER;
static int g_fd = -1; /* -1: stderr */
static int g_level = -1; /* -1: not set by a call, read the environment */
static char *g_file;     /* set by nuv_log_set_file, or NULL */
static int g_file_set;
/* Line decorations, fixed whenever the destination is (re)opened: a journal priority when
 * stderr is the journal's stream, a time stamp in a log file when NUV_LOG_TIME asks for it. */
static int g_journal;
static int g_stamp_file;

static pthread_once_t g_env_once = PTHREAD_ONCE_INIT;
static int g_env_level;
static int g_env_journal;
static int g_env_stamp;

/* JOURNAL_STREAM names the device and inode of the stream systemd connected; stderr is the
 * journal only while it still is that stream (a redirected stderr is a file or a terminal). */
static int stderr_is_journal(void) {
  const char *v = getenv("JOURNAL_STREAM");
  unsigned long long dev = 0, ino = 0;
  struct stat st;
  if (!v || sscanf(v, "%llu:%llu", &dev, &ino) != 2) return 0;
  if (fstat(STDERR_FILENO, &st) != 0) return 0;
  return (unsigned long long)st.st_dev == dev && (unsigned long long)st.st_ino == ino;
}

static void read_env(void) {
  const char *v = getenv("NUV_LOG_LEVEL");
  int l = v && *v ? atoi(v) : NUV_LOG_INFO;
  g_env_level = l < 0 ? 0 : l > 3 ? 3 : l;
  g_env_journal = stderr_is_journal();
  v = getenv("NUV_LOG_TIME");
  g_env_stamp = v && *v && strcmp(v, "0") != 0;
  __atomic_store_n(&g_journal, g_env_journal, __ATOMIC_RELAXED);
}

int nuv_log_get_level(void) {
  pthread_once(&g_env_once, read_env);
  int l = __atomic_load_n(&g_level, __ATOMIC_RELAXED);
  return l < 0 ? g_env_level : l;
}

int nuv_log_set_level(int level) {
  __atomic_store_n(&g_level, level < 0 ? 0 : level > 3 ? 3 : level, __ATOMIC_RELAXED);
  return 0;
}

int nuv_log_set_file(const char *path) {
  char *copy = path ? strdup(path) : NULL;
  if (path && !copy) return -1;
  pthread_mutex_lock(&g_lock);
  free(g_file);
  g_file = copy;
  g_file_set = path != NULL;
  pthread_mutex_unlock(&g_lock);
  return 0;
}

int nuv_log_start(int mode) {
  (void)mode;
  int rc = 0;
  pthread_once(&g_env_once, read_env);
  pthread_mutex_lock(&g_lock);
  const char *path = g_file_set ? g_file : getenv("NUV_LOG_FILE");
  int fd = -1;
  if (path && *path) {
    fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) rc = -1;
  }
  pthread_rwlock_wrlock(&g_fd_lock);
  if (g_fd >= 0) close(g_fd);
  g_fd = fd;
  __atomic_store_n(&g_journal, fd < 0 && g_env_journal, __ATOMIC_RELAXED);
  __atomic_store_n(&g_stamp_file, fd >= 0 && g_env_stamp, __ATOMIC_RELAXED);
  pthread_rwlock_unlock(&g_fd_lock);
  pthread_mutex_unlock(&g_lock);
  if (rc != 0) {
    int saved = errno;
    nuv_log_output(NUV_LOG_ERROR, "nuv_log_start: cannot open %s: %s", path, strerror(saved));
    errno = saved;
  }
  return rc;
}

void nuv_log_stop(void) {
  pthread_mutex_lock(&g_lock);
  pthread_rwlock_wrlock(&g_fd_lock);
  if (g_fd >= 0) close(g_fd);
  g_fd = -1;
  __atomic_store_n(&g_journal, g_env_journal, __ATOMIC_RELAXED);
  __atomic_store_n(&g_stamp_file, 0, __ATOMIC_RELAXED);
  pthread_rwlock_unlock(&g_fd_lock);
  pthread_mutex_unlock(&g_lock);
}

static void write_all(int fd, const char *buf, size_t len) {
  while (len > 0) {
    ssize_t n = write(fd, buf, len);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    buf += n;
    len -= (size_t)n;
  }
}

/* journal priorities: error 3, warning 4, info 6, debug 7 */
static const char *const kPriority[] = {"<3>", "<4>", "<6>", "<7>"};

/* "2026-11-24T05:40:12.123+0000 " into out (at least 40 bytes); returns its length. */
static size_t format_stamp(char *out, size_t size) {
  struct timespec now;
  struct tm tm;
  clock_gettime(CLOCK_REALTIME, &now);
  localtime_r(&now.tv_sec, &tm);
  size_t n = strftime(out, size, "%Y-%m-%dT%H:%M:%S", &tm);
  n += (size_t)snprintf(out + n, size - n, ".%03ld", now.tv_nsec / 1000000L);
  n += strftime(out + n, size - n, "%z ", &tm);
  return n;
}

void nuv_log_output(int level, const char *format, ...) {
  if (level > nuv_log_get_level()) return;
  int saved_errno = errno; /* callers log errno-based messages after this call too */
  char stack[2048];
  char *buf = stack;
  /* The decoration is fixed before formatting; a reopen in between at worst decorates one
   * line for the previous destination. */
  char prefix[64];
  size_t plen = 0;
  if (__atomic_load_n(&g_journal, __ATOMIC_RELAXED)) {
    int l = level < 0 ? 0 : level > 3 ? 3 : level;
    plen = strlen(kPriority[l]);
    memcpy(prefix, kPriority[l], plen);
  } else if (__atomic_load_n(&g_stamp_file, __ATOMIC_RELAXED)) {
    plen = format_stamp(prefix, sizeof prefix);
  }
  memcpy(stack, prefix, plen);
  va_list ap;
  va_start(ap, format);
  int n = vsnprintf(stack + plen, sizeof stack - 1 - plen, format, ap);
  va_end(ap);
  if (n < 0) {
    errno = saved_errno;
    return;
  }
  if ((size_t)n >= sizeof stack - 1 - plen) {
    buf = malloc(plen + (size_t)n + 2);
    if (!buf) {
      errno = saved_errno;
      return;
    }
    memcpy(buf, prefix, plen);
    va_start(ap, format);
    vsnprintf(buf + plen, (size_t)n + 1, format, ap);
    va_end(ap);
  }
  n += (int)plen;
  buf[n] = '\n';
  pthread_rwlock_rdlock(&g_fd_lock);
  write_all(g_fd >= 0 ? g_fd : STDERR_FILENO, buf, (size_t)n + 1);
  pthread_rwlock_unlock(&g_fd_lock);
  if (buf != stack) free(buf);
  errno = saved_errno;
}
