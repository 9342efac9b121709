#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "nuv_dir.h"

/* Bounds the descent, so that a cycle of followed links cannot walk for ever. */
#define MAX_DEPTH 256

/* One open directory of the walk: its sorted entry names and the next one to report. */
struct level {
  char **names;
  size_t count;
  size_t next;
  size_t path_len; /* length of the walk's path buffer that names this directory */
};

struct nuv_dirwalk {
  int recursive;
  int follow_links;
  struct level *levels;
  size_t depth;
  size_t cap;
  char *path; /* the directory being read, then "/" and the entry last reported */
  size_t path_cap;
};

static int by_name(const void *a, const void *b) {
  return strcmp(*(char *const *)a, *(char *const *)b);
}

static void free_level(struct level *l) {
  for (size_t i = 0; i < l->count; ++i) free(l->names[i]);
  free(l->names);
}

/* Reads and sorts the names of the directory at walk->path[0..path_len). */
static int push_level(struct nuv_dirwalk *w, size_t path_len) {
  int fd = open(w->path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return -1;
  DIR *d = fdopendir(fd);
  if (!d) {
    int saved = errno;
    close(fd);
    errno = saved;
    return -1;
  }
  struct level l = {NULL, 0, 0, path_len};
  size_t cap = 0;
  int rc = 0;
  struct dirent *e;
  errno = 0;
  while ((e = readdir(d)) != NULL) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    if (l.count == cap) {
      size_t ncap = cap ? cap * 2 : 16;
      char **n = realloc(l.names, ncap * sizeof *n);
      if (!n) {
        rc = -1;
        break;
      }
      l.names = n;
      cap = ncap;
    }
    if (!(l.names[l.count] = strdup(e->d_name))) {
      rc = -1;
      break;
    }
    ++l.count;
  }
  int saved = errno;
  closedir(d);
  if (rc != 0 || saved != 0) {
    free_level(&l);
    errno = saved ? saved : ENOMEM;
    return -1;
  }
  if (l.count > 1) qsort(l.names, l.count, sizeof *l.names, by_name);
  if (w->depth == w->cap) {
    size_t ncap = w->cap ? w->cap * 2 : 8;
    struct level *n = realloc(w->levels, ncap * sizeof *n);
    if (!n) {
      free_level(&l);
      return -1;
    }
    w->levels = n;
    w->cap = ncap;
  }
  w->levels[w->depth++] = l;
  return 0;
}

static int reserve_path(struct nuv_dirwalk *w, size_t need) {
  if (need <= w->path_cap) return 0;
  size_t ncap = w->path_cap * 2 > need ? w->path_cap * 2 : need;
  char *n = realloc(w->path, ncap);
  if (!n) return -1;
  w->path = n;
  w->path_cap = ncap;
  return 0;
}

nuv_dirwalk_t *nuv_dirwalk_create(const char *dir, int recursive, int follow_links) {
  if (!dir || !*dir) {
    errno = EINVAL;
    return NULL;
  }
  struct nuv_dirwalk *w = calloc(1, sizeof *w);
  if (!w) return NULL;
  w->recursive = recursive;
  w->follow_links = follow_links;
  size_t len = strlen(dir);
  while (len > 1 && dir[len - 1] == '/') --len; /* "a/" reports "a/x", not "a//x" */
  if (reserve_path(w, len + 256) != 0) {
    free(w);
    return NULL;
  }
  memcpy(w->path, dir, len);
  w->path[len] = '\0';
  if (push_level(w, len) != 0) {
    int saved = errno;
    nuv_dirwalk_destroy(w);
    errno = saved;
    return NULL;
  }
  return w;
}

const char *nuv_dirwalk_read(nuv_dirwalk_t *w, int *is_dir) {
  if (!w) return NULL;
  while (w->depth > 0) {
    struct level *l = &w->levels[w->depth - 1];
    if (l->next == l->count) {
      free_level(l);
      --w->depth;
      continue;
    }
    const char *name = l->names[l->next++];
    size_t nlen = strlen(name);
    /* Root "/" already ends in a slash. */
    int sep = !(l->path_len == 1 && w->path[0] == '/');
    if (reserve_path(w, l->path_len + sep + nlen + 1) != 0) return NULL;
    size_t len = l->path_len;
    if (sep) w->path[len++] = '/';
    memcpy(w->path + len, name, nlen + 1);
    len += nlen;

    struct stat st;
    int dir = 0, descend = 0;
    if (lstat(w->path, &st) == 0) {
      if (S_ISDIR(st.st_mode)) {
        dir = descend = 1;
      } else if (S_ISLNK(st.st_mode) && stat(w->path, &st) == 0 && S_ISDIR(st.st_mode)) {
        dir = 1;
        descend = w->follow_links;
      }
    }
    if (is_dir) *is_dir = dir;
    /* Descend now; the new level's entries follow this one. An unreadable directory is still
     * reported, just not entered. */
    if (descend && w->recursive && w->depth < MAX_DEPTH) (void)push_level(w, len);
    return w->path;
  }
  return NULL;
}

void nuv_dirwalk_destroy(nuv_dirwalk_t *w) {
  if (!w) return;
  while (w->depth > 0) free_level(&w->levels[--w->depth]);
  free(w->levels);
  free(w->path);
  free(w);
}
