/* Directories: creation and removal of trees, and walks over them.
 *
 * Results: 0, or -1 with errno; a walk handle or NULL with errno. */
#ifndef NUV_DIR_H
#define NUV_DIR_H

#include <stddef.h>

#include "nuv_api.h"

NUV_BEGIN_DECLS

typedef struct nuv_dirwalk nuv_dirwalk_t;

/* Creates `path` and every missing parent with `mode` (before the umask). Returns 0 when the
 * directory exists afterwards (also when it existed before); -1 with errno otherwise, e.g.
 * ENOTDIR when a component is a file. Safe against another thread or process creating the
 * same directories at the same time. */
NUV_API int nuv_dirutils_mkdir(const char *path, int mode);

/* Removes `path` and everything below it without following symbolic links (a link is removed,
 * not its target). Returns 0 when nothing is left, -1 with errno otherwise (what could be
 * removed is removed). A missing path is an error (ENOENT). */
NUV_API int nuv_dirutils_rmdir(const char *path);

/* Resolves `path` against the directory of the running executable when it is relative, and
 * normalises the result as nuv_path_format_a. Writes at most `size` bytes, terminator
 * included, to `out`. Returns 0, or -1 (ENAMETOOLONG when it does not fit, EINVAL on NULL). */
NUV_API int nuv_dirutils_path_transform(const char *path, char *out, size_t size);

/* Starts a walk of `dir`. recursive = 1 descends into subdirectories (depth first, each
 * directory reported before its contents); follow_links = 1 descends into linked directories
 * too. Entries of one directory come in byte order of their names; "." and ".." are skipped.
 * Returns the walk or NULL with errno (e.g. ENOENT, ENOTDIR). */
NUV_API nuv_dirwalk_t *nuv_dirwalk_create(const char *dir, int recursive, int follow_links);

/* The next entry as a full path (`dir` + "/" + the names below it), with *is_dir set to 1 for
 * a directory and 0 for anything else (is_dir may be NULL). Returns NULL at the end. The text
 * stays valid until the next read or destroy. Unreadable subdirectories are reported and
 * skipped. One walk must not be read from two threads at once. */
NUV_API const char *nuv_dirwalk_read(nuv_dirwalk_t *walk, int *is_dir);

/* Ends a walk and releases it (NULL is ignored). */
NUV_API void nuv_dirwalk_destroy(nuv_dirwalk_t *walk);

NUV_END_DECLS

#endif
