// SPDX-License-Identifier: MIT

// The name the library's backends give the process when the client names
// none: the executable's file name, as get_process_name() gives it.
//
// Internal: this header is not installed.
#ifndef ZEL_UTILS_LOG_INTERNAL_PROCESS_NAME_H_
#define ZEL_UTILS_LOG_INTERNAL_PROCESS_NAME_H_

#include <string>

#include "utils/platform.h"

namespace zel {
namespace log_internal {

// The file name of the running executable ("client.exe", "zel_demo");
// "zel" when the path cannot be had.
inline std::string processName() {
  char path[4096] = {0};
  platform::executablePath(path, sizeof(path));
  std::string name = platform::cutFileName(path, platform::kPathSeparator);
  return name.empty() ? std::string("zel") : name;
}

}  // namespace log_internal
}  // namespace zel

#endif  // ZEL_UTILS_LOG_INTERNAL_PROCESS_NAME_H_
