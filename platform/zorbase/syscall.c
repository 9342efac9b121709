#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <unistd.h>

#include "nuv_syscall.h"

/* open(2) is variadic; the table holds a fixed-argument call. */
static int real_open(const char *path, int flags, mode_t mode) { return open(path, flags, mode); }

static const nuv_sys_fn real_calls[NUV_SYS_COUNT] = {
    [NUV_SYS_OPEN] = (nuv_sys_fn)real_open,
    [NUV_SYS_WRITE] = (nuv_sys_fn)write,
    [NUV_SYS_POSIX_SPAWN] = (nuv_sys_fn)posix_spawn,
    [NUV_SYS_ACCEPT4] = (nuv_sys_fn)accept4,
};

/* NULL means "the real call", so the table needs no initialisation at load. */
static nuv_sys_fn overrides[NUV_SYS_COUNT];

static int known(nuv_sys_id id) { return (int)id >= 0 && id < NUV_SYS_COUNT; }

nuv_sys_fn nuv_sys_override(nuv_sys_id id, nuv_sys_fn fn) {
  if (!known(id)) return NULL;
  nuv_sys_fn old = __atomic_exchange_n(&overrides[id], fn, __ATOMIC_ACQ_REL);
  return old ? old : real_calls[id];
}

nuv_sys_fn nuv_sys_get(nuv_sys_id id) {
  if (!known(id)) return NULL;
  nuv_sys_fn fn = __atomic_load_n(&overrides[id], __ATOMIC_ACQUIRE);
  return fn ? fn : real_calls[id];
}

nuv_sys_fn nuv_sys_real(nuv_sys_id id) { return known(id) ? real_calls[id] : NULL; }
