#include "utils/logger.h"

#include <condition_variable>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <limits>

#include "utils/platform.h"
#include "utils/process_path.h"

namespace zel {

namespace {

constexpr int kFpNullLine = 296;
constexpr int kPrefixLine = 158;
constexpr int kRenameErrorLine = 516;
constexpr int kLineSize = 4096;
constexpr int kPrefixSize = 256;
constexpr int kPathSize = 256;
constexpr int32_t kDefaultMaxFileSize = 0x500000;
constexpr int32_t kDefaultMaxFileCount = 10;

// The base directory chosen by the client and the effective directory. The
// client's threads write and read them while the writer thread reads and
// writes them, so they are guarded; they are never destroyed because the
// writer thread may still use them while the process exits.
struct DirectoryTexts {
  std::mutex mutex;
  std::string fixedDirPrefix;  // mFixedDirPrefix: as given to SetLogPath
  std::string dirPrefix;       // mDirPrefix: base followed by "YYYYMMDD/"
};

DirectoryTexts& directoryTexts() {
  static DirectoryTexts* texts = new DirectoryTexts;
  return *texts;
}

// The open log file, its path and the rotation counter. Used on the writer
// thread only.
FILE* sLogFp = nullptr;
char sLogFilePath[kPathSize];
unsigned char sLogFileIndex = 0;
char sStartTimeBuf[kPathSize];

// The Logger as log_print() last found it.
std::atomic<Logger*> sCachedLogger{nullptr};

// The process-wide log level.
std::atomic<signed char> sLogLevel{3};

// True on the writer thread, which must not wait for its own queue.
thread_local bool tOnWriterThread = false;

// Local time of `second` (seconds since 1970), converted at most once per
// second and thread.
const std::tm& localTimeOf(std::time_t second) {
  thread_local std::time_t cachedSecond = std::numeric_limits<std::time_t>::min();
  thread_local std::tm cachedTm{};
  if (second != cachedSecond) {
    platform::localTime(second, &cachedTm);
    cachedSecond = second;
  }
  return cachedTm;
}

// The calling thread's operating-system id in decimal, computed once per
// thread.
const char* threadIdDecimal() {
  thread_local char text[24] = {0};
  if (text[0] == '\0') {
    std::snprintf(text, sizeof(text), "%llu",
                  static_cast<unsigned long long>(platform::currentThreadId()));
  }
  return text;
}

// Today's date directory "YYYYMMDD/" (local time) into `buf`.
void todayDateDir(char* buf, std::size_t size) {
  std::tm tm{};
  platform::localTime(static_cast<std::time_t>(platform::wallClockMs() / 1000), &tm);
  platform::formatDateDir(buf, size, tm);
}

// Writes into `buf` (kPathSize bytes, zero-filled by the caller) the first
// `dirLen` characters of `dir` followed by the file name "zel.log.<name>.
// <start>.<suffix>"; everything is cut to fit and the result is terminated.
void buildLogFilePath(char* buf, const std::string& dir, uint64_t dirLen, const std::string& name,
                      const std::string& start, const char* suffix) {
  std::size_t n = static_cast<std::size_t>(dirLen);
  if (n > dir.size()) n = dir.size();
  if (n > kPathSize - 1) n = kPathSize - 1;
  std::memcpy(buf, dir.data(), n);
  std::snprintf(buf + n, kPathSize - n, "zel.log.%s.%s.%s", name.c_str(), start.c_str(), suffix);
  buf[kPathSize - 1] = '\0';
}

// Prints a diagnostic of the logging code to standard output at once.
void console(const char* format, ...) ZEL_PRINTF_FORMAT(1, 2);
void console(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vprintf(format, args);
  va_end(args);
  std::fflush(stdout);
}

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

  void Run() override {
    if (sLogFp != nullptr) std::fflush(sLogFp);
  }

  ~FlushMessage() override {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->done = true;
    state_->cond.notify_all();
  }

 private:
  State* state_;
};

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

Logger::Logger()
    : mDirLen(0),
      mToFile(true),
      mMaxFileCount(kDefaultMaxFileCount),
      mMaxFileSize(kDefaultMaxFileSize),
      mFp(nullptr) {
  init();
}

Logger::~Logger() {
  if (mWriter) mWriter->looper->Stop();
  if (mFp != nullptr) {
    std::fclose(mFp);
    mFp = nullptr;
  }
}

int Logger::init() {
  mToFile = false;
  UpdateLogDir();
  mDirLen = mLogDir.size();
  mToFile = true;
  auto writer = std::make_unique<Writer>();
  writer->looper = std::make_unique<Looper>();
  writer->handler = [this](LogInfo* info) { writeLog(info); };
  mWriter = std::move(writer);
  mWriter->looper->Start();
  return 0;
}

void Logger::Log(const std::string& line) { Log(line, 3, false); }

void Logger::Log(const std::string& line, int level, bool forward) {
  auto info = std::make_unique<LogInfo>(LogInfo{line, level, forward});
  mWriter->looper->PostMessageAAA(
      std::make_unique<HandlerMessage<LogInfo>>(std::move(info), mWriter->handler));
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
  tOnWriterThread = true;
  FILE* fp = getLogFp();
  if (fp == nullptr) {
    console("%s %d: fp is null \n", "zel::Logger::writeLog", kFpNullLine);
    return;
  }
  if (info->forward) {
    std::shared_lock<std::shared_mutex> lock(mBackendLock);
    for (LogBackend* backend : mBackends) backend->Log(info->message);
  }
  const int ret = std::fprintf(fp, "%s", info->message.c_str());
  if (ret > 0) {
    if (mToFile) std::fflush(fp);
    return;
  }
  console("zel log write error,ret[%d] \n", ret);
  UpdateLogDir();
  if (mToFile) std::fflush(fp);
}

FILE* Logger::getLogFp() { return mToFile ? getFile() : stderr; }

int Logger::logFileInit() {
  UpdateLogDir();
  mDirLen = mLogDir.size();
  return 0;
}

void Logger::SetLogFileInfo(int maxSize, int maxCount) {
  mMaxFileSize.store(maxSize);
  mMaxFileCount.store(maxCount);
}

int Logger::SetLogPath(const std::string& path) {
  DirectoryTexts& texts = directoryTexts();
  std::lock_guard<std::mutex> lock(texts.mutex);
  if (!path.empty() && path != texts.fixedDirPrefix) texts.fixedDirPrefix = path;
  return 0;
}

std::string Logger::GetLogPath() {
  DirectoryTexts& texts = directoryTexts();
  std::lock_guard<std::mutex> lock(texts.mutex);
  return texts.dirPrefix;
}

std::string Logger::getPrefix() {
  const std::string processName = get_process_name();
  std::tm tm{};
  platform::localTime(static_cast<std::time_t>(platform::wallClockMs() / 1000), &tm);
  char date[kPathSize];
  platform::formatDateDir(date, sizeof(date), tm);

  DirectoryTexts& texts = directoryTexts();
  std::unique_lock<std::mutex> lock(texts.mutex);
  if (mCurDate == date && !texts.dirPrefix.empty()) return texts.dirPrefix;

  mCurDate = date;
  platform::formatStartTime(sStartTimeBuf, sizeof(sStartTimeBuf), tm);
  mStartTime = sStartTimeBuf;
  mProcessName = processName;
  if (texts.fixedDirPrefix.empty()) {
    texts.dirPrefix = std::string(platform::kDefaultLogBase) + date;
    std::string dir = texts.dirPrefix;
    lock.unlock();
    // A missing parent is made later by UpdateLogDir().
    if (!platform::isDirectory(dir.c_str())) platform::makeDir(dir.c_str());
    return dir;
  }
  texts.dirPrefix = texts.fixedDirPrefix + date;
  std::string dir = texts.dirPrefix;
  lock.unlock();
  console("%s %d: prefix[%s]\n", "zel::Logger::getPrefix", kPrefixLine, dir.c_str());
  return dir;
}

void Logger::UpdateLogDir() {
  const std::string dir = getPrefix();
  if (!platform::isDirectory(dir.c_str()) && !dir.empty() && dir.size() <= kPathSize - 1) {
    char buf[kPathSize] = {0};
    std::memcpy(buf, dir.data(), dir.size());
    std::size_t len = dir.size();
    if (buf[len - 1] != '/' && len < kPathSize - 1) buf[len++] = '/';
    // Make each missing level, shortest first. A '\' is put back as '/'.
    for (std::size_t i = 1; i < len; ++i) {
      if (buf[i] != '/' && buf[i] != '\\') continue;
      buf[i] = '\0';
      if (!platform::isDirectory(buf) && !platform::pathExists(buf) &&
          platform::makeDir(buf) == -1) {
        console("mkdir error,[%s]\n", buf);
        break;
      }
      buf[i] = '/';
    }
  }
  mLogDir = dir;
}

FILE* Logger::getFile() {
  if (sLogFp != nullptr) {
    const int32_t size = static_cast<int32_t>(std::ftell(sLogFp));
    char today[kPathSize];
    todayDateDir(today, sizeof(today));
    const bool rotate =
        size > mMaxFileSize.load() || mCurDate != today || !platform::isRegularFile(sLogFilePath);
    if (!rotate) return sLogFp;

    // Rotate: log.txt -> log.<index>; the counter steps on even when the
    // rename fails, and the file that falls out of the kept set is deleted.
    std::fclose(sLogFp);
    char rotated[kPathSize] = {0};
    buildLogFilePath(rotated, mLogDir, mDirLen, mProcessName, mStartTime,
                     std::to_string(static_cast<unsigned>(sLogFileIndex)).c_str());
    if (std::rename(sLogFilePath, rotated) != 0) {
      console("%s %d,rename error\n", "zel::Logger::getFile", kRenameErrorLine);
    }
    sLogFp = nullptr;
    ++sLogFileIndex;
    updateLogFile(sLogFileIndex);
  }

  // A day change rotated above before UpdateLogDir(), so the old file was
  // renamed in the old day's directory and the new one opens in the new.
  UpdateLogDir();
  std::memset(sLogFilePath, 0, sizeof(sLogFilePath));
  buildLogFilePath(sLogFilePath, mLogDir, mDirLen, mProcessName, mStartTime, "txt");
  sLogFp = std::fopen(sLogFilePath, "a");
  // Unbuffered: each line goes to the file in one write, so that a failed
  // write shows in fprintf's result and a crash loses no written line.
  if (sLogFp != nullptr) std::setvbuf(sLogFp, nullptr, _IONBF, 0);
  return sLogFp;
}

void Logger::updateLogFile(unsigned char index) {
  const unsigned char old =
      static_cast<unsigned char>(index - static_cast<unsigned char>(mMaxFileCount.load()));
  if (mDirLen > kPathSize) return;
  char path[kPathSize] = {0};
  buildLogFilePath(path, mLogDir, mDirLen, mProcessName, mStartTime,
                   std::to_string(static_cast<unsigned>(old)).c_str());
  if (platform::isRegularFile(path) && std::remove(path) != 0) {
    console("delete file: %s failed\n", path);
  }
}

}  // namespace zel

using zel::Logger;

extern "C" {

int log_print(int level, int flag, const char* format, ...) {
  char line[zel::kLineSize];
  char prefix[zel::kPrefixSize];

  const int64_t nowMs = zel::platform::wallClockMs();
  int64_t second = nowMs / 1000;
  long ms = static_cast<long>(nowMs % 1000);
  if (ms < 0) {  // before 1970: keep the field in 0-999
    ms += 1000;
    --second;
  }
  const std::tm& tm = zel::localTimeOf(static_cast<std::time_t>(second));
  if (zel::platform::formatLogPrefix(prefix, sizeof(prefix), tm, ms, zel::threadIdDecimal()) < 0) {
    prefix[0] = '\0';
  }
  const std::size_t prefixLen = std::strlen(prefix);
  std::memcpy(line, prefix, prefixLen);
  line[prefixLen] = '\0';

  va_list args;
  va_start(args, format);
  std::vsnprintf(line + prefixLen, zel::kLineSize - 1 - prefixLen, format, args);
  va_end(args);

  Logger* logger = zel::sCachedLogger.load(std::memory_order_acquire);
  if (logger == nullptr) {
    logger = Logger::GetInstance();
    zel::sCachedLogger.store(logger, std::memory_order_release);
    if (logger == nullptr) return 0;
  }
  logger->Log(std::string(line), level, flag != 0);
  return 0;
}

int zel_log_level(void) { return zel::sLogLevel.load(std::memory_order_relaxed); }

void zel_set_log_level(char level) {
  zel::sLogLevel.store(static_cast<signed char>(level), std::memory_order_relaxed);
}

void zel_set_log_path(const char* path) {
  if (path[0] == '\0') return;
  Logger::SetLogPath(path);
}

int zel_get_log_path(char* buffer, int size) {
  if (buffer == nullptr || size < 1) return -1;
  const std::string dir = Logger::GetLogPath();
  if (dir.empty()) return -1;
  std::strncpy(buffer, dir.c_str(), static_cast<std::size_t>(size) - 1);
  return 0;
}

void zel_log_flush(void) {
  Logger* logger = Logger::sLogger.load(std::memory_order_acquire);
  if (logger != nullptr) logger->Flush();
}

}  // extern "C"
