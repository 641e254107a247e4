// SPDX-License-Identifier: MIT

// Helpers the Looper's tests share (tests/looper_*_test.cpp): waits with
// their limits, a one-shot signal, a journal of what test messages did,
// messages that record their runs and times, a gate that holds the loop
// thread, and a reader of the log's lines.
#ifndef ZEL_TESTS_SUPPORT_LOOPER_TEST_UTIL_H_
#define ZEL_TESTS_SUPPORT_LOOPER_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/test_util.h"
#include "utils/logger.h"
#include "utils/looper.h"

namespace zel_test {
namespace looper {

using std::chrono::milliseconds;

// The longest any test waits for the loop thread: the machines running the
// tests have two cores and are shared, so this is far above what is needed.
constexpr milliseconds kWaitLimit(10000);

// How late a delayed message may run after its due time before a test
// fails. The looper itself is late by a few ms at the most; the rest is for
// loaded machines.
constexpr int64_t kLateLimitMs = 1000;

// A delay that no test waits out: messages posted with it stay pending.
constexpr int64_t kFarDelayMs = 60000;

// The looper's clock: ms since 1970-01-01 UTC on the system clock,
// truncated.
inline int64_t NowMs() {
  return std::chrono::duration_cast<milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// The kernel id of the calling thread in decimal, as log lines print it.
inline std::string OsThreadId() { return std::to_string(zel_test::OsThreadId()); }

// A one-shot event that one thread sets and others wait for.
class Signal {
 public:
  void Notify() {
    std::lock_guard<std::mutex> lock(mutex_);
    set_ = true;
    cond_.notify_all();
  }

  // Waits until Notify() was called or `timeout` has passed; returns
  // whether it was called. On Windows, when a thread was watched, it also
  // waits until that thread has left the process: a thread that is still
  // being torn down (its DLL detach notifications) when the test program
  // exits can hold up the process's exit.
  bool WaitFor(milliseconds timeout = kWaitLimit) {
    std::unique_lock<std::mutex> lock(mutex_);
    const bool set = cond_.wait_for(lock, timeout, [this] { return set_; });
#if defined(ZEL_TEST_ON_WINDOWS)
    if (set && thread_ != nullptr) {
      WaitForSingleObject(thread_, static_cast<DWORD>(timeout.count()));
      CloseHandle(thread_);
      thread_ = nullptr;
    }
#endif
    return set;
  }

#if defined(ZEL_TEST_ON_WINDOWS)
  // Remembers the calling thread, whose end WaitFor() then waits for too.
  void WatchThisThread() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (thread_ == nullptr) thread_ = OpenThread(SYNCHRONIZE, FALSE, GetCurrentThreadId());
  }
#endif

  bool IsSet() {
    std::lock_guard<std::mutex> lock(mutex_);
    return set_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  bool set_ = false;
#if defined(ZEL_TEST_ON_WINDOWS)
  HANDLE thread_ = nullptr;
#endif
};

// Thread-local list of signals to set when the owning thread ends.
struct ThreadEndHooks {
  std::vector<std::shared_ptr<Signal>> signals;
  ~ThreadEndHooks() {
    for (const std::shared_ptr<Signal>& signal : signals) signal->Notify();
  }
};

// Sets `signal` when the calling thread ends: thread-local objects are
// destroyed after the thread's function has returned, so once `signal` is
// set the thread no longer touches anything of the Looper that ran it.
inline void NotifyWhenThisThreadEnds(std::shared_ptr<Signal> signal) {
#if defined(ZEL_TEST_ON_WINDOWS)
  signal->WatchThisThread();
#endif
  thread_local ThreadEndHooks hooks;
  hooks.signals.push_back(std::move(signal));
}

// An ordered record of what the test messages did, written by the loop
// thread and read by the test thread.
class Journal {
 public:
  void Add(const std::string& event) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(event);
  }

  std::vector<std::string> Events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }

  int Count(const std::string& event) {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(std::count(events_.begin(), events_.end(), event));
  }

  // The names of the messages that ran, in running order.
  std::vector<std::string> RunOrder() {
    std::vector<std::string> names;
    for (const std::string& event : Events()) {
      if (event.rfind("run ", 0) == 0) names.push_back(event.substr(4));
    }
    return names;
  }

  bool WaitForEvent(const std::string& event) {
    return zel_test::WaitFor([&] { return Count(event) > 0; }, kWaitLimit);
  }

  bool WaitForRuns(std::size_t count) {
    return zel_test::WaitFor([&] { return RunOrder().size() >= count; }, kWaitLimit);
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> events_;
};

// A message that writes "run <name>" to the journal when it runs, then
// calls `action` and writes "end <name>" when it has one, and writes
// "destroy <name>" when it is destroyed.
class TestMessage : public zel::Message {
 public:
  TestMessage(Journal* journal, std::string name, std::function<void()> action = nullptr)
      : journal_(journal), name_(std::move(name)), action_(std::move(action)) {}

  void Run() override {
    journal_->Add("run " + name_);
    if (action_) {
      action_();
      journal_->Add("end " + name_);
    }
  }

  ~TestMessage() override { journal_->Add("destroy " + name_); }

 private:
  Journal* journal_;
  std::string name_;
  std::function<void()> action_;
};

inline std::unique_ptr<zel::Message> NewTestMessage(Journal* journal, const std::string& name,
                                                    std::function<void()> action = nullptr) {
  return std::make_unique<TestMessage>(journal, name, std::move(action));
}

// Holds the loop thread: the message from NewMessage() reports that it
// runs, then blocks until Release() (or 10 s). Messages posted meanwhile are
// queued and are all looked at in the same later pass. Declare a Gate after
// the Looper, so that it is released before the Looper joins its thread.
class Gate {
 public:
  Gate() : state_(std::make_shared<State>()) {}
  ~Gate() { Release(); }
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  std::unique_ptr<zel::Message> NewMessage() { return std::make_unique<Holder>(state_); }
  bool WaitEntered() { return state_->entered.WaitFor(); }
  void Release() { state_->released.Notify(); }

 private:
  struct State {
    Signal entered;
    Signal released;
  };

  class Holder : public zel::Message {
   public:
    explicit Holder(std::shared_ptr<State> state) : state_(std::move(state)) {}
    void Run() override {
      state_->entered.Notify();
      state_->released.WaitFor();
    }

   private:
    std::shared_ptr<State> state_;
  };

  std::shared_ptr<State> state_;
};

// What a TimedMessage saw when it ran.
struct TimingProbe {
  Signal ran;
  Signal destroyed;
  std::atomic<int> runs{0};
  std::atomic<int64_t> whenAtRun{0};
  std::atomic<int64_t> ranAtMs{0};
};

// A message that records its due time and the time it ran.
class TimedMessage : public zel::Message {
 public:
  explicit TimedMessage(std::shared_ptr<TimingProbe> probe) : probe_(std::move(probe)) {}
  void Run() override {
    probe_->whenAtRun = when_;
    probe_->ranAtMs = NowMs();
    probe_->runs.fetch_add(1);
    probe_->ran.Notify();
  }
  ~TimedMessage() override { probe_->destroyed.Notify(); }

 private:
  std::shared_ptr<TimingProbe> probe_;
};

// The argument of the task functions below.
struct TaskProbe {
  std::atomic<int> viaFirst{0};
  std::atomic<int> viaSecond{0};
  std::atomic<int64_t> ranAtMs{0};
  Signal ran;
};

inline void FirstTask(void* arg) {
  TaskProbe* probe = static_cast<TaskProbe*>(arg);
  probe->ranAtMs = NowMs();
  probe->viaFirst.fetch_add(1);
  probe->ran.Notify();
}

inline void SecondTask(void* arg) {
  TaskProbe* probe = static_cast<TaskProbe*>(arg);
  probe->viaSecond.fetch_add(1);
  probe->ran.Notify();
}

inline void NoOpTask(void*) {}

// Bodies of the looper's log lines, after the "[M-D hh:mm:ss.mmm][tid:N] "
// prefix that log_print adds.
constexpr char kNotAllowedBody[] =
    "[][/looper.cpp zel::Looper::Stop 137] looper stop in same thread,not allowed\n\n";
constexpr char kExitBody[] = "[][/looper.cpp zel::Looper::process 205] looper exit\n\n";

// Counts the lines of `text` made of a complete log prefix naming thread
// `tid` followed by `body`.
inline int CountLogLines(const std::string& text, const std::string& body, const std::string& tid) {
  static const std::regex prefix(
      R"(\[(1[0-2]|[1-9])-([1-9]|[12][0-9]|3[01]) [0-2][0-9]:[0-5][0-9]:[0-6][0-9]\.[0-9]{3}\]\[tid:([0-9]+)\] )");
  int count = 0;
  for (std::size_t pos = text.find(body); pos != std::string::npos;
       pos = text.find(body, pos + body.size())) {
    const std::size_t newline = pos == 0 ? std::string::npos : text.rfind('\n', pos - 1);
    const std::size_t lineStart = newline == std::string::npos ? 0 : newline + 1;
    const std::string head = text.substr(lineStart, pos - lineStart);
    std::smatch match;
    if (std::regex_match(head, match, prefix) && match[3] == tid) ++count;
  }
  return count;
}

// Reads the log file piece by piece. Construct it before anything is
// logged: it points the Logger at a fresh base directory.
class LogReader {
 public:
  LogReader() { zel_set_log_path(dir_.path().c_str()); }

  // Logs a marker line, waits until it is written, and returns what was
  // written before it since the previous marker.
  std::string TextSinceLastMark() {
    ++marks_;
    log_print(0, 0, "[mark %d]\n", marks_);
    const std::string marker = "[mark " + std::to_string(marks_) + "]\n";
    const std::string text = ReadLiveFile();
    const std::size_t pos = text.find(marker, consumed_);
    EXPECT_NE(pos, std::string::npos) << "marker missing from the log:\n" << text;
    if (pos == std::string::npos) return std::string();
    const std::size_t newline = text.rfind('\n', pos);
    const std::size_t lineStart =
        newline == std::string::npos || newline < consumed_ ? consumed_ : newline + 1;
    std::string written = text.substr(consumed_, lineStart - consumed_);
    consumed_ = pos + marker.size();
    return written;
  }

 private:
  // Flushes the Logger and returns the content of the one live file in its
  // current day directory, which must lie in the base directory.
  std::string ReadLiveFile() {
    zel_log_flush();
    const std::string dayDir = zel::Logger::GetLogPath();
    const std::string& base = dir_.path();
    EXPECT_EQ(dayDir.size(), base.size() + 9) << dayDir;
    EXPECT_EQ(dayDir.compare(0, base.size(), base), 0) << dayDir;
    std::vector<std::string> live;
    for (const std::string& name : zel_test::ListDir(dayDir)) {
      if (name.rfind("zel.log.", 0) == 0 && name.size() > 4 &&
          name.compare(name.size() - 4, 4, ".txt") == 0) {
        live.push_back(name);
      }
    }
    EXPECT_EQ(live.size(), 1u);
    if (live.size() != 1) return std::string();
    return zel_test::ReadFile(dayDir + live[0]);
  }

  zel_test::TempDir dir_;
  int marks_ = 0;
  std::size_t consumed_ = 0;
};

}  // namespace looper
}  // namespace zel_test

#endif  // ZEL_TESTS_SUPPORT_LOOPER_TEST_UTIL_H_
