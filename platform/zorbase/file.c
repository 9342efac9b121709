#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "nuv_file.h"
#include "nuv_syscall.h"

struct nuv_file {
  int fd;
};

/* fopen(3) mode letters to open(2) flags; -1 for a mode we do not know. */
static int mode_flags(const char *mode) {
  int flags;
  switch (mode[0]) {
    case 'r': flags = O_RDONLY; break;
    case 'w': flags = O_WRONLY | O_CREAT | O_TRUNC; break;
    case 'a': flags = O_WRONLY | O_CREAT | O_APPEND; break;
    default: return -1;
  }
  for (const char *c = mode + 1; *c; ++c) {
    if (*c == '+') {
      flags = (flags & ~(O_RDONLY | O_WRONLY)) | O_RDWR;
    } else if (*c != 'b' && *c != 'e') {
      return -1;
    }
  }
  return flags | O_CLOEXEC;
}

nuv_file_t *nuv_file_open(const char *path, const char *mode) {
  int flags = (path && mode) ? mode_flags(mode) : -1;
  if (flags < 0) {
    errno = EINVAL;
    return NULL;
  }
  struct nuv_file *f = malloc(sizeof *f);
  if (!f) return NULL;
  nuv_sys_open_fn sys_open = NUV_SYS_CALL(NUV_SYS_OPEN, nuv_sys_open_fn);
  do {
    f->fd = sys_open(path, flags, 0640);
  } while (f->fd < 0 && errno == EINTR);
  if (f->fd < 0) {
    int saved = errno;
    free(f);
    errno = saved;
    return NULL;
  }
  return f;
}

int nuv_file_close(nuv_file_t *file) {
  if (!file) return 0;
  /* Linux releases the descriptor even when close reports EINTR: never close twice. */
  int rc = close(file->fd);
  free(file);
  return rc == 0 || errno == EINTR ? 0 : -1;
}

size_t nuv_file_read(nuv_file_t *file, void *buf, size_t size) {
  if (!file || (!buf && size)) {
    errno = EINVAL;
    return 0;
  }
  size_t done = 0;
  while (done < size) {
    ssize_t n = read(file->fd, (char *)buf + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += (size_t)n;
  }
  return done;
}

size_t nuv_file_write(nuv_file_t *file, const void *buf, size_t size) {
  if (!file || (!buf && size)) {
    errno = EINVAL;
    return 0;
  }
  nuv_sys_write_fn sys_write = NUV_SYS_CALL(NUV_SYS_WRITE, nuv_sys_write_fn);
  size_t done = 0;
  while (done < size) {
    ssize_t n = sys_write(file->fd, (const char *)buf + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    if (n == 0) {
      /* write(2) of a non-empty buffer returning 0 makes no progress; treat it as no space. */
      errno = ENOSPC;
      break;
    }
    done += (size_t)n;
  }
  return done;
}

int nuv_file_fseek(nuv_file_t *file, int64_t offset, int whence) {
  if (!file) {
    errno = EINVAL;
    return -1;
  }
  return lseek(file->fd, (off_t)offset, whence) < 0 ? -1 : 0;
}

int64_t nuv_file_ftell(nuv_file_t *file) {
  if (!file) {
    errno = EINVAL;
    return -1;
  }
  return (int64_t)lseek(file->fd, 0, SEEK_CUR);
}

int nuv_file_fflush(nuv_file_t *file) {
  if (!file) {
    errno = EINVAL;
    return -1;
  }
  return 0;
}

uint64_t nuv_file_handle_size(nuv_file_t *file) {
  struct stat st;
  if (!file || fstat(file->fd, &st) != 0) return NUV_FILE_SIZE_UNKNOWN;
  return (uint64_t)st.st_size;
}

uint64_t nuv_file_size(const char *path) {
  struct stat st;
  if (!path || stat(path, &st) != 0) return NUV_FILE_SIZE_UNKNOWN;
  return (uint64_t)st.st_size;
}

/* Line feeds in the file behind `fd`, read with pread so no position moves; -1 on error. */
static int64_t count_line_feeds(int fd) {
  char buf[65536];
  int64_t lines = 0;
  off_t pos = 0;
  for (;;) {
    ssize_t n = pread(fd, buf, sizeof buf, pos);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) return lines;
    for (const char *c = buf; (c = memchr(c, '\n', (size_t)(buf + n - c))) != NULL; ++c) ++lines;
    pos += n;
  }
}

int64_t nuv_file_getlines(nuv_file_t *file) {
  if (!file) {
    errno = EINVAL;
    return -1;
  }
  int fd = file->fd;
  int64_t lines = count_line_feeds(fd);
  if (lines >= 0 || errno != EBADF) return lines;
  /* A write-only handle cannot be read through: count through a second descriptor. */
  char link[64];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  int rfd = open(link, O_RDONLY | O_CLOEXEC);
  if (rfd < 0) return -1;
  lines = count_line_feeds(rfd);
  int saved = errno;
  close(rfd);
  errno = saved;
  return lines;
}

int nuv_file_truncate(const char *path, uint64_t size) {
  if (!path || size > (uint64_t)INT64_MAX) {
    errno = EINVAL;
    return -1;
  }
  int rc;
  do {
    rc = truncate(path, (off_t)size);
  } while (rc != 0 && errno == EINTR);
  return rc == 0 ? 0 : -1;
}

int nuv_file_remove(const char *path) {
  if (!path) {
    errno = EINVAL;
    return -1;
  }
  return unlink(path) == 0 ? 0 : -1;
}

int is_file_exist(const char *path) {
  struct stat st;
  return path && stat(path, &st) == 0;
}
