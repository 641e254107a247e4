// SPDX-License-Identifier: MIT

#include "utils/process_path.h"

#include <cstring>

#include "utils/platform.h"

namespace {

constexpr std::size_t kSelfPathSize = 260;
constexpr std::size_t kSelfDirSize = 256;
constexpr std::size_t kProcessPathSize = 1024;
constexpr std::size_t kProcessNameLimit = 512;

}  // namespace

// No exception leaves these functions with C linkage: memory exhausted
// while building a result gives the empty text, as a path that cannot be
// had does.

std::string get_self_dir() {
  try {
    char path[kSelfPathSize] = {0};
    zel::platform::executablePath(path, kSelfPathSize);
    const std::string dir = zel::platform::cutDirectory(path, zel::platform::kPathSeparator);
    // The directory passes through a 256-byte buffer: it is cut at 255.
    char out[kSelfDirSize] = {0};
    std::memcpy(out, dir.data(), dir.size() < kSelfDirSize ? dir.size() : kSelfDirSize - 1);
    return out;
  } catch (...) {
    return std::string();
  }
}

std::string get_process_dir() {
  try {
    char path[kProcessPathSize] = {0};
    zel::platform::executablePath(path, kProcessPathSize);
    return zel::platform::cutDirectory(path, zel::platform::kPathSeparator);
  } catch (...) {
    return std::string();
  }
}

std::string get_process_name() {
  try {
    char path[kProcessPathSize] = {0};
    zel::platform::executablePath(path, kProcessNameLimit);
    return zel::platform::cutFileName(path, zel::platform::kPathSeparator);
  } catch (...) {
    return std::string();
  }
}
