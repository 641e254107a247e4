// SPDX-License-Identifier: MIT

// Sending datagrams to a local (AF_UNIX) socket without ever waiting: the
// transport of the journal and syslog backends.
//
// Internal: this header is not installed; utils/log/unix_datagram_posix.cpp
// implements it and is built on POSIX systems only.
#ifndef ZEL_UTILS_LOG_INTERNAL_UNIX_DATAGRAM_H_
#define ZEL_UTILS_LOG_INTERNAL_UNIX_DATAGRAM_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace zel {
namespace log_internal {

// One piece of a datagram sent by gathering.
struct DatagramPiece {
  const void* data;
  std::size_t size;
};

// A non-blocking datagram socket that sends to the socket at one path. It
// is not connected: each datagram is addressed to the path, so a receiver
// that restarts and binds the path again is reached again.
class UnixDatagramSender {
 public:
  // The result of one send.
  enum class Result {
    kSent,
    kFull,      // the receiver's queue is full: dropped
    kTooLarge,  // larger than a datagram may be: dropped
    kNoPeer,    // no socket at the path, or no one reads it: dropped
    kFailed,    // any other error: dropped
  };

  // Opens the socket (non-blocking, close-on-exec) for sending to `path`.
  // Throws std::invalid_argument when `path` is empty or longer than a
  // socket address holds, std::system_error when no socket can be made.
  explicit UnixDatagramSender(const std::string& path);
  ~UnixDatagramSender();
  UnixDatagramSender(const UnixDatagramSender&) = delete;
  UnixDatagramSender& operator=(const UnixDatagramSender&) = delete;

  // Sends the `count` pieces of `pieces` as one datagram, never waiting.
  // Threads: any thread, also several at once.
  Result send(const DatagramPiece* pieces, std::size_t count);

  // The path datagrams are sent to.
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  int fd_ = -1;
};

}  // namespace log_internal
}  // namespace zel

#endif  // ZEL_UTILS_LOG_INTERNAL_UNIX_DATAGRAM_H_
