#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "internal.h"

ssize_t pp_read_file(const char *path, char *buf, size_t size) {
  if (size == 0) {
    errno = EINVAL;
    return -1;
  }
  int fd;
  do {
    fd = open(path, O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return -1;
  size_t used = 0;
  while (used < size - 1) {
    ssize_t n = read(fd, buf + used, size - 1 - used);
    if (n < 0) {
      if (errno == EINTR) continue;
      int saved = errno;
      close(fd);
      errno = saved;
      return -1;
    }
    if (n == 0) break;
    used += (size_t)n;
  }
  close(fd);
  buf[used] = '\0';
  return (ssize_t)used;
}

int pp_read_stat(pid_t pid, struct pp_stat *st) {
  char path[64], buf[1024];
  snprintf(path, sizeof path, "/proc/%d/stat", (int)pid);
  if (pp_read_file(path, buf, sizeof buf) <= 0) return -1;
  /* The command name is in parentheses and may itself hold ')' or blanks. */
  char *open_paren = strchr(buf, '(');
  char *close_paren = strrchr(buf, ')');
  if (!open_paren || !close_paren || close_paren < open_paren) return -1;
  size_t len = (size_t)(close_paren - open_paren - 1);
  if (len >= sizeof st->comm) len = sizeof st->comm - 1;
  memcpy(st->comm, open_paren + 1, len);
  st->comm[len] = '\0';
  /* After ") ": field 3 is the state, field 22 the start time. */
  char *p = close_paren + 1;
  while (*p == ' ') p++;
  if (!*p) return -1;
  st->state = *p;
  for (int field = 3; field < 22; field++) {
    p = strchr(p, ' ');
    if (!p) return -1;
    p++;
  }
  char *end;
  errno = 0;
  st->start = strtoull(p, &end, 10);
  if (end == p || errno) return -1;
  return 0;
}

int pp_read_exe(pid_t pid, char *path, size_t size) {
  char link[64];
  snprintf(link, sizeof link, "/proc/%d/exe", (int)pid);
  if (size == 0) return -1;
  ssize_t n = readlink(link, path, size - 1);
  if (n <= 0) {
    path[0] = '\0';
    return -1;
  }
  path[n] = '\0';
  static const char deleted[] = " (deleted)";
  size_t dlen = sizeof deleted - 1;
  if ((size_t)n > dlen && strcmp(path + n - dlen, deleted) == 0) path[n - dlen] = '\0';
  return 0;
}

void pp_image_name(const char *path, const char *comm, char *name, size_t size) {
  if (size == 0) return;
  const char *src = comm ? comm : "";
  if (path && path[0]) {
    const char *slash = strrchr(path, '/');
    src = slash ? slash + 1 : path;
  }
  snprintf(name, size, "%s", src);
}

int pp_read_ident(pid_t pid, struct pp_stat *st, char *name, size_t name_size, char *path,
                  size_t path_size) {
  if (pp_read_stat(pid, st) != 0) return -1;
  if (st->state == 'Z' || st->state == 'X') return -1;
  pp_read_exe(pid, path, path_size);
  pp_image_name(path, st->comm, name, name_size);
  return 0;
}

long pp_count_fds(pid_t pid) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/fd", (int)pid);
  DIR *d = opendir(path); /* opened O_CLOEXEC by glibc */
  if (!d) return -1;
  long count = 0;
  struct dirent *e;
  while ((e = readdir(d)) != NULL) {
    if (e->d_name[0] != '.') count++;
  }
  closedir(d);
  return count;
}

uint32_t pp_file_handles(void) {
  char buf[128];
  if (pp_read_file("/proc/sys/fs/file-nr", buf, sizeof buf) <= 0) return 0;
  unsigned long long n = strtoull(buf, NULL, 10);
  return n > UINT32_MAX ? UINT32_MAX : (uint32_t)n;
}

static int cmp_pid(const void *a, const void *b) {
  pid_t x = *(const pid_t *)a, y = *(const pid_t *)b;
  return (x > y) - (x < y);
}

int pp_list_pids(pid_t **pids, size_t *count) {
  *pids = NULL;
  *count = 0;
  DIR *d = opendir("/proc");
  if (!d) return errno ? errno : EIO;
  size_t cap = 512, n = 0;
  pid_t *v = malloc(cap * sizeof *v);
  if (!v) {
    closedir(d);
    return ENOMEM;
  }
  struct dirent *e;
  while ((e = readdir(d)) != NULL) {
    const char *s = e->d_name;
    if (*s < '1' || *s > '9') continue;
    char *end;
    unsigned long pid = strtoul(s, &end, 10);
    if (*end || pid == 0 || pid > 0x7fffffffUL) continue;
    if (n == cap) {
      pid_t *bigger = realloc(v, cap * 2 * sizeof *v);
      if (!bigger) {
        free(v);
        closedir(d);
        return ENOMEM;
      }
      v = bigger;
      cap *= 2;
    }
    v[n++] = (pid_t)pid;
  }
  closedir(d);
  qsort(v, n, sizeof *v, cmp_pid);
  *pids = v;
  *count = n;
  return 0;
}

uint64_t pp_clock_ms(clockid_t clock) {
  struct timespec ts;
  clock_gettime(clock, &ts);
  return (uint64_t)ts.tv_sec * 1000u + (uint64_t)ts.tv_nsec / 1000000u;
}
