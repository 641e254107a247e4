// SPDX-License-Identifier: MIT

// The Logger: the process-wide instance and its public calls. Its parts
// live in utils/log/: the line queue and its writer thread (line_queue.cpp)
// over the posting threads' own queues (thread_queue.cpp),
// the log file writer (file_writer.cpp), the receivers of forwarded lines
// (backend_list.cpp), the line formatter and log_print() (line_format.cpp),
// the crash drain (crash_drain.cpp) and retention (retention.cpp).
#include "utils/logger.h"

#include <cstring>

#include "utils/log/internal/backend_list.h"
#include "utils/log/internal/crash_drain.h"
#include "utils/log/internal/file_writer.h"
#include "utils/log/internal/line_queue.h"
#include "utils/log/internal/retention.h"
#include "utils/platform.h"

namespace zel {

std::atomic<Logger*> Logger::sLogger{nullptr};
std::mutex Logger::sMutex;

LogBackend::~LogBackend() = default;

Logger* Logger::GetInstance() {
  Logger* logger = sLogger.load(std::memory_order_acquire);
  if (logger != nullptr) return logger;
  std::lock_guard<std::mutex> lock(sMutex);
  logger = sLogger.load(std::memory_order_relaxed);
  if (logger == nullptr) {
    logger = new Logger();
    sLogger.store(logger, std::memory_order_release);
  }
  return logger;
}

// The Logger's parts, in the order they are made: the queue's writer
// thread is stopped (the queue destroyed) before the file and the backends.
struct Logger::Parts {
  LogFile file;
  BackendList backends;
  LineQueue queue{&file, &backends};
  bool toFile = true;  // false only while init() runs
};

Logger::Logger() : mParts(std::make_unique<Parts>()) { init(); }

Logger::~Logger() = default;

int Logger::init() {
  mParts->toFile = false;
  mParts->file.logFileInit();
  mParts->toFile = true;
  mParts->queue.startWriter();
  return 0;
}

void Logger::Log(const std::string& line) { Log(line, 3, false); }

void Logger::Log(const std::string& line, int level, bool forward) {
  postLine(line.data(), line.size(), level, forward);
}

void Logger::postLine(const char* text, std::size_t size, int level, bool forward) {
  mParts->queue.post(text, size, level, forward);
}

void Logger::SetQueueLimit(std::size_t bytes, QueueFullPolicy policy) {
  LineQueue::setLimit(bytes, policy == QueueFullPolicy::kBlock);
  Logger* logger = sLogger.load(std::memory_order_acquire);
  if (logger != nullptr) logger->mParts->queue.limitChanged();
}

void Logger::RegisterBackend(LogBackend* backend) { mParts->backends.add(backend); }

void Logger::Flush() {
  // No writer any more: when the process is ending on Windows (a DLL's
  // static destructor) its other threads are gone.
  if (platform::processExiting()) return;
  mParts->queue.flush();
}

void Logger::writeLog(LogInfo* info) {
  writeLine(info->message.c_str(), info->message.size(), info->level, info->forward);
}

void Logger::writeLine(const char* text, std::size_t size, int level, bool forward) {
  mParts->queue.writeOne(text, size, level, forward);
}

uint64_t Logger::BackendFailures() const { return mParts->backends.failures(); }

int Logger::InstallCrashHandler() {
  try {
    GetInstance();
    return crash::install(
        [](uint64_t faultingThread, int64_t deadlineNs) {
          sLogger.load(std::memory_order_acquire)
              ->mParts->queue.crashFlush(faultingThread, deadlineNs);
        },
        [] {
          Logger* logger = sLogger.load(std::memory_order_acquire);
          if (logger != nullptr) logger->mParts->queue.writeGathered();
        });
  } catch (...) {
    return -1;
  }
}

void Logger::SetRetention(int days, std::int64_t totalBytes) { retention::set(days, totalBytes); }

// The log file writer's work under the names the Logger has always had.
std::intptr_t Logger::getLogFp() { return mParts->toFile ? getFile() : platform::standardError(); }

std::intptr_t Logger::getFile() { return mParts->file.getFile(); }

int Logger::logFileInit() { return mParts->file.logFileInit(); }

std::string Logger::getPrefix() { return mParts->file.getPrefix(); }

void Logger::UpdateLogDir() { mParts->file.updateLogDir(); }

void Logger::updateLogFile(unsigned char index) { mParts->file.updateLogFile(index); }

void Logger::SetLogFileInfo(int maxSize, int maxCount) {
  mParts->file.setLimits(maxSize, maxCount);
}

int Logger::SetLogPath(const std::string& path) {
  LogFile::setBase(path);
  return 0;
}

std::string Logger::GetLogPath() { return LogFile::currentDir(); }

}  // namespace zel

using zel::Logger;

extern "C" {

// No exception leaves these functions: each catches everything and behaves
// as its declaration says for a failure.

void zel_set_log_path(const char* path) {
  if (path[0] == '\0') return;
  try {
    Logger::SetLogPath(path);
  } catch (...) {
    // Out of memory: the base stays as it was.
  }
}

int zel_get_log_path(char* buffer, int size) {
  if (buffer == nullptr || size < 1) return -1;
  try {
    const std::string dir = Logger::GetLogPath();
    if (dir.empty()) return -1;
    std::strncpy(buffer, dir.c_str(), static_cast<std::size_t>(size) - 1);
    return 0;
  } catch (...) {
    return -1;
  }
}

void zel_log_flush(void) {
  try {
    Logger* logger = Logger::sLogger.load(std::memory_order_acquire);
    if (logger != nullptr) logger->Flush();
  } catch (...) {
    // The barrier could not be posted or waited for: return.
  }
}

int zel_log_install_crash_handler(void) { return Logger::InstallCrashHandler(); }

void zel_set_log_retention(int days, long long total_bytes) {
  try {
    Logger::SetRetention(days, static_cast<std::int64_t>(total_bytes));
  } catch (...) {
    // A lock failure: the settings stay as they were.
  }
}

void zel_set_log_queue_limit(size_t bytes, int block) {
  try {
    Logger::SetQueueLimit(bytes,
                          block != 0 ? zel::QueueFullPolicy::kBlock : zel::QueueFullPolicy::kDrop);
  } catch (...) {
    // A lock failure while waking waiting callers: the new bound is set.
  }
}

uint64_t zel_log_dropped(void) { return zel::LineQueue::dropped(); }

}  // extern "C"
