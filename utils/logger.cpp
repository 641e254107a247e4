#include "utils/logger.h"

#include <condition_variable>
#include <cstring>
#include <new>

#include "utils/log_crash.h"
#include "utils/log_file.h"
#include "utils/log_retention.h"
#include "utils/platform.h"

namespace zel {

namespace {

constexpr int kFpNullLine = 296;

// True on the writer thread, which must not wait for its own queue.
thread_local bool tOnWriterThread = false;

// Posted by Flush(): runs after every line queued before it and signals the
// waiting caller when it is destroyed, whether it ran or not.
class FlushMessage : public Message {
 public:
  struct State {
    std::mutex mutex;
    std::condition_variable cond;
    bool done = false;
  };

  explicit FlushMessage(State* state) : state_(state) {}

  // Every line before it has been handed to the operating system, which
  // holds no line back: nothing is left to flush.
  void Run() override {}

  ~FlushMessage() override {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->done = true;
    state_->cond.notify_all();
  }

 private:
  State* state_;
};

// Counts an exception thrown by a backend into `failures` and reports the
// first one.
void countBackendFailure(std::atomic<uint64_t>* failures) {
  if (failures->fetch_add(1) == 0) {
    logConsole(
        "zel log: a log backend threw an exception; the line is still written "
        "(reported once)\n");
  }
}

}  // namespace

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

Logger::Logger() : mToFile(true), mFp(nullptr), mLogFile(std::make_unique<LogFile>()) { init(); }

Logger::~Logger() {
  if (mWriter) mWriter->looper->Stop();
  if (mFp != nullptr) {
    std::fclose(mFp);
    mFp = nullptr;
  }
}

int Logger::init() {
  mToFile = false;
  mLogFile->logFileInit();
  mToFile = true;
  auto writer = std::make_unique<Writer>();
  writer->looper = std::make_unique<Looper>();
  writer->handler = [this](LogInfo* info) { writeLog(info); };
  mWriter = std::move(writer);
  mWriter->looper->Start();
  return 0;
}

void Logger::Log(const std::string& line) { Log(line, 3, false); }

// A line in one allocation: the message, then the text and a terminating
// NUL. Its Run() hands the line to the write handler's work, writeLine().
class Logger::LineMessage final : public Message {
 public:
  static std::unique_ptr<Message> make(Logger* logger, const char* text, std::size_t size,
                                       int level, bool forward) {
    void* memory = ::operator new(sizeof(LineMessage) + size + 1);
    auto* msg = new (memory) LineMessage(logger, size, level, forward);
    char* copy = msg->text();
    std::memcpy(copy, text, size);
    copy[size] = '\0';
    return std::unique_ptr<Message>(msg);
  }

  void Run() override { logger_->writeLine(text(), size_, forward_); }

  // The caller's level, carried with the line as a LogInfo carries it.
  int level() const { return level_; }

  // Frees what make() allocated, whatever the size of the text.
  static void operator delete(void* memory) { ::operator delete(memory); }

 private:
  LineMessage(Logger* logger, std::size_t size, int level, bool forward)
      : logger_(logger), size_(size), level_(static_cast<int32_t>(level)), forward_(forward) {}

  char* text() { return reinterpret_cast<char*>(this + 1); }

  Logger* logger_;
  std::size_t size_;
  int32_t level_;  // the caller's level; carried, not used by the writer
  bool forward_;
};

void Logger::Log(const std::string& line, int level, bool forward) {
  postLine(line.data(), line.size(), level, forward);
}

void Logger::postLine(const char* text, std::size_t size, int level, bool forward) {
  mWriter->looper->PostMessageAAA(LineMessage::make(this, text, size, level, forward));
}

void Logger::RegisterBackend(LogBackend* backend) {
  std::unique_lock<std::shared_mutex> lock(mBackendLock);
  mBackends.push_back(backend);
}

void Logger::Flush() {
  if (tOnWriterThread) return;
  FlushMessage::State state;
  if (mWriter->looper->PostMessageAAA(std::make_unique<FlushMessage>(&state)) != 0) return;
  std::unique_lock<std::mutex> lock(state.mutex);
  state.cond.wait(lock, [&state] { return state.done; });
}

void Logger::writeLog(LogInfo* info) {
  writeLine(info->message.c_str(), info->message.size(), info->forward);
}

void Logger::writeLine(const char* text, std::size_t size, bool forward) {
  tOnWriterThread = true;
  const std::intptr_t file = getLogFp();
  if (file == platform::kNoFile) {
    // A refused directory was reported once; its lines go nowhere quietly.
    if (!mLogFile->refused()) {
      logConsole("%s %d: fp is null \n", "zel::Logger::writeLog", kFpNullLine);
    }
    return;
  }
  if (forward) {
    // An exception from a backend (or from copying the line) must not end
    // the writer thread, and with it the process: it is counted, reported
    // once, and the line still goes to the other backends and the file.
    std::shared_lock<std::shared_mutex> lock(mBackendLock);
    if (!mBackends.empty()) {
      try {
        const std::string line(text, size);
        for (LogBackend* backend : mBackends) {
          try {
            backend->Log(line);
          } catch (...) {
            countBackendFailure(&mBackendFailures);
          }
        }
      } catch (...) {
        countBackendFailure(&mBackendFailures);
      }
    }
  }
  // What fprintf(fp, "%s", text) does on an unbuffered stream: the text up
  // to its first NUL in one write; the count, 0 for an empty text, or -1
  // when the write failed.
  const std::size_t length = std::strlen(text);
  int64_t ret = 0;
  if (length > 0) ret = mLogFile->write(file, text, length);
  if (ret > 0) return;
  logConsole("zel log write error,ret[%d] \n", static_cast<int>(ret));
  UpdateLogDir();
}

uint64_t Logger::BackendFailures() const { return mBackendFailures.load(); }

int Logger::InstallCrashHandler() {
  try {
    return crash::install(GetInstance());
  } catch (...) {
    return -1;
  }
}

void Logger::SetRetention(int days, std::int64_t totalBytes) { retention::set(days, totalBytes); }

std::intptr_t Logger::getLogFp() { return mToFile ? getFile() : platform::standardError(); }

std::intptr_t Logger::getFile() { return mLogFile->getFile(); }

int Logger::logFileInit() { return mLogFile->logFileInit(); }

std::string Logger::getPrefix() { return mLogFile->getPrefix(); }

void Logger::UpdateLogDir() { mLogFile->updateLogDir(); }

void Logger::updateLogFile(unsigned char index) { mLogFile->updateLogFile(index); }

void Logger::SetLogFileInfo(int maxSize, int maxCount) { mLogFile->setLimits(maxSize, maxCount); }

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

}  // extern "C"
