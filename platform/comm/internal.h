/* Pieces shared between the files of nuv_comm; not exported. */
#ifndef NUV_COMM_INTERNAL_H
#define NUV_COMM_INTERNAL_H

#include <limits.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

#include "nuv_comm.h"

struct comm_data {
  unsigned char *bytes; /* length bytes plus a NUL; never NULL once built */
  unsigned int length;
};

/* ---- frame.c: deadline-bound socket I/O ---- */

/* Monotonic nanoseconds, and milliseconds. */
int64_t nuv__comm_now_ns(void);
int64_t nuv__comm_now_ms(void);

/* Sends every byte of iov[0..n) on `fd` by `deadline_ms` (monotonic; -1 waits for ever).
 * Returns 0, or -1 with errno (ETIMEDOUT, EPIPE, ECONNRESET, ...). Never raises SIGPIPE. */
int nuv__comm_send_all(int fd, struct iovec *iov, int n, int64_t deadline_ms);

/* Waits until `fd` is ready for `events` or `deadline_ms` passes. 0, or -1 with errno
 * ETIMEDOUT (or poll's error). */
int nuv__comm_wait_fd(int fd, short events, int64_t deadline_ms);

/* Receives exactly `len` bytes. `block_first` lets the first read block, for a blocking
 * socket whose receive time-out (SO_RCVTIMEO) ends no later than the deadline: a reply that
 * is not there yet then costs one call instead of a poll and a read. Every other read is
 * non-blocking and waits in poll. A peer that closes early gives -1 with errno ECONNRESET. */
int nuv__comm_recv_all(int fd, void *buf, size_t len, int64_t deadline_ms, int block_first);

/* Receives into `m` what is there, at least one byte, waiting in poll up to the deadline when
 * nothing is (a read without MSG_DONTWAIT in `flags` may block first, as above). The count, or
 * -1 with errno (ECONNRESET when the peer closed). */
ssize_t nuv__comm_recv_some(int fd, struct msghdr *m, int flags, int64_t deadline_ms);

/* Sets the receive time-out of `fd` to `ms`. 0, or -1 with errno. */
int nuv__comm_set_rcvtimeo(int fd, unsigned int ms);

/* Reads and drops `len` bytes through a bounded buffer. Same results as recv_all. */
int nuv__comm_skip(int fd, size_t len, int64_t deadline_ms);

void nuv__comm_put_le32(unsigned char *p, uint32_t v);
uint32_t nuv__comm_get_le32(const unsigned char *p);

/* ---- bell.c: counts of bytes sent, shared by the two ends of a connection ---- */

/* One end's view of the shared page; all zero when the connection has none. */
struct nuv__bell {
  void *page;
  uint32_t *rings;       /* this end adds the bytes it sent */
  const uint32_t *heard; /* the peer adds the bytes it sent */
  uint32_t *serving;     /* the server's connections being served, as it last told */
  int server;            /* this end is the server's */
  uint32_t seen;         /* the bytes this end received */
};

/* The frame a client sends first to ask for a page, header included. */
#define NUV__BELL_HELLO_LEN 20

/* Whether `bytes` start with the hello frame. */
int nuv__bell_is_hello(const unsigned char *bytes, size_t len);

/* Client: sends the hello on a new connection and reads the answer by `deadline_ms`. 0 with
 * the page attached, or with none when the server sent none; -1 with errno when the
 * connection failed. */
int nuv__bell_ask(int fd, struct nuv__bell *b, int64_t deadline_ms);

/* Server: answers a hello with result 0 and a new page, or with no page when none could be
 * made. 0, or -1 with errno when the answer could not be sent. */
int nuv__bell_give(int fd, struct nuv__bell *b);

/* Adds `bytes` sent to this end's count (nothing without a page). */
void nuv__bell_ring(struct nuv__bell *b, size_t bytes);

/* Server: counts a connection in (1) or out (-1) of those it serves that are not asleep
 * waiting for a request. */
void nuv__bell_serving_add(int n);

/* Server: writes that count on the page (nothing on a client's end or without a page); done
 * before a send, so a client that has read the reply finds it told. */
void nuv__bell_tell(struct nuv__bell *b);

/* The count of connections served: the server's own on its end, else the one it last told; 0
 * without a page. */
uint32_t nuv__bell_serving(const struct nuv__bell *b);

/* Whether the peer has sent more than b->seen; needs a page. */
int nuv__bell_rung(const struct nuv__bell *b);

/* Unmaps the page and zeroes `b`. */
void nuv__bell_drop(struct nuv__bell *b);

/* ---- spin.c: waits spun before they sleep ---- */

/* One connection's record of how its waits went. Zeroed, it spins on its first wait. */
struct nuv__spin {
  int64_t began;      /* when the current wait began, monotonic ns */
  int sleep;          /* the last wait was too long to spin through */
  unsigned crowded;   /* waits left that yield at once: a busy spin fell short lately */
  unsigned misses;    /* busy spins in a row that fell short, up to a bound */
  struct nuv__bell bell; /* when it has a page, the wait watches the peer's count */
};

/* Begins a wait for bytes on `fd`: while the connection's waits are short, watches for them
 * for a few tens of microseconds. What recv gave (bytes, or 0 when the peer closed), or -1
 * with errno: EAGAIN when nothing came and the caller is to wait its own way and then call
 * nuv__spin_slept. The caller adds what it receives to s->bell.seen. */
ssize_t nuv__spin_recv(struct nuv__spin *s, int fd, void *buf, size_t len);

/* Ends a wait that nuv__spin_recv handed back: its length decides whether the next one spins. */
void nuv__spin_slept(struct nuv__spin *s);

/* ---- addr.c: socket addresses that may not fit in sun_path ---- */

/* bind() or connect() `fd` to the socket `name` in directory `dir` (dir_fd: an open handle of
 * it, or -1 to open one when needed). 0, or -1 with errno. connect() keeps the socket's
 * blocking mode, so it may give EAGAIN on a non-blocking socket whose server is saturated. */
int nuv__comm_bind_at(int fd, const char *dir, int dir_fd, const char *name);
int nuv__comm_connect_at(int fd, const char *dir, int dir_fd, const char *name);

/* ---- comm.c: configuration, registry ---- */

struct nuv__comm_cfg {
  char dir[PATH_MAX];
  unsigned int max_msg;
  unsigned int max_conn;
  unsigned int idle_ms;
};

/* The first of `results` that is a bus code rather than a handler's result, or 0. */
int nuv__comm_first_failure(const int *results, unsigned int count);

/* The current time-out in milliseconds (override, else configured). */
unsigned int nuv__comm_timeout_ms(void);

/* A registered topic. Freed when its last reference goes: the registry's, one per connection
 * thread, one per local post running its handler. */
struct nuv__topic {
  char name[NUV_COMM_TOPIC_MAX + 1];
  nuv_comm_handler handler;    /* one of the two is set */
  nuv_comm_batch_handler batch;
  void *user;
  int state; /* TOPIC_STARTING, TOPIC_READY; guarded by the registry lock */
  struct nuv__topic *next;

  pthread_mutex_t mu;
  pthread_cond_t cv;
  int refs;    /* guarded by mu */
  int closing; /* guarded by mu */
  struct nuv__conn *conns;
  unsigned int nconns;  /* connections with a thread, evicted ones included */
  unsigned int nevicted; /* of those, the ones shut down to make room, not yet gone */

  unsigned int max_msg, max_conn, idle_ms;
  char dir[PATH_MAX];
  int dir_fd, listen_fd, wake[2];
  dev_t dev;
  ino_t ino;
  pthread_t listener;
  int has_listener;
};

/* Drops one reference; frees the topic with the last. */
void nuv__topic_unref(struct nuv__topic *t);

/* Runs the handler on the calling thread for requests[0..count) read together (one call of a
 * batch handler, or the handler on each in turn with an empty reply), recording the call so an
 * unregister from inside the handler does not wait for itself. The caller holds a reference
 * for the call. */
void nuv__topic_call_batch(struct nuv__topic *t, comm_data *const *requests, unsigned int count,
                           int *results);

/* ---- server.c ---- */

/* Binds and listens on t->name in t->dir and starts the listener thread. Returns 0 or a bus
 * code. On failure nothing is left open. */
int nuv__server_start(struct nuv__topic *t);

/* A served connection. */
struct nuv__conn {
  int fd;
  struct nuv__topic *t;
  struct nuv__conn *prev, *next;
  /* Atomic: monotonic ms since it waits for a request, 0 while busy, NUV__CONN_EVICTED once
   * evicted. The serving thread and an eviction each claim the connection with a
   * compare-and-swap, so a request is either served in full or dropped before its handler
   * runs, never both. */
  int64_t idle_since;
  int evicted; /* guarded by t->mu */
};
#define NUV__CONN_EVICTED ((int64_t)-1)

/* ---- serve.c ---- */

/* Serves the requests of one connection on `fd` (a blocking socket) until the peer goes,
 * breaks the protocol, is too slow within a frame, or stays idle longer than t->idle_ms.
 * Every frame already received is handled, in order, before the replies go out together.
 * `c` (may be NULL) is the connection's record, whose idle mark lets a full topic drop it
 * first. */
void nuv__comm_serve(struct nuv__topic *t, struct nuv__conn *c, int fd);

/* Stops the listener, removes the socket file if it is still ours and shuts the read side of
 * every connection: idle ones end, busy ones end after sending their answer. */
void nuv__server_stop(struct nuv__topic *t);

/* Starts a plain pthread with every signal blocked, so the host's handlers run on its own
 * threads. `detached` threads are not joined. Returns 0 or an errno value. */
int nuv__comm_thread(pthread_t *tid, void *(*fn)(void *), void *arg, int detached);

/* ---- client.c ---- */

/* A posting connection: blocking, so a read waits for its reply in one call bounded by the
 * receive time-out `rcv_ms` (0: not set yet); sends pass MSG_DONTWAIT. `gen` is the pool's
 * generation when it was taken. */
struct nuv__cconn {
  int fd;
  unsigned int rcv_ms;
  unsigned int gen;
  struct nuv__spin spin; /* how waits for replies on it went */
};

/* An idle pooled connection to `topic` (*pooled = 1), else a new one made by `deadline`
 * (*pooled = 0). 0, or a bus code. */
int nuv__client_take(const char *dir, const char *topic, int64_t deadline, struct nuv__cconn *c,
                     int *pooled);

/* A new connection to `topic`, made by `deadline`; keeps c->gen. 0, or a bus code. */
int nuv__client_open(const char *dir, const char *topic, int64_t deadline,
                     struct nuv__cconn *c);

/* Sets the receive time-out when it differs from the one in force. 0, or -1 with errno. */
int nuv__client_rcvtimeo(struct nuv__cconn *c, unsigned int ms);

/* Gives a connection whose exchanges are all complete back to the pool, or closes it. */
void nuv__client_give(const char *topic, struct nuv__cconn *c);

void nuv__client_close(struct nuv__cconn *c);

/* Sends `data` to the server of `topic` in `dir` and returns the result or a bus code. */
int nuv__client_post(const char *dir, const char *topic, const comm_data *data,
                     unsigned int max_msg);

/* 0 when the server at the other end of the connected socket `fd` runs under our effective uid
 * or root's (SO_PEERCRED), else -1. */
int nuv__comm_trusted_server(int fd);

/* Closes every pooled connection; connections in use are closed when given back. */
void nuv__client_pool_clear(void);

/* ---- pipeline.c ---- */

/* nuv_comm_post_many for a topic served by another process; the arguments are checked. */
int nuv__client_post_many(const char *dir, const char *topic, comm_data *const *msgs,
                          unsigned int count, unsigned int window, int *results,
                          unsigned int max_msg);

#endif
