// A client's side of the hello that asks a server for the shared page of counts, by hand.
#ifndef NUV_COMM_HELLO_TESTKIT_H
#define NUV_COMM_HELLO_TESTKIT_H

#include <sys/socket.h>

#include <cstring>
#include <string>

namespace commtest {

// The hello as it goes on the wire: a 16-byte body no request of ours starts a connection with.
inline const std::string kHello("\x10\0\0\0\0nuv_comm bell\0\x01", 20);

// The page's descriptor from the server's answer to a hello sent by hand, or -1.
inline int TakePage(int fd, std::string* reply) {
  if (send(fd, kHello.data(), kHello.size(), MSG_NOSIGNAL) != ssize_t(kHello.size())) return -1;
  char buf[8];
  alignas(cmsghdr) char ctl[CMSG_SPACE(sizeof(int))];
  iovec iov{buf, sizeof buf};
  msghdr m{};
  m.msg_iov = &iov;
  m.msg_iovlen = 1;
  m.msg_control = ctl;
  m.msg_controllen = sizeof ctl;
  ssize_t got = recvmsg(fd, &m, MSG_CMSG_CLOEXEC);
  if (got <= 0) return -1;
  reply->assign(buf, size_t(got));
  cmsghdr* c = CMSG_FIRSTHDR(&m);
  if (!c || c->cmsg_type != SCM_RIGHTS) return -1;
  int page;
  std::memcpy(&page, CMSG_DATA(c), sizeof page);
  return page;
}

}  // namespace commtest

#endif
