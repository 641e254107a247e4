// SPDX-License-Identifier: MIT

#include "utils/log/internal/handoff_thread.h"

#include <utility>

#include "utils/platform.h"

namespace zel {
namespace log_internal {

HandoffThread::HandoffThread(Sink sink, std::size_t maxLines)
    : sink_(std::move(sink)), maxLines_(maxLines) {
  thread_ = std::thread([this] { run(); });
}

HandoffThread::~HandoffThread() {
  if (platform::processExiting()) {
    // The thread is gone with the process's others: nothing can be
    // delivered or joined any more.
    thread_.detach();
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void HandoffThread::post(const std::string& line, int level) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (queue_.size() >= maxLines_ || stopping_) {
      dropped_.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    try {
      queue_.push_back(Item{line, level});
    } catch (...) {
      // No memory for the copy: dropped like a line beyond the bound.
      dropped_.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    ++posted_;
  }
  wake_.notify_one();
}

void HandoffThread::flush() {
  std::unique_lock<std::mutex> lock(mutex_);
  const uint64_t target = posted_;
  done_.wait(lock, [this, target] { return handled_ >= target; });
}

void HandoffThread::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
    if (queue_.empty()) return;  // stopping, and everything delivered
    Item item = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    bool delivered = false;
    try {
      delivered = sink_(item.line, item.level);
    } catch (...) {
      delivered = false;
    }
    (delivered ? sent_ : dropped_).fetch_add(1, std::memory_order_relaxed);
    lock.lock();
    ++handled_;
    done_.notify_all();
  }
}

}  // namespace log_internal
}  // namespace zel
