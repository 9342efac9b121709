#include "ingest_anchors.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "testutil/testutil.h"

namespace ingest {

namespace {

const char kSyslogNg[] = "/usr/sbin/syslog-ng";
const char kLoggen[] = "/usr/bin/loggen";

bool ReadAll(int fd, void* buf, size_t len) {
  char* p = static_cast<char*>(buf);
  while (len > 0) {
    ssize_t got = ::read(fd, p, len);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    p += got;
    len -= static_cast<size_t>(got);
  }
  return true;
}

bool WriteAll(int fd, const void* buf, size_t len) {
  const char* p = static_cast<const char*>(buf);
  while (len > 0) {
    ssize_t put = ::send(fd, p, len, MSG_NOSIGNAL);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    p += put;
    len -= static_cast<size_t>(put);
  }
  return true;
}

uint32_t Le32(const unsigned char* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

void ServeBare(int fd) {
  std::vector<char> body(64 * 1024);
  const unsigned char reply[8] = {4, 0, 0, 0, 0, 0, 0, 0};
  for (unsigned char head[4]; ReadAll(fd, head, sizeof head);) {
    const uint32_t len = Le32(head);
    if (len > (4u << 20)) break;
    if (len > body.size()) body.resize(len);
    if (!ReadAll(fd, body.data(), len) || !WriteAll(fd, reply, sizeof reply)) break;
  }
  ::close(fd);
}

sockaddr_un Address(const std::string& path) {
  sockaddr_un sa = {};
  sa.sun_family = AF_UNIX;
  std::snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path.c_str());
  return sa;
}

}  // namespace

std::string Frame(const std::string& body) {
  const uint32_t n = static_cast<uint32_t>(body.size());
  return std::string{char(n), char(n >> 8), char(n >> 16), char(n >> 24)} + body;
}

pid_t ForkServer(const std::function<bool()>& start, const std::function<void()>& stop) {
  pid_t pid = ::fork();
  if (pid != 0) return pid;
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, nullptr);
  if (!start()) _exit(1);
  int sig = 0;
  sigwait(&term, &sig);
  stop();
  _exit(0);
}

pid_t StartBareSocketServer(const std::string& path) {
  auto start = [path] {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa = Address(path);
    ::unlink(path.c_str());
    if (::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || ::listen(fd, SOMAXCONN) != 0)
      return false;
    std::thread([fd] {
      for (;;) {
        int c = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (c >= 0) std::thread(ServeBare, c).detach();
      }
    }).detach();
    return true;
  };
  return ForkServer(start, [path] { ::unlink(path.c_str()); });
}

int Connect(const std::string& path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un sa = Address(path);
  if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0) return fd;
  if (fd >= 0) ::close(fd);
  return -1;
}

long RawPost(int fd, const std::string& frame, long count, int window) {
  window = std::max(window, 1);
  std::string burst;
  for (int i = 0; i < window; ++i) burst += frame;
  std::vector<unsigned char> in(8u * static_cast<size_t>(window) + 8);
  size_t have = 0;
  long sent = 0, answered = 0, zeros = 0;
  while (answered < count) {
    const long n = std::min<long>(window - (sent - answered), count - sent);
    if (n > 0) {
      if (!WriteAll(fd, burst.data(), static_cast<size_t>(n) * frame.size())) return -1;
      sent += n;
    }
    ssize_t got = ::read(fd, in.data() + have, in.size() - have);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return -1;
    have += static_cast<size_t>(got);
    size_t at = 0;
    for (; have - at >= 8; at += 8, ++answered) zeros += Le32(in.data() + at + 4) == 0;
    std::memmove(in.data(), in.data() + at, have - at);
    have -= at;
  }
  return zeros;
}

bool HaveSyslogNg() { return ::access(kSyslogNg, X_OK) == 0 && ::access(kLoggen, X_OK) == 0; }

SyslogNg::SyslogNg(const std::string& dir) : dir_(dir) {
  const std::string conf =
      "@version: 3.38\n"
      "options { stats_freq(0); };\n"
      "source s_bench { unix-stream(\"" + dir + "/log.sock\" max-connections(64)); };\n"
      "destination d_bench { file(\"" + dir + "/out.log\"); };\n"
      "log { source(s_bench); destination(d_bench); };\n";
  if (!HaveSyslogNg() || !nuvtest::WriteFile(dir + "/syslog-ng.conf", conf)) return;
  pid_ = nuvtest::Spawn({kSyslogNg, "-F", "--no-caps", "-f", dir + "/syslog-ng.conf", "-p",
                         dir + "/pid", "-R", dir + "/persist", "-c", dir + "/ctl"},
                        {}, "", dir + "/syslog-ng.out", dir + "/syslog-ng.err");
  struct stat st;
  for (int i = 0; i < 1000 && pid_ > 0 && !ok_; ++i) {
    ok_ = ::stat((dir + "/log.sock").c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
    if (!ok_) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

SyslogNg::~SyslogNg() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGTERM);
  nuvtest::WaitExit(pid_);
}

double SyslogNg::Ingest(int connections, long per_connection) {
  const std::string out = dir_ + "/out.log";
  ::truncate(out.c_str(), 0);
  const long want = connections * per_connection;
  const auto start = std::chrono::steady_clock::now();
  pid_t loggen = nuvtest::Spawn(
      {kLoggen, "--unix", "--stream", "--quiet", "--active-connections=" + std::to_string(connections),
       "--size=300", "--rate=100000000", "--number=" + std::to_string(per_connection),
       dir_ + "/log.sock"},
      {}, "", dir_ + "/loggen.out", dir_ + "/loggen.err");
  if (loggen <= 0) return -1;
  long lines = 0;
  off_t offset = 0;
  std::vector<char> chunk(1 << 20);
  auto done = start;
  int fd = -1;
  while (lines < want && std::chrono::steady_clock::now() - start < std::chrono::seconds(60)) {
    if (fd < 0) fd = ::open(out.c_str(), O_RDONLY | O_CLOEXEC);
    ssize_t got = fd < 0 ? 0 : ::pread(fd, chunk.data(), chunk.size(), offset);
    if (got > 0) {
      offset += got;
      lines += std::count(chunk.data(), chunk.data() + got, '\n');
      done = std::chrono::steady_clock::now();
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  if (fd >= 0) ::close(fd);
  const bool sent = nuvtest::WaitExit(loggen) == 0;
  if (!sent || lines < want) return -1;
  return static_cast<double>(want) / std::chrono::duration<double>(done - start).count();
}

}  // namespace ingest
