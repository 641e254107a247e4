// SPDX-License-Identifier: MIT

// Retention of the log across runs: removes the day directories and log
// files of earlier runs that are older than a number of days or that push
// the library's log files past a total size. Off unless the client sets it
// (Logger::SetRetention, zel_set_log_retention).
//
// Only the library's own names below the base directory are touched: day
// directories named <base>YYYYMMDD (the base used as given, as the writer
// does) and, inside them, files named zel.log.<name>.<hhmmss>.txt or
// zel.log.<name>.<hhmmss>.<0-255>. Links are never followed nor removed,
// foreign files and directories are left alone, and the live file is never
// removed. Every removal is reported on standard output.
//
// Internal: this header is not installed.
#ifndef ZEL_UTILS_LOG_INTERNAL_RETENTION_H_
#define ZEL_UTILS_LOG_INTERNAL_RETENTION_H_

#include <cstdint>
#include <string>

namespace zel {
namespace retention {

// Stores the process-wide settings and asks the writer to apply them at its
// next line. `days` <= 0 keeps day directories of any age; `totalBytes` <= 0
// sets no total size. Threads: any thread.
void set(int days, int64_t totalBytes);

// True once when retention is set and due (set() was called, or the day
// changed since it was last applied); clears the request. Writer thread.
bool takeDue(int* days, int64_t* totalBytes);

// Asks for retention at the next line (a change of day). Writer thread.
void markDue();

// Applies retention below `base` (used as given: day directories are named
// base + "YYYYMMDD"): first removes the day directories dated more than
// `days` days before `today` (a day number, names::daysFromCivil) with the log
// files in them, then the oldest log files (by date, start time, rotation
// index) until the log files total at most `totalBytes` bytes. `livePath`
// is never removed. A directory keeping foreign entries stays. Returns the
// number of files and directories removed.
int apply(const std::string& base, int days, int64_t totalBytes, const std::string& livePath,
          int64_t today);

// Around fork(): the settings are locked in the forking thread before the
// fork and unlocked after it, in the parent and in the child.
void lockForFork();
void unlockAfterFork();

}  // namespace retention
}  // namespace zel

#endif  // ZEL_UTILS_LOG_INTERNAL_RETENTION_H_
