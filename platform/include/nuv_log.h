/* Log output: whole lines to a file or stderr, filtered by level.
 *
 * Results: 0, or -1 with errno. A line that cannot be written is dropped: logging never fails
 * its caller. */
#ifndef NUV_LOG_H
#define NUV_LOG_H

#include "nuv_api.h"

NUV_BEGIN_DECLS

enum {
  NUV_LOG_ERROR = 0,
  NUV_LOG_WARN = 1,
  NUV_LOG_INFO = 2,
  NUV_LOG_DEBUG = 3
};

/* Opens the destination: the file named by nuv_log_set_file() or, failing that, by the
 * NUV_LOG_FILE environment variable (appended to, created 0644), else stderr. The threshold
 * comes from nuv_log_set_level() or NUV_LOG_LEVEL (0..3, default 2). `mode` is reserved, pass 0.
 * Returns 0; -1 (errno set) when the file cannot be opened, and the log then writes to stderr.
 * Calling it again while started reopens the destination (a log file moved away by logrotate
 * is created anew). Thread-safe.
 * Decorations, chosen here from the environment read once per process: while the destination
 * is stderr and stderr is the stream named by JOURNAL_STREAM, every line starts with its
 * journal priority ("<3>" error, "<4>" warn, "<6>" info, "<7>" debug); while it is a file and
 * NUV_LOG_TIME is set to anything but 0, every line starts with its local ISO-8601 time and a
 * blank ("2026-11-24T05:40:12.123+0000 "). The line's own text follows unchanged. */
NUV_API int nuv_log_start(int mode);

/* Formats `format` with printf rules and writes it, plus a line feed, with a single write(2),
 * so lines from any number of threads or processes never interleave. Lines whose `level` is
 * above the threshold are dropped. Calls before start or after stop go to stderr. No length
 * limit. Returns nothing; a failed write is dropped. Thread-safe and async-cancel-free. */
NUV_API void nuv_log_output(int level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

/* Closes the destination; later lines go to stderr. Thread-safe; idempotent. */
NUV_API void nuv_log_stop(void);

/* Knobs for hosts and tests. nuv_log_set_level: threshold 0..3 (others are clamped). 
 * nuv_log_set_file: the path the next nuv_log_start opens (copied; NULL restores the
 * environment's choice). Both return 0. Thread-safe. */
NUV_API int nuv_log_set_level(int level);
NUV_API int nuv_log_set_file(const char *path);

/* The current threshold. Thread-safe. */
NUV_API int nuv_log_get_level(void);

NUV_END_DECLS

#endif
