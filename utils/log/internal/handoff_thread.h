// SPDX-License-Identifier: MIT

// A thread of its own that hands lines to a receiver that may wait (the
// Windows event log service, a debugger), so that the log's writer thread
// never does: lines are queued up to a bound and the ones beyond it are
// dropped and counted.
//
// Internal: this header is not installed.
#ifndef ZEL_UTILS_LOG_INTERNAL_HANDOFF_THREAD_H_
#define ZEL_UTILS_LOG_INTERNAL_HANDOFF_THREAD_H_

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace zel {
namespace log_internal {

class HandoffThread {
 public:
  // Delivers one line with its level; returns false when the receiver
  // refused it (counted as dropped).
  using Sink = std::function<bool(const std::string& line, int level)>;

  // Starts the thread, which calls `sink` for each queued line in posting
  // order. At most `maxLines` lines wait at once. Throws std::system_error
  // when the thread cannot be started.
  HandoffThread(Sink sink, std::size_t maxLines);

  // Delivers the lines still queued, then stops the thread. While the
  // process is ending on Windows with its other threads gone, it only
  // releases what it holds.
  ~HandoffThread();
  HandoffThread(const HandoffThread&) = delete;
  HandoffThread& operator=(const HandoffThread&) = delete;

  // Queues `line` and returns at once; drops and counts it when `maxLines`
  // lines wait already. Threads: any thread.
  void post(const std::string& line, int level);

  // Waits until every line posted before the call has been handed to the
  // sink (or dropped). Threads: any thread but the handoff thread.
  void flush();

  uint64_t sent() const { return sent_.load(std::memory_order_relaxed); }
  uint64_t dropped() const { return dropped_.load(std::memory_order_relaxed); }

 private:
  struct Item {
    std::string line;
    int level;
  };

  void run();

  Sink sink_;
  std::size_t maxLines_;
  std::mutex mutex_;
  std::condition_variable wake_;  // a line was queued, or stopping
  std::condition_variable done_;  // a line was delivered
  std::deque<Item> queue_;        // guarded by mutex_
  uint64_t posted_ = 0;           // guarded by mutex_
  uint64_t handled_ = 0;          // guarded by mutex_
  bool stopping_ = false;         // guarded by mutex_
  std::atomic<uint64_t> sent_{0};
  std::atomic<uint64_t> dropped_{0};
  std::thread thread_;
};

}  // namespace log_internal
}  // namespace zel

#endif  // ZEL_UTILS_LOG_INTERNAL_HANDOFF_THREAD_H_
