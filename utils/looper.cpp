// SPDX-License-Identifier: MIT

#include "utils/looper.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <limits>
#include <map>
#include <sstream>
#include <vector>

#include "utils/logger.h"
#include "utils/platform.h"

namespace zel {

namespace {

constexpr const char* kFile = platform::fileTail(__FILE__);
constexpr int kStopSameThreadLine = 137;
constexpr int kLooperExitLine = 205;
constexpr int64_t kNsPerMs = 1000000;
// The longest single wait for the first due time. Longer delays are waited
// out in several waits; the bound only keeps the deadline arithmetic of the
// standard library's timed wait in range.
constexpr int64_t kMaxWaitNs = 3600 * 1000 * kNsPerMs;

// The text of the calling thread's std::thread::id, as an output stream
// prints it; computed once per thread.
const std::string& threadIdText() {
  thread_local const std::string text = [] {
    std::ostringstream out;
    out << std::this_thread::get_id();
    return out.str();
  }();
  return text;
}

// The text of `id` as an output stream prints it.
std::string idText(std::thread::id id) {
  std::ostringstream out;
  out << id;
  return out.str();
}

// Set on a loop thread that stopped its own looper: that thread leaves its
// loop after the current pass even if the looper is restarted meanwhile.
thread_local bool tLeaveLoop = false;

// `now` + `delay`, saturated at the ends of the 64-bit range.
int64_t dueTime(int64_t now, int64_t delay) {
  if (delay > 0 && now > std::numeric_limits<int64_t>::max() - delay) {
    return std::numeric_limits<int64_t>::max();
  }
  if (delay < 0 && now < std::numeric_limits<int64_t>::min() - delay) {
    return std::numeric_limits<int64_t>::min();
  }
  return now + delay;
}

// The monotonic time `delayMs` ms after `nowNs` (both in ns), saturated at
// the ends of the 64-bit range.
int64_t monotonicDue(int64_t nowNs, int64_t delayMs) {
  if (delayMs > std::numeric_limits<int64_t>::max() / kNsPerMs) {
    return std::numeric_limits<int64_t>::max();
  }
  if (delayMs < std::numeric_limits<int64_t>::min() / kNsPerMs) {
    return std::numeric_limits<int64_t>::min();
  }
  return dueTime(nowNs, delayMs * kNsPerMs);
}

}  // namespace

// The pending messages, in the order of their due times on the monotonic
// clock, equal due times in posting order. Every message gets a posting
// number; the order is that of (due time, posting number). The wall-clock
// when_ of a message is not consulted: a step of the wall clock changes
// neither the order nor the moment a message runs.
//
// The queue is kept in three sorted parts whose fronts are merged by that
// order:
// - `now_`: messages posted due at once (lines of the log, tasks), appended
//   in O(1), since the clock is read under the looper's lock and never goes
//   back;
// - `later_`: delayed messages due no earlier than the last one in it,
//   appended in O(1);
// - `early_`: any other message, a map by (due time, posting number), in
//   O(log n).
// So a message due now is queued in O(1) however many delayed messages are
// pending, and the deques need no allocation per message.
class Looper::Queue {
 public:
  Queue() = default;
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;
  // Destroys the messages left, front first.
  ~Queue() {
    while (!empty()) pop();
  }

  bool empty() const { return now_.empty() && later_.empty() && early_.empty(); }

  // Queues `msg`, due at `due` (monotonic ns); `dueNow` when it was posted
  // without a delay.
  void push(std::unique_ptr<Message> msg, int64_t due, bool dueNow) {
    const uint64_t seq = nextSeq_++;
    if (dueNow && (now_.empty() || now_.back().due <= due)) {
      now_.push_back(Entry{due, seq, std::move(msg)});
    } else if (later_.empty() || later_.back().due <= due) {
      later_.push_back(Entry{due, seq, std::move(msg)});
    } else {
      early_.emplace(Key{due, seq}, std::move(msg));
    }
  }

  // Due time (monotonic ns) of the front message. Requires !empty().
  int64_t frontDue() const { return frontKey().due; }

  // Removes and returns the front message. Requires !empty().
  std::unique_ptr<Message> pop() {
    std::unique_ptr<Message> msg;
    switch (frontPart()) {
      case Part::kNow:
        msg = std::move(now_.front().msg);
        now_.pop_front();
        break;
      case Part::kLater:
        msg = std::move(later_.front().msg);
        later_.pop_front();
        break;
      case Part::kEarly: {
        auto it = early_.begin();
        msg = std::move(it->second);
        early_.erase(it);
        break;
      }
    }
    return msg;
  }

 private:
  struct Key {
    int64_t due;
    uint64_t seq;
    bool operator<(const Key& other) const {
      return due != other.due ? due < other.due : seq < other.seq;
    }
  };
  struct Entry {
    int64_t due;
    uint64_t seq;
    std::unique_ptr<Message> msg;
  };
  enum class Part { kNow, kLater, kEarly };

  static Key keyOf(const Entry& entry) { return Key{entry.due, entry.seq}; }

  // The part that holds the front message. Requires !empty().
  Part frontPart() const {
    Part part = Part::kEarly;
    Key best{0, 0};
    bool found = false;
    if (!early_.empty()) {
      best = early_.begin()->first;
      found = true;
    }
    if (!later_.empty() && (!found || keyOf(later_.front()) < best)) {
      best = keyOf(later_.front());
      part = Part::kLater;
      found = true;
    }
    if (!now_.empty() && (!found || keyOf(now_.front()) < best)) part = Part::kNow;
    return part;
  }

  Key frontKey() const {
    switch (frontPart()) {
      case Part::kNow:
        return keyOf(now_.front());
      case Part::kLater:
        return keyOf(later_.front());
      case Part::kEarly:
        break;
    }
    return early_.begin()->first;
  }

  std::deque<Entry> now_;
  std::deque<Entry> later_;
  std::map<Key, std::unique_ptr<Message>> early_;
  uint64_t nextSeq_ = 0;
};

void Message::Run() {}

Message::~Message() = default;

InerTaskMessage::InerTaskMessage(const Callback<void (*)()>& task) : task_(task) {}

void InerTaskMessage::Run() { task_.func(task_.arg); }

InerTaskMessage::~InerTaskMessage() = default;

Looper::Looper() : queue_(std::make_unique<Queue>()), stopped_(true) {}

Looper::~Looper() {
  if (!stopped_.load()) Stop();
}

int Looper::Start() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!stopped_.load()) return -1;
  // The thread is created before the looper counts as running: a thread
  // that cannot be created (std::system_error from std::thread, raised on
  // to the caller) leaves it stopped, so that Start() may be tried again.
  // The new thread takes mutex_ before it looks at stopped_, so it sees the
  // cleared flag.
  auto thread = std::make_unique<std::thread>(&Looper::process, this);
  stopped_.exchange(false);
  // Replacing a thread that is still joinable ends the process, as
  // destroying a joinable std::thread does.
  thread_ = std::move(thread);
  return 0;
}

int Looper::Stop() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (threadIdText() == thread_id_) {
    // Called by a message on the loop thread: the thread cannot join itself,
    // so it is detached and ends after the current pass.
    lock.unlock();
    if (zel_log_level() >= 1) {
      log_print(1, 0, "[%s][%s %s %d] looper stop in same thread,not allowed\n\n", "", kFile,
                "zel::Looper::Stop", kStopSameThreadLine);
    }
    stopped_.exchange(true);
    tLeaveLoop = true;
    cond_.notify_all();
    lock.lock();
    // A second stop from inside the same message finds the thread detached
    // already and changes nothing more.
    if (thread_ && thread_->joinable()) thread_->detach();
    return 0;
  }
  if (stopped_.load()) {
    lock.unlock();
    std::printf("already stoped \n");
    std::fflush(stdout);
    return -1;
  }
  stopped_.exchange(true);
  cond_.notify_all();
  // Take the thread out so that a concurrent Start() cannot replace it while
  // it is joined outside the lock.
  std::unique_ptr<std::thread> thread = std::move(thread_);
  lock.unlock();
  std::string joined;
  if (thread) {
    joined = idText(thread->get_id());
    thread->join();
  }
  lock.lock();
  // Forget the joined thread only: a Start() from a third thread may have
  // installed a new loop thread meanwhile.
  if (thread_id_ == joined) thread_id_.clear();
  return 0;
}

bool Looper::IsStoped() { return stopped_.load(); }

int Looper::PostMessageAAA(std::unique_ptr<Message> msg) { return post(std::move(msg), 0); }

int Looper::PostDelayMessage(std::unique_ptr<Message> msg, int64_t delay) {
  return post(std::move(msg), delay);
}

int Looper::PostTask(Callback<void (*)()>& task) {
  PostMessageAAA(std::make_unique<InerTaskMessage>(task));
  return 0;
}

int Looper::PostDelayTask(Callback<void (*)()>& task, int64_t delay) {
  PostDelayMessage(std::make_unique<InerTaskMessage>(task), delay);
  return 0;
}

int Looper::post(std::unique_ptr<Message> msg, int64_t delay) {
  msg->when_ = dueTime(platform::wallClockMs(), delay);
  const std::string& caller = threadIdText();
  std::unique_lock<std::mutex> lock(mutex_);
  // The monotonic clock is read under the lock, so messages due at once are
  // queued with due times that never decrease: they run in posting order
  // whatever the wall clock does.
  const int64_t due = monotonicDue(platform::monotonicNs(), delay);
  if (caller == thread_id_) {
    // The loop thread queues without looking at stopped_ and without a
    // notification: the loop sees the message on its next pass.
    queue_->push(std::move(msg), due, delay <= 0);
    return 0;
  }
  if (stopped_.load()) {
    lock.unlock();
    msg.reset();
    return -1;
  }
  queue_->push(std::move(msg), due, delay <= 0);
  // Notified under the lock: once a later Stop() has taken the lock, no
  // post touches the condition variable anymore, so the looper may go.
  cond_.notify_one();
  return 0;
}

void Looper::process() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    thread_id_ = threadIdText();
  }
  tLeaveLoop = false;
  // The messages of one pass, in queue order; kept between passes so that
  // its storage is reused.
  std::vector<std::unique_ptr<Message>> ready;
  while (!stopped_.load() && !tLeaveLoop) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      // Idle: sleep until a post or a Stop() (both notify under the lock).
      cond_.wait(lock, [this] { return stopped_.load() || !queue_->empty(); });
      if (queue_->empty()) continue;  // stopped
      const int64_t now = platform::monotonicNs();
      while (!queue_->empty() && queue_->frontDue() <= now) ready.push_back(queue_->pop());
      if (ready.empty()) {
        // Messages are pending but none is due: sleep until the first one
        // is. A post or a Stop() wakes the loop earlier.
        if (!stopped_.load()) {
          const int64_t wait = std::min(queue_->frontDue() - now, kMaxWaitNs);
          cond_.wait_for(lock, std::chrono::nanoseconds(wait));
        }
        continue;
      }
    }
    // Each message is destroyed right after it ran (or, once stopped,
    // unrun), before the next one runs.
    for (std::unique_ptr<Message>& msg : ready) {
      if (!stopped_.load() && !tLeaveLoop) msg->Run();
      msg.reset();
    }
    ready.clear();
  }
  if (zel_log_level() >= 4) {
    log_print(4, 0, "[%s][%s %s %d] looper exit\n\n", "", kFile, "zel::Looper::process",
              kLooperExitLine);
  }
}

}  // namespace zel
