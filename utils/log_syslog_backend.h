// SPDX-License-Identifier: MIT

// A log backend that hands each forwarded line to the local syslog daemon,
// speaking the syslog protocol itself: one datagram per line, in the form
// of RFC 3164 that local daemons read on /dev/log,
//
//   <PRI>Mmm dd hh:mm:ss IDENT[PID]: MESSAGE
//
// where PRI is facility * 8 + the syslog severity of the line's level
// (LevelledBackend::SyslogPriority(): errors 3, the loop's warning 4, debug
// 7, the loop's exit notice 5, others 6), the time is local time at
// sending, and MESSAGE is the line without its "[M-D hh:mm:ss.mmm][tid:T] "
// prefix and its trailing line ends (the call-site part
// "[module][file function line] " stays).
//
// Unlike syslog(3), it sends to any socket path, each backend has an
// identifier and facility of its own, and it never blocks: a line the
// daemon cannot take at once (its socket's queue is full, nothing listens
// at the path, the line is larger than a datagram may be) is dropped and
// counted (Dropped()). Built on POSIX systems only.
//
// Threads: Log() may be called from any thread (the Logger calls it on its
// writer thread); the counters may be read from any thread.
//
// Example:
//   static zel::SyslogBackend syslog_backend("/dev/log", "client",
//                                            zel::SyslogFacility::kLocal0);
//   zel::Logger::GetInstance()->RegisterBackend(&syslog_backend);
//   log_print(0, 1, "[%s][%s %s %d] Error:disk %s gone\n", "", "/main.cpp", "main",
//             __LINE__, name);  // flag 1: forwarded to syslog as local0.err
#ifndef ZEL_UTILS_LOG_SYSLOG_BACKEND_H_
#define ZEL_UTILS_LOG_SYSLOG_BACKEND_H_

#include <cstdint>
#include <memory>
#include <string>

#include "utils/export.h"
#include "utils/log_levelled_backend.h"

namespace zel {

// The syslog facilities, with their numbers in the protocol.
enum class SyslogFacility : int {
  kKernel = 0,
  kUser = 1,
  kMail = 2,
  kDaemon = 3,
  kAuth = 4,
  kSyslog = 5,
  kLpr = 6,
  kNews = 7,
  kUucp = 8,
  kCron = 9,
  kAuthPriv = 10,
  kFtp = 11,
  kLocal0 = 16,
  kLocal1 = 17,
  kLocal2 = 18,
  kLocal3 = 19,
  kLocal4 = 20,
  kLocal5 = 21,
  kLocal6 = 22,
  kLocal7 = 23,
};

class ZEL_API SyslogBackend : public LevelledBackend {
 public:
  // Opens a non-blocking datagram socket for sending to the syslog socket
  // at `socketPath`, with `identifier` as IDENT (empty: the process's
  // executable file name) and `facility`. Nothing is sent yet, and the path
  // need not exist: lines sent while nothing listens there are dropped and
  // counted. Throws std::invalid_argument when `socketPath` is empty or
  // longer than a socket address holds (107 bytes), when `identifier` holds
  // a blank, a colon, a bracket or a control character (the receiver could
  // not tell it from the message), or when `facility` is not one of
  // SyslogFacility's values; std::system_error when no socket can be made.
  explicit SyslogBackend(const std::string& socketPath = "/dev/log",
                         const std::string& identifier = std::string(),
                         SyslogFacility facility = SyslogFacility::kUser);
  ~SyslogBackend() override;
  SyslogBackend(const SyslogBackend&) = delete;
  SyslogBackend& operator=(const SyslogBackend&) = delete;

  using LevelledBackend::Log;

  // Sends `line` as one syslog message with the severity of `level`, or
  // drops and counts it. Never waits for the daemon. Threads: any thread.
  void Log(const std::string& line, int level) override;

  // The number of lines sent to the socket so far. Threads: any thread.
  uint64_t Sent() const;

  // The number of lines dropped so far: the socket's queue was full,
  // nothing listened at the path, or the message was larger than a
  // datagram may be. Threads: any thread.
  uint64_t Dropped() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

}  // namespace zel

#endif  // ZEL_UTILS_LOG_SYSLOG_BACKEND_H_
