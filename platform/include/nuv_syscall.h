/* The system calls through which the platform touches files, processes and sockets, kept in
 * one replaceable table so that tests can make any of them fail (a full disk, a refused spawn,
 * a failing accept) without privileges or special file systems.
 *
 * Production code never overrides an entry. A test swaps one entry, runs, and restores it;
 * the swap is atomic, so threads already inside the platform see the old or the new call,
 * never a torn pointer.
 *
 * Results: the entries keep their system calls' own conventions. */
#ifndef NUV_SYSCALL_H
#define NUV_SYSCALL_H

#include <spawn.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "nuv_api.h"

NUV_BEGIN_DECLS

typedef enum {
  NUV_SYS_OPEN,        /* int open(const char *path, int flags, mode_t mode) */
  NUV_SYS_WRITE,       /* ssize_t write(int fd, const void *buf, size_t size) */
  NUV_SYS_POSIX_SPAWN, /* int posix_spawn(pid_t *, const char *, actions, attr, argv, envp) */
  NUV_SYS_ACCEPT4,     /* int accept4(int fd, struct sockaddr *, socklen_t *, int flags) */
  NUV_SYS_COUNT
} nuv_sys_id;

typedef void (*nuv_sys_fn)(void);

/* Installs `fn` (cast to nuv_sys_fn from the call's own type) for `id`; NULL restores the real
 * call. Returns the entry that was in force, or NULL for an unknown id. */
NUV_API nuv_sys_fn nuv_sys_override(nuv_sys_id id, nuv_sys_fn fn);

/* The entry in force for `id` (never NULL for a known id), or NULL for an unknown id. */
NUV_API nuv_sys_fn nuv_sys_get(nuv_sys_id id);

/* The real system call behind `id`, so an override can fail some calls and pass the rest on. */
NUV_API nuv_sys_fn nuv_sys_real(nuv_sys_id id);

/* Typed calls through the table, for the platform's own sources. */
typedef int (*nuv_sys_open_fn)(const char *, int, mode_t);
typedef ssize_t (*nuv_sys_write_fn)(int, const void *, size_t);
typedef int (*nuv_sys_posix_spawn_fn)(pid_t *, const char *, const posix_spawn_file_actions_t *,
                                      const posix_spawnattr_t *, char *const[], char *const[]);
typedef int (*nuv_sys_accept4_fn)(int, struct sockaddr *, socklen_t *, int);

#define NUV_SYS_CALL(id, type) ((type)nuv_sys_get(id))

NUV_END_DECLS

#endif
