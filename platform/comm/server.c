/* The serving side of a topic: its socket file, a listener thread and one thread per
 * connection. */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal.h"
#include "nuv_syscall.h"
#include "nuv_thread.h"

/* Not a valid topic name, so it cannot collide with a socket. */
#define LOCK_NAME "~lock"

int nuv__comm_thread(pthread_t *tid, void *(*fn)(void *), void *arg, int detached) {
  pthread_attr_t attr;
  int rc = pthread_attr_init(&attr);
  if (rc != 0) return rc;
  /* Up to max_conn threads per topic must fit in a 32-bit address space. */
  if (sizeof(void *) == 4) pthread_attr_setstacksize(&attr, 1024u * 1024u);
  if (detached) pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  rc = nuv_pthread_create_masked(tid, &attr, fn, arg);
  pthread_attr_destroy(&attr);
  return rc;
}

static void close_fd(int *fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

/* ---- socket directory ---- */

/* Creates `dir` and missing parents with mode 0700, and checks that it is a directory that
 * nobody but us or root could have planted sockets in. 0, or -1 with errno. */
static int ensure_dir(const char *dir) {
  struct stat st;
  if (stat(dir, &st) != 0) {
    if (errno != ENOENT) return -1;
    char buf[PATH_MAX];
    size_t n = strlen(dir);
    if (n >= sizeof buf) {
      errno = ENAMETOOLONG;
      return -1;
    }
    memcpy(buf, dir, n + 1);
    for (char *p = buf + 1; *p; ++p) {
      if (*p != '/') continue;
      *p = '\0';
      if (mkdir(buf, 0700) != 0 && errno != EEXIST) return -1;
      *p = '/';
    }
    if (mkdir(dir, 0700) == 0) {
      if (chmod(dir, 0700) != 0) return -1; /* the umask may have taken bits away */
    } else if (errno != EEXIST) {
      return -1;
    }
    if (stat(dir, &st) != 0) return -1;
  }
  if (!S_ISDIR(st.st_mode)) {
    errno = ENOTDIR;
    return -1;
  }
  if (st.st_uid != geteuid() && st.st_uid != 0) {
    errno = EPERM;
    return -1;
  }
  /* Anyone who may write here could bind a topic first and receive what is posted to it
   * (the sticky bit does not stop that), so such a directory is refused. */
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    errno = EPERM;
    return -1;
  }
  return 0;
}

/* Serialises replacing and removing socket files between processes, so a stale socket is
 * never removed after someone else already put a live one there. Returns the lock's fd, or -1
 * (then we go on unlocked). */
static int lock_dir(int dir_fd) {
  int fd = openat(dir_fd, LOCK_NAME, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return -1;
  while (flock(fd, LOCK_EX) != 0) {
    if (errno != EINTR) {
      close(fd);
      return -1;
    }
  }
  return fd;
}

static void unlock_dir(int fd) {
  if (fd >= 0) close(fd); /* releases the flock */
}

/* 1 when the socket file of `t` was stale (nobody accepts on it) and is now gone. */
static int remove_if_stale(struct nuv__topic *t) {
  struct stat st;
  if (fstatat(t->dir_fd, t->name, &st, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT;
  if (!S_ISSOCK(st.st_mode)) return 0;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return 0;
  int rc = nuv__comm_connect_at(fd, t->dir, t->dir_fd, t->name);
  int err = errno;
  close(fd);
  /* EAGAIN means a full backlog: alive, merely busy. */
  if (rc == 0 || err != ECONNREFUSED) return 0;
  return unlinkat(t->dir_fd, t->name, 0) == 0 || errno == ENOENT;
}

static int bind_listen(struct nuv__topic *t) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return NUV_COMM_E_SYSTEM;
    if (nuv__comm_bind_at(fd, t->dir, t->dir_fd, t->name) == 0) {
      struct stat st;
      if (listen(fd, SOMAXCONN) != 0 ||
          fstatat(t->dir_fd, t->name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        int err = errno;
        unlinkat(t->dir_fd, t->name, 0);
        close(fd);
        errno = err;
        return NUV_COMM_E_SYSTEM;
      }
      t->dev = st.st_dev;
      t->ino = st.st_ino;
      t->listen_fd = fd;
      return 0;
    }
    int err = errno;
    close(fd);
    errno = err;
    if (err != EADDRINUSE) return NUV_COMM_E_SYSTEM;
    if (!remove_if_stale(t)) break;
  }
  return NUV_COMM_E_BUSY;
}

/* ---- connections ---- */

static void unlink_conn(struct nuv__topic *t, struct nuv__conn *c) {
  if (c->prev) c->prev->next = c->next;
  else t->conns = c->next;
  if (c->next) c->next->prev = c->prev;
  t->nconns--;
  if (c->evicted) t->nevicted--;
}

/* With t->mu held, at the cap: shuts down the connection that has been idle longest, so that
 * its thread ends and a new connection can be served. 0 when one was found, else -1. A client
 * whose pooled connection goes this way reconnects on its next post. */
static int evict_oldest_idle(struct nuv__topic *t) {
  struct nuv__conn *oldest = NULL;
  int64_t oldest_since = 0;
  for (;;) {
    for (struct nuv__conn *c = t->conns; c; c = c->next) {
      int64_t since = __atomic_load_n(&c->idle_since, __ATOMIC_ACQUIRE);
      if (since > 0 && (!oldest || since < oldest_since)) {
        oldest = c;
        oldest_since = since;
      }
    }
    if (!oldest) return -1;
    if (__atomic_compare_exchange_n(&oldest->idle_since, &oldest_since, NUV__CONN_EVICTED, 0,
                                    __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
      break;
    }
    oldest = NULL; /* it became busy meanwhile: look again */
  }
  oldest->evicted = 1;
  t->nevicted++;
  shutdown(oldest->fd, SHUT_RDWR);
  return 0;
}

static void *conn_main(void *arg) {
  struct nuv__conn *c = arg;
  struct nuv__topic *t = c->t;
  nuv__comm_serve(t, c, c->fd);
  /* Off the list before the fd closes, so a stop never shuts down a recycled fd. */
  pthread_mutex_lock(&t->mu);
  unlink_conn(t, c);
  pthread_mutex_unlock(&t->mu);
  close(c->fd);
  free(c);
  nuv__topic_unref(t);
  return NULL;
}

/* Hands `fd` to a new connection thread; -1 when over the cap or out of resources. */
static int start_conn(struct nuv__topic *t, int fd) {
  struct nuv__conn *c = calloc(1, sizeof *c);
  if (!c) return -1;
  c->fd = fd;
  c->t = t;
  pthread_mutex_lock(&t->mu);
  if (t->closing ||
      (t->nconns - t->nevicted >= t->max_conn && evict_oldest_idle(t) != 0) ||
      t->nconns >= 2 * t->max_conn) {
    /* Over the cap with nobody idle to drop, or too many dropped ones still ending. */
    pthread_mutex_unlock(&t->mu);
    free(c);
    return -1;
  }
  c->next = t->conns;
  if (c->next) c->next->prev = c;
  t->conns = c;
  t->nconns++;
  t->refs++;
  pthread_mutex_unlock(&t->mu);
  pthread_t tid;
  if (nuv__comm_thread(&tid, conn_main, c, 1) != 0) {
    pthread_mutex_lock(&t->mu);
    unlink_conn(t, c);
    pthread_mutex_unlock(&t->mu);
    free(c);
    nuv__topic_unref(t);
    return -1;
  }
  return 0;
}

static void *listener_main(void *arg) {
  struct nuv__topic *t = arg;
  uid_t me = geteuid();
  struct pollfd p[2] = {{.fd = t->listen_fd, .events = POLLIN}, {.fd = t->wake[0], .events = POLLIN}};
  for (;;) {
    p[0].revents = p[1].revents = 0;
    if (poll(p, 2, -1) < 0) {
      if (errno != EINTR) poll(&p[1], 1, 10); /* ENOMEM: back off, still stoppable */
      continue;
    }
    if (p[1].revents) break;
    if (!p[0].revents) continue;
    int fd =
        NUV_SYS_CALL(NUV_SYS_ACCEPT4, nuv_sys_accept4_fn)(t->listen_fd, NULL, NULL, SOCK_CLOEXEC);
    if (fd < 0) {
      /* Out of descriptors leaves the connection queued and the socket readable: back off
       * instead of spinning. */
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        poll(&p[1], 1, 10);
      }
      continue;
    }
    struct ucred cred;
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof cred ||
        (cred.uid != me && cred.uid != 0) || start_conn(t, fd) != 0) {
      close(fd);
    }
  }
  return NULL;
}

/* ---- start and stop ---- */

int nuv__server_start(struct nuv__topic *t) {
  t->dir_fd = t->listen_fd = t->wake[0] = t->wake[1] = -1;
  if (ensure_dir(t->dir) != 0) return NUV_COMM_E_SYSTEM;
  t->dir_fd = open(t->dir, O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (t->dir_fd < 0) return NUV_COMM_E_SYSTEM;
  if (pipe2(t->wake, O_CLOEXEC) != 0) {
    int err = errno;
    close_fd(&t->dir_fd);
    errno = err;
    return NUV_COMM_E_SYSTEM;
  }
  int lock = lock_dir(t->dir_fd);
  int rc = bind_listen(t);
  if (rc == 0) {
    int err = nuv__comm_thread(&t->listener, listener_main, t, 0);
    if (err == 0) {
      t->has_listener = 1;
    } else {
      unlinkat(t->dir_fd, t->name, 0);
      errno = err;
      rc = NUV_COMM_E_SYSTEM;
    }
  }
  unlock_dir(lock);
  if (rc != 0) {
    int err = errno;
    close_fd(&t->listen_fd);
    close_fd(&t->wake[0]);
    close_fd(&t->wake[1]);
    close_fd(&t->dir_fd);
    errno = err;
  }
  return rc;
}

void nuv__server_stop(struct nuv__topic *t) {
  if (t->has_listener) {
    char b = 1;
    while (write(t->wake[1], &b, 1) < 0 && errno == EINTR) {
    }
    pthread_join(t->listener, NULL);
    t->has_listener = 0;
  }
  if (t->dir_fd >= 0) {
    /* Only our own socket goes: after a crash-and-replace race it may be someone else's. */
    int lock = lock_dir(t->dir_fd);
    struct stat st;
    if (fstatat(t->dir_fd, t->name, &st, AT_SYMLINK_NOFOLLOW) == 0 && st.st_dev == t->dev &&
        st.st_ino == t->ino) {
      unlinkat(t->dir_fd, t->name, 0);
    }
    unlock_dir(lock);
  }
  close_fd(&t->listen_fd);
  close_fd(&t->wake[0]);
  close_fd(&t->wake[1]);
  close_fd(&t->dir_fd);
  /* Shutting down the read side wakes idle connections and refuses further requests, while a
   * handler in flight can still send its answer. */
  pthread_mutex_lock(&t->mu);
  t->closing = 1;
  for (struct nuv__conn *c = t->conns; c; c = c->next) shutdown(c->fd, SHUT_RD);
  pthread_mutex_unlock(&t->mu);
}
