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

// What a thread learnt of the formats it posted last: for each, its text
// and the arguments it takes (or that it cannot be captured), so that a
// format posted again is recognised with one comparison of its text
// instead of being read conversion by conversion. The address is only a
// hint: a buffer the caller reuses for another text fails the comparison.
constexpr std::size_t kPlannedFormats = 16;
// Longer formats are read at every call.
constexpr std::size_t kPlannedFormatSize = 192;

struct FormatPlan {
  const char* key = nullptr;  // the format's address when it was read
  uint16_t length = 0;        // the text's length, without its NUL
  bool capturable = false;    // false: the caller formats it
  uint8_t arguments = 0;
  // Each argument's conversion and length modifier (0, 'l', 'L' or 'z').
  char conv[kMaxCapturedArguments];
  char lengthModifier[kMaxCapturedArguments];
  char text[kPlannedFormatSize];  // the text and its NUL
};

// The plans of one thread, looked up by the format's address. Threads: the
// thread that owns them.
struct FormatPlans {
  FormatPlan plan[kPlannedFormats];
  FormatPlan& slotOf(const char* format) {
    const auto address = reinterpret_cast<uintptr_t>(format);
    return plan[((address >> 3) ^ (address >> 11)) % kPlannedFormats];
  }
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
  // `cache` is the calling thread's, which converts each second once;
  // `plans` are its plans (null: the format is read anew).
  bool capture(int64_t postedMs, LocalOffsetCache* cache, FormatPlans* plans, const char* format,
               va_list args);
  // Stores the time, the offset, the format and the arguments in
  // `payloadSize` bytes at `out`.
  void write(char* out, const char* format) const;
};

// The bytes before the format in a stored line: its time, offset and
// format length.
constexpr std::size_t kCapturedHeader = 16;

// What the writer learnt of the formats it formatted last: each read into
// runs of text and conversions once, found again by its text.
struct WriterPlans;
// Null when there is no memory for them.
WriterPlans* newWriterPlans() noexcept;
void deleteWriterPlans(WriterPlans* plans) noexcept;

// Formats a line that CapturedLine::write() stored at `payload`, posted by
// the thread `threadId`, into `line` (kLineSize bytes); returns its length.
// It asks nothing of the time zone: the local time comes from the line's
// own offset. `plans` may be null. Threads: the writer.
std::size_t formatCapturedLine(char* line, const char* payload, uint64_t threadId,
                               WriterPlans* plans);

// formatLogLine() for the wall-clock time `timeMs` (milliseconds since
// 1970) read by the caller.
std::size_t formatLogLineAt(char* line, int64_t timeMs, const char* format, va_list args);

// formatLogLine() with the arguments given in place.
std::size_t printLogLine(char* line, const char* format, ...) ZEL_PRINTF_FORMAT(2, 3);

}  // namespace zel

#endif  // ZEL_UTILS_LOG_INTERNAL_LINE_FORMAT_H_
