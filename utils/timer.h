// SPDX-License-Identifier: MIT

// One-shot and periodic timers whose callbacks run on a thread of the
// timer's own.
//
// Start() registers a callback due `interval` ms from now and returns its id;
// Stop(id) cancels it. The timer thread wakes every 10 ms and calls, in due
// order, every callback whose due time has passed. A periodic timer is
// rescheduled from its previous due time, so it does not drift; after a
// stall (a slow callback, a suspended process) the missed periods are fired
// back to back in one pass until it has caught up.
//
// Times are monotonic milliseconds since g_timer_epoch, shared by every
// Timer of the process.
//
// Threads: each Timer owns one thread from construction to destruction, on
// which all its callbacks run, one at a time. Start() and Stop() may be
// called from any thread, including from inside a callback of the same
// Timer; no lock is held while a callback runs.
//
// Example:
//   zel::Timer timer;
//   uint64_t id = timer.Start(100, [](uint64_t id, void* user) { Poll(user); },
//                             true, device);   // every 100 ms
//   ...
//   timer.Stop(id);
#ifndef ZEL_UTILS_TIMER_H_
#define ZEL_UTILS_TIMER_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

#include "utils/export.h"

// Monotonic nanoseconds at which the library was loaded: the origin of
// every timer time. Set once during the library's static initialisation.
extern "C" ZEL_API const int64_t g_timer_epoch;

namespace zel {

using ::g_timer_epoch;

// One registered callback of a Timer.
struct TimerEntry {
  int64_t due_ = 0;       // next firing, ms since g_timer_epoch
  int64_t interval_ = 0;  // period in ms, as given to Start()
  uint64_t id_ = 0;       // the id Start() returned
  // Called with `id_` and `user_`, on the timer thread.
  std::function<void(uint64_t, void*)> callback_ = [](uint64_t, void*) {};
  bool repeat_ = false;   // periodic
  void* user_ = nullptr;  // handed back to the callback
};

// A set of timers served by one thread, as the top of this file describes.
class ZEL_API Timer {
 public:
  // Starts the timer thread. Throws std::system_error when no thread can be
  // created.
  Timer();

  // Stops the timer thread, waiting for the pass under way (its callbacks
  // and its 10 ms sleep), and drops every pending entry without calling it.
  // WARNING: destroying a Timer from inside one of its own callbacks ends
  // the process (the thread cannot join itself).
  ~Timer();

  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Registers `cb`, to be called as cb(id, user) on the timer thread once
  // its due time, `interval` ms from now (monotonic), has passed: strictly
  // after it, normally within about 10 ms. With `repeat` it is called again
  // every `interval` ms, counted from the previous due time, until Stop().
  // Equal due times fire in Start() order. Returns the id: 1 for the first
  // Start() of a Timer, then one more for each, never reused.
  // Nothing is validated: an interval of 0 or less makes a one-shot timer
  // due at the next pass. Due times saturate at the ends of the 64-bit
  // range: a huge interval (up to INT64_MAX) makes a timer that never fires,
  // never one that wraps round into the past. `cb` must not be empty (an empty one ends the
  // process when it fires) and must not throw.
  // WARNING: a periodic timer with an interval of 0 or less keeps the timer
  // thread in its collection step for ever, holding the lock: every later
  // Start(), Stop() and the destructor then block for ever.
  uint64_t Start(int64_t interval, const std::function<void(uint64_t, void*)>& cb, bool repeat,
                 void* user);

  // Removes the entry with id `id`; an unknown or finished id changes
  // nothing. Firings already collected in the pass under way still happen
  // (a callback running, or catch-up firings of the same pass); no later
  // one does. Threads: any thread, also from a callback.
  void Stop(uint64_t id);

 private:
  // Body of the timer thread.
  void process();

  // Inserts `entry` behind the last entry whose due time is not later, the
  // place a stable sort by due time would give it. Requires mutex_.
  void insertSorted(TimerEntry entry);

  std::unique_ptr<std::thread> thread_;
  std::list<TimerEntry> entries_;  // by ascending due_; guarded by mutex_
  std::mutex mutex_;
  int64_t created_;   // monotonic ns at construction; kept, not consulted
  uint64_t next_id_;  // guarded by mutex_
  std::atomic<bool> quit_;
};

}  // namespace zel

#endif  // ZEL_UTILS_TIMER_H_
