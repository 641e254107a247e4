// SPDX-License-Identifier: MIT

// The receivers of forwarded lines: the backends registered with
// Logger::RegisterBackend(), in registration order, each with its level
// interface when it is a LevelledBackend, and the count of the exceptions
// they threw. Internal: this header is not installed.
#ifndef ZEL_UTILS_LOG_INTERNAL_BACKEND_LIST_H_
#define ZEL_UTILS_LOG_INTERNAL_BACKEND_LIST_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <shared_mutex>
#include <vector>

#include "utils/logger.h"

namespace zel {

class LevelledBackend;

class BackendList {
 public:
  BackendList() = default;
  BackendList(const BackendList&) = delete;
  BackendList& operator=(const BackendList&) = delete;

  // Appends `backend` (not owned); a LevelledBackend is recognised here.
  // Any thread but the writer thread.
  void add(LogBackend* backend);

  // Hands the line `text` of `size` bytes to every backend: the one place
  // where backends are called. An exception from a backend is counted,
  // reported once, and the line still goes to the others. Writer thread.
  void forward(const char* text, std::size_t size, int level);

  // The exceptions the backends have thrown. Any thread.
  uint64_t failures() const { return failures_.load(); }

  // Around fork(): the list's lock is held across the fork (a backend,
  // called under it, may log); in the child it is made anew, since a
  // reader-writer lock remembers its writer by thread id.
  void lockForFork() { lock_.lock(); }
  void unlockAfterFork() { lock_.unlock(); }
  void resetInChild() { new (&lock_) std::shared_mutex; }

 private:
  std::shared_mutex lock_;           // guards backends_ and levelled_
  std::list<LogBackend*> backends_;  // not owned
  // For each of backends_, in the same order: the backend itself when it
  // is a LevelledBackend (handed each line's level), else null.
  std::vector<LevelledBackend*> levelled_;
  std::atomic<uint64_t> failures_{0};
};

}  // namespace zel

#endif  // ZEL_UTILS_LOG_INTERNAL_BACKEND_LIST_H_
