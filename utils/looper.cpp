#include "utils/looper.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <limits>
#include <sstream>

#include "utils/logger.h"
#include "utils/platform.h"

namespace zel {

namespace {

constexpr const char* kFile = platform::fileTail(__FILE__);
constexpr int kStopSameThreadLine = 137;
constexpr int kLooperExitLine = 205;
// The longest the loop waits before it looks at its queue again.
constexpr int64_t kMaxWaitMs = 100;

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

}  // namespace

void Message::Run() {}

Message::~Message() = default;

InerTaskMessage::InerTaskMessage(const Callback<void (*)()>& task) : task_(task) {}

void InerTaskMessage::Run() { task_.func(task_.arg); }

InerTaskMessage::~InerTaskMessage() = default;

Looper::Looper()
    : queue_(std::make_unique<std::list<std::unique_ptr<Message>>>()), stopped_(true) {}

Looper::~Looper() {
  if (!stopped_.load()) Stop();
}

int Looper::Start() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!stopped_.load()) return -1;
  stopped_.exchange(false);
  // Replacing a thread that is still joinable ends the process, as
  // destroying a joinable std::thread does.
  thread_ = std::make_unique<std::thread>(&Looper::process, this);
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
  if (caller == thread_id_) {
    // The loop thread queues without looking at stopped_ and without a
    // notification: the loop sees the message on its next pass.
    insertSorted(std::move(msg));
    return 0;
  }
  if (stopped_.load()) {
    lock.unlock();
    msg.reset();
    return -1;
  }
  insertSorted(std::move(msg));
  // Notified under the lock: once a later Stop() has taken the lock, no
  // post touches the condition variable anymore, so the looper may go.
  cond_.notify_one();
  return 0;
}

void Looper::insertSorted(std::unique_ptr<Message> msg) {
  // Scanning from the back makes the usual post (due after everything that
  // is queued) O(1), and puts equal due times in posting order.
  auto pos = queue_->end();
  while (pos != queue_->begin()) {
    auto prev = std::prev(pos);
    if ((*prev)->when_ <= msg->when_) break;
    pos = prev;
  }
  queue_->insert(pos, std::move(msg));
}

void Looper::process() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    thread_id_ = threadIdText();
  }
  tLeaveLoop = false;
  const auto maxWait = std::chrono::milliseconds(kMaxWaitMs);
  while (!stopped_.load() && !tLeaveLoop) {
    std::list<std::unique_ptr<Message>> ready;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (queue_->empty()) {
        cond_.wait_for(lock, maxWait, [this] { return stopped_.load() || !queue_->empty(); });
      }
      if (queue_->empty()) continue;
      const int64_t now = platform::wallClockMs();
      while (!queue_->empty()) {
        const int64_t when = queue_->front()->when_;
        if (when > now && when >= 0) break;
        ready.splice(ready.end(), *queue_, queue_->begin());
      }
      if (ready.empty()) {
        // Messages are pending but none is due: sleep until the first one
        // is, at most kMaxWaitMs. A post or a Stop() wakes the loop earlier.
        if (!stopped_.load()) {
          const int64_t wait = std::min(queue_->front()->when_ - now, kMaxWaitMs);
          cond_.wait_for(lock, std::chrono::milliseconds(wait));
        }
        continue;
      }
    }
    while (!ready.empty()) {
      std::unique_ptr<Message> msg = std::move(ready.front());
      ready.pop_front();
      if (!stopped_.load() && !tLeaveLoop) msg->Run();
    }
  }
  if (zel_log_level() >= 4) {
    log_print(4, 0, "[%s][%s %s %d] looper exit\n\n", "", kFile, "zel::Looper::process",
              kLooperExitLine);
  }
}

}  // namespace zel
