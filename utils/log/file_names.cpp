// SPDX-License-Identifier: MIT

#include "utils/log/internal/file_names.h"

#include <cstdio>
#include <cstring>

namespace zel {
namespace names {

namespace {

bool allDigits(const std::string& text, std::size_t from, std::size_t count) {
  if (from + count > text.size()) return false;
  for (std::size_t i = from; i < from + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
  }
  return true;
}

}  // namespace

// Writes into `buf` (`size` bytes, zero-filled by the caller) the first
// `dirLen` characters of `dir` followed by the file name "zel.log.<name>.
// <start>.<suffix>"; everything is cut to fit and the result is terminated.
void buildPath(char* buf, std::size_t size, const std::string& dir, uint64_t dirLen,
               const std::string& name, const std::string& start, const char* suffix) {
  std::size_t n = static_cast<std::size_t>(dirLen);
  if (n > dir.size()) n = dir.size();
  if (n > size - 1) n = size - 1;
  std::memcpy(buf, dir.data(), n);
  std::snprintf(buf + n, size - n, "zel.log.%s.%s.%s", name.c_str(), start.c_str(), suffix);
  buf[size - 1] = '\0';
}

const char* fileNameOf(const char* path) {
  const char* name = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/' || *p == '\\') name = p + 1;
  }
  return name;
}

int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

bool parseDayDirName(const std::string& name, const std::string& prefix, int64_t* day) {
  if (name.size() != prefix.size() + 8 || name.compare(0, prefix.size(), prefix) != 0) return false;
  if (!allDigits(name, prefix.size(), 8)) return false;
  const int y = std::stoi(name.substr(prefix.size(), 4));
  const int m = std::stoi(name.substr(prefix.size() + 4, 2));
  const int d = std::stoi(name.substr(prefix.size() + 6, 2));
  if (m < 1 || m > 12 || d < 1 || d > 31) return false;
  // A date of the calendar: it survives a round trip through the day count.
  const int64_t n = daysFromCivil(y, static_cast<unsigned>(m), static_cast<unsigned>(d));
  if (d > 28) {
    const unsigned nextMonth = m == 12 ? 1u : static_cast<unsigned>(m + 1);
    const int nextYear = m == 12 ? y + 1 : y;
    if (n >= daysFromCivil(nextYear, nextMonth, 1)) return false;
  }
  *day = n;
  return true;
}

bool parseLogFileName(const std::string& name, std::string* startTime, int* index) {
  static const std::string kHead = "zel.log.";
  if (name.compare(0, kHead.size(), kHead) != 0) return false;
  const std::size_t lastDot = name.rfind('.');
  if (lastDot == std::string::npos || lastDot < kHead.size() + 7) return false;
  const std::string suffix = name.substr(lastDot + 1);
  int value = 256;
  if (suffix != "txt") {
    if (suffix.empty() || suffix.size() > 3 || !allDigits(suffix, 0, suffix.size())) return false;
    if (suffix.size() > 1 && suffix[0] == '0') return false;
    value = std::stoi(suffix);
    if (value > 255) return false;
  }
  // ".<hhmmss>" right before the suffix; the process name (which may hold
  // dots or be empty) between "zel.log." and it.
  const std::size_t timeDot = lastDot - 7;
  if (name[timeDot] != '.' || !allDigits(name, timeDot + 1, 6)) return false;
  *startTime = name.substr(timeDot + 1, 6);
  *index = value;
  return true;
}

}  // namespace names
}  // namespace zel
