/* Waits for a peer that answers within microseconds. Sleeping through such a wait costs two
 * context switches and, when the CPU went idle meanwhile, a wake-up across CPUs that on a
 * virtual machine takes longer than the answer did; spinning costs neither. The spin yields
 * between tries, so a peer on the same CPU runs at once, and it gives up after SPIN_NS. A
 * connection whose last wait outlasted that does not spin until a wait is short again, so a
 * peer that posts now and then costs no spinning at all. */
#include <errno.h>
#include <sched.h>
#include <sys/socket.h>

#include "internal.h"

#define SPIN_NS 50000

ssize_t nuv__spin_recv(struct nuv__spin *s, int fd, void *buf, size_t len) {
  s->began = nuv__comm_now_ns();
  if (s->sleep) {
    errno = EAGAIN;
    return -1;
  }
  for (;;) {
    ssize_t got = recv(fd, buf, len, MSG_DONTWAIT);
    if (got >= 0) return got;
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
    if (nuv__comm_now_ns() - s->began >= SPIN_NS) {
      errno = EAGAIN;
      return -1;
    }
    sched_yield();
  }
}

void nuv__spin_slept(struct nuv__spin *s) { s->sleep = nuv__comm_now_ns() - s->began > SPIN_NS; }
