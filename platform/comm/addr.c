/* Socket addresses. A socket path is limited to sizeof(sun_path) - 1 bytes, less than a long
 * directory plus a 100-byte topic. Such names are reached relative to the directory, from a
 * short-lived thread that has its own working directory (unshare(CLONE_FS)), so the process's
 * working directory is never touched. */
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "internal.h"

enum { OP_BIND, OP_CONNECT };

static int fill(struct sockaddr_un *sa, const char *a, const char *b) {
  memset(sa, 0, sizeof *sa);
  sa->sun_family = AF_UNIX;
  int n = b ? snprintf(sa->sun_path, sizeof sa->sun_path, "%s/%s", a, b)
            : snprintf(sa->sun_path, sizeof sa->sun_path, "%s", a);
  return n >= 0 && (size_t)n < sizeof sa->sun_path ? 0 : -1;
}

static int do_op(int op, int fd, const struct sockaddr_un *sa) {
  const struct sockaddr *s = (const struct sockaddr *)sa;
  if (op == OP_BIND) return bind(fd, s, sizeof *sa);
  int rc;
  do rc = connect(fd, s, sizeof *sa);
  while (rc != 0 && errno == EINTR);
  /* A connect interrupted and retried finds the first one completed. */
  return rc != 0 && errno == EISCONN ? 0 : rc;
}

struct rel_call {
  int op, fd, dir_fd;
  const char *name;
  int rc, err;
};

static void *rel_thread(void *arg) {
  struct rel_call *c = arg;
  struct sockaddr_un sa;
  c->rc = -1;
  if (unshare(CLONE_FS) != 0 || fchdir(c->dir_fd) != 0) {
    c->err = errno;
    return NULL;
  }
  if (fill(&sa, c->name, NULL) != 0) {
    c->err = ENAMETOOLONG;
    return NULL;
  }
  c->rc = do_op(c->op, c->fd, &sa);
  c->err = errno;
  return NULL;
}

static int op_at(int op, int fd, const char *dir, int dir_fd, const char *name) {
  struct sockaddr_un sa;
  if (fill(&sa, dir, name) == 0) return do_op(op, fd, &sa);

  int own = -1;
  if (dir_fd < 0) {
    own = open(dir, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (own < 0) return -1;
    dir_fd = own;
  }
  struct rel_call c = {.op = op, .fd = fd, .dir_fd = dir_fd, .name = name, .rc = -1};
  pthread_t tid;
  int err = nuv__comm_thread(&tid, rel_thread, &c, 0);
  if (err == 0) {
    pthread_join(tid, NULL);
    err = c.rc == 0 ? 0 : c.err;
  }
  if (own >= 0) close(own);
  if (err != 0) {
    errno = err;
    return -1;
  }
  return 0;
}

int nuv__comm_bind_at(int fd, const char *dir, int dir_fd, const char *name) {
  return op_at(OP_BIND, fd, dir, dir_fd, name);
}

int nuv__comm_connect_at(int fd, const char *dir, int dir_fd, const char *name) {
  return op_at(OP_CONNECT, fd, dir, dir_fd, name);
}
