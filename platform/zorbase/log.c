#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
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

static int env_level(void) {
  const char *v = getenv("NUV_LOG_LEVEL");
  if (!v || !*v) return NUV_LOG_INFO;
  int l = atoi(v);
  return l < 0 ? 0 : l > 3 ? 3 : l;
}

int nuv_log_get_level(void) {
  int l = __atomic_load_n(&g_level, __ATOMIC_RELAXED);
  return l < 0 ? env_level() : l;
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

void nuv_log_output(int level, const char *format, ...) {
  if (level > nuv_log_get_level()) return;
  int saved_errno = errno; /* callers log errno-based messages after this call too */
  char stack[2048];
  char *buf = stack;
  va_list ap;
  va_start(ap, format);
  int n = vsnprintf(stack, sizeof stack - 1, format, ap);
  va_end(ap);
  if (n < 0) {
    errno = saved_errno;
    return;
  }
  if ((size_t)n >= sizeof stack - 1) {
    buf = malloc((size_t)n + 2);
    if (!buf) {
      errno = saved_errno;
      return;
    }
    va_start(ap, format);
    vsnprintf(buf, (size_t)n + 1, format, ap);
    va_end(ap);
  }
  buf[n] = '\n';
  pthread_rwlock_rdlock(&g_fd_lock);
  write_all(g_fd >= 0 ? g_fd : STDERR_FILENO, buf, (size_t)n + 1);
  pthread_rwlock_unlock(&g_fd_lock);
  if (buf != stack) free(buf);
  errno = saved_errno;
}
