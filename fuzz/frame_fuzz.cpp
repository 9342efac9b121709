// The bus's server-side frame reader: the input is what a peer sends on one connection (frames
// of a 4-byte little-endian length and bytes, or anything else), served by the real reader
// with a handler that reads every byte it is given.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" {
#include "internal.h"
}
#include "fuzz_support.h"

namespace {

int Handler(comm_data* request, comm_data*, void*) {
  void* bytes = nullptr;
  unsigned int length = 0;
  if (nuv_comm_get_data(request, &bytes, &length) != 0) return 1;
  unsigned int sum = 0;
  const unsigned char* p = static_cast<const unsigned char*>(bytes);
  for (unsigned int i = 0; i <= length; ++i) sum += p[i];  // the NUL after the bytes too
  return static_cast<int>(sum & 0xff);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  nuvfuzz::QuietLog();
  nuv_comm_set_timeout_ms(20);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Replies are 8 bytes per request; keep them within the socket buffer.
  if (size > 32768) return 0;
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return 0;
  int buffer = 1 << 20;
  setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
  setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
  size_t sent = 0;
  while (sent < size) {
    ssize_t n = send(fds[0], data + sent, size - sent, MSG_NOSIGNAL);
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  shutdown(fds[0], SHUT_WR);
  struct nuv__topic* t = static_cast<struct nuv__topic*>(calloc(1, sizeof(struct nuv__topic)));
  strcpy(t->name, "fuzz:frame");
  t->handler = Handler;
  t->max_msg = 4096;
  t->max_conn = 1;
  t->idle_ms = 20;
  nuv__comm_serve(t, nullptr, fds[1]);
  free(t);
  close(fds[0]);
  close(fds[1]);
  return 0;
}
