// SPDX-License-Identifier: MIT

// The parts of a log line that the library's backends hand on separately:
// the thread id of the prefix, the text behind the prefix, and the source
// file, function and line number of the call-site part that every line of
// the library carries:
//
//   [3-7 09:05:01.042][tid:1234] [][/looper.cpp zel::Looper::Stop 137] Error:text \n\n
//   `------ prefix ------------' `------------ call site ------------' `-- text --'
//
// Internal: this header is not installed.
#ifndef ZEL_UTILS_LOG_INTERNAL_LINE_PARTS_H_
#define ZEL_UTILS_LOG_INTERNAL_LINE_PARTS_H_

#include <string_view>

namespace zel {
namespace log_internal {

// Views into one line; each is empty when the line lacks its part.
struct LineParts {
  // Everything behind the prefix (the whole line when it has none), its
  // trailing line ends ("\n", "\r\n") removed; the call-site part is kept.
  std::string_view message;
  // The T of "[tid:T]" in the prefix.
  std::string_view tid;
  // True when `message` starts with a call-site part "[module][file function line]".
  bool hasCallSite = false;
  std::string_view module;    // may be empty also when hasCallSite
  std::string_view file;      // as written, e.g. "/looper.cpp"
  std::string_view function;  // e.g. "zel::Looper::Stop"
  std::string_view lineNo;    // decimal digits
  // The text behind the call-site part and the blank after it (behind the
  // prefix when there is no call-site part), line ends removed: where the
  // tag "Error:" or "Debug:" is.
  std::string_view text;
};

// Splits `line`. The views point into `line`. Threads: any thread.
LineParts splitLine(std::string_view line);

// The file name of a call-site part without the separator in front of it:
// "looper.cpp" for "/looper.cpp" or "\looper.cpp".
std::string_view fileName(std::string_view file);

}  // namespace log_internal
}  // namespace zel

#endif  // ZEL_UTILS_LOG_INTERNAL_LINE_PARTS_H_
