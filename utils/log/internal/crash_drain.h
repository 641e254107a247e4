// SPDX-License-Identifier: MIT

// The crash drain of the log: when the process is about to die of a fault
// (a bad address, an illegal instruction, a division by zero, an abort), the
// lines still queued are written before it goes, followed by one line that
// names the fault.
//
// How: install() makes two wake channels and a drain thread in advance. The
// fatal handler (utils/platform.h, installFatalHandler, which also decides
// when an earlier handler of the application comes first) wakes the drain
// thread and waits, at most ZEL_LOG_CRASH_WAIT_MS milliseconds (default
// 2000), for its answer; the drain thread writes the queued lines without
// waiting for a lock the faulting thread may hold, and answers. The
// handler then writes "<prefix>zel log: fatal signal <N> (<name>)" with one
// plain write to the live file. The handler takes no lock and allocates
// nothing; everything it needs was captured before. A fault of the writer
// thread itself writes the lines that thread had gathered, then the fatal
// line. docs/logging-crash-fork.md has the guarantees.
//
// Internal: this header is not installed.
#ifndef ZEL_UTILS_LOG_INTERNAL_CRASH_DRAIN_H_
#define ZEL_UTILS_LOG_INTERNAL_CRASH_DRAIN_H_

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "utils/platform.h"

namespace zel {
namespace crash {

// The wait for the drain when ZEL_LOG_CRASH_WAIT_MS is not set or invalid,
// and in a process that reads no environment (set-user-ID and the like).
constexpr int64_t kDefaultWaitMs = 2000;
// The longest wait ZEL_LOG_CRASH_WAIT_MS can ask for.
constexpr int64_t kMaxWaitMs = 600000;

// Records the live log file (kNoFile when there is none) that the fatal
// line goes to, with its identity, and that the calling thread is the
// writer thread. Called by the log file writer whenever it opens or closes
// the live file.
void setLiveFile(platform::FileHandle file);

// Keeps the offset of local time from UTC that `local` (the local time of
// `utcSecond`, seconds since 1970) shows. The threads that convert local
// times anyway (the line prefix, the choice of the directory) call it; the
// fatal line and the writer's date take local time from it, so that neither
// the fault handling nor the writer asks the time zone, whose lock a
// faulting thread may hold for good.
void noteLocalTime(int64_t utcSecond, const std::tm& local);

// The local calendar date of `utcSecond` (seconds since 1970) by the offset
// noteLocalTime() kept: pure arithmetic, no library call.
void localDate(int64_t utcSecond, int* year, int* month, int* day);

// The calendar fields (tm_year, tm_mon, tm_mday, tm_hour, tm_min, tm_sec)
// of `localSecond`, a local time in seconds since 1970: pure arithmetic,
// no library call. For the writer's line prefixes, which it makes from
// each line's own offset from UTC.
void calendarTime(int64_t localSecond, std::tm* fields);

// Writes the lines queued before a fault of the thread `faultingThread`,
// until `deadlineNs` (platform::monotonicNs()) at the latest, without
// waiting for a lock that thread holds. Called on the drain thread.
using DrainFunction = void (*)(uint64_t faultingThread, int64_t deadlineNs);

// Writes what the writer thread had gathered when it faulted. Called on the
// writer thread inside the fatal handler: only what is safe there.
using WriterFaultFunction = void (*)();

// Installs the crash drain once per process: later calls return 0 and
// change nothing. `drain` and `writerFault` do the writing. Returns 0, or
// -1 when a channel, the drain thread or the handler could not be set up.
int install(DrainFunction drain, WriterFaultFunction writerFault);

// In a forked child, from the fork handler (alone, no thread started):
// forgets the parent's channels, drain thread and live file.
void afterForkInChild();

// In a forked child, outside the fork handler (the first line): makes the
// channels and the drain thread anew when the drain was installed.
void restartAfterFork();

// Parses the text of ZEL_LOG_CRASH_WAIT_MS: a decimal count of
// milliseconds, above 600000 capped at 600000; anything but digits gives
// kDefaultWaitMs.
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

#endif  // ZEL_UTILS_LOG_INTERNAL_CRASH_DRAIN_H_
