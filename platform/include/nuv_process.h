/* Child processes run through the shell, with a bounded wait.
 *
 * Results: 1 when the call did what it says, 0 with errno when it did not (the platform's
 * historical truth values; keep them for any call added here). */
#ifndef NUV_PROCESS_H
#define NUV_PROCESS_H

#include "nuv_api.h"

NUV_BEGIN_DECLS

typedef struct nuv_process nuv_process_t;

/* Runs `/bin/sh -c command` in a new process group, with standard input, output and error on
 * /dev/null, default signal dispositions and an empty signal mask. Returns 1 and the handle in
 * *process when the child was started; 0 (errno set, *process NULL) otherwise. */
NUV_API int nuv_process_create(const char *command, nuv_process_t **process);

/* Waits up to `timeout_ms` milliseconds (a negative value waits for ever) for the child to
 * end. Returns 1 when it ended in time. Otherwise returns 0 with errno = ETIMEDOUT, after
 * killing the child's whole process group with SIGKILL and reaping the child, so neither a
 * zombie nor a runaway child is left. `flags` is reserved, pass 0. The handle is released in
 * every case. A cancellation point (nuv_thread.h): a cancelled wait kills and reaps first. */
NUV_API int nuv_process_wait(nuv_process_t *process, long long timeout_ms, int flags);

/* As nuv_process_wait. When the child ended in time and `status` is not NULL, *status is its
 * exit code (0-255), 128 + the number of the signal that ended it, or -1 when its status is
 * lost (a host that ignores SIGCHLD has the kernel reap the child). */
NUV_API int nuv_process_wait_status(nuv_process_t *process, long long timeout_ms, int *status);

NUV_END_DECLS

#endif
