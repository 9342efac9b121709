#include <errno.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "nuv_dir.h"
#include "nuv_path.h"

static int is_dir(const char *path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

/* Creates one level; losing a race to another creator is success. */
static int make_one(const char *path, int mode) {
  if (mkdir(path, (mode_t)mode) == 0) return 0;
  if (errno == EEXIST) {
    if (is_dir(path)) return 0;
    errno = ENOTDIR;
  }
  return -1;
}

int nuv_dirutils_mkdir(const char *path, int mode) {
  if (!path || !*path) {
    errno = EINVAL;
    return -1;
  }
  if (is_dir(path)) return 0;
  char *p = strdup(path);
  if (!p) return -1;
  int rc = 0;
  for (char *s = p + 1; *s && rc == 0; ++s) {
    if (*s != '/') continue;
    *s = '\0';
    if (s[-1] != '/') rc = make_one(p, mode);
    *s = '/';
  }
  if (rc == 0) rc = make_one(p, mode);
  int saved = errno;
  free(p);
  errno = saved;
  return rc;
}

static int remove_entry(const char *path, const struct stat *st, int type, struct FTW *ftw) {
  (void)st;
  (void)ftw;
  int rc = (type == FTW_DP) ? rmdir(path) : unlink(path);
  /* Keep going so that as much as possible is removed; the final check reports the rest. */
  (void)rc;
  return 0;
}

int nuv_dirutils_rmdir(const char *path) {
  if (!path || !*path) {
    errno = EINVAL;
    return -1;
  }
  struct stat st;
  if (lstat(path, &st) != 0) return -1;
  if (!S_ISDIR(st.st_mode)) {
    errno = ENOTDIR;
    return -1;
  }
  if (nftw(path, remove_entry, 32, FTW_DEPTH | FTW_PHYS) != 0) return -1;
  if (lstat(path, &st) == 0) {
    errno = ENOTEMPTY;
    return -1;
  }
  return 0;
}

int nuv_dirutils_path_transform(const char *path, char *out, size_t size) {
  return nuv_path_absolute(path, out, size);
}
