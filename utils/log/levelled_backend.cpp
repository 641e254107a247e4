// SPDX-License-Identifier: MIT

#include "utils/log/internal/line_parts.h"
#include "utils/log_levelled_backend.h"

namespace zel {

LevelledBackend::~LevelledBackend() = default;

void LevelledBackend::Log(const std::string& line) { Log(line, LevelFromTag(line)); }

int LevelledBackend::LevelFromTag(const std::string& line) {
  const std::string_view text = log_internal::splitLine(line).text;
  if (text.substr(0, 6) == "Error:") return 0;
  if (text.substr(0, 6) == "Debug:") return 3;
  return kUntaggedLevel;
}

int LevelledBackend::SyslogPriority(int level) {
  switch (level) {
    case 0:
      return 3;  // err
    case 1:
      return 4;  // warning
    case 3:
      return 7;  // debug
    case 4:
      return 5;  // notice
    default:
      return 6;  // info
  }
}

}  // namespace zel
