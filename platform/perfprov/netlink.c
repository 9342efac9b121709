#include <errno.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <poll.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "internal.h"

/* How long the kernel gets to acknowledge a subscription. Outside the initial pid namespace it
 * stays silent, and events would carry foreign pids anyway. */
#define ACK_WAIT_MS 1000

static int send_op(int fd, enum proc_cn_mcast_op op, uint32_t cookie) {
  union {
    struct nlmsghdr hdr;
    char bytes[NLMSG_SPACE(sizeof(struct cn_msg) + sizeof(enum proc_cn_mcast_op))];
  } buf;
  memset(&buf, 0, sizeof buf);
  struct cn_msg *msg = NLMSG_DATA(&buf.hdr);
  buf.hdr.nlmsg_len = NLMSG_LENGTH(sizeof *msg + sizeof op);
  buf.hdr.nlmsg_type = NLMSG_DONE;
  buf.hdr.nlmsg_pid = 0;
  msg->id.idx = CN_IDX_PROC;
  msg->id.val = CN_VAL_PROC;
  msg->seq = 0;
  msg->ack = cookie; /* the kernel acknowledges with cookie + 1 */
  msg->len = sizeof op;
  memcpy(msg->data, &op, sizeof op);
  struct sockaddr_nl to = {.nl_family = AF_NETLINK, .nl_pid = 0, .nl_groups = 0};
  for (;;) {
    ssize_t n = sendto(fd, &buf, buf.hdr.nlmsg_len, 0, (struct sockaddr *)&to, sizeof to);
    if (n >= 0) return 0;
    if (errno != EINTR) return -1;
  }
}

/* One datagram: calls fn for each process event in it. Returns the number of bytes read, 0
 * when nothing is queued, -1 on a socket error (errno set). */
static ssize_t read_one(int fd, void (*fn)(const struct pp_nl_event *, void *), void *arg,
                        uint32_t cookie, int *acked, int *ack_err) {
  union {
    struct nlmsghdr hdr;
    char bytes[8192];
  } buf;
  struct sockaddr_nl from;
  socklen_t fromlen = sizeof from;
  ssize_t n;
  do {
    n = recvfrom(fd, &buf, sizeof buf, MSG_DONTWAIT, (struct sockaddr *)&from, &fromlen);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
    if (errno == ENOBUFS) {
      struct pp_nl_event ev = {.kind = PP_NL_OVERFLOW};
      if (fn) fn(&ev, arg);
      return 1;
    }
    return -1;
  }
  /* Only the kernel speaks on this group. */
  if (fromlen < sizeof from || from.nl_pid != 0) return n ? n : 1;
  size_t len = (size_t)n;
  for (struct nlmsghdr *h = &buf.hdr; NLMSG_OK(h, len); h = NLMSG_NEXT(h, len)) {
    if (h->nlmsg_type == NLMSG_ERROR || h->nlmsg_type == NLMSG_NOOP) continue;
    if (h->nlmsg_len < NLMSG_LENGTH(sizeof(struct cn_msg) + sizeof(struct proc_event)))
      continue;
    struct cn_msg *msg = NLMSG_DATA(h);
    if (msg->id.idx != CN_IDX_PROC || msg->id.val != CN_VAL_PROC) continue;
    if (msg->len < sizeof(struct proc_event)) continue;
    /* The event follows the connector header unaligned for its 64-bit timestamp: copy it. */
    struct proc_event event;
    size_t have = msg->len < sizeof event ? msg->len : sizeof event;
    memset(&event, 0, sizeof event);
    memcpy(&event, msg->data, have);
    const struct proc_event *pe = &event;
    struct pp_nl_event ev = {.kind = PP_NL_NONE};
    switch (pe->what) {
      case PROC_EVENT_NONE:
        if (acked && msg->ack == cookie + 1) {
          *acked = 1;
          *ack_err = (int)pe->event_data.ack.err;
        }
        break;
      case PROC_EVENT_FORK:
        /* A new thread shares its parent's thread group: not a process. */
        if (pe->event_data.fork.child_pid != pe->event_data.fork.child_tgid) break;
        ev.kind = PP_NL_FORK;
        ev.pid = pe->event_data.fork.child_tgid;
        ev.parent = pe->event_data.fork.parent_tgid;
        break;
      case PROC_EVENT_EXEC:
        if (pe->event_data.exec.process_pid != pe->event_data.exec.process_tgid) break;
        ev.kind = PP_NL_EXEC;
        ev.pid = pe->event_data.exec.process_tgid;
        break;
      case PROC_EVENT_EXIT:
        /* A thread's exit: its process lives on. */
        if (pe->event_data.exit.process_pid != pe->event_data.exit.process_tgid) break;
        ev.kind = PP_NL_EXIT;
        ev.pid = pe->event_data.exit.process_tgid;
        break;
      default:
        break;
    }
    if (ev.kind != PP_NL_NONE && fn) fn(&ev, arg);
  }
  return n ? n : 1;
}

int pp_nl_open(void) {
  int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_CONNECTOR);
  if (fd < 0) return -1;
  /* Bursts of process starts must not overflow the queue; forcing needs privilege, the
   * plain request is the fallback. */
  int size = 4 << 20;
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  struct sockaddr_nl addr = {.nl_family = AF_NETLINK, .nl_pid = 0, .nl_groups = CN_IDX_PROC};
  if (bind(fd, (struct sockaddr *)&addr, sizeof addr) != 0) goto fail;
  /* A cookie of our own tells our acknowledgement from other listeners'. */
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  uint32_t cookie = (((uint32_t)getpid() << 16) ^ (uint32_t)ts.tv_nsec) | 2u;
  if (send_op(fd, PROC_CN_MCAST_LISTEN, cookie) != 0) goto fail;
  uint64_t deadline = pp_clock_ms(CLOCK_MONOTONIC) + ACK_WAIT_MS;
  int acked = 0, ack_err = 0;
  while (!acked) {
    uint64_t now = pp_clock_ms(CLOCK_MONOTONIC);
    if (now >= deadline) {
      /* The kernel may have counted us as a listener all the same. */
      send_op(fd, PROC_CN_MCAST_IGNORE, 0);
      errno = ETIMEDOUT;
      goto fail;
    }
    struct pollfd p = {.fd = fd, .events = POLLIN};
    int rc = poll(&p, 1, (int)(deadline - now));
    if (rc < 0 && errno != EINTR) goto fail;
    if (rc <= 0) continue;
    /* Events queued before the acknowledgement are dropped: the caller's snapshot, taken
     * after this returns, covers them. */
    while (!acked) {
      ssize_t n = read_one(fd, NULL, NULL, cookie, &acked, &ack_err);
      if (n < 0) goto fail;
      if (n == 0) break;
    }
  }
  if (ack_err != 0) {
    errno = ack_err;
    goto fail;
  }
  return fd;
fail: {
  int saved = errno;
  close(fd);
  errno = saved;
  return -1;
}
}

int pp_nl_drain(int fd, void (*fn)(const struct pp_nl_event *ev, void *arg), void *arg) {
  for (;;) {
    ssize_t n = read_one(fd, fn, arg, 0, NULL, NULL);
    if (n < 0) return -1;
    if (n == 0) return 0;
  }
}

void pp_nl_close(int fd) {
  if (fd < 0) return;
  /* The kernel counts listeners and builds events only while there are any. */
  send_op(fd, PROC_CN_MCAST_IGNORE, 0);
  close(fd);
}
