// Waits spun before they sleep, on a real socket pair.
#include <sys/socket.h>
#include <unistd.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

extern "C" {
#include "internal.h"
}

namespace {

using namespace std::chrono_literals;

struct Pair {
  int fd[2] = {-1, -1};
  Pair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0); }
  ~Pair() {
    for (int f : fd) {
      if (f >= 0) ::close(f);
    }
  }
  void Send(const std::string& s) {
    ASSERT_EQ(::send(fd[1], s.data(), s.size(), 0), static_cast<ssize_t>(s.size()));
  }
};

TEST(CommSpin, TakesWhatArrivesWhileSpinningAndTellsACloseFromSilence) {
  Pair p;
  nuv__spin spin{};
  char buf[16];

  p.Send("abc");
  ASSERT_EQ(nuv__spin_recv(&spin, p.fd[0], buf, sizeof buf), 3);
  EXPECT_EQ(std::string(buf, 3), "abc");

  // Nothing comes: the spin gives the wait back instead of blocking.
  errno = 0;
  EXPECT_EQ(nuv__spin_recv(&spin, p.fd[0], buf, sizeof buf), -1);
  EXPECT_EQ(errno, EAGAIN);

  // Bytes sent while the reader spins are taken by the spin or, once it gave up, are still
  // there for the caller's own read: none are lost either way.
  std::thread late([&] {
    std::this_thread::sleep_for(20us);
    p.Send("late");
  });
  ssize_t got = nuv__spin_recv(&spin, p.fd[0], buf, sizeof buf);
  late.join();
  if (got < 0) {
    EXPECT_EQ(errno, EAGAIN);
    got = ::recv(p.fd[0], buf, sizeof buf, 0);
    nuv__spin_slept(&spin);
  }
  ASSERT_EQ(got, 4);
  EXPECT_EQ(std::string(buf, 4), "late");

  ::close(p.fd[1]);
  p.fd[1] = -1;
  nuv__spin fresh{};
  EXPECT_EQ(nuv__spin_recv(&fresh, p.fd[0], buf, sizeof buf), 0);
}

TEST(CommSpin, AConnectionWhoseLastWaitWasLongSleepsUntilAWaitIsShortAgain) {
  Pair p;
  nuv__spin spin{};
  char buf[16];

  // A long wait: the spin gives up, the caller sleeps well past the spin's bound.
  ASSERT_EQ(nuv__spin_recv(&spin, p.fd[0], buf, sizeof buf), -1);
  std::this_thread::sleep_for(5ms);
  nuv__spin_slept(&spin);

  // The next wait does not touch the socket, though bytes are there: the caller reads them.
  p.Send("x");
  errno = 0;
  EXPECT_EQ(nuv__spin_recv(&spin, p.fd[0], buf, sizeof buf), -1);
  EXPECT_EQ(errno, EAGAIN);
  ASSERT_EQ(::recv(p.fd[0], buf, sizeof buf, 0), 1);
  // That wait was short, so the one after spins again and takes what is there itself.
  nuv__spin_slept(&spin);
  p.Send("y");
  ASSERT_EQ(nuv__spin_recv(&spin, p.fd[0], buf, sizeof buf), 1);
  EXPECT_EQ(buf[0], 'y');
}

}  // namespace
