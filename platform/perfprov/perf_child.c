/* A process with known load for the provider's tests:
 *   perf_child [--threads N] [--fds N] [--busy] [--write DIR] [--transient N]
 * runs N threads in all (the main one included), holds N extra open descriptors, spins on one
 * thread with --busy, with --write keeps writing to a file under DIR and syncing it, and with
 * --transient first starts and ends N short-lived threads while it lives on. It
 * prints "ready\n" on standard output once all that is in place, and runs until it is killed
 * (at the latest when its parent ends). */
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

static void *idle_thread(void *arg) {
  (void)arg;
  for (;;) pause();
  return NULL;
}

static void *short_thread(void *arg) { return arg; }

static void *busy_thread(void *arg) {
  (void)arg;
  volatile unsigned long x = 0;
  for (;;) x++;
  return NULL;
}

static void *write_thread(void *arg) {
  char path[4096];
  snprintf(path, sizeof path, "%s/perf_child.%d", (const char *)arg, (int)getpid());
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return NULL;
  static char block[1 << 16];
  memset(block, 'x', sizeof block);
  for (;;) {
    for (int i = 0; i < 16; i++) {
      if (write(fd, block, sizeof block) < 0 && errno != EINTR) break;
    }
    fdatasync(fd);
    if (lseek(fd, 0, SEEK_SET) < 0) return NULL;
    usleep(20000);
  }
}

int main(int argc, char **argv) {
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() == 1) return 1;
  int threads = 1, fds = 0, busy = 0, transient = 0;
  const char *write_dir = NULL;
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "--threads") == 0 && i + 1 < argc) {
      threads = atoi(argv[++i]);
    } else if (strcmp(argv[i], "--fds") == 0 && i + 1 < argc) {
      fds = atoi(argv[++i]);
    } else if (strcmp(argv[i], "--transient") == 0 && i + 1 < argc) {
      transient = atoi(argv[++i]);
    } else if (strcmp(argv[i], "--busy") == 0) {
      busy = 1;
    } else if (strcmp(argv[i], "--write") == 0 && i + 1 < argc) {
      write_dir = argv[++i];
    } else {
      fprintf(stderr, "perf_child: unknown argument %s\n", argv[i]);
      return 2;
    }
  }
  for (int i = 0; i < transient; i++) {
    pthread_t s;
    if (pthread_create(&s, NULL, short_thread, NULL) != 0 || pthread_join(s, NULL) != 0) return 1;
  }
  for (int i = 0; i < fds; i++) {
    if (open("/dev/null", O_RDONLY) < 0) return 1;
  }
  /* The busy and writing threads count among the N. */
  int started = 1;
  pthread_t t;
  if (busy) {
    if (pthread_create(&t, NULL, busy_thread, NULL) != 0) return 1;
    started++;
  }
  if (write_dir) {
    if (pthread_create(&t, NULL, write_thread, (void *)write_dir) != 0) return 1;
    started++;
  }
  for (; started < threads; started++) {
    if (pthread_create(&t, NULL, idle_thread, NULL) != 0) return 1;
  }
  if (write(STDOUT_FILENO, "ready\n", 6) != 6) return 1;
  for (;;) pause();
}
