// The crash drain of the log: when the process is about to die of a fault
// (a bad address, an illegal instruction, a division by zero, an abort), the
// lines still queued are written before it goes, followed by one line that
// names the fault.
//
// How: install() makes two wake channels and a drain thread in advance. The
// fatal handler (utils/platform.h, installFatalHandler) wakes the drain
// thread and waits, at most ZEL_LOG_CRASH_WAIT_MS milliseconds (default
// 2000), for its answer; the drain thread calls Logger::Flush() and answers.
// The handler then writes "<prefix>zel log: fatal signal <N> (<name>)" with
// one plain write to the live file, and the platform layer hands the fault
// on to the previous handler. The handler takes no lock and allocates
// nothing; everything it needs was captured before.
//
// Internal: this header is not installed.
#ifndef ZEL_UTILS_LOG_CRASH_H_
#define ZEL_UTILS_LOG_CRASH_H_

#include <cstddef>
#include <cstdint>

#include "utils/platform.h"

namespace zel {

class Logger;

namespace crash {

// The wait for the drain when ZEL_LOG_CRASH_WAIT_MS is not set or invalid,
// and in a process that reads no environment (set-user-ID and the like).
constexpr int64_t kDefaultWaitMs = 2000;

// Records the live log file (kNoFile when there is none) that the fatal
// line goes to, and that the calling thread is the writer thread. Called by
// the log file writer whenever it opens or closes the live file.
void setLiveFile(platform::FileHandle file);

// Installs the crash drain for `logger` once per process: later calls
// return 0 and change nothing. Returns 0, or -1 when a channel, the drain
// thread or the handler could not be set up.
int install(Logger* logger);

// Parses the text of ZEL_LOG_CRASH_WAIT_MS: a decimal count of
// milliseconds from 0 to 600000; anything else gives kDefaultWaitMs.
int64_t parseWaitMs(const char* text);

// Writes the fatal line "[M-D hh:mm:ss.mmm][tid:T] zel log: fatal signal
// <code> (<name>)\n" into `buf` (at most `size` - 1 characters, terminated)
// for the UTC time `utcMs` (milliseconds since 1970) shifted by
// `offsetSeconds` to local time, and the thread id `tid`. With `exception`
// the text reads "fatal exception 0x<code in 8 hex digits>" instead. Safe in
// a signal handler (no library call). Returns the length written.
std::size_t formatFatalLine(char* buf, std::size_t size, int64_t utcMs, int64_t offsetSeconds,
                            uint64_t tid, uint32_t code, const char* name, bool exception);

}  // namespace crash
}  // namespace zel

#endif  // ZEL_UTILS_LOG_CRASH_H_
