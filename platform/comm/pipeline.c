/* Posting with a window of requests in flight on one connection. A server answers each
 * connection's frames in order, so the n-th reply belongs to the n-th frame sent; sending
 * ahead saves a wake-up on both sides per request. */
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include "internal.h"

/* Frames offered to one sendmsg. */
#define BATCH 64

struct pipe {
  int fd;
  struct nuv__bell *bell; /* the connection's counts of bytes sent, kept true for later waits */
  comm_data *const *msgs;
  int *results;
  unsigned int count, window, max_msg;
  unsigned int next_send;  /* the first message not sent whole */
  size_t off;              /* bytes of it (header included) the socket took */
  unsigned int next_reply; /* the first message still owed a reply */
  unsigned int inflight;   /* sent whole and not answered */
  size_t sent;             /* bytes the socket took over the run */
  int send_done;           /* the server refused a frame it had only in part: send no more */
  unsigned char in[4096];
  size_t in_len;
  uint32_t skip; /* reply bytes still to drop */
};

static int fits(const struct pipe *p, unsigned int i) {
  return p->msgs[i]->length <= p->max_msg;
}

/* The first message at or after `i` that goes on the wire (the others were refused here). */
static unsigned int next_fit(const struct pipe *p, unsigned int i) {
  while (i < p->count && !fits(p, i)) ++i;
  return i;
}

static int may_send(const struct pipe *p) {
  return !p->send_done && p->next_send < p->count && p->inflight < p->window;
}

/* Offers the socket as many frames as the window allows. 1 when it took all of them, 0 when
 * it is full, -1 with errno on an error. */
static int send_some(struct pipe *p) {
  struct iovec iov[2 * BATCH];
  unsigned char hdr[BATCH][4];
  int n = 0;
  size_t offered = 0;
  unsigned int k = 0;
  for (unsigned int i = p->next_send; i < p->count && p->inflight + k < p->window && k < BATCH;
       i = next_fit(p, i + 1), ++k) {
    const comm_data *d = p->msgs[i];
    size_t skip = k == 0 ? p->off : 0;
    nuv__comm_put_le32(hdr[k], d->length);
    if (skip < 4) {
      iov[n].iov_base = hdr[k] + skip;
      iov[n++].iov_len = 4 - skip;
      skip = 0;
    } else {
      skip -= 4;
    }
    iov[n].iov_base = d->bytes + skip;
    iov[n++].iov_len = d->length - skip;
    offered += 4 + d->length - (k == 0 ? p->off : 0);
  }
  if (n == 0) return 1;
  struct msghdr m = {.msg_iov = iov, .msg_iovlen = (size_t)n};
  ssize_t sent;
  do {
    sent = sendmsg(p->fd, &m, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
  p->sent += (size_t)sent;
  nuv__bell_ring(p->bell, (size_t)sent);
  for (size_t left = (size_t)sent; left > 0;) {
    size_t frame = 4 + p->msgs[p->next_send]->length - p->off;
    if (left < frame) {
      p->off += left;
      break;
    }
    left -= frame;
    p->off = 0;
    p->inflight++;
    p->next_send = next_fit(p, p->next_send + 1);
  }
  return (size_t)sent == offered;
}

/* Files one reply's result. -1 with errno EPROTO when no request was owed one. */
static int take_result(struct pipe *p, int result) {
  if (p->inflight == 0) {
    /* A frame over the server's limit is refused at its header, maybe before we sent all of
     * it; the server closes after that answer. */
    if (p->off == 0 || p->next_reply != p->next_send || result != NUV_COMM_E_TOOBIG) {
      errno = EPROTO;
      return -1;
    }
    p->off = 0;
    p->send_done = 1;
    p->next_send = next_fit(p, p->next_send + 1);
  } else {
    p->inflight--;
  }
  p->results[p->next_reply] = result;
  p->next_reply = next_fit(p, p->next_reply + 1);
  return 0;
}

/* Takes the replies that arrived; `block` lets the read wait, bounded by the receive
 * time-out. 1 when it took some, 0 when none were there, -1 with errno on an error (EPROTO
 * for a reply that breaks the protocol, ECONNRESET when the server closed). */
static int recv_some(struct pipe *p, int block) {
  ssize_t got = recv(p->fd, p->in + p->in_len, sizeof p->in - p->in_len, block ? 0 : MSG_DONTWAIT);
  if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? 0 : -1;
  if (got == 0) {
    errno = ECONNRESET;
    return -1;
  }
  p->in_len += (size_t)got;
  p->bell->seen += (uint32_t)got;
  size_t at = 0;
  int took = 0;
  for (;;) {
    size_t drop = p->skip < p->in_len - at ? p->skip : p->in_len - at;
    at += drop;
    p->skip -= (uint32_t)drop;
    if (p->skip > 0 || p->in_len - at < 8) break;
    uint32_t len = nuv__comm_get_le32(p->in + at);
    if (len < 4 || len - 4 > p->max_msg) {
      errno = EPROTO;
      return -1;
    }
    if (take_result(p, (int)nuv__comm_get_le32(p->in + at + 4)) != 0) return -1;
    at += 8;
    p->skip = len - 4; /* reply bytes are not handed out */
    took = 1;
  }
  memmove(p->in, p->in + at, p->in_len - at);
  p->in_len -= at;
  return took;
}

static int failure(int err) { return err == ETIMEDOUT ? NUV_COMM_E_TIMEOUT : NUV_COMM_E_CONN; }

/* Sends and receives until every message that fits has its reply. 0, or the bus code for the
 * ones still owed one. The time-out runs from the last progress either way. */
static int pump(struct pipe *p, unsigned int timeout) {
  int64_t deadline = nuv__comm_now_ms() + timeout;
  int send_err = 0;
  while (p->next_reply < p->count) {
    int full = 0;
    if (!send_err && may_send(p)) {
      size_t before = p->sent;
      int s = send_some(p);
      if (s < 0) send_err = errno; /* answers to what went out may still be waiting */
      full = s == 0;
      if (p->sent != before) deadline = nuv__comm_now_ms() + timeout;
    }
    int can_send = !send_err && may_send(p);
    if (!can_send && p->inflight == 0 && p->off == 0) return NUV_COMM_E_CONN;
    int r;
    if (can_send && !full) {
      r = recv_some(p, 0); /* take what is there, then send on */
    } else if (full) {
      struct pollfd pf = {.fd = p->fd, .events = POLLIN | POLLOUT};
      int64_t left = deadline - nuv__comm_now_ms();
      if (left <= 0) return NUV_COMM_E_TIMEOUT;
      if (poll(&pf, 1, left > INT_MAX ? INT_MAX : (int)left) < 0 && errno != EINTR) {
        return NUV_COMM_E_CONN;
      }
      r = pf.revents & (POLLIN | POLLHUP | POLLERR) ? recv_some(p, 0) : 0;
    } else {
      r = recv_some(p, 1);
      /* Nothing whole came within the receive time-out (or a signal cut it short): wait out
       * what is left of the deadline, not another full time-out. */
      if (r == 0 && nuv__comm_wait_fd(p->fd, POLLIN, deadline) != 0) return failure(errno);
    }
    if (r < 0) return failure(errno);
    if (r > 0) deadline = nuv__comm_now_ms() + timeout;
  }
  return 0;
}

int nuv__client_post_many(const char *dir, const char *topic, comm_data *const *msgs,
                          unsigned int count, unsigned int window, int *results,
                          unsigned int max_msg) {
  unsigned int timeout = nuv__comm_timeout_ms();
  struct pipe p = {.msgs = msgs, .results = results, .count = count, .window = window,
                   .max_msg = max_msg};
  for (unsigned int i = 0; i < count; ++i) {
    if (!fits(&p, i)) results[i] = NUV_COMM_E_TOOBIG;
  }
  p.next_send = p.next_reply = next_fit(&p, 0);
  struct nuv__cconn c = {.fd = -1};
  int pooled = 0;
  int rc = nuv__client_take(dir, topic, nuv__comm_now_ms() + timeout, &c, &pooled);
  for (int attempt = 0; rc == 0; ++attempt) {
    p.fd = c.fd;
    p.bell = &c.spin.bell;
    if (nuv__client_rcvtimeo(&c, timeout) != 0) {
      rc = NUV_COMM_E_SYSTEM;
    } else {
      rc = pump(&p, timeout);
    }
    if (rc == 0 && !p.send_done) {
      nuv__client_give(topic, &c);
      break;
    }
    nuv__client_close(&c);
    /* A pooled connection the server had closed takes nothing: start again on a new one. */
    if (rc != NUV_COMM_E_CONN || !pooled || p.sent != 0 || attempt > 0) break;
    pooled = 0;
    p.inflight = 0;
    p.in_len = 0;
    rc = nuv__client_open(dir, topic, nuv__comm_now_ms() + timeout, &c);
  }
  /* Every request still owed a reply gets the failure, never a result it did not have. */
  for (unsigned int i = p.next_reply; rc != 0 && i < count; i = next_fit(&p, i + 1)) {
    results[i] = rc;
  }
  return nuv__comm_first_failure(results, count);
}
