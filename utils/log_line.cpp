#include "utils/log_line.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>

#include "utils/log_crash.h"
#include "utils/logger.h"
#include "utils/platform.h"

namespace zel {

namespace {

constexpr int kPrefixSize = 256;

// The Logger as log_print() last found it.
std::atomic<Logger*> sCachedLogger{nullptr};

// The process-wide log level.
std::atomic<signed char> sLogLevel{3};

// Local time of `second` (seconds since 1970), converted at most once per
// second and thread.
const std::tm& localTimeOf(std::time_t second) {
  thread_local std::time_t cachedSecond = std::numeric_limits<std::time_t>::min();
  thread_local std::tm cachedTm{};
  if (second != cachedSecond) {
    // The offset from UTC it shows is kept for the writer and the crash
    // drain, which take no local time from the C library.
    if (platform::localTime(second, &cachedTm)) crash::noteLocalTime(second, cachedTm);
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

}  // namespace

std::size_t formatLogLine(char* line, const char* format, va_list args) {
  // Neither the prefix nor the text is zero-filled: each is terminated where
  // it ends and nothing behind it is read.
  const int64_t nowMs = platform::wallClockMs();
  int64_t second = nowMs / 1000;
  long ms = static_cast<long>(nowMs % 1000);
  if (ms < 0) {  // before 1970: keep the field in 0-999
    ms += 1000;
    --second;
  }
  thread_local PrefixCache prefix;
  const std::size_t prefixLen = prefix.write(line, static_cast<std::time_t>(second), ms);

  va_list fallback;  // the arguments from the start, for vsnprintf
  va_copy(fallback, args);
  const std::size_t room = kLineSize - 1 - prefixLen;
  if (!FastFormat::formatTo(line + prefixLen, room, format, args)) {
    std::vsnprintf(line + prefixLen, room, format, fallback);
  }
  va_end(fallback);
  return prefixLen + std::strlen(line + prefixLen);
}

std::size_t printLogLine(char* line, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const std::size_t size = formatLogLine(line, format, args);
  va_end(args);
  return size;
}

}  // namespace zel

using zel::Logger;

extern "C" {

int log_print(int level, int flag, const char* format, ...) {
  char line[zel::kLineSize];
  va_list args;
  va_start(args, format);
  const std::size_t lineLen = zel::formatLogLine(line, format, args);
  va_end(args);

  // No exception leaves log_print: a Logger that cannot be made (memory, a
  // thread that cannot start) or a line that cannot be queued drops the
  // line.
  try {
    Logger* logger = zel::sCachedLogger.load(std::memory_order_acquire);
    if (logger == nullptr) {
      logger = Logger::GetInstance();
      zel::sCachedLogger.store(logger, std::memory_order_release);
      if (logger == nullptr) return 0;
    }
    logger->postLine(line, lineLen, level, flag != 0);
  } catch (...) {
  }
  return 0;
}

int zel_log_level(void) { return zel::sLogLevel.load(std::memory_order_relaxed); }

void zel_set_log_level(char level) {
  zel::sLogLevel.store(static_cast<signed char>(level), std::memory_order_relaxed);
}

}  // extern "C"
