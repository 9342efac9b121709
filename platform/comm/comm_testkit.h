// What the bus tests share: a bus of their own, a second process (comm_peer) and a client
// that speaks the wire format by hand.
#ifndef NUV_COMM_TESTKIT_H
#define NUV_COMM_TESTKIT_H

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "comm_hello_testkit.h"
#include "nuv_comm.h"
#include "testutil/bus_post.h"
#include "testutil/testutil.h"

extern char** environ;

namespace commtest {

using namespace std::chrono_literals;

inline uint32_t Fnv1a(const std::string& s) {
  uint32_t h = 2166136261u;
  for (unsigned char c : s) h = (h ^ c) * 16777619u;
  return h;
}

// One user of the bus with its own socket directory.
class Bus {
 public:
  Bus() {
    setenv("NUV_COMM_DIR", dir_.c_str(), 1);
    nuv_comm_set_timeout_ms(0);
    EXPECT_EQ(nuv_comm_init(), 0);
  }
  ~Bus() {
    nuv_comm_set_timeout_ms(0);
    EXPECT_EQ(nuv_comm_uninit(), 0);
    unsetenv("NUV_COMM_DIR");
  }
  std::string Path(const std::string& topic) const { return dir_ + "/" + topic; }
  nuvtest::TempDir tmp;
  const std::string dir_ = tmp.Sub("bus");
};

inline int Post(const std::string& topic, const std::string& msg) {
  return nuvtest::PostOnBus(topic, msg);
}

// Counts its calls and answers with the hash of the message.
struct Recorder {
  std::atomic<int> calls{0};
  std::atomic<std::thread::id> thread;
  static int Handle(comm_data* request, comm_data*, void* user) {
    auto* self = static_cast<Recorder*>(user);
    void* p = nullptr;
    unsigned int n = 0;
    if (nuv_comm_get_data(request, &p, &n) != 0) return -1;
    self->thread = std::this_thread::get_id();
    ++self->calls;
    return static_cast<int>(Fnv1a(std::string(static_cast<char*>(p), n)));
  }
};

// comm_peer in a child process, its output in a file; `env` comes before ours, so it wins.
class Peer {
 public:
  explicit Peer(std::vector<std::string> args, std::vector<std::string> env = {}) {
    for (char** e = environ; *e; ++e) env.push_back(*e);
    args.insert(args.begin(), COMM_PEER_PATH);
    pid_ = nuvtest::Spawn(args, env, "", dir_.Sub("out"), dir_.Sub("err"));
    EXPECT_GT(pid_, 0);
  }
  ~Peer() {
    if (pid_ > 0) kill(pid_, SIGKILL);
    Reap();
  }
  // Waits up to 20 s for `line` among its output lines.
  bool Said(const std::string& line) {
    for (int i = 0; i < 2000; ++i) {
      if (("\n" + nuvtest::ReadFile(dir_.Sub("out"))).find("\n" + line + "\n") != std::string::npos)
        return true;
      std::this_thread::sleep_for(10ms);
    }
    return false;
  }
  void Signal(int sig) { kill(pid_, sig); }
  bool Stop() {  // returns once every thread of it is stopped
    kill(pid_, SIGSTOP);
    int status = 0;
    return waitpid(pid_, &status, WUNTRACED) == pid_ && WIFSTOPPED(status);
  }
  int Reap() {
    int rc = nuvtest::WaitExit(pid_);
    pid_ = -1;
    return rc;
  }
  // Ends a server: the count of messages it handled, or -1.
  int FinishServing() {
    Signal(SIGTERM);
    EXPECT_EQ(Reap(), 0);
    std::string out = nuvtest::ReadFile(dir_.Sub("out"));
    size_t at = out.find("count ");
    return at == std::string::npos ? -1 : std::stoi(out.substr(at + 6));
  }

 private:
  nuvtest::TempDir dir_;
  int pid_ = -1;
};

// ---- a client that speaks the wire format by hand ----

inline int RawConnect(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct timeval tv = {10, 0};  // no test hangs on a silent server
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  struct sockaddr_un sa = {};
  sa.sun_family = AF_UNIX;
  snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path.c_str());
  if (connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0) return fd;
  close(fd);
  return -1;
}

inline std::string Le32(uint32_t v) { return {char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; }

// The reply frame of a topic answering `result`.
inline std::string Reply(uint32_t result) { return Le32(4) + Le32(result); }

inline bool SendRaw(int fd, const std::string& bytes) {
  return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
}

// Reads up to `n` bytes; fewer means the peer closed (or the read timed out).
inline std::string RecvRaw(int fd, size_t n) {
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

// Sends one frame and returns the reply frame ("" when the server closed instead).
inline std::string RawExchange(int fd, const std::string& msg) {
  return SendRaw(fd, Le32(uint32_t(msg.size())) + msg) ? RecvRaw(fd, 8) : "";
}

inline bool IsSocket(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

}  // namespace commtest

#endif
