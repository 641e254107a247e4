// SPDX-License-Identifier: MIT

#include "utils/log/internal/line_parts.h"

namespace zel {
namespace log_internal {

namespace {

// True when `c` may appear in the time part "M-D hh:mm:ss.mmm" of a prefix.
bool isTimeChar(char c) {
  return (c >= '0' && c <= '9') || c == '-' || c == ' ' || c == ':' || c == '.';
}

// Removes the line ends ("\n", "\r\n") at the end of `text`.
std::string_view trimLineEnds(std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
    text.remove_suffix(1);
  }
  return text;
}

// The length of the prefix "[M-D hh:mm:ss.mmm][tid:T] " at the start of
// `line`, with T in `*tid`; 0 when `line` does not start with one.
std::size_t prefixLength(std::string_view line, std::string_view* tid) {
  if (line.empty() || line[0] != '[') return 0;
  const std::size_t timeEnd = line.find(']');
  if (timeEnd == std::string_view::npos || timeEnd < 2) return 0;
  for (std::size_t i = 1; i < timeEnd; ++i) {
    if (!isTimeChar(line[i])) return 0;
  }
  constexpr std::string_view kTid = "[tid:";
  if (line.substr(timeEnd + 1, kTid.size()) != kTid) return 0;
  const std::size_t tidStart = timeEnd + 1 + kTid.size();
  const std::size_t tidEnd = line.find(']', tidStart);
  if (tidEnd == std::string_view::npos || tidEnd + 1 >= line.size() || line[tidEnd + 1] != ' ') {
    return 0;
  }
  *tid = line.substr(tidStart, tidEnd - tidStart);
  return tidEnd + 2;
}

// Reads the call-site part "[module][file function line]" at the start of
// `text` into `parts`; returns its length with the blank behind it, or 0
// when `text` does not start with one.
std::size_t callSiteLength(std::string_view text, LineParts* parts) {
  if (text.empty() || text[0] != '[') return 0;
  const std::size_t moduleEnd = text.find_first_of("[]", 1);
  if (moduleEnd == std::string_view::npos || text[moduleEnd] != ']') return 0;
  if (moduleEnd + 1 >= text.size() || text[moduleEnd + 1] != '[') return 0;
  const std::size_t siteStart = moduleEnd + 2;
  const std::size_t siteEnd = text.find(']', siteStart);
  if (siteEnd == std::string_view::npos) return 0;
  const std::string_view site = text.substr(siteStart, siteEnd - siteStart);
  const std::size_t firstBlank = site.find(' ');
  const std::size_t lastBlank = site.rfind(' ');
  if (firstBlank == std::string_view::npos || firstBlank == 0 || lastBlank == firstBlank) {
    return 0;
  }
  const std::string_view lineNo = site.substr(lastBlank + 1);
  if (lineNo.empty()) return 0;
  for (char c : lineNo) {
    if (c < '0' || c > '9') return 0;
  }
  parts->module = text.substr(1, moduleEnd - 1);
  parts->file = site.substr(0, firstBlank);
  parts->function = site.substr(firstBlank + 1, lastBlank - firstBlank - 1);
  parts->lineNo = lineNo;
  std::size_t length = siteEnd + 1;
  if (length < text.size() && text[length] == ' ') ++length;
  return length;
}

}  // namespace

LineParts splitLine(std::string_view line) {
  LineParts parts;
  const std::size_t prefix = prefixLength(line, &parts.tid);
  parts.message = trimLineEnds(line.substr(prefix));
  const std::size_t site = callSiteLength(parts.message, &parts);
  parts.hasCallSite = site != 0;
  parts.text = parts.message.substr(site);
  return parts;
}

std::string_view fileName(std::string_view file) {
  if (!file.empty() && (file[0] == '/' || file[0] == '\\')) file.remove_prefix(1);
  return file;
}

}  // namespace log_internal
}  // namespace zel
