/* Socket I/O with an overall deadline, used for both halves of a frame exchange. The sockets
 * may be blocking: every call passes MSG_DONTWAIT and waits in poll(), so no call can block
 * past the deadline; the one exception is a first read that the caller bounded with
 * SO_RCVTIMEO. */
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>

#include "internal.h"

int64_t nuv__comm_now_ns(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (int64_t)ts.tv_sec * 1000000000 + ts.tv_nsec;
}

int64_t nuv__comm_now_ms(void) { return nuv__comm_now_ns() / 1000000; }

int nuv__comm_wait_fd(int fd, short events, int64_t deadline_ms) {
  for (;;) {
    int timeout = -1;
    if (deadline_ms >= 0) {
      int64_t left = deadline_ms - nuv__comm_now_ms();
      if (left <= 0) {
        errno = ETIMEDOUT;
        return -1;
      }
      timeout = left > INT_MAX ? INT_MAX : (int)left;
    }
    struct pollfd p = {.fd = fd, .events = events};
    int rc = poll(&p, 1, timeout);
    if (rc > 0) return 0; /* errors and hang-ups show up in the following call */
    if (rc < 0 && errno != EINTR) return -1;
  }
}

int nuv__comm_send_all(int fd, struct iovec *iov, int n, int64_t deadline_ms) {
  while (n > 0 && iov->iov_len == 0) {
    ++iov;
    --n;
  }
  while (n > 0) {
    struct msghdr m = {.msg_iov = iov, .msg_iovlen = (size_t)n};
    ssize_t sent = sendmsg(fd, &m, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
      if (nuv__comm_wait_fd(fd, POLLOUT, deadline_ms) != 0) return -1;
      continue;
    }
    size_t left = (size_t)sent;
    while (n > 0 && left >= iov->iov_len) {
      left -= iov->iov_len;
      ++iov;
      --n;
    }
    if (n > 0) {
      iov->iov_base = (char *)iov->iov_base + left;
      iov->iov_len -= left;
    }
  }
  return 0;
}

ssize_t nuv__comm_recv_some(int fd, struct msghdr *m, int flags, int64_t deadline_ms) {
  for (;;) {
    ssize_t got = recvmsg(fd, m, flags);
    if (got > 0) return got;
    if (got == 0) {
      errno = ECONNRESET;
      return -1;
    }
    /* Past the first try every wait is poll's, bounded by the deadline. */
    flags |= MSG_DONTWAIT;
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
    if (nuv__comm_wait_fd(fd, POLLIN, deadline_ms) != 0) return -1;
  }
}

int nuv__comm_recv_all(int fd, void *buf, size_t len, int64_t deadline_ms, int block_first) {
  char *p = buf;
  int flags = block_first ? 0 : MSG_DONTWAIT;
  while (len > 0) {
    struct iovec iov = {.iov_base = p, .iov_len = len};
    struct msghdr m = {.msg_iov = &iov, .msg_iovlen = 1};
    ssize_t got = nuv__comm_recv_some(fd, &m, flags, deadline_ms);
    if (got < 0) return -1;
    flags = MSG_DONTWAIT;
    p += got;
    len -= (size_t)got;
  }
  return 0;
}

int nuv__comm_set_rcvtimeo(int fd, unsigned int ms) {
  struct timeval tv = {.tv_sec = (time_t)(ms / 1000), .tv_usec = (suseconds_t)(ms % 1000) * 1000};
  return setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

int nuv__comm_skip(int fd, size_t len, int64_t deadline_ms) {
  char scratch[4096];
  while (len > 0) {
    size_t chunk = len < sizeof scratch ? len : sizeof scratch;
    if (nuv__comm_recv_all(fd, scratch, chunk, deadline_ms, 0) != 0) return -1;
    len -= chunk;
  }
  return 0;
}

void nuv__comm_put_le32(unsigned char *p, uint32_t v) {
  p[0] = (unsigned char)v;
  p[1] = (unsigned char)(v >> 8);
  p[2] = (unsigned char)(v >> 16);
  p[3] = (unsigned char)(v >> 24);
}

uint32_t nuv__comm_get_le32(const unsigned char *p) {
  return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}
