// SPDX-License-Identifier: MIT

// The few socket calls the tests use whose types differ between Winsock and
// POSIX, and a TCP socket bound on 127.0.0.1.
#ifndef ZEL_TESTS_SUPPORT_SOCKET_H_
#define ZEL_TESTS_SUPPORT_SOCKET_H_

#if defined(ZEL_TEST_ON_WINDOWS)
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <cstdint>

namespace zel_test {

#if defined(ZEL_TEST_ON_WINDOWS)
using Socket = SOCKET;
using PollFd = WSAPOLLFD;
const Socket kNoSocket = INVALID_SOCKET;
constexpr int kSendFlags = 0;
inline int PollOne(PollFd* p, int timeoutMs) { return WSAPoll(p, 1, timeoutMs); }
inline void CloseSocket(Socket s) { closesocket(s); }
// Winsock works only between WSAStartup and WSACleanup; a test may open a
// socket before the tracing client has started Winsock itself.
inline const bool kWinsockStarted = [] {
  WSADATA data;
  return WSAStartup(MAKEWORD(2, 2), &data) == 0;
}();
#else
using Socket = int;
using PollFd = pollfd;
const Socket kNoSocket = -1;
// A peer that went away makes send() fail with EPIPE, not raise SIGPIPE.
constexpr int kSendFlags = MSG_NOSIGNAL;
inline int PollOne(PollFd* p, int timeoutMs) { return poll(p, 1, timeoutMs); }
inline void CloseSocket(Socket s) { close(s); }
#endif

// A TCP socket bound to 127.0.0.1 at `port` (0: a port of the system's
// choosing), with SO_REUSEADDR so that a port just given up can be bound
// again; the port bound is stored in `*bound`. kNoSocket when the socket
// cannot be made or bound.
inline Socket BindLoopback(uint16_t port, uint16_t* bound) {
  const Socket fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd == kNoSocket) return kNoSocket;
  const int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&one), sizeof(one));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  socklen_t len = sizeof(addr);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    CloseSocket(fd);
    return kNoSocket;
  }
  *bound = ntohs(addr.sin_port);
  return fd;
}

// A free port on 127.0.0.1 (bound and released at once); 0 when none could
// be bound.
inline uint16_t FreePort() {
  uint16_t port = 0;
  const Socket fd = BindLoopback(0, &port);
  if (fd == kNoSocket) return 0;
  CloseSocket(fd);
  return port;
}

}  // namespace zel_test

#endif  // ZEL_TESTS_SUPPORT_SOCKET_H_
