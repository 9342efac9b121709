#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "nuv_file.h"

struct nuv_file {
  FILE *fp;
};

nuv_file_t *nuv_file_open(const char *path, const char *mode) {
  if (!path || !mode) {
    errno = EINVAL;
    return NULL;
  }
  /* "e" makes glibc open the descriptor with O_CLOEXEC, so spawned children never inherit it. */
  char m[16];
  size_t len = strlen(mode);
  if (len + 2 > sizeof m) {
    errno = EINVAL;
    return NULL;
  }
  memcpy(m, mode, len);
  m[len] = 'e';
  m[len + 1] = '\0';
  struct nuv_file *f = malloc(sizeof *f);
  if (!f) return NULL;
  do {
    f->fp = fopen(path, m);
  } while (!f->fp && errno == EINTR);
  if (!f->fp) {
    int saved = errno;
    free(f);
    errno = saved;
    return NULL;
  }
  return f;
}

int nuv_file_close(nuv_file_t *file) {
  if (!file) return 0;
  int rc = fclose(file->fp);
  free(file);
  return rc == 0 ? 0 : -1;
}

size_t nuv_file_read(nuv_file_t *file, void *buf, size_t size) {
  if (!file || (!buf && size)) {
    errno = EINVAL;
    return 0;
  }
  size_t done = 0;
  while (done < size) {
    size_t n = fread((char *)buf + done, 1, size - done, file->fp);
    done += n;
    if (n == 0) {
      /* A signal can interrupt the underlying read; resume rather than report a short read. */
      if (ferror(file->fp) && errno == EINTR) {
        clearerr(file->fp);
        continue;
      }
      break;
    }
  }
  return done;
}

size_t nuv_file_write(nuv_file_t *file, const void *buf, size_t size) {
  if (!file || (!buf && size)) {
    errno = EINVAL;
    return 0;
  }
  size_t done = 0;
  while (done < size) {
    size_t n = fwrite((const char *)buf + done, 1, size - done, file->fp);
    done += n;
    if (n == 0) {
      if (ferror(file->fp) && errno == EINTR) {
        clearerr(file->fp);
        continue;
      }
      break;
    }
  }
  return done;
}

int nuv_file_fseek(nuv_file_t *file, int64_t offset, int whence) {
  if (!file) {
    errno = EINVAL;
    return -1;
  }
  return fseeko(file->fp, (off_t)offset, whence) == 0 ? 0 : -1;
}

int64_t nuv_file_ftell(nuv_file_t *file) {
  if (!file) {
    errno = EINVAL;
    return -1;
  }
  return (int64_t)ftello(file->fp);
}

int nuv_file_fflush(nuv_file_t *file) {
  if (!file) {
    errno = EINVAL;
    return -1;
  }
  return fflush(file->fp) == 0 ? 0 : -1;
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
  if (fflush(file->fp) != 0) return -1;
  int fd = fileno(file->fp);
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
