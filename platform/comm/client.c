/* The posting side: a pool of idle connections per topic and one request/reply exchange. */
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "internal.h"

/* Idle connections kept per topic; more concurrent posters open and close their own. */
#define POOL_IDLE_MAX 8

struct pool_entry {
  struct pool_entry *next;
  int n;
  int fds[POOL_IDLE_MAX];
  char topic[NUV_COMM_TOPIC_MAX + 1];
};

static pthread_mutex_t p_mu = PTHREAD_MUTEX_INITIALIZER;
static struct pool_entry *p_head;
/* Bumped by a clear: connections taken before it are not given back. */
static unsigned int p_gen;

/* 1 when the server closed `fd` (idle time-out, a full topic, a restart): it is readable with
 * nothing owed to us, so only the end of the stream (or an error) can be waiting there. */
static int closed_by_server(int fd) {
  struct pollfd p = {.fd = fd, .events = POLLIN};
  return poll(&p, 1, 0) != 0;
}

static int pool_take(const char *topic, unsigned int *gen) {
  for (;;) {
    int fd = -1;
    pthread_mutex_lock(&p_mu);
    *gen = p_gen;
    for (struct pool_entry *e = p_head; e; e = e->next) {
      if (strcmp(e->topic, topic) != 0) continue;
      if (e->n > 0) fd = e->fds[--e->n];
      break;
    }
    pthread_mutex_unlock(&p_mu);
    if (fd < 0 || !closed_by_server(fd)) return fd;
    close(fd); /* dropped by the server while pooled: try the next one, or connect anew */
  }
}

static void pool_give(const char *topic, int fd, unsigned int gen) {
  pthread_mutex_lock(&p_mu);
  if (gen == p_gen) {
    struct pool_entry *e = p_head;
    while (e && strcmp(e->topic, topic) != 0) e = e->next;
    if (!e && (e = calloc(1, sizeof *e)) != NULL) {
      strcpy(e->topic, topic); /* validated: at most NUV_COMM_TOPIC_MAX bytes */
      e->next = p_head;
      p_head = e;
    }
    if (e && e->n < POOL_IDLE_MAX) {
      e->fds[e->n++] = fd;
      fd = -1;
    }
  }
  pthread_mutex_unlock(&p_mu);
  if (fd >= 0) close(fd);
}

void nuv__client_pool_clear(void) {
  pthread_mutex_lock(&p_mu);
  struct pool_entry *e = p_head;
  p_head = NULL;
  p_gen++;
  pthread_mutex_unlock(&p_mu);
  while (e) {
    struct pool_entry *next = e->next;
    for (int i = 0; i < e->n; ++i) close(e->fds[i]);
    free(e);
    e = next;
  }
}

int nuv__comm_trusted_server(int fd) {
  struct ucred cred;
  socklen_t len = sizeof cred;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof cred) return -1;
  return cred.uid == geteuid() || cred.uid == 0 ? 0 : -1;
}

/* Connects to the topic's socket by `deadline`. 0 with *out set, or a bus code. */
static int open_conn(const char *dir, const char *topic, int64_t deadline, int *out) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return NUV_COMM_E_SYSTEM;
  for (;;) {
    if (nuv__comm_connect_at(fd, dir, -1, topic) == 0) {
      /* Whoever serves the topic gets what we post: only ourselves or root. */
      if (nuv__comm_trusted_server(fd) != 0) {
        close(fd);
        return NUV_COMM_E_UNTRUSTED;
      }
      *out = fd;
      return 0;
    }
    int err = errno;
    if (err == EAGAIN && nuv__comm_now_ms() < deadline) {
      poll(NULL, 0, 1); /* backlog full: the server is alive, give it a moment */
      continue;
    }
    close(fd);
    errno = err;
    if (err == EAGAIN) return NUV_COMM_E_TIMEOUT;
    if (err == ENOENT || err == ECONNREFUSED || err == ENOTDIR) return NUV_COMM_E_NOTOPIC;
    return NUV_COMM_E_SYSTEM;
  }
}

enum {
  XCH_OK,      /* result read; connection reusable */
  XCH_CLOSE,   /* result read; connection must not be reused */
  XCH_GONE,    /* the server closed before answering */
  XCH_TIMEOUT, /* no answer in time */
  XCH_BAD      /* the server broke the protocol */
};

static int io_failure(void) { return errno == ETIMEDOUT ? XCH_TIMEOUT : XCH_GONE; }

static int read_reply(int fd, unsigned int max_msg, int64_t deadline, int *result) {
  unsigned char b[8];
  if (nuv__comm_recv_all(fd, b, sizeof b, deadline, 1) != 0) return io_failure();
  uint32_t len = nuv__comm_get_le32(b);
  if (len < 4 || len - 4 > max_msg) return XCH_BAD;
  *result = (int)nuv__comm_get_le32(b + 4);
  /* Reply bytes are not handed out; they are read only to keep the stream in step. */
  if (len > 4 && nuv__comm_skip(fd, len - 4, deadline) != 0) return XCH_CLOSE;
  return XCH_OK;
}

static int exchange(int fd, const comm_data *d, unsigned int max_msg, unsigned int timeout,
                    int *result) {
  unsigned char hdr[4];
  nuv__comm_put_le32(hdr, d->length);
  struct iovec iov[2] = {{.iov_base = hdr, .iov_len = sizeof hdr},
                         {.iov_base = d->bytes, .iov_len = d->length}};
  if (nuv__comm_send_all(fd, iov, 2, nuv__comm_now_ms() + timeout) != 0) {
    if (errno != EPIPE && errno != ECONNRESET) return io_failure();
    /* A server that refuses a frame answers before it closes: the answer may be waiting. */
    int x = read_reply(fd, max_msg, nuv__comm_now_ms() + timeout, result);
    return x == XCH_OK ? XCH_CLOSE : XCH_GONE;
  }
  return read_reply(fd, max_msg, nuv__comm_now_ms() + timeout, result);
}

int nuv__client_post(const char *dir, const char *topic, const comm_data *data,
                     unsigned int max_msg) {
  unsigned int timeout = nuv__comm_timeout_ms();
  unsigned int gen;
  int fd = pool_take(topic, &gen);
  for (int attempt = 0;; ++attempt) {
    if (fd < 0) {
      int rc = open_conn(dir, topic, nuv__comm_now_ms() + timeout, &fd);
      if (rc != 0) return rc;
    }
    int result = 0;
    int x = exchange(fd, data, max_msg, timeout, &result);
    /* A refused frame makes the server close the connection. */
    if (x == XCH_OK && result != NUV_COMM_E_TOOBIG) {
      pool_give(topic, fd, gen);
      return result;
    }
    close(fd);
    fd = -1;
    switch (x) {
      case XCH_OK:
      case XCH_CLOSE:
        return result;
      case XCH_TIMEOUT:
        return NUV_COMM_E_TIMEOUT;
      case XCH_GONE:
        if (attempt == 0) continue; /* a stale pooled connection, or a restarted server */
        return NUV_COMM_E_CONN;
      default:
        return NUV_COMM_E_CONN;
    }
  }
}
