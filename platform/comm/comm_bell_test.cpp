// The page two ends of a connection share to count the bytes each sent, on real socket pairs.
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

extern "C" {
#include "internal.h"
}
#include "comm_hello_testkit.h"

namespace {

using commtest::TakePage;

struct Pair {
  int fd[2] = {-1, -1};  // [0] the client's end, [1] the server's
  Pair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd), 0); }
  ~Pair() {
    for (int f : fd) {
      if (f >= 0) ::close(f);
    }
  }
};

std::string ReadExactly(int fd, size_t n) {
  std::string out(n, '\0');
  size_t have = 0;
  while (have < n) {
    ssize_t got = ::recv(fd, &out[have], n - have, 0);
    if (got <= 0) break;
    have += size_t(got);
  }
  out.resize(have);
  return out;
}

// Serves one hello on the server's end the way the bus does.
int ServeHello(int fd, nuv__bell* bell) {
  std::string hello = ReadExactly(fd, NUV__BELL_HELLO_LEN);
  if (!nuv__bell_is_hello(reinterpret_cast<const unsigned char*>(hello.data()), hello.size())) {
    return -2;
  }
  return nuv__bell_give(fd, bell);
}

struct Handshake {
  Pair p;
  nuv__bell client{}, server{};
  Handshake() {
    int served = -1;
    std::thread srv([&] { served = ServeHello(p.fd[1], &server); });
    EXPECT_EQ(nuv__bell_ask(p.fd[0], &client, nuv__comm_now_ms() + 5000), 0);
    srv.join();
    EXPECT_EQ(served, 0);
  }
  ~Handshake() {
    nuv__bell_drop(&client);
    nuv__bell_drop(&server);
  }
};

TEST(CommBell, BothEndsHearWhatTheOtherSays) {
  Handshake h;
  ASSERT_NE(h.client.page, nullptr);
  ASSERT_NE(h.server.page, nullptr);
  EXPECT_NE(h.client.page, h.server.page);  // two mappings of one page

  EXPECT_FALSE(nuv__bell_rung(&h.server));
  nuv__bell_ring(&h.client, 24);
  EXPECT_TRUE(nuv__bell_rung(&h.server));
  h.server.seen += 20;  // a read that took part of it
  EXPECT_TRUE(nuv__bell_rung(&h.server));
  h.server.seen += 4;
  EXPECT_FALSE(nuv__bell_rung(&h.server));
  EXPECT_FALSE(nuv__bell_rung(&h.client));  // a count is not heard by the end that rings it

  nuv__bell_ring(&h.server, 8);
  EXPECT_TRUE(nuv__bell_rung(&h.client));
  h.client.seen += 8;
  EXPECT_FALSE(nuv__bell_rung(&h.client));

  // The counts wrap around without losing track.
  h.client.seen = h.server.seen = 0;
  *h.client.rings = 0xFFFFFFF0u;
  h.server.seen = 0xFFFFFFF0u;
  nuv__bell_ring(&h.client, 0x20);
  EXPECT_TRUE(nuv__bell_rung(&h.server));
  h.server.seen += 0x20;
  EXPECT_FALSE(nuv__bell_rung(&h.server));
}

// The server maps the page for the life of the connection: a client that could shrink it would
// make the server fault on its next look.
TEST(CommBell, AClientCannotResizeThePageUnderTheServer) {
  Pair p;
  nuv__bell server{};
  int served = -1;
  std::thread srv([&] { served = ServeHello(p.fd[1], &server); });
  std::string reply;
  int page = TakePage(p.fd[0], &reply);
  srv.join();
  ASSERT_EQ(served, 0);
  ASSERT_GE(page, 0);
  EXPECT_EQ(reply, std::string("\x04\0\0\0\0\0\0\0", 8));
  EXPECT_EQ(::ftruncate(page, 0), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(::ftruncate(page, 1 << 20), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(::fcntl(page, F_ADD_SEALS, 0), -1);  // nor unseal it: the seals are sealed
  ::close(page);
  nuv__bell_ring(&server, 1);  // the server's mapping is whole
  EXPECT_EQ(*server.rings, 1u);
  nuv__bell_drop(&server);
}

// A server that answers without a page (an old one, or one out of memory) or took the hello
// for a request leaves the connection usable, just without counts; one that closes fails it.
TEST(CommBell, AnAnswerWithoutAPageStillLeavesTheConnectionInStep) {
  for (uint32_t result : {0u, 0x12345u}) {
    Pair p;
    std::thread srv([&] {
      ReadExactly(p.fd[1], NUV__BELL_HELLO_LEN);
      unsigned char reply[8];
      nuv__comm_put_le32(reply, 4);
      nuv__comm_put_le32(reply + 4, result);
      ::send(p.fd[1], reply, sizeof reply, MSG_NOSIGNAL);
      ::send(p.fd[1], "next", 4, MSG_NOSIGNAL);
    });
    nuv__bell client{};
    EXPECT_EQ(nuv__bell_ask(p.fd[0], &client, nuv__comm_now_ms() + 5000), 0) << result;
    srv.join();
    EXPECT_EQ(client.page, nullptr);
    EXPECT_EQ(ReadExactly(p.fd[0], 4), "next");  // nothing after the answer was taken
  }

  Pair p;
  std::thread srv([&] {
    ReadExactly(p.fd[1], NUV__BELL_HELLO_LEN);
    ::close(p.fd[1]);
    p.fd[1] = -1;
  });
  nuv__bell client{};
  errno = 0;
  EXPECT_EQ(nuv__bell_ask(p.fd[0], &client, nuv__comm_now_ms() + 5000), -1);
  EXPECT_EQ(errno, ECONNRESET);
  srv.join();
}

// A spin that owns `end`'s mapping of the page from here on.
nuv__spin SpinWith(nuv__bell& end) {
  nuv__spin spin{};
  spin.bell = end;
  end.page = nullptr;
  return spin;
}

// A spin with a page looks at the peer's count, not at the socket: what was rung is read,
// what was sent unrung (or a close) is left to the caller's own wait, which still sees it.
TEST(CommBell, ASpinWithAPageReadsOnlyWhatWasRung) {
  Handshake h;
  ASSERT_NE(h.client.page, nullptr);
  nuv__spin spin = SpinWith(h.server);
  char buf[16];

  ASSERT_EQ(::send(h.p.fd[0], "abc", 3, 0), 3);
  nuv__bell_ring(&h.client, 3);
  ASSERT_EQ(nuv__spin_recv(&spin, h.p.fd[1], buf, sizeof buf), 3);
  spin.bell.seen += 3;

  ASSERT_EQ(::send(h.p.fd[0], "xy", 2, 0), 2);
  errno = 0;
  EXPECT_EQ(nuv__spin_recv(&spin, h.p.fd[1], buf, sizeof buf), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(ReadExactly(h.p.fd[1], 2), "xy");

  ::shutdown(h.p.fd[0], SHUT_WR);
  spin.sleep = 0;
  EXPECT_EQ(nuv__spin_recv(&spin, h.p.fd[1], buf, sizeof buf), -1);
  EXPECT_EQ(::recv(h.p.fd[1], buf, sizeof buf, 0), 0);
  nuv__bell_drop(&spin.bell);
}

// The server tells its load on the page; its own end goes by its own count, which a client
// cannot overwrite.
TEST(CommBell, TheServerTellsHowManyConnectionsItServes) {
  Handshake h;
  ASSERT_NE(h.client.page, nullptr);
  nuv__bell none{};
  EXPECT_EQ(nuv__bell_serving(&none), 0u);
  EXPECT_EQ(nuv__bell_serving(&h.client), 0u);

  nuv__bell_serving_add(3);
  EXPECT_EQ(nuv__bell_serving(&h.server), 3u);
  EXPECT_EQ(nuv__bell_serving(&h.client), 0u);  // not told yet
  nuv__bell_tell(&h.client);                     // a client's end has nothing to tell
  EXPECT_EQ(nuv__bell_serving(&h.client), 0u);
  nuv__bell_tell(&h.server);
  EXPECT_EQ(nuv__bell_serving(&h.client), 3u);

  *h.client.serving = 0;
  EXPECT_EQ(nuv__bell_serving(&h.server), 3u);

  nuv__bell_serving_add(-3);
  nuv__bell_tell(&h.server);
  EXPECT_EQ(nuv__bell_serving(&h.client), 0u);
}

// A busy spin beside more served connections than the CPUs carry would take a CPU a peer
// needs: the waiter then yields from the start, and nothing marks the connection crowded.
TEST(CommBell, AWaiterSpinsBusyOnlyWhileTheServersLoadLeavesCPUs) {
  cpu_set_t set;
  ASSERT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
  const int cpus = CPU_COUNT(&set);
  if (cpus < 2) GTEST_SKIP() << "one CPU: nothing spins busy";
  Handshake h;
  ASSERT_NE(h.client.page, nullptr);
  nuv__spin spin = SpinWith(h.client);
  char buf[8];

  nuv__bell_serving_add(cpus);  // two threads per connection: more than the CPUs
  nuv__bell_tell(&h.server);
  errno = 0;
  EXPECT_EQ(nuv__spin_recv(&spin, h.p.fd[0], buf, sizeof buf), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(spin.misses, 0u);
  EXPECT_EQ(spin.crowded, 0u);

  nuv__bell_serving_add(1 - cpus);  // one connection: a CPU each
  nuv__bell_tell(&h.server);
  EXPECT_EQ(nuv__spin_recv(&spin, h.p.fd[0], buf, sizeof buf), -1);
  EXPECT_EQ(spin.misses, 1u);  // it spun busy, and nothing came in that time
  EXPECT_GT(spin.crowded, 0u);

  nuv__bell_serving_add(-1);
  nuv__bell_drop(&spin.bell);
}

}  // namespace
