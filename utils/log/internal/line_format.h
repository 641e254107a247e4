// SPDX-License-Identifier: MIT

// The line front end of the log: the prefix "[M-D hh:mm:ss.mmm][tid:T] " and
// the formatting of the caller's text into one line on the caller's stack.
// log_print() (declared in utils/logger.h, defined in line_format.cpp) is built
// on it.
//
// Internal: this header is not installed.
#ifndef ZEL_UTILS_LOG_INTERNAL_LINE_FORMAT_H_
#define ZEL_UTILS_LOG_INTERNAL_LINE_FORMAT_H_

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "utils/logger.h"

namespace zel {

// The size of a formatted line with its terminating NUL.
constexpr int kLineSize = 4096;

// Writes into `line` (kLineSize bytes) the prefix for the wall clock now and
// the calling thread, followed by `format` applied to `args` as vsnprintf
// would, the whole cut to fit and terminated. Returns the line's length.
// `args` is used up. Threads: any thread.
std::size_t formatLogLine(char* line, const char* format, va_list args);

// A line left to the writer thread to format: the time it was posted, its
// format and its arguments as the caller gave them (strings copied). Only
// formats whose text does not depend on the caller's state or locale are
// captured: %d %i %u %x %X %c %s with the flags '-' and '0', a width in
// digits and the length modifiers l, ll and z, and "%%". The writer
// produces exactly the line formatLogLine() would have produced when called
// at the same time on the posting thread.
constexpr std::size_t kMaxCapturedArguments = 16;

// A thread's local offset from UTC for its last second (see
// CapturedLine::capture()).
struct LocalOffsetCache {
  int64_t second = INT64_MIN;
  int32_t offset = 0;
  bool valid = false;
};

struct CapturedLine {
  struct Argument {
    const char* text;  // a string argument, or null for a number
    uint64_t value;    // the number's bits, or the string's length
    uint8_t size;      // the bytes the number or the length is stored in
  };
  Argument argument[kMaxCapturedArguments];
  std::size_t arguments = 0;
  std::size_t formatLength = 0;
  // The bytes write() stores.
  std::size_t payloadSize = 0;
  // The wall clock at the call, and the local time's offset from UTC then
  // (the caller converts each second once, as for its own prefix).
  int64_t timeMs = 0;
  int32_t offset = 0;

  // Reads `format` and the arguments it takes from `args` (a copy: `args`
  // is left as it is), for a line posted at `postedMs`. False when the line
  // must be formatted by the caller with formatLogLineAt().
  // `cache` is the calling thread's, which converts each second once.
  bool capture(int64_t postedMs, LocalOffsetCache* cache, const char* format, va_list args);
  // Stores the time, the offset, the format and the arguments in
  // `payloadSize` bytes at `out`.
  void write(char* out, const char* format) const;
};

// The bytes before the format in a stored line: its time, offset and
// format length.
constexpr std::size_t kCapturedHeader = 16;

// Formats a line that CapturedLine::write() stored at `payload`, posted by
// the thread `threadId`, into `line` (kLineSize bytes); returns its length.
// It asks nothing of the time zone: the local time comes from the line's
// own offset. Threads: the writer.
std::size_t formatCapturedLine(char* line, const char* payload, uint64_t threadId);

// formatLogLine() for the wall-clock time `timeMs` (milliseconds since
// 1970) read by the caller.
std::size_t formatLogLineAt(char* line, int64_t timeMs, const char* format, va_list args);

// formatLogLine() with the arguments given in place.
std::size_t printLogLine(char* line, const char* format, ...) ZEL_PRINTF_FORMAT(2, 3);

}  // namespace zel

#endif  // ZEL_UTILS_LOG_INTERNAL_LINE_FORMAT_H_
