/* Path texts. The "_a" calls take and give narrow (UTF-8) text; "_u" ones return a pointer
 * into their argument. No call here touches the file system except where it says so.
 *
 * Results: 0, or -1 (with errno where the call says so); the "is_" calls answer 1 or 0. */
#ifndef NUV_PATH_H
#define NUV_PATH_H

#include <stddef.h>

#include "nuv_api.h"

NUV_BEGIN_DECLS

/* Full path of the running executable (/proc/self/exe) into `buf` of `size` bytes.
 * Returns 0, or -1 with errno (ENAMETOOLONG when it does not fit). */
NUV_API int nuv_path_get_cur_proc_a(char *buf, size_t size);

/* Normalises `path` in place: repeated "/" folded, "." components dropped, ".." folded with
 * the component before it (lexically; at the root it is dropped), a trailing "/" removed
 * (except for "/" itself). A relative path stays relative; leading ".." that cannot be
 * folded stay. An empty path stays empty. Returns 0, -1 on NULL. */
NUV_API int nuv_path_format_a(char *path);

/* Cuts the last component and the "/" before it, in place: "/a/b/c" gives "/a/b", "/c" gives
 * "/". Returns 0, or -1 when `path` has no "/" (it is left as it was). */
NUV_API int nuv_path_remove_name_a(char *path);

/* 1 when something exists at `path` (stat(2) follows links), else 0. */
NUV_API int nuv_path_is_exist_a(const char *path);

/* The canonical path of the existing file that `path` names, as the kernel reports a running
 * program's executable, into `out` of `size` bytes: symbolic links followed, "." and ".."
 * resolved. When `path` does not exist as written, each component is matched ignoring ASCII
 * case (one that exists exactly as written is preferred, then the first match in name order),
 * so a path that was lower-cased still finds "/opt/App/Bin". Returns 0, or -1 with errno
 * (ENOENT when nothing matches, ENAMETOOLONG when the result does not fit). */
NUV_API int nuv_path_resolve_nocase(const char *path, char *out, size_t size);

/* 1 when `path` begins with "/", else 0 (also for NULL). */
NUV_API int nuv_path_is_absolute(const char *path);

/* Makes `path` absolute against the directory of the running executable (an absolute path is
 * only normalised) into `out` of `size` bytes. Returns 0, or -1 with errno. */
NUV_API int nuv_path_absolute(const char *path, char *out, size_t size);

/* A pointer to the last component inside `path`, or NULL when there is none (NULL or empty
 * path, or a path ending in "/"). */
NUV_API const char *nuv_path_get_name_u(const char *path);

NUV_END_DECLS

#endif
