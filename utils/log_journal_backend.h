// SPDX-License-Identifier: MIT

// A log backend that hands each forwarded line to the system journal of
// Linux, speaking the journal's native protocol itself (no library of the
// journal is linked): one datagram per line to the journal's socket,
// made of the fields
//
//   MESSAGE            the line without its "[M-D hh:mm:ss.mmm][tid:T] "
//                      prefix and its trailing line ends; the call-site part
//                      "[module][file function line] " stays, so the journal
//                      shows the text the log file holds
//   PRIORITY           the syslog severity of the line's level
//                      (LevelledBackend::SyslogPriority(): errors 3, the
//                      loop's warning 4, debug 7, the loop's exit notice 5,
//                      others 6)
//   CODE_FILE          "looper.cpp", CODE_FUNC "zel::Looper::Stop" and
//   CODE_LINE          "137" from the call-site part, when the line has one
//   TID                the T of the prefix, when the line has one
//   SYSLOG_IDENTIFIER  the identifier given, by default the process's
//                      executable file name
//
// A value that holds a line end is sent in the protocol's length-prefixed
// form, so that multi-line texts arrive whole.
//
// Never blocking: the socket does not wait. A line the journal cannot take
// at once (its socket's queue is full, nothing listens at the path, the
// line is larger than a datagram may be) is dropped and counted
// (Dropped()). Built on Linux only.
//
// Threads: Log() may be called from any thread (the Logger calls it on its
// writer thread); the counters may be read from any thread.
//
// Example:
//   static zel::JournalBackend journal;  // must outlive the process's logging
//   zel::Logger::GetInstance()->RegisterBackend(&journal);
//   log_print(0, 1, "[%s][%s %s %d] Error:disk %s gone\n", "", "/main.cpp", "main",
//             __LINE__, name);  // flag 1: forwarded to the journal
//   // journalctl -t <process name> -o verbose shows the fields above.
#ifndef ZEL_UTILS_LOG_JOURNAL_BACKEND_H_
#define ZEL_UTILS_LOG_JOURNAL_BACKEND_H_

#include <cstdint>
#include <memory>
#include <string>

#include "utils/export.h"
#include "utils/log_levelled_backend.h"

namespace zel {

class ZEL_API JournalBackend : public LevelledBackend {
 public:
  // Opens a non-blocking datagram socket for sending to the journal's
  // socket at `socketPath` (by default the system journal's). An empty
  // `identifier` sends the process's executable file name as
  // SYSLOG_IDENTIFIER. Nothing is sent yet, and the path need not exist:
  // lines sent while nothing listens there are dropped and counted. Throws
  // std::invalid_argument when `socketPath` is empty or longer than a
  // socket address holds (107 bytes), std::system_error when no socket can
  // be made.
  explicit JournalBackend(const std::string& socketPath = "/run/systemd/journal/socket",
                          const std::string& identifier = std::string());
  ~JournalBackend() override;
  JournalBackend(const JournalBackend&) = delete;
  JournalBackend& operator=(const JournalBackend&) = delete;

  using LevelledBackend::Log;

  // Sends `line` as one journal entry with the priority of `level`, or
  // drops and counts it. Never waits for the journal. Threads: any thread.
  void Log(const std::string& line, int level) override;

  // The number of lines sent to the socket so far. Threads: any thread.
  uint64_t Sent() const;

  // The number of lines dropped so far: the socket's queue was full,
  // nothing listened at the path, or the entry was larger than a datagram
  // may be (about 200 KiB by default on Linux). Threads: any thread.
  uint64_t Dropped() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

}  // namespace zel

#endif  // ZEL_UTILS_LOG_JOURNAL_BACKEND_H_
