// SPDX-License-Identifier: MIT

#include "utils/timer.h"

#include <chrono>
#include <iterator>
#include <limits>
#include <utility>

#include "utils/platform.h"

extern "C" const int64_t g_timer_epoch = zel::platform::monotonicNs();

namespace zel {

namespace {

// How long the timer thread sleeps between two passes.
constexpr auto kPassInterval = std::chrono::milliseconds(10);

// Monotonic ms since g_timer_epoch, truncated.
int64_t nowMs() { return (platform::monotonicNs() - g_timer_epoch) / 1000000; }

// `a` + `b`, saturated at the ends of the 64-bit range: a huge interval
// gives a due time that never comes instead of one that wraps into the past.
int64_t saturatedAdd(int64_t a, int64_t b) {
  if (b > 0 && a > std::numeric_limits<int64_t>::max() - b) {
    return std::numeric_limits<int64_t>::max();
  }
  if (b < 0 && a < std::numeric_limits<int64_t>::min() - b) {
    return std::numeric_limits<int64_t>::min();
  }
  return a + b;
}

}  // namespace

Timer::Timer() : created_(platform::monotonicNs()), next_id_(1), quit_(false) {
  thread_ = std::make_unique<std::thread>(&Timer::process, this);
}

Timer::~Timer() {
  quit_.store(true);
  thread_->join();
}

uint64_t Timer::Start(int64_t interval, const std::function<void(uint64_t, void*)>& cb, bool repeat,
                      void* user) {
  TimerEntry entry;
  entry.interval_ = interval;
  entry.due_ = saturatedAdd(nowMs(), interval);
  entry.callback_ = cb;
  entry.repeat_ = repeat;
  std::lock_guard<std::mutex> lock(mutex_);
  entry.id_ = next_id_++;
  entry.user_ = user;
  const uint64_t id = entry.id_;
  insertSorted(std::move(entry));
  return id;
}

void Timer::Stop(uint64_t id) {
  std::list<TimerEntry> removed;  // its callback is destroyed after unlocking
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = entries_.begin(); it != entries_.end(); ++it) {
    if (it->id_ == id) {
      removed.splice(removed.end(), entries_, it);
      break;
    }
  }
}

void Timer::insertSorted(TimerEntry entry) {
  // Scanning from the back makes the usual case (due after everything that
  // is pending) O(1), and puts equal due times in insertion order.
  auto pos = entries_.end();
  while (pos != entries_.begin()) {
    auto prev = std::prev(pos);
    if (prev->due_ <= entry.due_) break;
    pos = prev;
  }
  entries_.insert(pos, std::move(entry));
}

void Timer::process() {
  while (!quit_.load()) {
    std::list<TimerEntry> fired;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      while (!entries_.empty()) {
        const int64_t now = nowMs();
        if (entries_.front().due_ >= now) break;  // fires only strictly after
        fired.push_back(entries_.front());
        entries_.pop_front();
        const TimerEntry& copy = fired.back();
        if (copy.repeat_) {
          TimerEntry next = copy;
          next.due_ = saturatedAdd(next.due_, next.interval_);
          insertSorted(std::move(next));
        }
      }
    }
    for (const TimerEntry& entry : fired) entry.callback_(entry.id_, entry.user_);
    std::this_thread::sleep_for(kPassInterval);
  }
}

}  // namespace zel
