// SPDX-License-Identifier: MIT

// Helpers of the fuzz targets that log: a backend that keeps the last line,
// and the removal of the log tree they write under the scratch directory.
#ifndef ZEL_FUZZ_FUZZ_LOG_H_
#define ZEL_FUZZ_FUZZ_LOG_H_

#include <ftw.h>
#include <sys/stat.h>

#include <cstdio>
#include <mutex>
#include <string>

#include "fuzz/fuzz_util.h"
#include "utils/logger.h"

namespace zel_fuzz {

// Keeps the last line handed to it.
class LastLine : public zel::LogBackend {
 public:
  void Log(const std::string& line) override {
    std::lock_guard<std::mutex> lock(mutex_);
    line_ = line;
  }
  // The last line, which is forgotten.
  std::string Take() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string line;
    line.swap(line_);
    return line;
  }

 private:
  std::mutex mutex_;
  std::string line_;
};

inline int RemoveLogEntry(const char* path, const struct stat*, int, struct FTW*) {
  return std::remove(path);
}

// Removes everything below the scratch directory, links not followed.
inline void RemoveLogTree() {
  nftw(ScratchDir().c_str(), RemoveLogEntry, 16, FTW_DEPTH | FTW_PHYS);
}

}  // namespace zel_fuzz

#endif  // ZEL_FUZZ_FUZZ_LOG_H_
