/* The posting side: a pool of idle connections per topic and one request/reply exchange. */
#include <errno.h>
#include <fcntl.h>
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
  struct nuv__cconn conns[POOL_IDLE_MAX];
  char topic[NUV_COMM_TOPIC_MAX + 1];
};

static pthread_mutex_t p_mu = PTHREAD_MUTEX_INITIALIZER;
static struct pool_entry *p_head;
/* Bumped by a clear: connections taken before it are not given back. */
static unsigned int p_gen;

/* A pooled connection the server closed meanwhile (idle time-out, a full topic, a restart)
 * is not checked for here: the next send on it fails before anything is delivered, and the
 * poster reconnects. */
static int pool_take(const char *topic, struct nuv__cconn *out) {
  int found = 0;
  pthread_mutex_lock(&p_mu);
  out->gen = p_gen;
  for (struct pool_entry *e = p_head; e; e = e->next) {
    if (strcmp(e->topic, topic) != 0) continue;
    if (e->n > 0) {
      unsigned int gen = out->gen;
      *out = e->conns[--e->n];
      out->gen = gen;
      found = 1;
    }
    break;
  }
  pthread_mutex_unlock(&p_mu);
  return found;
}

void nuv__client_give(const char *topic, struct nuv__cconn *c) {
  pthread_mutex_lock(&p_mu);
  if (c->gen == p_gen) {
    struct pool_entry *e = p_head;
    while (e && strcmp(e->topic, topic) != 0) e = e->next;
    if (!e && (e = calloc(1, sizeof *e)) != NULL) {
      strcpy(e->topic, topic); /* validated: at most NUV_COMM_TOPIC_MAX bytes */
      e->next = p_head;
      p_head = e;
    }
    if (e && e->n < POOL_IDLE_MAX) {
      e->conns[e->n++] = *c;
      c->fd = -1;
      c->spin.bell.page = NULL; /* the pool's copy owns it now */
    }
  }
  pthread_mutex_unlock(&p_mu);
  nuv__client_close(c);
}

void nuv__client_close(struct nuv__cconn *c) {
  if (c->fd >= 0) close(c->fd);
  c->fd = -1;
  nuv__bell_drop(&c->spin.bell);
}

void nuv__client_pool_clear(void) {
  pthread_mutex_lock(&p_mu);
  struct pool_entry *e = p_head;
  p_head = NULL;
  p_gen++;
  pthread_mutex_unlock(&p_mu);
  while (e) {
    struct pool_entry *next = e->next;
    for (int i = 0; i < e->n; ++i) nuv__client_close(&e->conns[i]);
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

/* Connects to the topic's socket by `deadline` and asks for a shared page. 0 with c->fd and
 * c->spin set, or a bus code. */
static int open_conn(const char *dir, const char *topic, int64_t deadline, struct nuv__cconn *c) {
  /* Non-blocking while connecting, so a full backlog does not hold us past the deadline. */
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return NUV_COMM_E_SYSTEM;
  int err;
  for (;;) {
    if (nuv__comm_connect_at(fd, dir, -1, topic) == 0) {
      /* Whoever serves the topic gets what we post: only ourselves or root. */
      if (nuv__comm_trusted_server(fd) != 0) {
        close(fd);
        return NUV_COMM_E_UNTRUSTED;
      }
      /* Blocking afterwards: a reply that is not there yet is waited for in the read itself,
       * bounded by the receive time-out; sends stay non-blocking through MSG_DONTWAIT. */
      int flags = fcntl(fd, F_GETFL);
      if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        close(fd);
        return NUV_COMM_E_SYSTEM;
      }
      c->fd = fd;
      if (nuv__bell_ask(fd, &c->spin.bell, deadline) != 0) {
        err = errno;
        nuv__client_close(c);
        return err == ETIMEDOUT ? NUV_COMM_E_TIMEOUT : NUV_COMM_E_CONN;
      }
      return 0;
    }
    err = errno;
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

int nuv__client_take(const char *dir, const char *topic, int64_t deadline, struct nuv__cconn *c,
                     int *pooled) {
  *pooled = pool_take(topic, c);
  return *pooled ? 0 : nuv__client_open(dir, topic, deadline, c);
}

int nuv__client_open(const char *dir, const char *topic, int64_t deadline,
                     struct nuv__cconn *c) {
  c->rcv_ms = 0;
  c->spin = (struct nuv__spin){0};
  return open_conn(dir, topic, deadline, c);
}

int nuv__client_rcvtimeo(struct nuv__cconn *c, unsigned int ms) {
  if (c->rcv_ms == ms) return 0;
  if (nuv__comm_set_rcvtimeo(c->fd, ms) != 0) return -1;
  c->rcv_ms = ms;
  return 0;
}

enum {
  XCH_OK,      /* result read; connection reusable */
  XCH_CLOSE,   /* result read; connection must not be reused */
  XCH_GONE,    /* the server closed before answering */
  XCH_TIMEOUT, /* no answer in time */
  XCH_BAD      /* the server broke the protocol */
};

static int io_failure(void) { return errno == ETIMEDOUT ? XCH_TIMEOUT : XCH_GONE; }

static int read_reply(struct nuv__cconn *c, unsigned int max_msg, int64_t deadline,
                      int *result) {
  int fd = c->fd;
  unsigned char b[8];
  ssize_t got = nuv__spin_recv(&c->spin, fd, b, sizeof b);
  if (got == 0) return XCH_GONE;
  if (got < 0 && errno != EAGAIN) return io_failure();
  /* What the spin left to read, if anything, is waited for in the read itself. */
  size_t have = got > 0 ? (size_t)got : 0;
  int rc = nuv__comm_recv_all(fd, b + have, sizeof b - have, deadline, 1);
  if (got < 0) nuv__spin_slept(&c->spin);
  if (rc != 0) return io_failure();
  uint32_t len = nuv__comm_get_le32(b);
  if (len < 4 || len - 4 > max_msg) return XCH_BAD;
  *result = (int)nuv__comm_get_le32(b + 4);
  /* Reply bytes are not handed out; they are read only to keep the stream in step. */
  if (len > 4 && nuv__comm_skip(fd, len - 4, deadline) != 0) return XCH_CLOSE;
  c->spin.bell.seen += 4 + len;
  return XCH_OK;
}

static int exchange(struct nuv__cconn *c, const comm_data *d, unsigned int max_msg,
                    unsigned int timeout, int *result) {
  int fd = c->fd;
  unsigned char hdr[4];
  nuv__comm_put_le32(hdr, d->length);
  struct iovec iov[2] = {{.iov_base = hdr, .iov_len = sizeof hdr},
                         {.iov_base = d->bytes, .iov_len = d->length}};
  if (nuv__client_rcvtimeo(c, timeout) != 0) return XCH_GONE;
  if (nuv__comm_send_all(fd, iov, 2, nuv__comm_now_ms() + timeout) != 0) {
    if (errno != EPIPE && errno != ECONNRESET) return io_failure();
    /* A server that refuses a frame answers before it closes: the answer may be waiting. */
    int x = read_reply(c, max_msg, nuv__comm_now_ms() + timeout, result);
    return x == XCH_OK ? XCH_CLOSE : XCH_GONE;
  }
  nuv__bell_ring(&c->spin.bell, sizeof hdr + d->length);
  return read_reply(c, max_msg, nuv__comm_now_ms() + timeout, result);
}

int nuv__client_post(const char *dir, const char *topic, const comm_data *data,
                     unsigned int max_msg) {
  unsigned int timeout = nuv__comm_timeout_ms();
  struct nuv__cconn c = {.fd = -1};
  int pooled = pool_take(topic, &c);
  for (int attempt = 0;; ++attempt) {
    if (!pooled) {
      int rc = nuv__client_open(dir, topic, nuv__comm_now_ms() + timeout, &c);
      if (rc != 0) return rc;
    }
    pooled = 0;
    int result = 0;
    int x = exchange(&c, data, max_msg, timeout, &result);
    /* A refused frame makes the server close the connection. */
    if (x == XCH_OK && result != NUV_COMM_E_TOOBIG) {
      nuv__client_give(topic, &c);
      return result;
    }
    nuv__client_close(&c);
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
