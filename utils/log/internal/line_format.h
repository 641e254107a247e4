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

#include "utils/logger.h"

namespace zel {

// The size of a formatted line with its terminating NUL.
constexpr int kLineSize = 4096;

// Writes into `line` (kLineSize bytes) the prefix for the wall clock now and
// the calling thread, followed by `format` applied to `args` as vsnprintf
// would, the whole cut to fit and terminated. Returns the line's length.
// `args` is used up. Threads: any thread.
std::size_t formatLogLine(char* line, const char* format, va_list args);

// formatLogLine() with the arguments given in place.
std::size_t printLogLine(char* line, const char* format, ...) ZEL_PRINTF_FORMAT(2, 3);

}  // namespace zel

#endif  // ZEL_UTILS_LOG_INTERNAL_LINE_FORMAT_H_
