/* A page the two ends of a connection share, where each adds up the bytes it has sent. A
 * waiter that watches the peer's count learns that bytes arrived without a system call, so a
 * spun wait costs no reads that find nothing. The socket stays the only carrier of data: a
 * count is a hint, and a side that never looks at it, or never rings, loses nothing.
 *
 * The client asks for the page with a first frame whose body is HELLO; the server answers it
 * with result 0 and, when it could make one, the page's descriptor, and does not pass it to
 * the topic. Clients that do not ask are served as before. The page is sealed against
 * shrinking, so a peer cannot make the server's mapping fault. */
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal.h"

#define PAGE 4096
/* The two counts sit on their own cache lines: each side writes one and reads the other. The
 * third line holds what the server last told of its load. */
#define TO_SERVER 0
#define TO_CLIENT 64
#define SERVING 128

static const unsigned char HELLO[NUV__BELL_HELLO_LEN] = {
    16, 0, 0, 0, 0, 'n', 'u', 'v', '_', 'c', 'o', 'm', 'm', ' ', 'b', 'e', 'l', 'l', 0, 1};

int nuv__bell_is_hello(const unsigned char *bytes, size_t len) {
  return len >= sizeof HELLO && memcmp(bytes, HELLO, sizeof HELLO) == 0;
}

static void attach(struct nuv__bell *b, void *page, int server) {
  b->page = page;
  b->rings = (uint32_t *)((char *)page + (server ? TO_CLIENT : TO_SERVER));
  b->heard = (const uint32_t *)((char *)page + (server ? TO_SERVER : TO_CLIENT));
  b->serving = (uint32_t *)((char *)page + SERVING);
  b->server = server;
  b->seen = 0;
}

void nuv__bell_drop(struct nuv__bell *b) {
  if (b->page) munmap(b->page, PAGE);
  memset(b, 0, sizeof *b);
}

/* A sealed page, mapped; its descriptor, or -1. */
static int make_page(void **page) {
  int fd = memfd_create("nuv_comm bell", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fd < 0) return -1;
  if (ftruncate(fd, PAGE) == 0 &&
      fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0) {
    *page = mmap(NULL, PAGE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (*page != MAP_FAILED) return fd;
  }
  close(fd);
  return -1;
}

int nuv__bell_give(int fd, struct nuv__bell *b) {
  unsigned char reply[8];
  nuv__comm_put_le32(reply, 4);
  nuv__comm_put_le32(reply + 4, 0);
  void *page = NULL;
  int page_fd = make_page(&page);
  union {
    struct cmsghdr h;
    char space[CMSG_SPACE(sizeof(int))];
  } ctl;
  struct iovec iov = {.iov_base = reply, .iov_len = sizeof reply};
  struct msghdr m = {.msg_iov = &iov, .msg_iovlen = 1};
  if (page_fd >= 0) {
    memset(&ctl, 0, sizeof ctl);
    m.msg_control = ctl.space;
    m.msg_controllen = sizeof ctl.space;
    struct cmsghdr *c = CMSG_FIRSTHDR(&m);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(c), &page_fd, sizeof(int));
  }
  ssize_t sent;
  do {
    sent = sendmsg(fd, &m, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (sent < 0 && errno == EINTR);
  if (page_fd >= 0) close(page_fd);
  memset(b, 0, sizeof *b);
  /* The first reply on a connection meets an empty send buffer: it goes whole or not at all. */
  if (sent != (ssize_t)sizeof reply) {
    if (page) munmap(page, PAGE);
    if (sent >= 0) errno = EPROTO;
    return -1;
  }
  if (page) attach(b, page, 1);
  return 0;
}

/* The descriptor that came with a reply, if it is a page we can map safely; else -1. */
static int page_fd_of(struct msghdr *m) {
  int got = -1;
  for (struct cmsghdr *c = CMSG_FIRSTHDR(m); c; c = CMSG_NXTHDR(m, c)) {
    if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
    size_t n = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < n; ++i) {
      int fd;
      memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
      if (got < 0) {
        got = fd;
      } else {
        close(fd);
      }
    }
  }
  struct stat st;
  if (got >= 0 && (fstat(got, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < PAGE ||
                   !(fcntl(got, F_GET_SEALS) & F_SEAL_SHRINK))) {
    close(got);
    got = -1;
  }
  return got;
}

int nuv__bell_ask(int fd, struct nuv__bell *b, int64_t deadline_ms) {
  memset(b, 0, sizeof *b);
  struct iovec hello = {.iov_base = (void *)HELLO, .iov_len = sizeof HELLO};
  if (nuv__comm_send_all(fd, &hello, 1, deadline_ms) != 0) return -1;
  unsigned char reply[8];
  union {
    struct cmsghdr h;
    char space[CMSG_SPACE(sizeof(int) * 4)];
  } ctl;
  struct iovec iov = {.iov_base = reply, .iov_len = sizeof reply};
  struct msghdr m = {.msg_iov = &iov, .msg_iovlen = 1, .msg_control = ctl.space,
                     .msg_controllen = sizeof ctl.space};
  ssize_t got = nuv__comm_recv_some(fd, &m, MSG_DONTWAIT | MSG_CMSG_CLOEXEC, deadline_ms);
  if (got < 0) return -1;
  int page_fd = page_fd_of(&m);
  if ((size_t)got < sizeof reply &&
      nuv__comm_recv_all(fd, reply + got, sizeof reply - (size_t)got, deadline_ms, 0) != 0) {
    if (page_fd >= 0) close(page_fd);
    return -1;
  }
  /* Anything but a plain 0 is a server that took the hello for a request: no page then, but
   * the connection is still in step. */
  if (page_fd < 0) return 0;
  void *page = MAP_FAILED;
  if (nuv__comm_get_le32(reply) == 4 && nuv__comm_get_le32(reply + 4) == 0) {
    page = mmap(NULL, PAGE, PROT_READ | PROT_WRITE, MAP_SHARED, page_fd, 0);
  }
  close(page_fd);
  if (page != MAP_FAILED) attach(b, page, 0);
  return 0;
}

static uint32_t serving;

void nuv__bell_serving_add(int n) {
  __atomic_add_fetch(&serving, (uint32_t)n, __ATOMIC_RELAXED);
}

void nuv__bell_tell(struct nuv__bell *b) {
  if (b->server && b->serving) {
    __atomic_store_n(b->serving, __atomic_load_n(&serving, __ATOMIC_RELAXED),
                     __ATOMIC_RELEASE);
  }
}

void nuv__bell_ring(struct nuv__bell *b, size_t bytes) {
  if (b->rings) __atomic_add_fetch(b->rings, (uint32_t)bytes, __ATOMIC_RELEASE);
}

uint32_t nuv__bell_serving(const struct nuv__bell *b) {
  /* The server's end trusts its own count, not what a client may have written there. */
  if (b->server) return __atomic_load_n(&serving, __ATOMIC_RELAXED);
  return b->serving ? __atomic_load_n(b->serving, __ATOMIC_ACQUIRE) : 0;
}

int nuv__bell_rung(const struct nuv__bell *b) {
  return (int32_t)(__atomic_load_n(b->heard, __ATOMIC_ACQUIRE) - b->seen) > 0;
}
