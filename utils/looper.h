// SPDX-License-Identifier: MIT

// A message loop that owns one thread, and the messages posted to it.
//
// Any thread hands a Looper heap-allocated messages, each due at once or
// after a delay; the loop thread runs every due message, in due-time order
// (equal due times in posting order), one at a time. The Logger writes its
// lines on a Looper and the Worker runs closures on one.
//
// Time: delays are measured on the monotonic clock. A step of the wall clock
// (time synchronisation, a user, a restored virtual machine) neither delays
// nor reorders anything: messages due at once run in posting order, and a
// message posted after another with the same or a longer delay never runs
// before it. The loop thread sleeps while nothing is due, until the first
// due time, a post or a Stop().
//
// Threads: one loop thread per running Looper, created by Start() and ended
// by Stop() or the destructor. Posting is allowed from any thread, including
// a message running on the loop thread. Messages run without any lock of the
// Looper held, so a message may post to its own Looper or stop it.
//
// Ownership: a Looper owns every message from the moment it is posted and
// destroys it after it ran, or unrun when the Looper refuses it, is stopped
// while it is due, or is destroyed with it still queued.
//
// Example:
//   zel::Looper looper;
//   looper.Start();
//   static void Hello(void* arg) { std::puts(static_cast<const char*>(arg)); }
//   zel::Callback<void (*)()> task{const_cast<char*>("hello"), &Hello};
//   looper.PostDelayTask(task, 50);  // runs Hello("hello") in 50 ms or a little later
//   ...
//   looper.Stop();
#ifndef ZEL_UTILS_LOOPER_H_
#define ZEL_UTILS_LOOPER_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "utils/export.h"

namespace zel {

// Base of everything that is posted to a Looper. Subclass it and override
// Run(); always allocate it on the heap and hand it over in a
// std::unique_ptr.
class ZEL_API Message {
 public:
  Message() = default;

  // Carries the message out; called once, on the loop thread. The base
  // version does nothing.
  virtual void Run();

  virtual ~Message();

  // Due time in ms since 1970-01-01 UTC (wall clock), as read when posted:
  // the wall-clock time at the post plus the delay. -1 after construction;
  // every post overwrites it. Informative only: the Looper schedules on the
  // monotonic clock and does not read it back.
  int64_t when_ = -1;
};

// A message that owns a payload and the function that consumes it.
// Run() calls `handler_` with the payload pointer; the payload stays owned by
// the message and is deleted with it, after `handler_` has been destroyed.
template <typename T>
class HandlerMessage : public Message {
 public:
  // Takes ownership of `data`; `handler` is called with it by Run().
  HandlerMessage(std::unique_ptr<T> data, std::function<void(T*)> handler)
      : data_(std::move(data)), handler_(std::move(handler)) {}

  // Calls `handler_` with the payload. An empty `handler_` throws
  // std::bad_function_call.
  void Run() override { handler_(data_.get()); }

  // Members are destroyed in reverse order: the handler first, then the
  // payload.
  std::unique_ptr<T> data_;
  std::function<void(T*)> handler_;
};

template <typename Signature>
struct Callback;

// A plain two-word task: running it calls `func(arg)`. It owns nothing.
template <>
struct Callback<void (*)()> {
  void* arg;            // handed to `func`; not owned
  void (*func)(void*);  // the function to call; must not be null
};

// The message that PostTask and PostDelayTask wrap a Callback in. Run() calls
// `task_.func(task_.arg)`.
class ZEL_API InerTaskMessage : public Message {
 public:
  // Keeps a copy of `task`.
  explicit InerTaskMessage(const Callback<void (*)()>& task);
  void Run() override;
  ~InerTaskMessage() override;

  Callback<void (*)()> task_;  // the task Run() calls
};

// A message loop running on a thread of its own, as the top of this file describes.
class ZEL_API Looper {
 public:
  // Creates a stopped Looper with an empty queue and no thread.
  Looper();

  // Stops a running Looper (as Stop() from another thread, joining its
  // thread), then destroys every pending message without running it.
  // WARNING: after a Stop() from inside a message the detached loop thread
  // may still be finishing its pass; destroying the Looper before it has
  // ended is undefined behaviour.
  ~Looper();

  Looper(const Looper&) = delete;
  Looper& operator=(const Looper&) = delete;

  // Starts the loop thread. Messages left queued by an earlier Stop() run
  // once they are due. Returns 0 when started; -1 when already running.
  // Throws std::system_error (std::errc::resource_unavailable_try_again)
  // when no thread can be created, and std::bad_alloc when out of memory;
  // either leaves the Looper stopped, so that Start() may be tried again.
  // Threads: any thread.
  int Start();

  // Stops the loop. From another thread: prints "already stoped \n" to
  // standard output and returns -1 when not running; otherwise wakes the
  // loop, waits until its thread has ended (the message that is running
  // finishes; due messages not yet run are destroyed, later ones stay
  // queued) and returns 0.
  // From a message running on the loop thread: logs "looper stop in same
  // thread,not allowed" at level 1, stops all the same, detaches the thread
  // and returns 0 at once; the current message finishes and the other
  // messages of the same pass are destroyed unrun. That thread then ends,
  // even if Start() is called before it has; a second Stop() from the same
  // message logs again and changes nothing more.
  // Throws std::system_error for the join errors of std::thread.
  int Stop();

  // True while the Looper is not running (the name is kept as it is).
  // Threads: any thread, without a lock.
  bool IsStoped();

  // Queues `msg` to run as soon as possible (due now). From another thread:
  // returns 0 when queued and wakes the loop; returns -1 and destroys `msg`
  // before returning when the Looper is stopped. From the loop thread: always
  // queues and returns 0; the message runs in the next pass. Messages due
  // now run in the order of their posts, also when the wall clock steps
  // back between them, so a message posted as a barrier runs after all the
  // work posted before it.
  int PostMessageAAA(std::unique_ptr<Message> msg);

  // Queues `msg` to run `delay` ms from now, measured on the monotonic
  // clock; `when_` gets the wall-clock time plus `delay`. A delay of 0 or
  // less makes it due at once (a negative one ahead of messages due at once
  // that are still queued, by as much as it is negative); a due time beyond
  // the 64-bit range is held at its end. It runs no earlier than its due
  // time and, with no other traffic, normally within a few ms after it,
  // whatever the wall clock does meanwhile. Results and threads as
  // PostMessageAAA.
  int PostDelayMessage(std::unique_ptr<Message> msg, int64_t delay);

  // Posts a copy of `task` in a new InerTaskMessage with PostMessageAAA.
  // Always returns 0, even when a stopped Looper discarded the task.
  int PostTask(Callback<void (*)()>& task);

  // Posts a copy of `task`, due in `delay` ms, with PostDelayMessage.
  // Always returns 0, even when a stopped Looper discarded the task.
  int PostDelayTask(Callback<void (*)()>& task, int64_t delay);

 private:
  // Body of the loop thread.
  void process();

  // Sets the due time of `msg` and queues it; the common part of the posts.
  int post(std::unique_ptr<Message> msg, int64_t delay);

  std::condition_variable cond_;
  std::mutex mutex_;
  std::unique_ptr<std::thread> thread_;  // guarded by mutex_
  // Text of the loop thread's std::thread::id, empty while no loop thread is
  // known. Guarded by mutex_.
  std::string thread_id_;
  // Pending messages by ascending due time, equal due times in posting
  // order (defined in looper.cpp). Guarded by mutex_.
  class Queue;
  std::unique_ptr<Queue> queue_;
  std::atomic<bool> stopped_;
};

}  // namespace zel

#endif  // ZEL_UTILS_LOOPER_H_
