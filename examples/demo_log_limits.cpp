// SPDX-License-Identifier: MIT

// Demonstration of the log's safety settings: the crash drain, the bound
// of the queue of lines waiting for the writer, and the retention of the
// files of earlier runs.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>

#include "examples/demo_parts.h"
#include "utils/logger.h"

namespace {

constexpr char kHoldMark[] = "holding the writer";

// A backend that holds the writer thread on the line carrying kHoldMark
// until it is released, so that the lines posted meanwhile stay queued.
class HoldingBackend : public zel::LogBackend {
 public:
  void Log(const std::string& line) override {
    if (line.find(kHoldMark) == std::string::npos) return;
    std::unique_lock<std::mutex> lock(mutex_);
    held_ = true;
    cond_.notify_all();
    // Never for ever: a demonstration that went wrong still ends.
    cond_.wait_for(lock, std::chrono::seconds(10), [this] { return released_; });
  }

  // Waits until the writer is held, at most `seconds`; true when it is.
  bool WaitHeld(int seconds) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, std::chrono::seconds(seconds), [this] { return held_; });
  }

  void Release() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    cond_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  bool held_ = false;
  bool released_ = false;
};

// The first line of the file at `path` that contains `text`; empty if none.
std::string FindLine(const std::string& path, const std::string& text) {
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.find(text) != std::string::npos) return line;
  }
  return std::string();
}

void WriteFile(const std::filesystem::path& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

}  // namespace

void DemoCrashDrain() {
  std::printf("-- crash drain\n");
  const int installed = zel_log_install_crash_handler();
  if (installed != 0) {
    std::printf("   zel_log_install_crash_handler() = %d: not installed\n", installed);
    return;
  }
  std::printf("   zel_log_install_crash_handler() = 0: installed (the demo does not crash)\n");
#if defined(_WIN32)
  std::printf("   on an unhandled exception the queued lines are written first, then\n");
  std::printf(
      "   \"zel log: fatal exception 0x<code> (<name>)\", and the process ends as before\n");
#else
  std::printf(
      "   on SIGSEGV, SIGBUS, SIGILL, SIGFPE or SIGABRT the queued lines are written first,\n");
  std::printf("   then \"zel log: fatal signal <N> (<name>)\", and the process ends as before\n");
#endif
  std::printf("   (waiting at most ZEL_LOG_CRASH_WAIT_MS milliseconds, 2000 by default)\n\n");
}

void DemoQueueLimit(const std::string& logDir) {
  constexpr std::size_t kLimit = 10500;
  constexpr int kLines = 30;
  constexpr std::size_t kPayload = 1000;
  std::printf("\n-- queue limit: %zu bytes, full queue drops (kDrop, the default policy)\n",
              kLimit);
  auto* holder = new HoldingBackend;  // must outlive the Logger: never freed
  zel::Logger::GetInstance()->RegisterBackend(holder);
  log_print(3, 1, "[%s][%s %s %d] Debug:queue limit: %s\n", "", "/demo_log_limits.cpp",
            "DemoQueueLimit", __LINE__, kHoldMark);
  if (!holder->WaitHeld(5)) {
    holder->Release();
    std::printf("   the writer was not held: nothing shown\n");
    return;
  }
  const uint64_t before = zel_log_dropped();
  zel::Logger::SetQueueLimit(kLimit, zel::QueueFullPolicy::kDrop);
  const std::string payload(kPayload, '.');
  for (int i = 1; i <= kLines; ++i) {
    log_print(3, 0, "[%s][%s %s %d] Debug:queued line %02d %s\n", "", "/demo_log_limits.cpp",
              "DemoQueueLimit", __LINE__, i, payload.c_str());
  }
  const uint64_t dropped = zel_log_dropped() - before;
  // The default again: 64 MiB, dropping.
  zel::Logger::SetQueueLimit(64 * 1024 * 1024, zel::QueueFullPolicy::kDrop);
  holder->Release();
  zel_log_flush();
  std::printf("   while a backend held the writer, %d lines of about %zu bytes were posted:\n",
              kLines, kPayload + 80);
  std::printf("   %llu queued, %llu dropped at once (zel_log_dropped() counts them)\n",
              static_cast<unsigned long long>(kLines - dropped),
              static_cast<unsigned long long>(dropped));
  std::string live;
  for (const auto& entry : std::filesystem::directory_iterator(logDir)) {
    if (entry.path().extension() == ".txt") live = entry.path().string();
  }
  const std::string notice = FindLine(live, "lines dropped (queue full)");
  std::printf("   the log file says where they were lost:\n     %s\n",
              notice.empty() ? "(no notice found)" : notice.c_str());
  std::printf("   (with kBlock the callers would have waited for room instead)\n");
}

void DemoRetention(const std::string& logBase) {
  std::printf("\n-- retention: day directories older than 30 days are removed\n");
  // Two days of an earlier run, long ago, as the log would have left them.
  const std::filesystem::path old = std::filesystem::path(logBase) / "20200101";
  std::filesystem::create_directories(old);
  WriteFile(old / "zel.log.zel_demo.080000.0", "[01-01 08:00:00.000][tid:1] an old line\n");
  WriteFile(old / "zel.log.zel_demo.080000.txt", "[01-01 08:00:01.000][tid:1] an old line\n");
  std::printf("   made %s with 2 log files of an earlier run\n", old.string().c_str());
  zel_set_log_retention(30, 0);  // 30 days, no size limit
  // Retention is applied by the writer before the next line.
  log_print(3, 0, "[%s][%s %s %d] Debug:retention set to %d days\n", "", "/demo_log_limits.cpp",
            "DemoRetention", __LINE__, 30);
  zel_log_flush();
  std::printf("   after zel_set_log_retention(30, 0) and the next line, %s %s\n",
              old.filename().string().c_str(),
              std::filesystem::exists(old) ? "is still there" : "is gone");
}
