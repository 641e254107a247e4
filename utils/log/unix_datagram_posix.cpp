// SPDX-License-Identifier: MIT

#include <errno.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <system_error>

#include "utils/log/internal/unix_datagram.h"

namespace zel {
namespace log_internal {

namespace {

// The address of the socket at `path`; `path` fits (checked by the
// constructor).
sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address;
  std::memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

// Gathered sends take at most this many pieces at once.
constexpr std::size_t kMaxPieces = 64;

}  // namespace

UnixDatagramSender::UnixDatagramSender(const std::string& path) : path_(path) {
  if (path.empty()) throw std::invalid_argument("zel log: empty socket path");
  if (path.size() >= sizeof(sockaddr_un::sun_path)) {
    throw std::invalid_argument("zel log: socket path too long: " + path);
  }
  int type = SOCK_DGRAM;
#if defined(SOCK_NONBLOCK) && defined(SOCK_CLOEXEC)
  type |= SOCK_NONBLOCK | SOCK_CLOEXEC;
#endif
  fd_ = ::socket(AF_UNIX, type, 0);
  if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "zel log: socket");
}

UnixDatagramSender::~UnixDatagramSender() {
  if (fd_ >= 0) ::close(fd_);
}

UnixDatagramSender::Result UnixDatagramSender::send(const DatagramPiece* pieces,
                                                    std::size_t count) {
  if (count > kMaxPieces) return Result::kFailed;
  iovec vectors[kMaxPieces];
  for (std::size_t i = 0; i < count; ++i) {
    vectors[i].iov_base = const_cast<void*>(pieces[i].data);
    vectors[i].iov_len = pieces[i].size;
  }
  sockaddr_un address = addressOf(path_);
  msghdr message;
  std::memset(&message, 0, sizeof(message));
  message.msg_name = &address;
  message.msg_namelen = static_cast<socklen_t>(sizeof(address));
  message.msg_iov = vectors;
  message.msg_iovlen = count;
  for (;;) {
    // MSG_DONTWAIT as well as the non-blocking socket: a full receiver
    // drops the datagram, it never holds up the writer.
    if (::sendmsg(fd_, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return Result::kSent;
    switch (errno) {
      case EINTR:
        continue;
      case EAGAIN:
#if EWOULDBLOCK != EAGAIN
      case EWOULDBLOCK:
#endif
      case ENOBUFS:
        return Result::kFull;
      case EMSGSIZE:
        return Result::kTooLarge;
      case ENOENT:
      case ECONNREFUSED:
      case ENOTCONN:
        return Result::kNoPeer;
      default:
        return Result::kFailed;
    }
  }
}

}  // namespace log_internal
}  // namespace zel
