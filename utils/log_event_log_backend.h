// SPDX-License-Identifier: MIT

// A log backend that reports each forwarded line to the Windows event log
// (the Application log) under an event source of the client's choosing,
// through RegisterEventSourceA and ReportEventA.
//
// Each line becomes one event with event id 0 and category 0, whose one
// insertion string is the line without its "[M-D hh:mm:ss.mmm][tid:T] "
// prefix and its trailing line ends (the call-site part
// "[module][file function line] " stays; the event log records the time
// itself). Lines longer than an insertion string may be (31,839
// characters) are cut there. The event type follows the line's level:
// errors (0) are EVENTLOG_ERROR_TYPE, the message loop's warning (1)
// EVENTLOG_WARNING_TYPE, every other level EVENTLOG_INFORMATION_TYPE. Texts
// are passed in the system code page, as every text of the library.
//
// The source needs no registration for its events to be recorded; without
// a message file registered for it under
// HKLM\SYSTEM\CurrentControlSet\Services\EventLog\Application\<source>,
// the Event Viewer prefixes each event's text with a note that the
// description for event id 0 cannot be found.
//
// Never blocking: reporting an event is a call to the event log service,
// which may wait. The lines are handed to a thread of the backend's own,
// at most `maxWaiting` (by default 4096) of them waiting at once; the ones
// beyond, and the ones the service refuses, are dropped and counted
// (Dropped()). Built on Windows only.
//
// Threads: Log() may be called from any thread (the Logger calls it on its
// writer thread); the backend owns one thread from construction to
// destruction.
//
// Example:
//   static zel::EventLogBackend events("Device Client");  // outlives the logging
//   zel::Logger::GetInstance()->RegisterBackend(&events);
//   log_print(0, 1, "[%s][%s %s %d] Error:disk %s gone\n", "", "/main.cpp", "main",
//             __LINE__, name);  // flag 1: an error event of "Device Client"
#ifndef ZEL_UTILS_LOG_EVENT_LOG_BACKEND_H_
#define ZEL_UTILS_LOG_EVENT_LOG_BACKEND_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "utils/export.h"
#include "utils/log_levelled_backend.h"

namespace zel {

class ZEL_API EventLogBackend : public LevelledBackend {
 public:
  // The event types of ReportEventA.
  static constexpr int kErrorType = 0x0001;        // EVENTLOG_ERROR_TYPE
  static constexpr int kWarningType = 0x0002;      // EVENTLOG_WARNING_TYPE
  static constexpr int kInformationType = 0x0004;  // EVENTLOG_INFORMATION_TYPE

  // Opens the event source `source` on the local computer
  // (RegisterEventSourceA) and starts the backend's thread; at most
  // `maxWaiting` lines wait for the event log at once (0 is taken as 1).
  // Throws std::invalid_argument when `source` is empty, std::system_error
  // when the source cannot be opened or the thread started.
  explicit EventLogBackend(const std::string& source, std::size_t maxWaiting = 4096);

  // Reports the lines still waiting, stops the thread and closes the
  // source. Threads: not while another thread calls Log().
  ~EventLogBackend() override;
  EventLogBackend(const EventLogBackend&) = delete;
  EventLogBackend& operator=(const EventLogBackend&) = delete;

  using LevelledBackend::Log;

  // Queues `line` for reporting with the event type of `level` and returns
  // at once; drops and counts it when `maxWaiting` lines wait already. Threads: any
  // thread.
  void Log(const std::string& line, int level) override;

  // Waits until every line handed to Log() before the call has been
  // reported or dropped. Threads: any thread.
  void Flush();

  // The number of events reported so far. Threads: any thread.
  uint64_t Sent() const;

  // The number of lines dropped so far (the queue was full, or the event
  // log refused the event). Threads: any thread.
  uint64_t Dropped() const;

  // Returns the event type of `level`: kErrorType for 0, kWarningType for
  // 1, kInformationType for any other level. Threads: any thread.
  static int EventType(int level);

 private:
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

}  // namespace zel

#endif  // ZEL_UTILS_LOG_EVENT_LOG_BACKEND_H_
