#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <strings.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal.h"
#include "nuv_path.h"

int nuv_path_get_cur_proc_a(char *buf, size_t size) {
  if (!buf || size == 0) {
    errno = EINVAL;
    return -1;
  }
  ssize_t n = readlink("/proc/self/exe", buf, size);
  if (n < 0) return -1;
  if ((size_t)n >= size) {
    buf[size - 1] = '\0';
    errno = ENAMETOOLONG;
    return -1;
  }
  buf[n] = '\0';
  return 0;
}

int nuv_path_format_a(char *path) {
  if (!path) {
    errno = EINVAL;
    return -1;
  }
  size_t len = strlen(path);
  if (len == 0) return 0;
  char *in = strdup(path);
  if (!in) return -1;
  int absolute = path[0] == '/';
  /* Output is never longer than input, so it is built in place. `keep` is the length of the
   * leading ".." run of a relative path, which can never be folded. */
  size_t w = absolute ? 1 : 0;
  size_t keep = 0;
  path[0] = '/';
  char *save = NULL;
  for (char *c = strtok_r(in, "/", &save); c; c = strtok_r(NULL, "/", &save)) {
    if (strcmp(c, ".") == 0) continue;
    size_t base = absolute ? 1 : 0;
    if (strcmp(c, "..") == 0) {
      if (w > base + keep) {
        /* Drop the last component and the "/" before it. */
        while (w > base && path[w - 1] != '/') --w;
        if (w > base) --w;
        continue;
      }
      if (absolute) continue;
      keep = w + (w > 0 ? 3 : 2);
    }
    if (w > base) path[w++] = '/';
    size_t clen = strlen(c);
    memcpy(path + w, c, clen);
    w += clen;
  }
  free(in);
  if (w == 0) path[w++] = '.';
  path[w] = '\0';
  return 0;
}

int nuv_path_remove_name_a(char *path) {
  if (!path) {
    errno = EINVAL;
    return -1;
  }
  char *slash = strrchr(path, '/');
  if (!slash) return -1;
  if (slash == path)
    path[1] = '\0';
  else
    *slash = '\0';
  return 0;
}

int nuv_path_is_exist_a(const char *path) {
  struct stat st;
  return path && stat(path, &st) == 0;
}

int nuv_path_is_absolute(const char *path) { return path && path[0] == '/'; }

int nuv__exe_dir(char *out, size_t size) {
  if (nuv_path_get_cur_proc_a(out, size) != 0) return -1;
  return nuv_path_remove_name_a(out);
}

int nuv__join_normalise(const char *base, const char *rel, char *out, size_t size) {
  if (!base || !rel || !out || size == 0) {
    errno = EINVAL;
    return -1;
  }
  size_t blen = strlen(base), rlen = strlen(rel);
  if (rel[0] == '/') blen = 0;
  if (blen + 1 + rlen + 1 > size) {
    errno = ENAMETOOLONG;
    return -1;
  }
  size_t w = 0;
  if (blen) {
    memcpy(out, base, blen);
    out[blen] = '/';
    w = blen + 1;
  }
  memcpy(out + w, rel, rlen + 1);
  return nuv_path_format_a(out);
}

int nuv_path_absolute(const char *path, char *out, size_t size) {
  char dir[4096];
  if (!path) {
    errno = EINVAL;
    return -1;
  }
  if (path[0] != '/' && nuv__exe_dir(dir, sizeof dir) != 0) return -1;
  return nuv__join_normalise(path[0] == '/' ? "" : dir, path, out, size);
}

const char *nuv_path_get_name_u(const char *path) {
  if (!path || !*path) return NULL;
  const char *slash = strrchr(path, '/');
  const char *name = slash ? slash + 1 : path;
  return *name ? name : NULL;
}

/* Appends to `dir` the entry of it whose name equals `name` ignoring ASCII case, the first in
 * name order. 0, or -1 (ENOENT) when there is none. */
static int append_nocase(char *dir, size_t size, const char *name, size_t len) {
  DIR *d = opendir(dir[0] ? dir : "/");
  if (!d) return -1;
  char best[NAME_MAX + 1] = "";
  struct dirent *e;
  while ((e = readdir(d)) != NULL) {
    if (strlen(e->d_name) == len && strncasecmp(e->d_name, name, len) == 0 &&
        (!best[0] || strcmp(e->d_name, best) < 0)) {
      memcpy(best, e->d_name, len + 1);
    }
  }
  closedir(d);
  if (!best[0]) {
    errno = ENOENT;
    return -1;
  }
  size_t used = strlen(dir);
  if (used + 1 + len + 1 > size) {
    errno = ENAMETOOLONG;
    return -1;
  }
  dir[used] = '/';
  memcpy(dir + used + 1, best, len + 1);
  return 0;
}

int nuv_path_resolve_nocase(const char *path, char *out, size_t size) {
  if (!path || !out || !path[0]) {
    errno = EINVAL;
    return -1;
  }
  char walked[PATH_MAX] = "";
  if (access(path, F_OK) == 0) {
    if (strlen(path) >= sizeof walked) {
      errno = ENAMETOOLONG;
      return -1;
    }
    strcpy(walked, path);
  } else {
    /* Component by component from the root; "." and ".." are left to realpath below. */
    if (path[0] != '/') {
      errno = ENOENT;
      return -1;
    }
    for (const char *c = path; *c;) {
      while (*c == '/') c++;
      size_t len = strcspn(c, "/");
      if (len == 0) break;
      size_t used = strlen(walked);
      int exact = used + 1 + len + 1 <= sizeof walked;
      if (exact) {
        snprintf(walked + used, sizeof walked - used, "/%.*s", (int)len, c);
        exact = (len == 1 && c[0] == '.') || (len == 2 && c[0] == '.' && c[1] == '.') ||
                access(walked, F_OK) == 0;
        if (!exact) walked[used] = '\0';
      }
      if (!exact && append_nocase(walked, sizeof walked, c, len) != 0) return -1;
      c += len;
    }
  }
  char real[PATH_MAX];
  if (!realpath(walked, real)) return -1;
  if (strlen(real) >= size) {
    errno = ENAMETOOLONG;
    return -1;
  }
  strcpy(out, real);
  return 0;
}
