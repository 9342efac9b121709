/* Files: C stream semantics on an opaque handle, plus whole-file helpers by path.
 *
 * Handles write through: nothing is buffered in the process, so every byte a write reports
 * has reached the kernel and survives a crash of the process (not a power loss). A short
 * write reports exactly what reached the file and is never retried into a false success.
 * Results: counts and sizes as documented per call; everything else 0, or -1 with errno. */
#ifndef NUV_FILE_H
#define NUV_FILE_H

#include <stddef.h>
#include <stdint.h>

#include "nuv_api.h"

NUV_BEGIN_DECLS

typedef struct nuv_file nuv_file_t;

/* nuv_file_size's answer when the size cannot be known. */
#define NUV_FILE_SIZE_UNKNOWN UINT64_MAX

/* Opens `path` with an fopen(3) mode ("rb", "ab+", "rb+", "w", ...); the descriptor is
 * close-on-exec and a file it creates gets mode 0640 (before the umask). Returns the handle,
 * or NULL with errno set (EINVAL for a mode it does not know). Large files are supported on
 * 32-bit builds. */
NUV_API nuv_file_t *nuv_file_open(const char *path, const char *mode);

/* Closes `file` (NULL is ignored). Returns 0, or -1 with errno when close(2) failed; the
 * handle is released either way. */
NUV_API int nuv_file_close(nuv_file_t *file);

/* Reads up to `size` bytes into `buf`. Returns the count read: less than `size` only at the
 * end of the file or on an error (errno set). One handle must not be used by two threads at
 * once; distinct handles are independent. */
NUV_API size_t nuv_file_read(nuv_file_t *file, void *buf, size_t size);

/* Writes `size` bytes from `buf` straight to the kernel (appended when opened with "a").
 * Returns the count that reached the file; less than `size` on an error (errno set: ENOSPC,
 * EDQUOT, EIO, ...), and then exactly that many bytes were added. */
NUV_API size_t nuv_file_write(nuv_file_t *file, const void *buf, size_t size);

/* Moves the position as fseeko(3) with SEEK_SET, SEEK_CUR or SEEK_END. Returns 0 or -1. */
NUV_API int nuv_file_fseek(nuv_file_t *file, int64_t offset, int whence);

/* The current position as ftello(3), or -1. For an append handle this is the end of the
 * file once anything was written or the handle was positioned; data written lands there. */
NUV_API int64_t nuv_file_ftell(nuv_file_t *file);

/* Pushes buffered writes to the kernel. Handles buffer nothing, so this only checks the
 * handle: 0, or -1 with EINVAL for NULL. */
NUV_API int nuv_file_fflush(nuv_file_t *file);

/* The size of the file at `path`, or NUV_FILE_SIZE_UNKNOWN with stat(2)'s errno when it cannot
 * be stat(2)ed (ENOENT: there is no such file). */
NUV_API uint64_t nuv_file_size(const char *path);

/* The size of the file behind `file` (fstat(2)), or NUV_FILE_SIZE_UNKNOWN. */
NUV_API uint64_t nuv_file_handle_size(nuv_file_t *file);
/* Counts the line feeds in the whole file behind `file`. Reads with pread(2); the handle's
 * position is untouched. Returns the count, or -1 (errno set). */
NUV_API int64_t nuv_file_getlines(nuv_file_t *file);

/* Cuts (or extends with zeros) the file at `path` to `size` bytes. Handles open on it stay
 * valid: appends land at the new end, reads see the new size. Returns 0, or -1 with errno. */
NUV_API int nuv_file_truncate(const char *path, uint64_t size);

/* Removes the file at `path`. Returns 0, or -1 with errno. */
NUV_API int nuv_file_remove(const char *path);

/* 1 when something (a file or a directory) exists at `path`, else 0. */
NUV_API int is_file_exist(const char *path);

NUV_END_DECLS

#endif
