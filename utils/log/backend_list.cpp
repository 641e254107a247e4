// SPDX-License-Identifier: MIT

#include "utils/log/internal/backend_list.h"

#include <mutex>
#include <new>
#include <string>

#include "utils/log/internal/file_writer.h"
#include "utils/log_levelled_backend.h"

namespace zel {

namespace {

// Counts an exception thrown by a backend into `failures` and reports the
// first one.
void countBackendFailure(std::atomic<uint64_t>* failures) {
  if (failures->fetch_add(1) == 0) {
    logConsole(
        "zel log: a log backend threw an exception; the line is still written "
        "(reported once)\n");
  }
}

}  // namespace

void BackendList::add(LogBackend* backend) {
  // The library's own backends (and any LevelledBackend) are handed each
  // line's level too: recognised here, once.
  auto* levelled = dynamic_cast<LevelledBackend*>(backend);
  std::unique_lock<std::shared_mutex> lock(lock_);
  levelled_.push_back(levelled);
  try {
    backends_.push_back(backend);
  } catch (...) {
    levelled_.pop_back();
    throw;
  }
}

void BackendList::forward(const char* text, std::size_t size, int level) {
  std::shared_lock<std::shared_mutex> lock(lock_);
  if (backends_.empty()) return;
  // An exception from a backend (or from copying the line) must not end the
  // writer thread, and with it the process: it is counted, reported once,
  // and the line still goes to the other backends and the file.
  try {
    const std::string line(text, size);
    auto levelled = levelled_.begin();
    for (LogBackend* backend : backends_) {
      LevelledBackend* withLevel = *levelled++;
      try {
        if (withLevel != nullptr) {
          withLevel->Log(line, level);
        } else {
          backend->Log(line);
        }
      } catch (...) {
        countBackendFailure(&failures_);
      }
    }
  } catch (...) {
    countBackendFailure(&failures_);
  }
}

}  // namespace zel
