/* One connection's requests. A read takes every byte already there into the connection's
 * buffer; the complete frames in it go to the topic together, in order, and the replies go out
 * in one send.
 * A synchronous client costs a read and a send per request, and a client that sends ahead
 * costs the same per batch; a request not there yet is first waited for by a spin (spin.c). */
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "internal.h"

/* What one read may take while idle; also the buffer kept between requests. */
#define BASE_BUF (64u * 1024u)
/* Replies gathered before a send; more frames in one read just mean more sends. */
#define REPLIES_MAX 512

/* Marks the connection idle since `since`; 0 when it was evicted meanwhile. */
static int mark_idle(struct nuv__conn *c, int64_t since) {
  if (!c) return 1;
  int64_t busy = 0;
  return __atomic_compare_exchange_n(&c->idle_since, &busy, since, 0, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE);
}

/* Marks it busy; 0 when it was evicted first (its requests are then not served). */
static int mark_busy(struct nuv__conn *c, int64_t since) {
  return !c || __atomic_compare_exchange_n(&c->idle_since, &since, 0, 0, __ATOMIC_ACQ_REL,
                                           __ATOMIC_ACQUIRE);
}

struct inbuf {
  unsigned char *p; /* cap bytes plus one, for the NUL after a request */
  size_t cap, len;
};

/* Room for `need` bytes; 0, or -1 when out of memory. */
static int reserve(struct inbuf *b, size_t need) {
  if (need <= b->cap && b->p) return 0;
  if (need < BASE_BUF) need = BASE_BUF;
  unsigned char *p = realloc(b->p, need + 1);
  if (!p) return -1;
  b->p = p;
  b->cap = need;
  return 0;
}

/* Reads what is there into the free part of `b`. `block` lets the read wait, bounded by the
 * socket's receive time-out; any further wait is a poll up to `deadline`. The count read, 0
 * when the peer closed, -1 on an error or the deadline. */
static ssize_t read_some(int fd, struct inbuf *b, int block, int64_t deadline) {
  int flags = block ? 0 : MSG_DONTWAIT;
  for (;;) {
    ssize_t got = recv(fd, b->p + b->len, b->cap - b->len, flags);
    if (got >= 0) return got;
    if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) return -1;
    if (nuv__comm_wait_fd(fd, POLLIN, deadline) != 0) return -1;
    flags = MSG_DONTWAIT;
  }
}

/* The replies gathered for one send, and the requests read together that they answer. */
struct replies {
  struct nuv__bell *bell; /* the connection's, told of every send */
  unsigned char b[REPLIES_MAX * 8];
  unsigned int n;
  comm_data req[REPLIES_MAX];
  comm_data *reqp[REPLIES_MAX];
  int result[REPLIES_MAX];
  unsigned char after[REPLIES_MAX];
};

static int flush(int fd, struct replies *r) {
  if (r->n == 0) return 0;
  struct iovec iov = {.iov_base = r->b, .iov_len = r->n * 8u};
  r->n = 0;
  nuv__bell_tell(r->bell);
  if (nuv__comm_send_all(fd, &iov, 1, nuv__comm_now_ms() + nuv__comm_timeout_ms()) != 0) {
    return -1;
  }
  nuv__bell_ring(r->bell, iov.iov_len);
  return 0;
}

static int add_reply(int fd, struct replies *r, int result) {
  if (r->n == REPLIES_MAX && flush(fd, r) != 0) return -1;
  nuv__comm_put_le32(r->b + r->n * 8u, 4);
  nuv__comm_put_le32(r->b + r->n * 8u + 4, (uint32_t)result);
  r->n++;
  return 0;
}

/* Hands requests r->req[0..n) to the topic at once and queues their replies. Each body gets
 * the NUL the handler is promised; the byte it covers (the next frame's first byte, or spare
 * room) is put back afterwards. */
static int call_frames(struct nuv__topic *t, int fd, struct replies *r, unsigned int n) {
  for (unsigned int i = 0; i < n; ++i) {
    r->after[i] = r->req[i].bytes[r->req[i].length];
    r->req[i].bytes[r->req[i].length] = '\0';
    r->reqp[i] = &r->req[i];
  }
  nuv__topic_call_batch(t, r->reqp, n, r->result);
  for (unsigned int i = n; i-- > 0;) r->req[i].bytes[r->req[i].length] = r->after[i];
  for (unsigned int i = 0; i < n; ++i) {
    if (add_reply(fd, r, r->result[i]) != 0) return -1;
  }
  return 0;
}

/* Handles every complete frame at the start of `b`, those read together in one call, and
 * queues the replies; what is left is moved to the front. 1 to go on, 0 when the connection
 * must close after the replies (a frame over the limit, no memory for one), -1 when a reply
 * could not be sent. */
static int handle_frames(struct nuv__topic *t, int fd, struct inbuf *b, struct replies *r) {
  size_t at = 0;
  int go_on = 1;
  for (;;) {
    unsigned int n = 0;
    int too_big = 0;
    while (n < REPLIES_MAX && b->len - at >= 4) {
      uint32_t len = nuv__comm_get_le32(b->p + at);
      if (len > t->max_msg) {
        too_big = 1; /* refused at the header, without reading the body into memory */
        break;
      }
      if (b->len - at - 4 < len) break;
      r->req[n].bytes = b->p + at + 4;
      r->req[n].length = len;
      n++;
      at += 4 + (size_t)len;
    }
    if (n > 0 && call_frames(t, fd, r, n) != 0) return -1;
    if (too_big) {
      if (add_reply(fd, r, NUV_COMM_E_TOOBIG) != 0) return -1;
      go_on = 0;
      break;
    }
    if (n < REPLIES_MAX) break;
  }
  if (go_on && b->len - at >= 4 &&
      reserve(b, 4 + (size_t)nuv__comm_get_le32(b->p + at)) != 0) {
    if (add_reply(fd, r, NUV_COMM_E_SYSTEM) != 0) return -1;
    go_on = 0;
  }
  memmove(b->p, b->p + at, b->len - at);
  b->len -= at;
  return go_on;
}

void nuv__comm_serve(struct nuv__topic *t, struct nuv__conn *c, int fd) {
  struct inbuf b = {0};
  struct replies *r = malloc(sizeof *r);
  /* The idle wait is a read that blocks at most idle_ms; without that bound, a poll. */
  int block_idle = nuv__comm_set_rcvtimeo(fd, t->idle_ms) == 0;
  int64_t frame_deadline = 0;
  struct nuv__spin spin = {0};
  int first = 1;
  if (!r) return;
  nuv__bell_serving_add(1);
  r->n = 0;
  r->bell = &spin.bell;
  while (reserve(&b, BASE_BUF) == 0) {
    ssize_t got;
    if (b.len == 0) {
      int64_t idle = nuv__comm_now_ms();
      if (idle < 1) idle = 1;
      if (!mark_idle(c, idle)) break;
      got = nuv__spin_recv(&spin, fd, b.p + b.len, b.cap - b.len);
      if (got < 0 && errno == EAGAIN) {
        nuv__bell_serving_add(-1);
        got = read_some(fd, &b, block_idle, idle + (int64_t)t->idle_ms);
        nuv__bell_serving_add(1);
        nuv__spin_slept(&spin);
      }
      if (got <= 0 || !mark_busy(c, idle)) break;
      /* Once a frame starts, the rest must follow within the time-out. */
      frame_deadline = nuv__comm_now_ms() + nuv__comm_timeout_ms();
    } else {
      got = read_some(fd, &b, 0, frame_deadline);
      if (got <= 0) break;
    }
    b.len += (size_t)got;
    spin.bell.seen += (uint32_t)got;
    if (first) {
      first = 0;
      if (nuv__bell_is_hello(b.p, b.len)) {
        if (nuv__bell_give(fd, &spin.bell) != 0) break;
        b.len -= NUV__BELL_HELLO_LEN;
        memmove(b.p, b.p + NUV__BELL_HELLO_LEN, b.len);
        spin.bell.seen = (uint32_t)b.len;
        if (b.len == 0) continue;
      }
    }
    size_t before = b.len;
    int rc = handle_frames(t, fd, &b, r);
    if (rc < 0 || flush(fd, r) != 0 || rc == 0) break;
    if (b.len > 0 && b.len < before) frame_deadline = nuv__comm_now_ms() + nuv__comm_timeout_ms();
    if (b.len == 0 && b.cap > BASE_BUF) {
      free(b.p);
      b.p = NULL;
      b.cap = 0;
    }
  }
  nuv__bell_serving_add(-1);
  nuv__bell_drop(&spin.bell);
  free(b.p);
  free(r);
}
