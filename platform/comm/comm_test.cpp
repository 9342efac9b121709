// The message bus, with real second processes (comm_peer, or fork) and real sockets.
#include <grp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "nuv_comm.h"
#include "nuv_syscall.h"
#include "comm_testkit.h"
#include "testutil/testutil.h"

namespace {

using namespace std::chrono_literals;
using namespace commtest;

// ---- tests ----

TEST(CommLocal, CountedInitRegistryAndData) {
  char text[] = {'a', '\0', 'b'};
  comm_data* d = nuv_comm_new_data(text, 3);
  ASSERT_NE(d, nullptr);
  text[0] = 'z';  // the data holds a terminated copy
  void* p = nullptr;
  unsigned int n = 0;
  ASSERT_EQ(nuv_comm_get_data(d, &p, &n), 0);
  EXPECT_EQ(std::string(static_cast<char*>(p), n + 1), std::string("a\0b\0", 4));
  EXPECT_EQ(nuv_comm_get_data(d, nullptr, &n), NUV_COMM_E_INVAL);
  EXPECT_EQ(nuv_comm_new_data(nullptr, 5), nullptr);
  nuv_comm_delete_data(d);

  nuvtest::TempDir tmp;
  std::string dir = tmp.Sub("nested/bus");
  Recorder rec;
  EXPECT_EQ(nuv_comm_register("life", Recorder::Handle, &rec), NUV_COMM_E_NOINIT);
  EXPECT_EQ(Post("life", "x"), NUV_COMM_E_NOINIT);
  setenv("NUV_COMM_DIR", dir.c_str(), 1);
  ASSERT_EQ(nuv_comm_init(), 0);
  ASSERT_EQ(nuv_comm_init(), 0);
  ASSERT_EQ(nuv_comm_register("life", Recorder::Handle, &rec), 0);
  EXPECT_EQ(nuv_comm_register("life", Recorder::Handle, &rec), NUV_COMM_E_BUSY);
  struct stat st;
  ASSERT_EQ(stat(dir.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  EXPECT_EQ(Post("life", "here"), int(Fnv1a("here")));
  EXPECT_EQ(rec.thread.load(), std::this_thread::get_id());  // in process: the caller's thread
  EXPECT_EQ(Post("nobody", "x"), NUV_COMM_E_NOTOPIC);

  EXPECT_EQ(nuv_comm_uninit(), 0);  // one user left: the topic stays
  EXPECT_EQ(Post("life", "still"), int(Fnv1a("still")));
  EXPECT_TRUE(IsSocket(dir + "/life"));
  EXPECT_EQ(nuv_comm_uninit(), 0);  // the last one takes it down
  EXPECT_FALSE(IsSocket(dir + "/life"));
  EXPECT_EQ(nuv_comm_uninit(), NUV_COMM_E_NOINIT);

  ASSERT_EQ(nuv_comm_init(), 0);  // a new round starts with an empty registry
  EXPECT_EQ(Post("life", "x"), NUV_COMM_E_NOTOPIC);
  EXPECT_EQ(nuv_comm_register("life", Recorder::Handle, &rec), 0);
  EXPECT_EQ(nuv_comm_unregister("life"), 0);
  EXPECT_EQ(nuv_comm_unregister("life"), NUV_COMM_E_NOTOPIC);
  EXPECT_EQ(nuv_comm_uninit(), 0);
  unsetenv("NUV_COMM_DIR");
  EXPECT_EQ(rec.calls.load(), 2);
}

TEST(CommTopics, NamesAreValidated) {
  Bus bus;
  Recorder rec;
  std::string longest(NUV_COMM_TOPIC_MAX, 'n');
  for (std::string bad : {"", "a/b", "a b", ".", "..", "~lock", "caf\xc3\xa9", "a\n"}) {
    EXPECT_EQ(nuv_comm_register(bad.c_str(), Recorder::Handle, &rec), NUV_COMM_E_INVAL) << bad;
    EXPECT_EQ(Post(bad, "x"), NUV_COMM_E_INVAL) << bad;
  }
  EXPECT_EQ(nuv_comm_register((longest + "n").c_str(), Recorder::Handle, &rec), NUV_COMM_E_INVAL);
  EXPECT_EQ(nuv_comm_register("ok", nullptr, &rec), NUV_COMM_E_INVAL);
  EXPECT_EQ(nuv_comm_post("ok", nullptr), NUV_COMM_E_INVAL);
  ASSERT_EQ(nuv_comm_register("A-z_0.9:x", Recorder::Handle, &rec), 0);

  // The longest name does not fit a socket address under this directory; another process
  // still reaches it.
  ASSERT_EQ(nuv_comm_register(longest.c_str(), Recorder::Handle, &rec), 0);
  ASSERT_GT(bus.Path(longest).size(), sizeof(sockaddr_un::sun_path));
  EXPECT_TRUE(IsSocket(bus.Path(longest)));
  EXPECT_EQ(Peer({"post", longest, "3", "far"}).Reap(), 0);
  EXPECT_EQ(rec.calls.load(), 3);
  EXPECT_EQ(nuv_comm_unregister(longest.c_str()), 0);
  EXPECT_FALSE(IsSocket(bus.Path(longest)));
}

TEST(CommRemote, TwoProcessesExchangeMessagesBothWays) {
  Bus bus;
  Recorder rec;
  ASSERT_EQ(nuv_comm_register("here", Recorder::Handle, &rec), 0);
  Peer server({"serve", "there"});
  ASSERT_TRUE(server.Said("ready"));
  EXPECT_EQ(nuv_comm_register("there", Recorder::Handle, &rec), NUV_COMM_E_BUSY);  // live
  // Results come back exactly as the other process's handler gives them.
  std::string big(1 << 20, 'b');  // larger than a socket buffer
  const struct { std::string msg; int result; } cases[] = {
      {"hello", int(Fnv1a("hello"))}, {"", int(Fnv1a(""))}, {"ret:0", 0},
      {"ret:0x84CE0002", int(0x84CE0002u)}, {"ret:-5", -5}, {big, int(Fnv1a(big))},
  };
  for (const auto& c : cases) EXPECT_EQ(Post("there", c.msg), c.result) << c.msg.substr(0, 20);

  EXPECT_EQ(Peer({"post", "here", "50", "back"}).Reap(), 0);  // 0: every answer was right
  EXPECT_EQ(rec.calls.load(), 50);
  EXPECT_NE(rec.thread.load(), std::this_thread::get_id());
  EXPECT_EQ(server.FinishServing(), 6);
}

TEST(CommRemote, EightConcurrentPostersLoseNothing) {
  Bus bus;
  Peer server({"serve", "many"});
  ASSERT_TRUE(server.Said("ready"));
  const int kEach = 500;
  std::vector<std::unique_ptr<Peer>> procs;
  for (int i = 0; i < 4; ++i)
    procs.emplace_back(new Peer({"post", "many", std::to_string(kEach), "p" + std::to_string(i)}));
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int j = 0; j < kEach; ++j) {
        std::string msg = "t" + std::to_string(i) + "-" + std::to_string(j);
        if (Post("many", msg) != int(Fnv1a(msg))) ++wrong;
      }
    });
  }
  for (auto& t : threads) t.join();
  for (auto& p : procs) EXPECT_EQ(p->Reap(), 0);
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(server.FinishServing(), 8 * kEach);
}

TEST(CommWire, ARawClientSpeaksTheFrameFormat) {
  Bus bus;
  Recorder rec;
  ASSERT_EQ(nuv_comm_register("wire", Recorder::Handle, &rec), 0);
  int fd = RawConnect(bus.Path("wire"));
  ASSERT_GE(fd, 0);
  // Several frames on one connection, one with a NUL inside, one empty.
  for (std::string msg : {std::string("hello"), std::string("a\0b", 3), std::string()})
    EXPECT_EQ(RawExchange(fd, msg), Reply(Fnv1a(msg)));
  std::string frame = Le32(5) + "slow!";  // a frame that trickles in byte by byte
  for (char c : frame) {
    ASSERT_TRUE(SendRaw(fd, std::string(1, c)));
    std::this_thread::sleep_for(2ms);
  }
  EXPECT_EQ(RecvRaw(fd, 8), Reply(Fnv1a("slow!")));
  close(fd);
  EXPECT_EQ(rec.calls.load(), 4);
}

// A connection's first frame may ask for a page of counts shared with the server; it is
// answered 0 and never reaches the topic. Anywhere else the same bytes are a request like any.
TEST(CommWire, OnlyAConnectionsFirstFrameCanAskForASharedPage) {
  Bus bus;
  Recorder rec;
  ASSERT_EQ(nuv_comm_register("bell", Recorder::Handle, &rec), 0);
  const std::string body("\0nuv_comm bell\0\x01", 16);

  int fd = RawConnect(bus.Path("bell"));
  ASSERT_GE(fd, 0);
  EXPECT_EQ(RawExchange(fd, body), Reply(0));  // its descriptor is dropped by a plain recv
  EXPECT_EQ(RawExchange(fd, "x"), Reply(Fnv1a("x")));
  EXPECT_EQ(RawExchange(fd, body), Reply(Fnv1a(body)));
  close(fd);

  fd = RawConnect(bus.Path("bell"));
  ASSERT_GE(fd, 0);
  std::string almost = body;
  almost[15] = '\x02';
  EXPECT_EQ(RawExchange(fd, almost), Reply(Fnv1a(almost)));
  close(fd);
  EXPECT_EQ(rec.calls.load(), 3);
}

// With each reply the server tells on the page how many of its connections it is serving: one
// whose request is in its handler counts, one asleep waiting for a request or closed does not.
TEST(CommWire, TheServerTellsTheConnectionsItServesLeavingOutSleepers) {
  Bus bus;
  struct Hold {
    std::atomic<int> entered{0};
    std::atomic<bool> release{false};
    static int Handle(comm_data* request, comm_data*, void* user) {
      auto* self = static_cast<Hold*>(user);
      void* p = nullptr;
      unsigned int n = 0;
      if (nuv_comm_get_data(request, &p, &n) != 0) return -1;
      if (std::string(static_cast<char*>(p), n) == "hold") {
        ++self->entered;
        while (!self->release) std::this_thread::sleep_for(1ms);
      }
      return 0;
    }
  } hold;
  ASSERT_EQ(nuv_comm_register("load", Hold::Handle, &hold), 0);

  int watcher = RawConnect(bus.Path("load"));
  ASSERT_GE(watcher, 0);
  std::string answer;
  int pageFd = TakePage(watcher, &answer);
  ASSERT_GE(pageFd, 0);
  EXPECT_EQ(answer, Reply(0));
  void* page = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, pageFd, 0);
  close(pageFd);
  ASSERT_NE(page, MAP_FAILED);
  const auto told = [page] {
    return __atomic_load_n(reinterpret_cast<const uint32_t*>(static_cast<char*>(page) + 128),
                           __ATOMIC_RELAXED);
  };

  int held = RawConnect(bus.Path("load"));
  ASSERT_GE(held, 0);
  ASSERT_TRUE(SendRaw(held, Le32(4) + "hold"));
  for (int i = 0; i < 5000 && hold.entered == 0; ++i) std::this_thread::sleep_for(1ms);
  ASSERT_EQ(hold.entered.load(), 1);
  EXPECT_EQ(RawExchange(watcher, "x"), Reply(0));
  EXPECT_EQ(told(), 2u);

  hold.release = true;
  EXPECT_EQ(RecvRaw(held, 8), Reply(0));
  close(held);
  // Its server thread ends on its own time; a count it kept would stay told for good.
  uint32_t last = 0;
  for (int i = 0; i < 500; ++i) {
    EXPECT_EQ(RawExchange(watcher, "x"), Reply(0));
    last = told();
    if (last == 1) break;
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(last, 1u);
  munmap(page, 4096);
  close(watcher);
}

TEST(CommWire, OversizedFramesAreRefusedAndTheServerKeepsServing) {
  Bus bus;  // with the default limit, far above the server's
  Peer server({"serve", "small"}, {"NUV_COMM_MAX_MSG=1024"});
  ASSERT_TRUE(server.Said("ready"));
  int fd = RawConnect(bus.Path("small"));
  ASSERT_GE(fd, 0);
  // Announced too large: refused at the header, before the body is all there, then closed.
  ASSERT_TRUE(SendRaw(fd, Le32(1025) + std::string(512, 'x')));
  EXPECT_EQ(RecvRaw(fd, 8), Reply(uint32_t(NUV_COMM_E_TOOBIG)));
  EXPECT_EQ(RecvRaw(fd, 1), "");
  close(fd);
  // Far more than the socket buffers: the server closes while we are still sending.
  EXPECT_EQ(Post("small", std::string(4 << 20, 'x')), NUV_COMM_E_TOOBIG);
  std::string fits(1024, 'f');
  EXPECT_EQ(Post("small", fits), int(Fnv1a(fits)));
  EXPECT_EQ(server.FinishServing(), 1);
}

TEST(CommSecurity, PeerOfAnotherUidIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a client under another uid";
  Bus bus;
  Recorder rec;
  ASSERT_EQ(nuv_comm_register("guarded", Recorder::Handle, &rec), 0);
  // Open the path to everyone, so only the credential check can turn the stranger away.
  ASSERT_EQ(chmod(bus.tmp.path().c_str(), 0711), 0);
  ASSERT_EQ(chmod(bus.dir_.c_str(), 0711), 0);
  ASSERT_EQ(chmod(bus.Path("guarded").c_str(), 0777), 0);
  // A forked client, as root or as uid 65534; exit 3 when answered, 0 when closed unanswered.
  for (bool drop : {false, true}) {
    pid_t pid = fork();
    if (pid == 0) {
      if (drop && (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
                   setresuid(65534, 65534, 65534) != 0))
        _exit(4);
      int fd = RawConnect(bus.Path("guarded"));
      _exit(fd < 0 ? 2 : RawExchange(fd, "x").empty() ? 0 : 3);
    }
    EXPECT_EQ(nuvtest::WaitExit(pid), drop ? 0 : 3) << "drop " << drop;
    EXPECT_EQ(rec.calls.load(), 1);
  }
  EXPECT_EQ(Post("guarded", "still"), int(Fnv1a("still")));
}

TEST(CommFailure, AKilledServersTopicIsTakenOverButNotAFile) {
  Bus bus;
  Recorder rec;
  nuv_comm_set_timeout_ms(3000);
  Peer server({"serve", "crash"});
  ASSERT_TRUE(server.Said("ready"));
  ASSERT_TRUE(nuvtest::WriteFile(bus.Path("plain"), "data"));
  EXPECT_EQ(nuv_comm_register("plain", Recorder::Handle, &rec), NUV_COMM_E_BUSY);
  EXPECT_EQ(nuvtest::ReadFile(bus.Path("plain")), "data");
  int result = 0;
  std::thread poster([&] { result = Post("crash", "block"); });
  EXPECT_TRUE(server.Said("busy"));
  server.Signal(SIGKILL);
  server.Reap();
  poster.join();
  EXPECT_EQ(result, NUV_COMM_E_NOTOPIC);

  // The dead server's socket file is left behind; registering replaces it.
  ASSERT_TRUE(IsSocket(bus.Path("crash")));
  ASSERT_EQ(nuv_comm_register("crash", Recorder::Handle, &rec), 0);
  int fd = RawConnect(bus.Path("crash"));
  ASSERT_GE(fd, 0);
  EXPECT_EQ(RawExchange(fd, "again"), Reply(Fnv1a("again")));
  close(fd);
  EXPECT_EQ(rec.calls.load(), 1);
}

TEST(CommFailure, StalledServerTimesOutAndItsLateAnswerIsNotMistaken) {
  Bus bus;
  Peer server({"serve", "stall"});
  ASSERT_TRUE(server.Said("ready"));
  EXPECT_EQ(Post("stall", "a"), int(Fnv1a("a")));  // leaves a pooled connection
  ASSERT_TRUE(server.Stop());
  nuv_comm_set_timeout_ms(200);
  EXPECT_EQ(Post("stall", "b"), NUV_COMM_E_TIMEOUT);
  nuv_comm_set_timeout_ms(0);
  server.Signal(SIGCONT);
  // Had the timed-out connection been pooled, this would read the answer meant for "b".
  EXPECT_EQ(Post("stall", "c"), int(Fnv1a("c")));
  // The woken server may or may not still handle "b", whose poster hung up.
  int served = server.FinishServing();
  EXPECT_TRUE(served == 2 || served == 3) << served;
}

// Waits at a gate until the test opens it.
struct Gate {
  std::mutex mu;
  std::condition_variable cv;
  bool open = false;
  int entered = 0, finished = 0;
  static int Handle(comm_data*, comm_data*, void* user) {
    auto* g = static_cast<Gate*>(user);
    std::unique_lock<std::mutex> lock(g->mu);
    ++g->entered;
    g->cv.notify_all();
    g->cv.wait(lock, [g] { return g->open; });
    ++g->finished;
    return 7;
  }
};

TEST(CommServer, UnregisterWaitsForHandlersInFlight) {
  Bus bus;
  Gate gate;
  ASSERT_EQ(nuv_comm_register("slow", Gate::Handle, &gate), 0);
  int remote = -1;
  std::thread remote_poster([&] {  // on a bus thread: raw, so the answer can be read
    int fd = RawConnect(bus.Path("slow"));
    remote = RawExchange(fd, "remote") == Reply(7);
    close(fd);
  });
  int local = 0;
  std::thread local_poster([&] { local = Post("slow", "local"); });  // on its own thread
  {
    std::unique_lock<std::mutex> lock(gate.mu);
    ASSERT_TRUE(gate.cv.wait_for(lock, 20s, [&] { return gate.entered == 2; }));
  }
  int finished_at_return = -1;
  std::thread unregisterer([&] {
    EXPECT_EQ(nuv_comm_unregister("slow"), 0);
    std::lock_guard<std::mutex> lock(gate.mu);
    finished_at_return = gate.finished;
  });
  std::this_thread::sleep_for(100ms);  // time for an unregister that does not wait to return
  {
    std::lock_guard<std::mutex> lock(gate.mu);
    gate.open = true;
    gate.cv.notify_all();
  }
  unregisterer.join();
  local_poster.join();
  remote_poster.join();
  EXPECT_EQ(finished_at_return, 2);
  EXPECT_EQ(local, 7);
  EXPECT_EQ(remote, 1);  // its answer went out before the connection closed
  EXPECT_FALSE(IsSocket(bus.Path("slow")));
}

int UnregisterSelf(comm_data*, comm_data*, void* user) {
  return nuv_comm_unregister(static_cast<const char*>(user));
}

TEST(CommServer, HandlerMayUnregisterItsOwnTopic) {
  Bus bus;
  static char name[] = "selfish";
  ASSERT_EQ(nuv_comm_register(name, UnregisterSelf, name), 0);
  EXPECT_EQ(Post(name, "x"), 0);  // in process
  EXPECT_EQ(Post(name, "x"), NUV_COMM_E_NOTOPIC);
  ASSERT_EQ(nuv_comm_register(name, UnregisterSelf, name), 0);
  int fd = RawConnect(bus.Path(name));  // on a connection thread
  EXPECT_EQ(RawExchange(fd, "x"), Reply(0));
  EXPECT_EQ(RecvRaw(fd, 1), "");
  close(fd);
  EXPECT_EQ(Post(name, "x"), NUV_COMM_E_NOTOPIC);
}

}  // namespace

// ---- peers that hold connections, hijack topics or break accept ----

namespace hostile {

// NUV_COMM_IDLE_MS for the buses made in its scope.
struct IdleMs {
  explicit IdleMs(const char* ms) { setenv("NUV_COMM_IDLE_MS", ms, 1); }
  ~IdleMs() { unsetenv("NUV_COMM_IDLE_MS"); }
};

// True when the server closed `fd` (it reads the end of the stream).
bool Closed(int fd) { return RecvRaw(fd, 1).empty(); }

TEST(CommLiveness, IdleConnectionsGiveWayToPostersAndTimeOut) {
  IdleMs idle("1500");
  Bus bus;
  Recorder rec;
  ASSERT_EQ(nuv_comm_register("crowd", Recorder::Handle, &rec), 0);
  // Twice the cap of 64: each one past the cap pushes out the one idle the longest.
  std::vector<int> idlers;
  for (int i = 0; i < 100; ++i) {
    idlers.push_back(RawConnect(bus.Path("crowd")));
    ASSERT_GE(idlers.back(), 0);
    std::this_thread::sleep_for(1ms);  // an order of age the server can see
  }
  Peer poster({"post", "crowd", "3", "p"});
  EXPECT_EQ(poster.Reap(), 0);
  int fd = RawConnect(bus.Path("crowd"));
  ASSERT_GE(fd, 0);
  EXPECT_EQ(RawExchange(fd, "in"), Reply(Fnv1a("in")));
  // The oldest went first; the 60 newest idle ones are still served.
  EXPECT_TRUE(Closed(idlers.front()));
  EXPECT_EQ(RawExchange(idlers.back(), "late"), Reply(Fnv1a("late")));
  EXPECT_EQ(rec.calls.load(), 5);
  // Left idle, every connection is closed after the idle time.
  for (int idler : idlers) {
    EXPECT_TRUE(Closed(idler));
    close(idler);
  }
  EXPECT_TRUE(Closed(fd));
  close(fd);
}

TEST(CommLiveness, APooledConnectionTheServerClosedReconnectsUnnoticed) {
  Bus bus;
  Peer server({"serve", "sleepy"}, {"NUV_COMM_IDLE_MS=100"});
  ASSERT_TRUE(server.Said("ready"));
  for (const char* msg : {"a", "b", "c"}) {
    EXPECT_EQ(Post("sleepy", msg), int(Fnv1a(msg))) << msg;
    std::this_thread::sleep_for(300ms);  // the pooled connection is closed meanwhile
  }
  EXPECT_EQ(server.FinishServing(), 3);
}

// With failing accepts (out of descriptors) the listener backs off and serves afterwards.
std::atomic<int> g_refusals{0};
int RefusingAccept(int fd, sockaddr* addr, socklen_t* len, int flags) {
  if (g_refusals.fetch_sub(1) > 0) {
    errno = EMFILE;
    return -1;
  }
  return reinterpret_cast<nuv_sys_accept4_fn>(nuv_sys_real(NUV_SYS_ACCEPT4))(fd, addr, len, flags);
}

TEST(CommLiveness, FailingAcceptsDelayButDoNotStopTheListener) {
  Bus bus;
  Recorder rec;
  ASSERT_EQ(nuv_comm_register("accept", Recorder::Handle, &rec), 0);
  g_refusals = 5;
  nuv_sys_override(NUV_SYS_ACCEPT4, reinterpret_cast<nuv_sys_fn>(RefusingAccept));
  int fd = RawConnect(bus.Path("accept"));
  ASSERT_GE(fd, 0);
  EXPECT_EQ(RawExchange(fd, "x"), Reply(Fnv1a("x")));
  nuv_sys_override(NUV_SYS_ACCEPT4, nullptr);
  EXPECT_LE(g_refusals.load(), 0);
  close(fd);
}

TEST(CommSecurity, ADirectoryOthersMayWriteToIsRefused) {
  Bus bus;
  Recorder rec;
  ASSERT_EQ(mkdir(bus.dir_.c_str(), 0700), 0);
  for (mode_t mode : {01777, 0770, 0722}) {
    ASSERT_EQ(chmod(bus.dir_.c_str(), mode), 0);
    errno = 0;
    EXPECT_EQ(nuv_comm_register("open", Recorder::Handle, &rec), NUV_COMM_E_SYSTEM) << mode;
    EXPECT_EQ(errno, EPERM);
  }
  ASSERT_EQ(chmod(bus.dir_.c_str(), 0755), 0);
  EXPECT_EQ(nuv_comm_register("open", Recorder::Handle, &rec), 0);
}

// Someone else bound a topic first in a directory everyone may write to: a client (root here)
// does not post to it.
TEST(CommSecurity, AClientRefusesAServerOfAnotherUid) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a server under another uid";
  Bus bus;
  ASSERT_EQ(chmod(bus.tmp.path().c_str(), 0711), 0);
  ASSERT_EQ(mkdir(bus.dir_.c_str(), 0700), 0);
  ASSERT_EQ(chmod(bus.dir_.c_str(), 01777), 0);
  const std::string path = bus.Path("maintenance:POST");
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t pid = fork();
  if (pid == 0) {
    // The hijacker: exit code = the frames it received.
    if (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
        setresuid(65534, 65534, 65534) != 0)
      _exit(100);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un sa = {};
    sa.sun_family = AF_UNIX;
    snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path.c_str());
    if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || listen(fd, 8) != 0)
      _exit(101);
    if (write(ready[1], "r", 1) != 1) _exit(102);
    int frames = 0;
    struct timeval tv = {3, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    for (int c; (c = accept(fd, nullptr, nullptr)) >= 0; close(c)) {
      setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
      if (RecvRaw(c, 4).size() == 4) ++frames;
    }
    _exit(frames);
  }
  char r = 0;
  ASSERT_EQ(read(ready[0], &r, 1), 1);
  EXPECT_EQ(Post("maintenance:POST", "root's burying point"), NUV_COMM_E_UNTRUSTED);
  EXPECT_EQ(nuvtest::WaitExit(pid), 0);
  close(ready[0]);
  close(ready[1]);
}

}  // namespace hostile
