// The message bus, with real second processes (comm_peer, or fork) and real sockets.
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
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
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "nuv_comm.h"
#include "testutil/testutil.h"

extern char** environ;

namespace {

using Env = std::vector<std::pair<std::string, std::string>>;

uint32_t Fnv1a(const std::string& s) {
  uint32_t h = 2166136261u;
  for (unsigned char c : s) h = (h ^ c) * 16777619u;
  return h;
}

// One user of the bus with its own socket directory; `env` knobs apply to this process only.
class Bus {
 public:
  explicit Bus(const Env& env = {}) : dir_(tmp_.Sub("bus")) {
    setenv("NUV_COMM_DIR", dir_.c_str(), 1);
    for (auto& kv : env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
    nuv_comm_set_timeout_ms(0);
    EXPECT_EQ(nuv_comm_init(), 0);
    for (auto& kv : env) unsetenv(kv.first.c_str());
  }
  ~Bus() {
    nuv_comm_set_timeout_ms(0);
    EXPECT_EQ(nuv_comm_uninit(), 0);
    unsetenv("NUV_COMM_DIR");
  }
  const std::string& dir() const { return dir_; }
  const std::string& root() const { return tmp_.path(); }
  std::string Path(const std::string& topic) const { return dir_ + "/" + topic; }

 private:
  nuvtest::TempDir tmp_;
  std::string dir_;
};

int Post(const std::string& topic, const std::string& msg) {
  comm_data* d = nuv_comm_new_data(msg.data(), static_cast<unsigned int>(msg.size()));
  if (!d) {
    ADD_FAILURE() << "nuv_comm_new_data";
    return -1;
  }
  int r = nuv_comm_post(topic.c_str(), d);
  nuv_comm_delete_data(d);
  return r;
}

// Remembers what a topic was sent; answers with the hash of the message.
struct Recorder {
  std::mutex mu;
  std::vector<std::string> seen;
  std::thread::id thread;
  std::atomic<int> calls{0};

  static int Handle(comm_data* request, comm_data*, void* user) {
    auto* self = static_cast<Recorder*>(user);
    void* p = nullptr;
    unsigned int n = 0;
    if (nuv_comm_get_data(request, &p, &n) != 0) return -1;
    std::string msg(static_cast<char*>(p), n);
    {
      std::lock_guard<std::mutex> lock(self->mu);
      self->seen.push_back(msg);
      self->thread = std::this_thread::get_id();
    }
    ++self->calls;
    return static_cast<int>(Fnv1a(msg));
  }
};

// comm_peer in a child process, its stdin and stdout on pipes.
class Peer {
 public:
  explicit Peer(const std::vector<std::string>& args, const Env& env = {}) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
      ADD_FAILURE() << "pipe2";
      return;
    }
    std::vector<std::string> envs;
    for (auto& kv : env) envs.push_back(kv.first + "=" + kv.second);
    std::vector<char*> envp;
    for (auto& s : envs) envp.push_back(const_cast<char*>(s.c_str()));  // first wins
    for (char** e = environ; *e; ++e) envp.push_back(*e);
    envp.push_back(nullptr);
    std::vector<char*> argv{const_cast<char*>(COMM_PEER_PATH)};
    for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, in[0], 0);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    int rc = posix_spawn(&pid_, COMM_PEER_PATH, &fa, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&fa);
    close(in[0]);
    close(out[1]);
    to_ = in[1];
    from_ = out[0];
    if (rc != 0) {
      ADD_FAILURE() << "posix_spawn: " << strerror(rc);
      pid_ = -1;
    }
  }
  ~Peer() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      Reap();
    }
    if (to_ >= 0) close(to_);
    if (from_ >= 0) close(from_);
  }

  // One line of output without its line feed; "" at end of output or after 20 s.
  std::string ReadLine() {
    std::string line;
    for (;;) {
      struct pollfd p = {from_, POLLIN, 0};
      if (poll(&p, 1, 20000) <= 0) return "";
      char c;
      if (read(from_, &c, 1) != 1) return "";
      if (c == '\n') return line;
      line += c;
    }
  }
  void Signal(int sig) { kill(pid_, sig); }
  // Stops the process and returns once every thread of it is stopped.
  bool Stop() {
    kill(pid_, SIGSTOP);
    int status = 0;
    while (waitpid(pid_, &status, WUNTRACED) < 0 && errno == EINTR) {
    }
    return WIFSTOPPED(status);
  }
  // Exit status, or -1 when it did not exit normally.
  int Reap() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // Closes the server's stdin and returns the count of messages it handled (-1 on failure).
  int FinishServing() {
    close(to_);
    to_ = -1;
    std::string line = ReadLine();
    EXPECT_EQ(Reap(), 0);
    return line.rfind("count ", 0) == 0 ? std::stoi(line.substr(6)) : -1;
  }

 private:
  pid_t pid_ = -1;
  int to_ = -1, from_ = -1;
};

// ---- a client that speaks the wire format by hand ----

int RawConnect(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  struct timeval tv = {10, 0};  // no test hangs on a silent server
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  struct sockaddr_un sa = {};
  sa.sun_family = AF_UNIX;
  snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path.c_str());
  if (connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

std::string Le32(uint32_t v) {
  char b[4] = {char(v), char(v >> 8), char(v >> 16), char(v >> 24)};
  return std::string(b, 4);
}

bool SendRaw(int fd, const std::string& bytes) {
  return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
}

// Reads up to `n` bytes; fewer means the peer closed (or the read timed out).
std::string RecvRaw(int fd, size_t n) {
  std::string out;
  char buf[256];
  while (out.size() < n) {
    ssize_t got = recv(fd, buf, std::min(sizeof buf, n - out.size()), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    out.append(buf, size_t(got));
  }
  return out;
}

// Sends one frame and returns the whole reply frame ("" when the server closed instead).
std::string RawExchange(int fd, const std::string& msg) {
  if (!SendRaw(fd, Le32(uint32_t(msg.size())) + msg)) return "";
  return RecvRaw(fd, 8);
}

std::vector<std::string> DirEntries(const std::string& dir) {
  std::vector<std::string> out;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name != "." && name != "..") out.push_back(name);
    }
    closedir(d);
  }
  return out;
}

bool IsSocket(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

// ---- tests ----

TEST(CommData, HoldsACopyAndRefusesBadArguments) {
  char text[] = {'a', '\0', 'b'};
  comm_data* d = nuv_comm_new_data(text, 3);
  ASSERT_NE(d, nullptr);
  text[0] = 'z';
  void* p = nullptr;
  unsigned int n = 0;
  ASSERT_EQ(nuv_comm_get_data(d, &p, &n), 0);
  EXPECT_EQ(std::string(static_cast<char*>(p), n + 1), std::string("a\0b\0", 4));
  EXPECT_EQ(nuv_comm_get_data(d, nullptr, &n), NUV_COMM_E_INVAL);
  EXPECT_EQ(nuv_comm_get_data(nullptr, &p, &n), NUV_COMM_E_INVAL);
  EXPECT_EQ(nuv_comm_new_data(nullptr, 5), nullptr);
  nuv_comm_delete_data(d);
}

TEST(CommLifecycle, InitIsCountedAndTheLastUninitTakesTopicsDown) {
  nuvtest::TempDir tmp;
  std::string dir = tmp.Sub("nested/bus");
  Recorder rec;
  EXPECT_EQ(nuv_comm_uninit(), NUV_COMM_E_NOINIT);
  EXPECT_EQ(nuv_comm_register("life", Recorder::Handle, &rec), NUV_COMM_E_NOINIT);
  EXPECT_EQ(Post("life", "x"), NUV_COMM_E_NOINIT);
  EXPECT_EQ(nuv_comm_unregister("life"), NUV_COMM_E_NOINIT);

  setenv("NUV_COMM_DIR", dir.c_str(), 1);
  ASSERT_EQ(nuv_comm_init(), 0);
  ASSERT_EQ(nuv_comm_init(), 0);
  ASSERT_EQ(nuv_comm_register("life", Recorder::Handle, &rec), 0);
  struct stat st;
  ASSERT_EQ(stat(dir.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  EXPECT_TRUE(IsSocket(dir + "/life"));

  EXPECT_EQ(nuv_comm_uninit(), 0);  // one user left: the topic stays
  EXPECT_EQ(Post("life", "still"), int(Fnv1a("still")));
  EXPECT_TRUE(IsSocket(dir + "/life"));

  EXPECT_EQ(nuv_comm_uninit(), 0);  // the last one takes it down
  EXPECT_FALSE(IsSocket(dir + "/life"));
  EXPECT_EQ(Post("life", "x"), NUV_COMM_E_NOINIT);
  EXPECT_EQ(nuv_comm_uninit(), NUV_COMM_E_NOINIT);

  ASSERT_EQ(nuv_comm_init(), 0);  // a new round starts with an empty registry
  EXPECT_EQ(Post("life", "x"), NUV_COMM_E_NOTOPIC);
  EXPECT_EQ(nuv_comm_register("life", Recorder::Handle, &rec), 0);
  EXPECT_EQ(nuv_comm_uninit(), 0);
  unsetenv("NUV_COMM_DIR");
  EXPECT_EQ(rec.calls.load(), 1);
}

TEST(CommTopics, NamesAreValidated) {
  Bus bus;
  Recorder rec;
  std::string longest(NUV_COMM_TOPIC_MAX, 'n');
  for (std::string bad : {std::string(), std::string("a/b"), std::string("a b"),
                          std::string("."), std::string(".."), std::string("~lock"),
                          std::string("caf\xc3\xa9"), std::string("a\n"), longest + "n"}) {
    EXPECT_EQ(nuv_comm_register(bad.c_str(), Recorder::Handle, &rec), NUV_COMM_E_INVAL) << bad;
    EXPECT_EQ(Post(bad, "x"), NUV_COMM_E_INVAL) << bad;
    EXPECT_EQ(nuv_comm_unregister(bad.c_str()), NUV_COMM_E_INVAL) << bad;
  }
  EXPECT_EQ(nuv_comm_register(nullptr, Recorder::Handle, &rec), NUV_COMM_E_INVAL);
  EXPECT_EQ(nuv_comm_register("ok", nullptr, &rec), NUV_COMM_E_INVAL);
  EXPECT_EQ(nuv_comm_post("ok", nullptr), NUV_COMM_E_INVAL);
  EXPECT_EQ(nuv_comm_post(nullptr, nullptr), NUV_COMM_E_INVAL);
  EXPECT_EQ(rec.calls.load(), 0);

  const std::string good[] = {"maintenance:reciver", "A-z_0.9:x", longest};
  for (const std::string& name : good) {
    ASSERT_EQ(nuv_comm_register(name.c_str(), Recorder::Handle, &rec), 0) << name;
  }
  std::vector<std::string> files = DirEntries(bus.dir());
  for (const std::string& name : good) {
    EXPECT_TRUE(IsSocket(bus.Path(name))) << name;
  }
  EXPECT_EQ(files.size(), 4u);  // the three sockets and the lock file

  // The longest name does not fit a socket address under this directory; another process
  // still reaches it.
  ASSERT_GT(bus.Path(longest).size(), sizeof(sockaddr_un::sun_path));
  Peer poster({"post", longest, "3", "far"});
  EXPECT_EQ(poster.Reap(), 0);
  EXPECT_EQ(rec.calls.load(), 3);
  for (const std::string& name : good) EXPECT_EQ(nuv_comm_unregister(name.c_str()), 0);
  EXPECT_EQ(DirEntries(bus.dir()).size(), 1u);
}

TEST(CommLocal, InProcessTopicRunsOnTheCallersThread) {
  Bus bus;
  Recorder rec;
  ASSERT_EQ(nuv_comm_register("local", Recorder::Handle, &rec), 0);
  EXPECT_EQ(nuv_comm_register("local", Recorder::Handle, &rec), NUV_COMM_E_BUSY);
  EXPECT_EQ(Post("local", "hello"), int(Fnv1a("hello")));
  EXPECT_EQ(rec.thread, std::this_thread::get_id());
  EXPECT_EQ(Post("nobody", "hello"), NUV_COMM_E_NOTOPIC);
  EXPECT_EQ(nuv_comm_unregister("local"), 0);
  EXPECT_EQ(nuv_comm_unregister("local"), NUV_COMM_E_NOTOPIC);
  EXPECT_EQ(Post("local", "hello"), NUV_COMM_E_NOTOPIC);
  EXPECT_EQ(rec.calls.load(), 1);
}

TEST(CommRemote, TwoProcessesExchangeMessagesBothWays) {
  Bus bus;
  Recorder rec;
  ASSERT_EQ(nuv_comm_register("here", Recorder::Handle, &rec), 0);
  Peer server({"serve", "there"});
  ASSERT_EQ(server.ReadLine(), "ready");

  // Results come back exactly as the other process's handler gives them.
  EXPECT_EQ(Post("there", "hello"), int(Fnv1a("hello")));
  EXPECT_EQ(Post("there", ""), int(Fnv1a("")));
  EXPECT_EQ(Post("there", "ret:0"), 0);
  EXPECT_EQ(Post("there", "ret:0x84CE0002"), int(0x84CE0002u));
  EXPECT_EQ(Post("there", "ret:-5"), -5);
  std::string big(1 << 20, 'b');  // larger than a socket buffer
  EXPECT_EQ(Post("there", big), int(Fnv1a(big)));

  Peer poster({"post", "here", "50", "back"});
  EXPECT_EQ(poster.Reap(), 0);
  ASSERT_EQ(rec.calls.load(), 50);
  EXPECT_EQ(rec.seen.front(), "back-0");
  EXPECT_EQ(rec.seen.back(), "back-49");
  EXPECT_NE(rec.thread, std::this_thread::get_id());
  EXPECT_EQ(server.FinishServing(), 6);
}

TEST(CommRemote, EightConcurrentPostersLoseNothing) {
  Bus bus;
  Peer server({"serve", "many"});
  ASSERT_EQ(server.ReadLine(), "ready");
  const int kEach = 500;
  std::vector<Peer*> procs;
  for (int i = 0; i < 4; ++i) {
    procs.push_back(new Peer({"post", "many", std::to_string(kEach), "proc" + std::to_string(i)}));
  }
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int j = 0; j < kEach; ++j) {
        std::string msg = "thread" + std::to_string(i) + "-" + std::to_string(j);
        if (Post("many", msg) != int(Fnv1a(msg))) ++wrong;
      }
    });
  }
  for (auto& t : threads) t.join();
  for (Peer* p : procs) {
    EXPECT_EQ(p->Reap(), 0);
    delete p;
  }
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(server.FinishServing(), 8 * kEach);
}

TEST(CommWire, ARawClientSpeaksTheFrameFormat) {
  Bus bus;
  Recorder rec;
  ASSERT_EQ(nuv_comm_register("wire", Recorder::Handle, &rec), 0);
  int fd = RawConnect(bus.Path("wire"));
  ASSERT_GE(fd, 0);
  EXPECT_EQ(RawExchange(fd, "hello"), Le32(4) + Le32(Fnv1a("hello")));
  // Same connection again, with a NUL inside, then an empty message.
  std::string nul("a\0b", 3);
  EXPECT_EQ(RawExchange(fd, nul), Le32(4) + Le32(Fnv1a(nul)));
  EXPECT_EQ(RawExchange(fd, ""), Le32(4) + Le32(Fnv1a("")));
  // A frame that trickles in byte by byte.
  std::string frame = Le32(5) + "slow!";
  for (char c : frame) {
    ASSERT_TRUE(SendRaw(fd, std::string(1, c)));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  EXPECT_EQ(RecvRaw(fd, 8), Le32(4) + Le32(Fnv1a("slow!")));
  close(fd);
  ASSERT_EQ(rec.calls.load(), 4);
  EXPECT_EQ(rec.seen[1], nul);
  EXPECT_EQ(rec.seen[2], "");
  EXPECT_EQ(rec.seen[3], "slow!");
}

TEST(CommWire, OversizedFrameIsRefusedAndTheServerKeepsServing) {
  Bus bus(Env{{"NUV_COMM_MAX_MSG", "1024"}});
  Recorder rec;
  ASSERT_EQ(nuv_comm_register("small", Recorder::Handle, &rec), 0);
  int fd = RawConnect(bus.Path("small"));
  ASSERT_GE(fd, 0);
  // Announced too large: refused at the header, before the body is all there.
  ASSERT_TRUE(SendRaw(fd, Le32(1025) + std::string(512, 'x')));
  EXPECT_EQ(RecvRaw(fd, 8), Le32(4) + Le32(uint32_t(NUV_COMM_E_TOOBIG)));
  EXPECT_EQ(RecvRaw(fd, 1), "");  // then closed
  close(fd);
  fd = RawConnect(bus.Path("small"));
  ASSERT_GE(fd, 0);
  std::string fits(1024, 'f');
  EXPECT_EQ(RawExchange(fd, fits), Le32(4) + Le32(Fnv1a(fits)));
  close(fd);
  EXPECT_EQ(Post("small", fits + "!"), NUV_COMM_E_TOOBIG);
  EXPECT_EQ(Post("small", fits), int(Fnv1a(fits)));
  EXPECT_EQ(rec.calls.load(), 2);
}

TEST(CommWire, ServerLimitHoldsAgainstAClientWithALargerOne) {
  Bus bus;
  Peer server({"serve", "tiny"}, {{"NUV_COMM_MAX_MSG", "1024"}});
  ASSERT_EQ(server.ReadLine(), "ready");
  // Far more than the socket buffers: the server closes while we are still sending.
  EXPECT_EQ(Post("tiny", std::string(4 << 20, 'x')), NUV_COMM_E_TOOBIG);
  EXPECT_EQ(Post("tiny", "ok"), int(Fnv1a("ok")));
  EXPECT_EQ(server.FinishServing(), 1);
}

// In a forked child: connect to `path` (as uid/gid 65534 when `drop`), send a frame and report
// by exit status: 0 closed without answer, 2 could not connect, 3 answered, 4 other failure.
[[noreturn]] void ForeignClient(const std::string& path, bool drop) {
  if (drop && (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
               setresuid(65534, 65534, 65534) != 0 || getuid() != 65534)) {
    _exit(4);
  }
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct timeval tv = {10, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  struct sockaddr_un sa = {};
  sa.sun_family = AF_UNIX;
  snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path.c_str());
  if (connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) _exit(2);
  char frame[] = {1, 0, 0, 0, 'x'};
  send(fd, frame, sizeof frame, MSG_NOSIGNAL);
  char b[8];
  ssize_t got;
  do got = recv(fd, b, sizeof b, 0);
  while (got < 0 && errno == EINTR);
  if (got > 0) _exit(3);
  _exit(got == 0 || errno == ECONNRESET ? 0 : 4);
}

int RunForeignClient(const std::string& path, bool drop) {
  pid_t pid = fork();
  if (pid == 0) ForeignClient(path, drop);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(CommSecurity, PeerOfAnotherUidIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a client under another uid";
  Bus bus;
  Recorder rec;
  ASSERT_EQ(nuv_comm_register("guarded", Recorder::Handle, &rec), 0);
  // Open the path to everyone, so only the credential check can turn the stranger away.
  ASSERT_EQ(chmod(bus.root().c_str(), 0711), 0);
  ASSERT_EQ(chmod(bus.dir().c_str(), 0711), 0);
  ASSERT_EQ(chmod(bus.Path("guarded").c_str(), 0777), 0);

  EXPECT_EQ(RunForeignClient(bus.Path("guarded"), false), 3);  // root is served
  EXPECT_EQ(rec.calls.load(), 1);
  EXPECT_EQ(RunForeignClient(bus.Path("guarded"), true), 0);  // uid 65534 connects, is dropped
  EXPECT_EQ(rec.calls.load(), 1);
  EXPECT_EQ(Post("guarded", "still"), int(Fnv1a("still")));
}

TEST(CommFailure, ServerKilledMidRequestThenItsTopicIsTakenOver) {
  Bus bus;
  nuv_comm_set_timeout_ms(3000);
  Peer server({"serve", "crash"});
  ASSERT_EQ(server.ReadLine(), "ready");
  int result = 0;
  std::thread poster([&] { result = Post("crash", "block"); });
  EXPECT_EQ(server.ReadLine(), "busy");
  server.Signal(SIGKILL);
  server.Reap();
  poster.join();
  EXPECT_EQ(result, NUV_COMM_E_NOTOPIC);

  // The dead server's socket file is left behind; registering replaces it.
  ASSERT_TRUE(IsSocket(bus.Path("crash")));
  Recorder rec;
  ASSERT_EQ(nuv_comm_register("crash", Recorder::Handle, &rec), 0);
  int fd = RawConnect(bus.Path("crash"));
  ASSERT_GE(fd, 0);
  EXPECT_EQ(RawExchange(fd, "again"), Le32(4) + Le32(Fnv1a("again")));
  close(fd);
  EXPECT_EQ(rec.calls.load(), 1);
}

TEST(CommFailure, StalledServerTimesOutAndItsLateAnswerIsNotMistaken) {
  Bus bus;
  Peer server({"serve", "stall"});
  ASSERT_EQ(server.ReadLine(), "ready");
  EXPECT_EQ(Post("stall", "a"), int(Fnv1a("a")));  // leaves a pooled connection
  ASSERT_TRUE(server.Stop());
  nuv_comm_set_timeout_ms(200);
  EXPECT_EQ(Post("stall", "b"), NUV_COMM_E_TIMEOUT);
  nuv_comm_set_timeout_ms(0);
  server.Signal(SIGCONT);
  // Had the timed-out connection been pooled, this would read the answer meant for "b".
  EXPECT_EQ(Post("stall", "c"), int(Fnv1a("c")));
  // Whether the woken server still handles "b", whose poster has hung up, depends on which it
  // notices first; "a" and "c" it must have served.
  int served = server.FinishServing();
  EXPECT_TRUE(served == 2 || served == 3) << served;
}

TEST(CommFailure, LiveTopicIsRefusedAndLeftAlone) {
  Bus bus;
  Recorder rec;
  Peer server({"serve", "live"});
  ASSERT_EQ(server.ReadLine(), "ready");
  EXPECT_EQ(nuv_comm_register("live", Recorder::Handle, &rec), NUV_COMM_E_BUSY);
  EXPECT_EQ(Post("live", "z"), int(Fnv1a("z")));  // still the other process's

  ASSERT_TRUE(nuvtest::WriteFile(bus.Path("plain"), "data"));
  EXPECT_EQ(nuv_comm_register("plain", Recorder::Handle, &rec), NUV_COMM_E_BUSY);
  EXPECT_EQ(nuvtest::ReadFile(bus.Path("plain")), "data");

  // A socket bound and closed without removal, as a crash leaves it.
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_un sa = {};
  sa.sun_family = AF_UNIX;
  snprintf(sa.sun_path, sizeof sa.sun_path, "%s", bus.Path("handmade").c_str());
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
  close(fd);
  EXPECT_EQ(nuv_comm_register("handmade", Recorder::Handle, &rec), 0);
  EXPECT_EQ(server.FinishServing(), 1);
  EXPECT_EQ(rec.calls.load(), 0);
}

TEST(CommServer, ConnectionsBeyondTheCapAreClosed) {
  Bus bus(Env{{"NUV_COMM_MAX_CONN", "3"}});
  Recorder rec;
  ASSERT_EQ(nuv_comm_register("cap", Recorder::Handle, &rec), 0);
  std::vector<int> fds;
  for (int i = 0; i < 3; ++i) {
    fds.push_back(RawConnect(bus.Path("cap")));
    ASSERT_GE(fds.back(), 0);
    EXPECT_EQ(RawExchange(fds.back(), "in"), Le32(4) + Le32(Fnv1a("in")));
  }
  int extra = RawConnect(bus.Path("cap"));
  ASSERT_GE(extra, 0);
  EXPECT_EQ(RawExchange(extra, "over"), "");
  close(extra);
  EXPECT_EQ(rec.calls.load(), 3);

  // A freed slot is served again once its thread has gone.
  close(fds[0]);
  bool served = false;
  for (int i = 0; i < 500 && !served; ++i) {
    int fd = RawConnect(bus.Path("cap"));
    served = fd >= 0 && RawExchange(fd, "later") == Le32(4) + Le32(Fnv1a("later"));
    if (fd >= 0) close(fd);
    if (!served) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(served);
  for (size_t i = 1; i < fds.size(); ++i) close(fds[i]);
}

// Handlers that wait at a gate until the test opens it.
struct Gate {
  std::mutex mu;
  std::condition_variable cv;
  bool open = false;
  int entered = 0, finished = 0;

  static int Handle(comm_data* request, comm_data*, void* user) {
    auto* g = static_cast<Gate*>(user);
    void* p;
    unsigned int n;
    nuv_comm_get_data(request, &p, &n);
    std::unique_lock<std::mutex> lock(g->mu);
    ++g->entered;
    g->cv.notify_all();
    g->cv.wait(lock, [g] { return g->open; });
    ++g->finished;
    return static_cast<int>(Fnv1a(std::string(static_cast<char*>(p), n)));
  }
};

TEST(CommServer, UnregisterWaitsForHandlersInFlight) {
  Bus bus;
  Gate gate;
  ASSERT_EQ(nuv_comm_register("slow", Gate::Handle, &gate), 0);
  Peer remote({"post", "slow", "1", "remote"});  // handled on a bus thread
  int local = 0;
  std::thread local_poster([&] { local = Post("slow", "local"); });  // on its own thread
  {
    std::unique_lock<std::mutex> lock(gate.mu);
    ASSERT_TRUE(gate.cv.wait_for(lock, std::chrono::seconds(20), [&] { return gate.entered == 2; }));
  }
  std::atomic<bool> returned{false};
  int finished_at_return = -1;
  std::thread unregisterer([&] {
    EXPECT_EQ(nuv_comm_unregister("slow"), 0);
    std::lock_guard<std::mutex> lock(gate.mu);
    finished_at_return = gate.finished;
    returned = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(returned.load());
  {
    std::lock_guard<std::mutex> lock(gate.mu);
    gate.open = true;
    gate.cv.notify_all();
  }
  unregisterer.join();
  local_poster.join();
  EXPECT_EQ(finished_at_return, 2);
  EXPECT_EQ(local, int(Fnv1a("local")));
  EXPECT_EQ(remote.Reap(), 0);  // its answer went out before the connection closed
  EXPECT_FALSE(IsSocket(bus.Path("slow")));
  EXPECT_EQ(Post("slow", "late"), NUV_COMM_E_NOTOPIC);
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
  ASSERT_GE(fd, 0);
  EXPECT_EQ(RawExchange(fd, "x"), Le32(4) + Le32(0));
  EXPECT_EQ(RecvRaw(fd, 1), "");
  close(fd);
  EXPECT_EQ(Post(name, "x"), NUV_COMM_E_NOTOPIC);
}

TEST(CommSymbols, OnlyBusCallsAreExported) {
  std::string cmd = std::string("nm -D --defined-only ") + NUV_COMM_LIB_PATH;
  FILE* p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  char line[512];
  std::vector<std::string> names;
  while (fgets(line, sizeof line, p)) {
    std::string name(line);
    name = name.substr(name.rfind(' ') + 1);
    if (!name.empty() && name.back() == '\n') name.pop_back();
    names.push_back(name);
    EXPECT_EQ(name.rfind("nuv_", 0), 0u) << "exports " << name;
  }
  EXPECT_EQ(pclose(p), 0) << cmd;
  EXPECT_EQ(names.size(), 9u);
}

}  // namespace
