// What ingest_bench measures the bus and the daemon against, and the clients that speak the
// wire format without the project's client library.
#ifndef NUV_BENCH_INGEST_ANCHORS_H
#define NUV_BENCH_INGEST_ANCHORS_H

#include <sys/types.h>

#include <functional>
#include <string>

namespace ingest {

// Forks a server process: it runs `start` with SIGTERM blocked (threads it starts inherit
// that), exits 1 if that fails, else waits for SIGTERM, runs `stop` and exits 0. The child's
// pid, or -1.
pid_t ForkServer(const std::function<bool()>& start, const std::function<void()>& stop);

// The wire frame of `body`: its 4-byte little-endian length, then the bytes.
std::string Frame(const std::string& body);

// A process serving the frame format on a Unix stream socket at `path` the plainest way: a
// thread per connection reading the header and the body, then writing a reply of result 0.
// Stops at SIGTERM. -1 when it cannot fork.
pid_t StartBareSocketServer(const std::string& path);

// Connects to the Unix stream socket at `path`; -1 on failure.
int Connect(const std::string& path);

// Sends `frame` `count` times on `fd`, each after the previous reply (window 1), or keeping up
// to `window` frames in flight. Returns how many replies said 0, or -1 when the connection
// failed.
long RawPost(int fd, const std::string& frame, long count, int window);

// syslog-ng receiving lines on a unix-stream source and writing them to a file.
class SyslogNg {
 public:
  explicit SyslogNg(const std::string& dir);  // starts it; ok() tells whether it serves
  ~SyslogNg();
  SyslogNg(const SyslogNg&) = delete;
  SyslogNg& operator=(const SyslogNg&) = delete;
  bool ok() const { return ok_; }
  // loggen sends `per_connection` lines of 300 bytes over `connections` connections; the rate
  // is lines in the file per second, from loggen's start until the file holds all of them.
  // -1 when loggen fails or the lines do not all arrive within a minute.
  double Ingest(int connections, long per_connection);

 private:
  std::string dir_;
  pid_t pid_ = -1;
  bool ok_ = false;
};

// True when syslog-ng and loggen are installed (bench/setup.sh installs them).
bool HaveSyslogNg();

}  // namespace ingest

#endif
