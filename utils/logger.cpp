#include "utils/logger.h"

#include <condition_variable>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <limits>
#include <new>
#include <system_error>

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
// The position of sLogFp as ftell() would give it, kept up to date by the
// writes; -1 when it is not known (a new file, a failed write).
int64_t sLogFileOffset = -1;
// sLogFilePath as a filesystem path, made once per opened file.
std::filesystem::path* sLogFileFsPath = nullptr;

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

// Writes `value` in decimal, at least `width` digits (zero-padded), at
// `out`; returns the end. As printf's "%0*ld" for values from 0 on.
char* writeDecimal(char* out, long value, int width) {
  char digits[24];
  int n = 0;
  unsigned long v = static_cast<unsigned long>(value);
  do {
    digits[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  while (n < width) digits[n++] = '0';
  while (n > 0) *out++ = digits[--n];
  return out;
}

// The prefix "[M-D hh:mm:ss.mmm][tid:T] " of the calling thread, built from
// pieces kept per thread: the thread id text is made once, the local-time
// part once per second; only the milliseconds are written per line.
// Produces exactly what platform::formatLogPrefix() produces.
class PrefixCache {
 public:
  // Writes the prefix for `second` (seconds since 1970) and `ms` (0-999)
  // into `buf` (at least kPrefixSize bytes), terminated; returns its length.
  std::size_t write(char* buf, std::time_t second, long ms) {
    if (tailLen_ == 0) {
      std::snprintf(tid_, sizeof(tid_), "%llu",
                    static_cast<unsigned long long>(platform::currentThreadId()));
      const int n = std::snprintf(tail_, sizeof(tail_), "][tid:%s] ", tid_);
      tailLen_ = static_cast<std::size_t>(n);
    }
    if (second != second_ || headLen_ == 0) {
      const std::tm& tm = localTimeOf(second);
      if (tm.tm_mon + 1 < 0 || tm.tm_mday < 0 || tm.tm_hour < 0 || tm.tm_min < 0 || tm.tm_sec < 0) {
        // Not a time localtime gives; leave such a case to snprintf.
        const int n = platform::formatLogPrefix(buf, kPrefixSize, tm, ms, tid_);
        headLen_ = 0;
        return n < 0 ? (buf[0] = '\0', 0) : std::strlen(buf);
      }
      char* out = head_;
      *out++ = '[';
      out = writeDecimal(out, tm.tm_mon + 1, 1);
      *out++ = '-';
      out = writeDecimal(out, tm.tm_mday, 1);
      *out++ = ' ';
      out = writeDecimal(out, tm.tm_hour, 2);
      *out++ = ':';
      out = writeDecimal(out, tm.tm_min, 2);
      *out++ = ':';
      out = writeDecimal(out, tm.tm_sec, 2);
      *out++ = '.';
      headLen_ = static_cast<std::size_t>(out - head_);
      second_ = second;
    }
    std::memcpy(buf, head_, headLen_);
    char* out = writeDecimal(buf + headLen_, ms, 3);
    std::memcpy(out, tail_, tailLen_);
    out += tailLen_;
    *out = '\0';
    return static_cast<std::size_t>(out - buf);
  }

 private:
  std::time_t second_ = 0;
  char head_[80] = {0};  // "[M-D hh:mm:ss."
  std::size_t headLen_ = 0;
  char tid_[24] = {0};   // the operating-system thread id in decimal
  char tail_[48] = {0};  // "][tid:T] "
  std::size_t tailLen_ = 0;
};

// A formatter for the conversions that log lines use, producing exactly what
// vsnprintf produces for them: "%%", and %d %i %u %x %X %s %c with the flags
// '-' and '0' (not '0' for %s and %c), a width in digits and the length
// modifiers l, ll and z. Any other conversion, a precision or a '*' makes
// formatTo() give up, and the caller formats the line with vsnprintf.
class FastFormat {
 public:
  // Formats as vsnprintf(out, size, format, args) would and returns true;
  // `size` is at least 1. Returns false at the first conversion it does not
  // handle, before reading that conversion's argument, with `out` holding
  // an unfinished text: the format is read once, in the same pass.
  static bool formatTo(char* out, std::size_t size, const char* format, va_list args) {
    Sink sink{out, out + size - 1};
    for (const char* p = format; *p != '\0'; ++p) {
      if (*p != '%') {
        sink.put(*p);
        continue;
      }
      Directive directive;
      p = parseDirective(p + 1, &directive);
      if (p == nullptr) return false;
      switch (directive.conv) {
        case '%':
          sink.put('%');
          break;
        case 'c': {
          const char c = static_cast<char>(va_arg(args, int));
          pad(&sink, directive, 1, false, [&sink, c] { sink.put(c); });
          break;
        }
        case 's': {
          const char* text = va_arg(args, const char*);
          if (text == nullptr) text = "(null)";
          const std::size_t len = std::strlen(text);
          pad(&sink, directive, len, false, [&sink, text, len] { sink.put(text, len); });
          break;
        }
        case 'd':
        case 'i': {
          long long v;
          if (directive.length == 'l') {
            v = va_arg(args, long);
          } else if (directive.length == 'L') {
            v = va_arg(args, long long);
          } else if (directive.length == 'z') {
            v = static_cast<long long>(va_arg(args, std::size_t));
          } else {
            v = va_arg(args, int);
          }
          const bool negative = v < 0;
          const unsigned long long magnitude = negative ? 0ULL - static_cast<unsigned long long>(v)
                                                        : static_cast<unsigned long long>(v);
          putNumber(&sink, directive, magnitude, negative, 10, false);
          break;
        }
        default: {  // u x X
          unsigned long long v;
          if (directive.length == 'l') {
            v = va_arg(args, unsigned long);
          } else if (directive.length == 'L') {
            v = va_arg(args, unsigned long long);
          } else if (directive.length == 'z') {
            v = va_arg(args, std::size_t);
          } else {
            v = va_arg(args, unsigned int);
          }
          putNumber(&sink, directive, v, false, directive.conv == 'u' ? 10 : 16,
                    directive.conv == 'X');
          break;
        }
      }
    }
    *sink.pos = '\0';
    return true;
  }

 private:
  struct Directive {
    bool left = false;
    bool zero = false;
    std::size_t width = 0;
    char length = 0;  // 0, 'l', 'L' (ll) or 'z'
    char conv = 0;
  };

  // Writes up to `end`, the place of the terminating NUL; the rest is cut.
  struct Sink {
    char* pos;
    char* end;
    void put(char c) {
      if (pos < end) *pos++ = c;
    }
    void put(const char* text, std::size_t len) {
      const auto room = static_cast<std::size_t>(end - pos);
      if (len > room) len = room;
      std::memcpy(pos, text, len);
      pos += len;
    }
    void fill(char c, std::size_t n) {
      for (std::size_t i = 0; i < n; ++i) put(c);
    }
  };

  // Parses the conversion after a '%'; returns its last character, or null
  // when it is not supported.
  static const char* parseDirective(const char* p, Directive* directive) {
    if (*p == '%') {
      directive->conv = '%';
      return p;
    }
    for (;; ++p) {
      if (*p == '-') {
        directive->left = true;
      } else if (*p == '0') {
        directive->zero = true;
      } else {
        break;
      }
    }
    while (*p >= '0' && *p <= '9') {
      directive->width = directive->width * 10 + static_cast<std::size_t>(*p - '0');
      if (directive->width > 4096) return nullptr;
      ++p;
    }
    if (*p == 'l') {
      ++p;
      directive->length = 'l';
      if (*p == 'l') {
        ++p;
        directive->length = 'L';
      }
    } else if (*p == 'z') {
      ++p;
      directive->length = 'z';
    }
    switch (*p) {
      case 'd':
      case 'i':
      case 'u':
      case 'x':
      case 'X':
        break;
      case 's':
      case 'c':
        if (directive->zero || directive->length != 0) return nullptr;
        break;
      default:
        return nullptr;
    }
    directive->conv = *p;
    return p;
  }

  // Writes `len` characters through `body`, padded with blanks to the width.
  template <typename Body>
  static void pad(Sink* sink, const Directive& directive, std::size_t len, bool, Body body) {
    const std::size_t fill = directive.width > len ? directive.width - len : 0;
    if (!directive.left) sink->fill(' ', fill);
    body();
    if (directive.left) sink->fill(' ', fill);
  }

  static void putNumber(Sink* sink, const Directive& directive, unsigned long long v, bool negative,
                        unsigned base, bool upper) {
    char digits[24];
    std::size_t n = 0;
    const char* symbols = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    do {
      digits[n++] = symbols[v % base];
      v /= base;
    } while (v != 0);
    const std::size_t len = n + (negative ? 1 : 0);
    const std::size_t fill = directive.width > len ? directive.width - len : 0;
    if (directive.left) {
      if (negative) sink->put('-');
      while (n > 0) sink->put(digits[--n]);
      sink->fill(' ', fill);
    } else if (directive.zero) {
      if (negative) sink->put('-');
      sink->fill('0', fill);
      while (n > 0) sink->put(digits[--n]);
    } else {
      sink->fill(' ', fill);
      if (negative) sink->put('-');
      while (n > 0) sink->put(digits[--n]);
    }
  }
};

// Today's date directory "YYYYMMDD/" (local time), converted at most once
// per second of the wall clock. For the writer thread, which asks per line.
const char* todayDateDirCached() {
  thread_local std::time_t cachedSecond = std::numeric_limits<std::time_t>::min();
  thread_local char text[kPathSize];
  const auto second = static_cast<std::time_t>(platform::wallClockMs() / 1000);
  if (second != cachedSecond) {
    std::tm tm{};
    platform::localTime(second, &tm);
    platform::formatDateDir(text, sizeof(text), tm);
    cachedSecond = second;
  }
  return text;
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
  // The writer thread itself, or no writer any more: when the process is
  // ending on Windows (a DLL's static destructor) its other threads are gone.
  if (tOnWriterThread || platform::processExiting()) return;
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
  FILE* fp = getLogFp();
  if (fp == nullptr) {
    console("%s %d: fp is null \n", "zel::Logger::writeLog", kFpNullLine);
    return;
  }
  if (forward) {
    std::shared_lock<std::shared_mutex> lock(mBackendLock);
    if (!mBackends.empty()) {
      const std::string line(text, size);
      for (LogBackend* backend : mBackends) backend->Log(line);
    }
  }
  // What fprintf(fp, "%s", text) does, without parsing a format: the text up
  // to its first NUL in one write (the stream is unbuffered); the count, 0
  // for an empty text, or -1 when the write failed.
  const std::size_t length = std::strlen(text);
  int ret = 0;
  if (length > 0) {
    ret = std::fwrite(text, 1, length, fp) == length ? static_cast<int>(length) : -1;
  }
  if (ret > 0) {
    if (fp == sLogFp && sLogFileOffset >= 0) sLogFileOffset += ret;
    if (mToFile) std::fflush(fp);
    return;
  }
  if (fp == sLogFp) sLogFileOffset = -1;
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
    // One file-status query answers both whether a regular file is still at
    // the path and how large it is. The stream's position (ftell) is the
    // size that counts; it is kept in sLogFileOffset as the lines are
    // written. When the file at the path has that same size nobody else has
    // written to it since, and the kept position is what ftell would say;
    // otherwise (a write from outside, a replaced or truncated file) ftell
    // is asked. A missing file rotates whatever the size.
    std::error_code error;
    const std::uintmax_t fileSize = std::filesystem::file_size(*sLogFileFsPath, error);
    const bool regular = !error;
    int64_t position = sLogFileOffset;
    if (regular && (position < 0 || fileSize != static_cast<std::uintmax_t>(position))) {
      position = std::ftell(sLogFp);
      sLogFileOffset = position;
    }
    const auto size = static_cast<int32_t>(position);
    const bool rotate =
        (regular && size > mMaxFileSize.load()) || mCurDate != todayDateDirCached() || !regular;
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
  sLogFileOffset = -1;
  // Never destroyed, like the stream: the writer thread may still use it
  // while the process exits.
  if (sLogFileFsPath == nullptr) sLogFileFsPath = new std::filesystem::path;
  *sLogFileFsPath = sLogFilePath;
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
  // Neither buffer is zero-filled: the prefix and the text are terminated
  // where they end and nothing behind them is read.
  char line[zel::kLineSize];

  const int64_t nowMs = zel::platform::wallClockMs();
  int64_t second = nowMs / 1000;
  long ms = static_cast<long>(nowMs % 1000);
  if (ms < 0) {  // before 1970: keep the field in 0-999
    ms += 1000;
    --second;
  }
  thread_local zel::PrefixCache prefix;
  const std::size_t prefixLen = prefix.write(line, static_cast<std::time_t>(second), ms);

  va_list args;
  va_start(args, format);
  va_list fallback;  // the arguments from the start, for vsnprintf
  va_copy(fallback, args);
  const std::size_t room = zel::kLineSize - 1 - prefixLen;
  if (!zel::FastFormat::formatTo(line + prefixLen, room, format, args)) {
    std::vsnprintf(line + prefixLen, room, format, fallback);
  }
  va_end(fallback);
  va_end(args);
  const std::size_t lineLen = prefixLen + std::strlen(line + prefixLen);

  Logger* logger = zel::sCachedLogger.load(std::memory_order_acquire);
  if (logger == nullptr) {
    logger = Logger::GetInstance();
    zel::sCachedLogger.store(logger, std::memory_order_release);
    if (logger == nullptr) return 0;
  }
  logger->postLine(line, lineLen, level, flag != 0);
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
