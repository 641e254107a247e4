// SPDX-License-Identifier: MIT

#include "utils/worker.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "utils/platform.h"

namespace zel {

namespace {

// How often DoSync() looks at its completion flag.
constexpr auto kSyncPollInterval = std::chrono::milliseconds(10);

}  // namespace

WorkerMessage::WorkerMessage(const std::function<void()>& func) : func_(func) {}

void WorkerMessage::Run() { func_(); }

WorkerMessage::~WorkerMessage() = default;

Worker::Worker() : looper_(std::make_unique<Looper>()) {}

Worker::~Worker() {
  // At process exit on Windows the worker thread is gone and could not be
  // joined: the Looper is left to the ending process.
  if (platform::processExiting()) static_cast<void>(looper_.release());
}

int Worker::Start() { return looper_->Start(); }

int Worker::Stop() { return looper_->Stop(); }

void Worker::DoAsync(const std::function<void()>& f) {
  looper_->PostMessageAAA(std::make_unique<WorkerMessage>(f));
}

void Worker::DoSync(const std::function<void()>& f) {
  // The worker thread is gone when the process is ending on Windows (a DLL's
  // static destructor): nothing would run `f`.
  if (platform::processExiting()) return;
  looper_->PostMessageAAA(std::make_unique<WorkerMessage>(f));
  // The flag is set by a second message: it is due no earlier than `f` and
  // equal due times run in posting order, so it runs after `f` returned.
  std::atomic<bool> done{false};
  looper_->PostMessageAAA(std::make_unique<WorkerMessage>([&done] { done.store(true); }));
  while (!done.load()) std::this_thread::sleep_for(kSyncPollInterval);
}

}  // namespace zel
