/* Pieces shared between the files of nuv_comm; not exported. */
#ifndef NUV_COMM_INTERNAL_H
#define NUV_COMM_INTERNAL_H

#include <limits.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <sys/uio.h>

#include "nuv_comm.h"

struct comm_data {
  unsigned char *bytes; /* length bytes plus a NUL; never NULL once built */
  unsigned int length;
};

/* ---- frame.c: deadline-bound socket I/O ---- */

/* Monotonic milliseconds. */
int64_t nuv__comm_now_ms(void);

/* Sends every byte of iov[0..n) on `fd` by `deadline_ms` (monotonic; -1 waits for ever).
 * Returns 0, or -1 with errno (ETIMEDOUT, EPIPE, ECONNRESET, ...). Never raises SIGPIPE. */
int nuv__comm_send_all(int fd, struct iovec *iov, int n, int64_t deadline_ms);

/* Receives exactly `len` bytes. `wait_first` polls before the first read (for callers who
 * know nothing is there yet). A peer that closes early gives -1 with errno ECONNRESET. */
int nuv__comm_recv_all(int fd, void *buf, size_t len, int64_t deadline_ms, int wait_first);

/* Reads and drops `len` bytes through a bounded buffer. Same results as recv_all. */
int nuv__comm_skip(int fd, size_t len, int64_t deadline_ms);

void nuv__comm_put_le32(unsigned char *p, uint32_t v);
uint32_t nuv__comm_get_le32(const unsigned char *p);

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

/* The current time-out in milliseconds (override, else configured). */
unsigned int nuv__comm_timeout_ms(void);

/* A registered topic. Freed when its last reference goes: the registry's, one per connection
 * thread, one per local post running its handler. */
struct nuv__topic {
  char name[NUV_COMM_TOPIC_MAX + 1];
  nuv_comm_handler handler;
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

/* Runs the handler on the calling thread, recording the call so an unregister from inside the
 * handler does not wait for itself. The caller holds a reference for the call. */
int nuv__topic_call(struct nuv__topic *t, comm_data *request, comm_data *reply);

/* ---- server.c ---- */

/* Binds and listens on t->name in t->dir and starts the listener thread. Returns 0 or a bus
 * code. On failure nothing is left open. */
int nuv__server_start(struct nuv__topic *t);

/* Serves the requests of one connection on `fd` until the peer goes, breaks the protocol, is
 * too slow within a frame, or stays idle longer than t->idle_ms. `c` (may be NULL) is the
 * connection's record, whose idle mark lets a full topic drop it first. */
struct nuv__conn;
void nuv__comm_serve(struct nuv__topic *t, struct nuv__conn *c, int fd);

/* Stops the listener, removes the socket file if it is still ours and shuts the read side of
 * every connection: idle ones end, busy ones end after sending their answer. */
void nuv__server_stop(struct nuv__topic *t);

/* Starts a plain pthread with every signal blocked, so the host's handlers run on its own
 * threads. `detached` threads are not joined. Returns 0 or an errno value. */
int nuv__comm_thread(pthread_t *tid, void *(*fn)(void *), void *arg, int detached);

/* ---- client.c ---- */

/* Sends `data` to the server of `topic` in `dir` and returns the result or a bus code. */
int nuv__client_post(const char *dir, const char *topic, const comm_data *data,
                     unsigned int max_msg);

/* 0 when the server at the other end of the connected socket `fd` runs under our effective uid
 * or root's (SO_PEERCRED), else -1. */
int nuv__comm_trusted_server(int fd);

/* Closes every pooled connection; connections in use are closed when given back. */
void nuv__client_pool_clear(void);

#endif
