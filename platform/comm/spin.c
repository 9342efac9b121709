/* Waits for a peer that answers within microseconds. Sleeping through such a wait costs two
 * context switches and, when the CPU went idle meanwhile, a wake-up across CPUs that on a
 * virtual machine takes longer than the answer did; spinning costs neither. It gives up after
 * SPIN_NS, and a connection whose last wait outlasted that does not spin until a wait is short
 * again, so a peer that posts now and then costs no spinning at all.
 *
 * With a shared count of bytes sent (bell.c) the spin watches memory: on a machine with CPUs
 * to spare it first spins without system calls, for at most BUSY_NS. CPUs are to spare when
 * they number at least twice the connections the server says it is serving: each keeps its
 * server's thread and its poster running, and a busy spin beside more takes the CPU a peer
 * needs (4 posters on 2 CPUs swung between 280k and 570k round trips a second). Past BUSY_NS
 * the peer evidently needs our CPU, so it yields between looks, and the next few waits yield
 * from the start: CROWDED_WAITS after a spin that fell short by chance, twice as many after
 * each that fell short in a row, up to CROWDED_WAITS << CROWDED_DOUBLINGS while the CPUs stay
 * shared. Without a count it tries non-blocking reads, yielding between them. */
#include <errno.h>
#include <sched.h>
#include <sys/socket.h>

#include "internal.h"

#define SPIN_NS 50000
#define BUSY_NS 10000
#define CROWDED_WAITS 8
#define CROWDED_DOUBLINGS 5

static void relax(void) {
#if defined(__i386__) || defined(__x86_64__)
  __builtin_ia32_pause();
#endif
}

/* The CPUs this process may run on; read once. */
static int cpu_count(void) {
  static int cpus;
  int n = __atomic_load_n(&cpus, __ATOMIC_RELAXED);
  if (n == 0) {
    cpu_set_t set;
    n = sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : 1;
    __atomic_store_n(&cpus, n, __ATOMIC_RELAXED);
  }
  return n;
}

/* Whether a busy spin leaves the peer a CPU: each connection being served is two threads that
 * want one, its server's and its poster's. */
static int room_to_spin(const struct nuv__bell *b) {
  return (int64_t)nuv__bell_serving(b) * 2 <= cpu_count() && cpu_count() > 1;
}

ssize_t nuv__spin_recv(struct nuv__spin *s, int fd, void *buf, size_t len) {
  int64_t began = s->began = nuv__comm_now_ns();
  if (s->sleep) {
    errno = EAGAIN;
    return -1;
  }
  int watch = s->bell.heard != NULL;
  int busy = watch && s->crowded == 0 && room_to_spin(&s->bell);
  if (s->crowded > 0) s->crowded--;
  for (;;) {
    if (!watch || nuv__bell_rung(&s->bell)) {
      ssize_t got = recv(fd, buf, len, MSG_DONTWAIT);
      if (got >= 0) {
        if (busy) s->misses = 0;
        return got;
      }
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
    }
    int64_t spun = nuv__comm_now_ns() - began;
    if (spun >= SPIN_NS) {
      errno = EAGAIN;
      return -1;
    }
    if (busy && spun < BUSY_NS) {
      relax();
      continue;
    }
    if (busy) {
      busy = 0;
      s->crowded = CROWDED_WAITS << s->misses;
      if (s->misses < CROWDED_DOUBLINGS) s->misses++;
    }
    sched_yield();
  }
}

void nuv__spin_slept(struct nuv__spin *s) { s->sleep = nuv__comm_now_ns() - s->began > SPIN_NS; }
