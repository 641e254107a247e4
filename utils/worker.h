// SPDX-License-Identifier: MIT

// Runs closures on one background thread, asynchronously or synchronously.
//
// A Worker owns a Looper; DoAsync() queues a closure and returns at once,
// DoSync() queues it and returns after it has run. Closures run one at a
// time on the worker thread, in posting order. A closure handed to a worker
// that is not running is discarded without a report.
//
// Threads: the worker thread runs from Start() to Stop() (or destruction).
// DoAsync() and DoSync() may be called from any thread.
//
// Example:
//   zel::Worker worker;
//   worker.Start();
//   worker.DoAsync([] { Flush(); });          // returns at once
//   int n = 0;
//   worker.DoSync([&n] { n = CountDevices(); });  // returns after it ran
//   worker.Stop();
#ifndef ZEL_UTILS_WORKER_H_
#define ZEL_UTILS_WORKER_H_

#include <functional>
#include <memory>

#include "utils/export.h"
#include "utils/looper.h"

namespace zel {

// The message that carries one closure to the worker thread.
class ZEL_API WorkerMessage : public Message {
 public:
  // Keeps a copy of `func`.
  explicit WorkerMessage(const std::function<void()>& func);

  // Calls `func_`; an empty one throws std::bad_function_call, which ends
  // the process when it happens on the worker thread.
  void Run() override;

  ~WorkerMessage() override;

  std::function<void()> func_;  // the closure Run() calls
};

// A background thread that runs closures, as the top of this file describes.
class ZEL_API Worker {
 public:
  // Creates a stopped worker (its Looper, without a thread).
  Worker();

  // Stops a running worker, waiting for the closure that runs; closures
  // still queued are destroyed without running. While the process is ending
  // on Windows with the worker thread gone (a DLL's static destructor at
  // process exit) it neither stops nor waits: the Looper is left behind.
  ~Worker();

  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  // Starts the worker thread. Returns 0; -1 when already running. Throws
  // std::system_error when no thread can be created, as Looper::Start()
  // does (the worker then stays stopped and may be started again).
  int Start();

  // Stops the worker thread: 0, or -1 (and "already stoped \n" on standard
  // output) when it was not running. Behaves as Looper::Stop() from the
  // calling thread.
  int Stop();

  // Queues a copy of `f` to run on the worker thread and returns at once. A
  // stopped worker discards it silently. Threads: any thread; one thread's
  // closures run in its posting order. Exceptions thrown by `f` end the
  // process.
  void DoAsync(const std::function<void()>& f);

  // Runs a copy of `f` on the worker thread and returns after it has run,
  // noticing completion by polling a flag every 10 ms (monotonic clock), so
  // it returns up to about 10 ms after `f` has finished. Closures queued
  // before it run first, also when the wall clock steps back meanwhile.
  // Threads: any thread but the worker thread.
  // Returns at once without running `f` while the process is ending on
  // Windows and its other threads are gone (from a DLL's static destructor
  // at process exit).
  // WARNING: never returns when the worker is not running, when called from
  // a closure running on this worker, or when the worker is stopped or
  // destroyed before `f` has run.
  void DoSync(const std::function<void()>& f);

 private:
  std::unique_ptr<Looper> looper_;
};

}  // namespace zel

#endif  // ZEL_UTILS_WORKER_H_
