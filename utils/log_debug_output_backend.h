// SPDX-License-Identifier: MIT

// A log backend that sends each forwarded line to the debugger through
// OutputDebugStringA, so that a debugger (or a debug output viewer) shows
// the log as it is written.
//
// The line is sent as written, prefix and line ends included, in the
// system code page as every text of the library; the level is not shown
// (the line's tag says it).
//
// Never blocking: OutputDebugStringA waits for an attached debugger, or
// for a debug output viewer to take the previous text. The lines are
// handed to a thread of the backend's own, at most `maxWaiting` (by default
// 4096) of them waiting at once; the ones beyond are dropped and counted
// (Dropped()). Built on Windows only.
//
// Threads: Log() may be called from any thread (the Logger calls it on its
// writer thread); the backend owns one thread from construction to
// destruction.
//
// Example:
//   static zel::DebugOutputBackend debugger;  // outlives the logging
//   zel::Logger::GetInstance()->RegisterBackend(&debugger);
//   log_print(3, 1, "[%s][%s %s %d] Debug:device %s attached\n", "", "/main.cpp", "main",
//             __LINE__, name);  // flag 1: shown in the debugger's output
#ifndef ZEL_UTILS_LOG_DEBUG_OUTPUT_BACKEND_H_
#define ZEL_UTILS_LOG_DEBUG_OUTPUT_BACKEND_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "utils/export.h"
#include "utils/log_levelled_backend.h"

namespace zel {

class ZEL_API DebugOutputBackend : public LevelledBackend {
 public:
  // Starts the backend's thread; at most `maxWaiting` lines wait for the
  // debugger at once (0 is taken as 1). Throws std::system_error when the
  // thread cannot be started.
  explicit DebugOutputBackend(std::size_t maxWaiting = 4096);

  // Sends the lines still waiting, then stops the thread. Threads: not
  // while another thread calls Log().
  ~DebugOutputBackend() override;
  DebugOutputBackend(const DebugOutputBackend&) = delete;
  DebugOutputBackend& operator=(const DebugOutputBackend&) = delete;

  using LevelledBackend::Log;

  // Queues `line` for the debugger and returns at once; drops and counts
  // it when `maxWaiting` lines wait already. `level` is not used. Threads: any
  // thread.
  void Log(const std::string& line, int level) override;

  // Waits until every line handed to Log() before the call has been sent
  // or dropped. Threads: any thread.
  void Flush();

  // The number of lines sent to the debugger so far. Threads: any thread.
  uint64_t Sent() const;

  // The number of lines dropped so far (the queue was full). Threads: any
  // thread.
  uint64_t Dropped() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

}  // namespace zel

#endif  // ZEL_UTILS_LOG_DEBUG_OUTPUT_BACKEND_H_
