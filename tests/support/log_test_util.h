// SPDX-License-Identifier: MIT

// Helpers the Logger's tests share (tests/logger_*_test.cpp): the live
// file of a log directory, lines logged raw, a recording backend, a gate that
// holds the writer thread, and the runs of a test under a moved clock.
#ifndef ZEL_TESTS_SUPPORT_LOG_TEST_UTIL_H_
#define ZEL_TESTS_SUPPORT_LOG_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/test_util.h"
#include "utils/logger.h"

namespace zel_test {

// The path of the one live file ("*.txt") in `dir`; fails the test when
// there is not exactly one.
inline std::string LiveFile(const std::string& dir) {
  const std::vector<std::string> live = zel_test::LiveFiles(dir);
  EXPECT_EQ(live.size(), 1u) << "live files in " << dir;
  return live.empty() ? std::string() : live.front();
}

// "zel.log.<process name>.<hhmmss>." of the live file `path`: what every
// file of this run starts with.
inline std::string RunPrefix(const std::string& path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  return name.substr(0, name.size() - 3);
}

// Logs `line` exactly as given (no prefix) and waits until it is written.
inline void LogRaw(const std::string& line) {
  zel::Logger::GetInstance()->Log(line);
  zel_log_flush();
}

// A backend that records what it receives, and whether the line was
// already in the log file when it received it.
class RecordingBackend : public zel::LogBackend {
 public:
  RecordingBackend(std::string name, std::vector<std::string>* order, std::mutex* mutex)
      : name_(std::move(name)), order_(order), mutex_(mutex) {}

  void Log(const std::string& line) override {
    std::lock_guard<std::mutex> lock(*mutex_);
    const std::string path = zel::Logger::GetLogPath();
    bool inFile = false;
    for (const std::string& name : ListDir(path)) {
      if (ReadFile(path + name).find(line) != std::string::npos) inFile = true;
    }
    order_->push_back(name_ + (inFile ? ":in-file:" : ":not-in-file:") + line);
  }

 private:
  std::string name_;
  std::vector<std::string>* order_;
  std::mutex* mutex_;
};

// A backend that holds the writer thread while it receives the "gate" line:
// a test queues lines behind it, which the writer then finds together and
// writes as one run.
class GateBackend : public zel::LogBackend {
 public:
  // Registers a gate with the Logger; it stays registered for the process.
  static GateBackend* Install() {
    static GateBackend* gate = [] {
      auto* g = new GateBackend;
      zel::Logger::GetInstance()->RegisterBackend(g);
      return g;
    }();
    return gate;
  }

  void Log(const std::string& line) override {
    if (line != "gate\n") return;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      entered_ = true;
      cond_.notify_all();
    }
    open_.Wait();
  }

  // Queues the gate line and waits until the writer holds it: every line
  // posted from now on until Open() queues behind it.
  bool Close() {
    open_.Close();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      entered_ = false;
    }
    zel::Logger::GetInstance()->Log("gate\n", 3, true);
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, std::chrono::seconds(10), [this] { return entered_; });
  }

  // Lets the writer go on.
  void Open() { open_.Open(); }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  bool entered_ = false;  // guarded by mutex_
  Latch open_{true};
};

// The text of a log line after its prefix "[...][tid:N] ".
inline std::string TextOf(const std::string& line) {
  const std::size_t tid = line.find("][tid:");
  const std::size_t end = tid == std::string::npos ? tid : line.find("] ", tid);
  return end == std::string::npos ? std::string() : line.substr(end + 2);
}

// The wall clock in milliseconds since 1970, as the log prefix reads it.
inline int64_t WallClockMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// The local time now.
inline std::tm LocalNow() {
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  return tm;
}

// Waits until the local day of the month is no longer `day`: under a clock
// moved to just before midnight, until midnight has passed.
inline bool WaitForDayAfter(int day) {
  return WaitFor([day] { return LocalNow().tm_mday != day; });
}

#if defined(ZEL_TEST_ON_WINDOWS)
// Why the tests under a moved clock skip on Windows. Elsewhere they run
// themselves again in a child process under faketime
// (RunSelfUnderFaketime); the child does the logging and the parent checks
// the files.
constexpr char kNoFaketime[] =
    "moves the clock with faketime (a preloaded library) in a forked child; "
    "Windows has neither";
#endif

}  // namespace zel_test

#endif  // ZEL_TESTS_SUPPORT_LOG_TEST_UTIL_H_
