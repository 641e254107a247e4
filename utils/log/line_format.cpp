// SPDX-License-Identifier: MIT

#include "utils/log/internal/line_format.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <limits>
#include <string>
#include <type_traits>

#include "utils/log/internal/crash_drain.h"
#include "utils/log/internal/file_names.h"
#include "utils/log/internal/line_queue.h"
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

// Copies `n` bytes from `in` to `out`, as memcpy. The texts of a line (a
// string argument, a run of the format) are mostly a few bytes: those are
// copied in two overlapping moves. For a length it knows to be bounded
// the compiler otherwise inlines a string instruction, whose start-up
// costs more than such a text; a longer one goes to the C library's copy.
inline void copyBytes(char* out, const char* in, std::size_t n) {
  if (n >= 16) {
#if defined(__GNUC__)
    asm("" : "+r"(n));  // the bound is forgotten: the library's copy is called
#endif
    std::memcpy(out, in, n);
  } else if (n >= 8) {
    uint64_t head;
    uint64_t tail;
    std::memcpy(&head, in, 8);
    std::memcpy(&tail, in + n - 8, 8);
    std::memcpy(out, &head, 8);
    std::memcpy(out + n - 8, &tail, 8);
  } else if (n >= 4) {
    uint32_t head;
    uint32_t tail;
    std::memcpy(&head, in, 4);
    std::memcpy(&tail, in + n - 4, 4);
    std::memcpy(out, &head, 4);
    std::memcpy(out + n - 4, &tail, 4);
  } else if (n > 0) {
    out[0] = in[0];
    out[n / 2] = in[n / 2];
    out[n - 1] = in[n - 1];
  }
}

// Writes `value` in decimal, at least `width` digits (zero-padded), at
// `out`; returns the end. As printf's "%0*llu".
char* writeDecimal(char* out, unsigned long long value, int width = 1) {
  char digits[24];
  int n = 0;
  unsigned long long v = value;
  do {
    digits[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  while (n < width) digits[n++] = '0';
  while (n > 0) *out++ = digits[--n];
  return out;
}

// Writes the calendar part of a prefix, "[M-D hh:mm:ss.", for `tm` at
// `out`; returns the end. The callers' prefix and the writer's share it.
char* writeCalendarPart(char* out, const std::tm& tm) {
  *out++ = '[';
  out = writeDecimal(out, static_cast<unsigned long long>(tm.tm_mon + 1));
  *out++ = '-';
  out = writeDecimal(out, static_cast<unsigned long long>(tm.tm_mday));
  *out++ = ' ';
  out = writeDecimal(out, static_cast<unsigned long long>(tm.tm_hour), 2);
  *out++ = ':';
  out = writeDecimal(out, static_cast<unsigned long long>(tm.tm_min), 2);
  *out++ = ':';
  out = writeDecimal(out, static_cast<unsigned long long>(tm.tm_sec), 2);
  *out++ = '.';
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
    if (tailLen_ == 0) setThread(platform::currentThreadId());
    return writeHere(buf, second, ms);
  }

 private:
  void setThread(uint64_t tid) {
    char* end = writeDecimal(tid_, static_cast<unsigned long long>(tid));
    *end = '\0';
    char* out = tail_;
    std::memcpy(out, "][tid:", 6);
    out += 6;
    const auto digits = static_cast<std::size_t>(end - tid_);
    std::memcpy(out, tid_, digits);
    out += digits;
    *out++ = ']';
    *out++ = ' ';
    tailLen_ = static_cast<std::size_t>(out - tail_);
  }

  std::size_t writeHere(char* buf, std::time_t second, long ms) {
    if (second != second_ || headLen_ == 0) {
      const std::tm& tm = localTimeOf(second);
      if (tm.tm_mon + 1 < 0 || tm.tm_mday < 0 || tm.tm_hour < 0 || tm.tm_min < 0 || tm.tm_sec < 0) {
        // Not a time localtime gives; leave such a case to snprintf.
        const int n = platform::formatLogPrefix(buf, kPrefixSize, tm, ms, tid_);
        headLen_ = 0;
        return n < 0 ? (buf[0] = '\0', 0) : std::strlen(buf);
      }
      headLen_ = static_cast<std::size_t>(writeCalendarPart(head_, tm) - head_);
      second_ = second;
    }
    std::memcpy(buf, head_, headLen_);
    char* out = writeDecimal(buf + headLen_, static_cast<unsigned long long>(ms), 3);
    std::memcpy(out, tail_, tailLen_);
    out += tailLen_;
    *out = '\0';
    return static_cast<std::size_t>(out - buf);
  }

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
// formatTo() give up, and the caller formats the line another way. It stops
// as soon as the line is full: what would follow is cut anyway, and a width
// is never written further than the line has room for.
class FastFormat {
  struct Directive {
    bool left = false;
    bool zero = false;
    std::size_t width = 0;
    char length = 0;  // 0, 'l', 'L' (ll) or 'z'
    char conv = 0;
  };
  struct Sink;

 public:
  // Formats as vsnprintf(out, size, format, args) would and returns true;
  // `size` is at least 1. Returns false at the first conversion it does not
  // handle, before reading that conversion's argument, with `out` holding
  // an unfinished text: the format is read once, in the same pass.
  static bool formatTo(char* out, std::size_t size, const char* format, va_list args) {
    va_list ap;  // one list that every reader below advances, on every ABI
    va_copy(ap, args);
    VaArguments source{&ap};
    const bool done = formatWith(out, size, format, std::strlen(format), &source);
    va_end(ap);
    return done;
  }

  // Reads the arguments that `format` takes from `args` into `captured`, as
  // formatTo() would read them: numbers as 8 bytes, strings copied (at most
  // what a line can show, with their whole length). False, with `captured`
  // unfinished, when the format has a conversion formatTo() does not handle
  // or more than kMaxCapturedArguments arguments. With `plans`, a format
  // whose text equals the plan at its address is not read again, and one
  // read here leaves its plan.
  static bool capture(const char* format, va_list args, FormatPlans* plans,
                      CapturedLine* captured) {
    FormatPlan* plan = plans != nullptr ? &plans->slotOf(format) : nullptr;
    // strncmp stops at the first NUL: nothing past the end of a shorter
    // text now at the address is read.
    if (plan != nullptr && plan->key == format &&
        std::strncmp(plan->text, format, std::size_t{plan->length} + 1) == 0) {
      if (!plan->capturable) return false;
      va_list ap;
      va_copy(ap, args);
      captureByPlan(*plan, &ap, captured);
      va_end(ap);
      return true;
    }
    va_list ap;
    va_copy(ap, args);
    const bool done = captureFrom(format, &ap, captured, plan);
    va_end(ap);
    return done;
  }

  // Formats a line captured by capture() and stored by
  // CapturedLine::write(), as formatTo() formats the original.
  // Returns the text's length (as strlen(out)).
  static std::size_t formatCaptured(char* out, std::size_t size, const char* format,
                                    std::size_t formatLength, const char* arguments) {
    StoredArguments source{arguments};
    std::size_t length = 0;
    formatWith(out, size, format, formatLength, &source, &length);
    return length;
  }

  // The bytes of a string argument that are kept: no line shows more.
  static std::size_t shownLength(std::size_t length) {
    return length < kLineSize ? length : kLineSize;
  }

 private:
  // Reads the format and its arguments; with `plan`, leaves there what it
  // learnt of the format.
  static bool captureFrom(const char* format, va_list* ap, CapturedLine* captured,
                          FormatPlan* plan) {
    if (plan != nullptr) plan->key = nullptr;
    captured->arguments = 0;
    captured->payloadSize = 0;
    const char* p = format;
    bool capturable = true;
    for (;; ++p) {
      // Straight to the next conversion (the C library's search is
      // vectorised); the end of the format when there is none.
      const char* percent = std::strchr(p, '%');
      if (percent == nullptr) {
        p += std::strlen(p);
        break;
      }
      Directive directive;
      p = parseDirective(percent + 1, &directive);
      if (p == nullptr || (directive.conv != '%' && captured->arguments == kMaxCapturedArguments)) {
        capturable = false;
        break;
      }
      if (directive.conv == '%') continue;
      if (plan != nullptr) {
        plan->conv[captured->arguments] = directive.conv;
        plan->lengthModifier[captured->arguments] = directive.length;
      }
      captured->payloadSize +=
          captureArgument(directive, ap, &captured->argument[captured->arguments++]);
    }
    const std::size_t length =
        capturable ? static_cast<std::size_t>(p - format) : std::strlen(format);
    if (plan != nullptr && length < kPlannedFormatSize) {
      std::memcpy(plan->text, format, length + 1);
      plan->length = static_cast<uint16_t>(length);
      plan->capturable = capturable;
      plan->arguments = static_cast<uint8_t>(captured->arguments);
      plan->key = format;
    }
    if (!capturable) return false;
    captured->formatLength = length;
    captured->payloadSize += kCapturedHeader + length;
    return true;
  }

  // captureFrom() for a format read before, with its plan.
  static void captureByPlan(const FormatPlan& plan, va_list* ap, CapturedLine* captured) {
    std::size_t payload = 0;
    for (std::size_t i = 0; i < plan.arguments; ++i) {
      Directive directive;
      directive.conv = plan.conv[i];
      directive.length = plan.lengthModifier[i];
      payload += captureArgument(directive, ap, &captured->argument[i]);
    }
    captured->arguments = plan.arguments;
    captured->formatLength = plan.length;
    captured->payloadSize = payload + kCapturedHeader + plan.length;
  }

  // Reads the argument of `directive` (a conversion, not "%%") into
  // `argument`; returns the bytes CapturedLine::write() stores for it.
  static std::size_t captureArgument(const Directive& directive, va_list* ap,
                                     CapturedLine::Argument* argument) {
    if (directive.conv == 's') {
      const char* text = va_arg(*ap, const char*);
      if (text == nullptr) text = "(null)";
      argument->text = text;
      argument->value = std::strlen(text);
      argument->size = 4;
      return 4 + shownLength(argument->value);
    }
    argument->text = nullptr;
    argument->value = readNumber(directive, ap);
    argument->size = storedSize(directive);
    return argument->size;
  }

  // The arguments of a call, read from its va_list.
  struct VaArguments {
    va_list* ap;
    unsigned long long number(const Directive& directive) { return readNumber(directive, ap); }
    // A string and its length.
    const char* text(std::size_t* length) {
      const char* text = va_arg(*ap, const char*);
      if (text == nullptr) text = "(null)";
      *length = std::strlen(text);
      return text;
    }
  };

  // The arguments as CapturedLine::write() stored them.
  // The bytes a number of `directive` is stored in: an int (no length
  // modifier, and %c) in 4, the others in 8.
  static uint8_t storedSize(const Directive& directive) { return directive.length == 0 ? 4 : 8; }

  struct StoredArguments {
    const char* at;
    unsigned long long number(const Directive& directive) {
      if (storedSize(directive) == 4) {
        // Stored as the int's bits: signed conversions (and %c, which
        // takes an int) sign-extend them, as readNumber() did.
        uint32_t bits;
        std::memcpy(&bits, at, 4);
        at += 4;
        const bool isSigned =
            directive.conv == 'd' || directive.conv == 'i' || directive.conv == 'c';
        return isSigned ? static_cast<unsigned long long>(
                              static_cast<long long>(static_cast<int32_t>(bits)))
                        : bits;
      }
      unsigned long long value;
      std::memcpy(&value, at, 8);
      at += 8;
      return value;
    }
    const char* text(std::size_t* length) {
      // The length is held at 2^32 - 1: no width (at most INT_MAX) pads a
      // string that long, so its padding stays what the whole length gives.
      uint32_t whole;
      std::memcpy(&whole, at, 4);
      at += 4;
      *length = static_cast<std::size_t>(whole);
      const char* text = at;
      at += shownLength(*length);
      return text;
    }
  };

  // With `length`, stores there the length of the text made (as
  // strlen(out)).
  template <typename Source>
  static bool formatWith(char* out, std::size_t size, const char* format, std::size_t formatLength,
                         Source* source, std::size_t* length = nullptr) {
    Sink sink{out, out + size - 1};
    bool nul = false;  // a %c of 0 ends the text as a C string where it stands
    const char* const formatEnd = format + formatLength;
    for (const char* p = format; p != formatEnd; ++p) {
      if (sink.pos == sink.end) break;  // full: the rest would be cut
      if (*p != '%') {
        // The text up to the next conversion in one copy.
        const void* percent = std::memchr(p, '%', static_cast<std::size_t>(formatEnd - p));
        const char* end = percent != nullptr ? static_cast<const char*>(percent) : formatEnd;
        sink.put(p, static_cast<std::size_t>(end - p));
        p = end - 1;
        continue;
      }
      Directive directive;
      p = parseDirective(p + 1, &directive);
      if (p == nullptr) return false;
      putConversion(&sink, directive, source, &nul);
    }
    return finish(out, sink, nul, length);
  }

  // Terminates the text formatWith() or formatPlanned() made; see there.
  static bool finish(char* out, const Sink& sink, bool nul, std::size_t* length) {
    *sink.pos = '\0';
    if (length != nullptr)
      *length = nul ? std::strlen(out) : static_cast<std::size_t>(sink.pos - out);
    return true;
  }

  // Writes the conversion `directive` of the next argument of `source`;
  // sets `*nul` when it writes a character 0.
  template <typename Source>
  static void putConversion(Sink* sink, const Directive& directive, Source* source, bool* nul) {
    switch (directive.conv) {
      case '%':
        sink->put('%');
        break;
      case 'c': {
        const char c = static_cast<char>(source->number(directive));
        *nul = *nul || c == '\0';
        pad(sink, directive, 1, [sink, c] { sink->put(c); });
        break;
      }
      case 's': {
        std::size_t len = 0;
        const char* text = source->text(&len);
        // Only what the line has room for is read (a stored string keeps
        // no more), while the padding counts the whole length.
        pad(sink, directive, len, [sink, text, len] { sink->put(text, len); });
        break;
      }
      case 'd':
      case 'i': {
        const auto v = static_cast<long long>(source->number(directive));
        const bool negative = v < 0;
        const unsigned long long magnitude = negative ? 0ULL - static_cast<unsigned long long>(v)
                                                      : static_cast<unsigned long long>(v);
        putNumber(sink, directive, magnitude, negative, 10, false);
        break;
      }
      default: {  // u x X
        const unsigned long long v = source->number(directive);
        putNumber(sink, directive, v, false, directive.conv == 'u' ? 10 : 16,
                  directive.conv == 'X');
        break;
      }
    }
  }

 public:
  // A format the writer formatted before, read into its steps: each a run
  // of text, then a conversion (none after the last run).
  struct Step {
    uint16_t textAt = 0;  // the run's place in the format, and its length
    uint16_t textLength = 0;
    Directive directive;  // conv 0: no conversion
  };
  static constexpr std::size_t kMaxSteps = 2 * kMaxCapturedArguments;
  struct WriterPlan {
    std::size_t length = SIZE_MAX;  // SIZE_MAX: no format
    std::size_t steps = 0;
    Step step[kMaxSteps];
    char text[kPlannedFormatSize];
  };

  // Reads the `formatLength` characters of `format` into `plan`. False,
  // with `plan` holding no format, when it is not one formatWith() takes
  // or has too many steps to keep.
  static bool planFormat(const char* format, std::size_t formatLength, WriterPlan* plan) {
    plan->length = SIZE_MAX;
    plan->steps = 0;
    if (formatLength >= kPlannedFormatSize) return false;
    const char* const formatEnd = format + formatLength;
    const char* run = format;
    for (const char* p = format;; ++p) {
      if (p != formatEnd && *p != '%') continue;
      if (plan->steps == kMaxSteps) return false;
      Step& step = plan->step[plan->steps++];
      step = Step{};  // a slot used before keeps its old steps
      step.textAt = static_cast<uint16_t>(run - format);
      step.textLength = static_cast<uint16_t>(p - run);
      if (p == formatEnd) break;
      p = parseDirective(p + 1, &step.directive);
      if (p == nullptr) return false;
      run = p + 1;
    }
    std::memcpy(plan->text, format, formatLength);
    plan->length = formatLength;
    return true;
  }

  // formatWith() for a format read by planFormat() into `plan`, with the
  // arguments stored by CapturedLine::write() at `arguments`.
  static std::size_t formatPlanned(char* out, std::size_t size, const WriterPlan& plan,
                                   const char* arguments) {
    StoredArguments source{arguments};
    Sink sink{out, out + size - 1};
    bool nul = false;
    for (std::size_t i = 0; i < plan.steps && sink.pos != sink.end; ++i) {
      const Step& step = plan.step[i];
      sink.put(plan.text + step.textAt, step.textLength);
      if (step.directive.conv != 0) putConversion(&sink, step.directive, &source, &nul);
    }
    std::size_t length = 0;
    finish(out, sink, nul, &length);
    return length;
  }

 private:
  // The argument of a %c %d %i %u %x %X conversion, read with the type its
  // length modifier gives it: signed ones sign-extended, unsigned ones
  // zero-extended to 64 bits.
  static unsigned long long readNumber(const Directive& directive, va_list* ap) {
    const bool isSigned = directive.conv == 'd' || directive.conv == 'i' || directive.conv == 'c';
    if (directive.length == 'l') {
      return isSigned ? static_cast<unsigned long long>(va_arg(*ap, long))
                      : va_arg(*ap, unsigned long);
    }
    if (directive.length == 'L') {
      return isSigned ? static_cast<unsigned long long>(va_arg(*ap, long long))
                      : va_arg(*ap, unsigned long long);
    }
    if (directive.length == 'z') {
      // %zd reads a size_t's bits as signed.
      const std::size_t v = va_arg(*ap, std::size_t);
      return isSigned ? static_cast<unsigned long long>(
                            static_cast<long long>(static_cast<std::ptrdiff_t>(v)))
                      : v;
    }
    return isSigned ? static_cast<unsigned long long>(va_arg(*ap, int)) : va_arg(*ap, unsigned int);
  }

 private:
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
      copyBytes(pos, text, len);
      pos += len;
    }
    void fill(char c, std::size_t n) {
      const auto room = static_cast<std::size_t>(end - pos);
      if (n > room) n = room;
      std::memset(pos, c, n);
      pos += n;
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
      // A width past INT_MAX is an error of vsnprintf's, left to it.
      if (directive->width > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        return nullptr;
      }
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
  static void pad(Sink* sink, const Directive& directive, std::size_t len, Body body) {
    const std::size_t fill = directive.width > len ? directive.width - len : 0;
    if (!directive.left) sink->fill(' ', fill);
    body();
    if (directive.left) sink->fill(' ', fill);
  }

  static void putNumber(Sink* sink, const Directive& directive, unsigned long long v, bool negative,
                        unsigned base, bool upper) {
    // The digits from the last, at the end of `digits`; each base with
    // its own constant, so that no division instruction is needed.
    char digits[24];
    char* const end = digits + sizeof(digits);
    char* first = end;
    if (base == 16) {
      const char* symbols = upper ? "0123456789ABCDEF" : "0123456789abcdef";
      do {
        *--first = symbols[v & 15];
        v >>= 4;
      } while (v != 0);
    } else {
      do {
        *--first = static_cast<char>('0' + v % 10);
        v /= 10;
      } while (v != 0);
    }
    const auto n = static_cast<std::size_t>(end - first);
    const std::size_t len = n + (negative ? 1 : 0);
    const std::size_t fill = directive.width > len ? directive.width - len : 0;
    if (directive.left) {
      if (negative) sink->put('-');
      sink->put(first, n);
      sink->fill(' ', fill);
    } else if (directive.zero) {
      if (negative) sink->put('-');
      sink->fill('0', fill);
      sink->put(first, n);
    } else {
      sink->fill(' ', fill);
      if (negative) sink->put('-');
      sink->put(first, n);
    }
  }
};

// The formatter for what FastFormat does not handle: every conversion of
// standard C (the flags - + space # 0, widths and precisions in digits or
// '*', the length modifiers hh h l ll j z t L), formatted one conversion at
// a time with snprintf into the room
// left in the line, and stopped as soon as the line is full. A width or
// precision larger than the room is first brought down to a value that
// gives the same first characters, so that no conversion costs more than
// the line: the result is byte for byte what vsnprintf gives, cut at the
// same place. A format with a positional argument ("%1$d"), %n, an
// extension of one C library or another (%m, %I64d, the ' flag...) or a
// mistake is left to vsnprintf whole.
class BoundedFormat {
 public:
  // As FastFormat::formatTo(); returns false, having read no argument and
  // written nothing, when the format is one that is left to vsnprintf, or
  // (then with `out` unfinished) when snprintf fails on a conversion (an
  // invalid wide character), so that vsnprintf reports it as it always has.
  static bool formatTo(char* out, std::size_t size, const char* format, va_list args) {
    for (const char* p = format; *p != '\0'; ++p) {
      if (*p != '%') continue;
      Directive directive;
      p = parse(p + 1, &directive);
      if (p == nullptr) return false;
    }
    va_list ap;  // one list that every reader below advances, on every ABI
    va_copy(ap, args);
    const bool done = formatChecked(out, size, format, &ap);
    va_end(ap);
    return done;
  }

 private:
  // How far past the room a precision of `conv` must stay for the first
  // characters to stay the same (see formatChecked()).
  static std::size_t slackOf(char conv) {
    // A null string prints "(null)" whole or (with a precision below 6)
    // not at all in some C libraries: a cut precision stays at 6 or more.
    if (conv == 's') return 6;
    if (std::strchr("fFeEgGaA", conv) != nullptr) return 16500;
    return 32;
  }

  // formatTo() on a format that parse() accepts throughout.
  static bool formatChecked(char* out, std::size_t size, const char* format, va_list* ap) {
    const int savedErrno = errno;
    char* pos = out;
    char* const end = out + size - 1;
    for (const char* p = format; *p != '\0'; ++p) {
      if (pos == end) break;  // full: the rest would be cut
      if (*p != '%') {
        *pos++ = *p;
        continue;
      }
      Directive d;
      p = parse(p + 1, &d);
      if (d.conv == '%') {
        *pos++ = '%';
        continue;
      }
      int width = 0;
      bool hasWidth = false;
      int precision = -1;
      bool left = d.left;
      if (!takeWidthAndPrecision(d, ap, &width, &hasWidth, &precision, &left)) return false;
      const auto room = static_cast<std::size_t>(end - pos);
      // A precision past the room and past every digit the value can have
      // gives the same first `room` characters as a larger one: an integer
      // has at most 22 digits, and the exact decimal expansion of a long
      // double fewer than 16,500; a string shows no more than the room,
      // a null one its six letters.
      const std::size_t slack = slackOf(d.conv);
      const int requested = precision;
      if (precision >= 0 && static_cast<std::size_t>(precision) > room + slack) {
        precision = static_cast<int>(room + slack);
      }
      char pattern[24];
      d.writePattern(pattern, left, precision >= 0);
      Argument argument;
      argument.fetch(d, ap);
      if (hasWidth && (static_cast<std::size_t>(width) > room || precision != requested)) {
        errno = savedErrno;
        const int natural = argument.print(nullptr, 0, pattern, 0, precision);
        if (natural < 0) return false;
        if (precision != requested) {
          // The text is shorter by what the cut precision took from it: the
          // width loses as much, so that the padding in front stays what it
          // was (a width below the whole text's length pads nothing).
          std::size_t taken = 0;
          if (d.conv != 's') {
            // Past every digit of the value, each further unit of precision
            // adds one character (a zero) or none at all (a character, an
            // infinity, a not-a-number, the shortest form without '#'):
            // one unit less tells which.
            errno = savedErrno;
            const int shorter = argument.print(nullptr, 0, pattern, 0, precision - 1);
            if (shorter < 0) return false;
            if (shorter < natural) taken = static_cast<std::size_t>(requested - precision);
          } else if (d.length[0] == '\0') {
            const auto* text = static_cast<const char*>(argument.value.p);
            const std::size_t whole = text == nullptr
                                          ? static_cast<std::size_t>(natural)
                                          : strnlen(text, static_cast<std::size_t>(requested));
            taken = whole - static_cast<std::size_t>(natural);
          } else {
            return false;  // a wide string's length in bytes is vsnprintf's to tell
          }
          width = static_cast<std::size_t>(width) > taken ? width - static_cast<int>(taken) : 0;
        }
        // Padding past room + the text's own length only adds characters
        // that are cut: right-aligned, the first `room` are padding either
        // way; left-aligned, the text and then padding.
        const std::size_t bound = room + static_cast<std::size_t>(natural);
        if (static_cast<std::size_t>(width) > bound) width = static_cast<int>(bound);
      }
      errno = savedErrno;
      const int n = argument.print(pos, room + 1, pattern, hasWidth ? width : 0, precision);
      if (n < 0) return false;
      pos += static_cast<std::size_t>(n) < room ? static_cast<std::size_t>(n) : room;
    }
    *pos = '\0';
    errno = savedErrno;
    return true;
  }

  struct Directive {
    char flags[8] = {0};  // '+', ' ', '#', '0' as given
    bool left = false;
    int width = -1;  // -1: none given in digits
    bool widthFromArgument = false;
    int precision = -1;  // -1: none
    bool precisionFromArgument = false;
    char length[3] = {0};  // "", "hh", "h", "l", "ll", "j", "z", "t" or "L"
    char conv = 0;

    // Writes "%<flags>*.*<length><conv>" (the width always from an
    // argument, the precision only when `withPrecision`) into `out` (24
    // bytes); '-' when `leftAligned`.
    void writePattern(char* out, bool leftAligned, bool withPrecision) const {
      *out++ = '%';
      if (leftAligned) *out++ = '-';
      for (const char* f = flags; *f != '\0'; ++f) *out++ = *f;
      *out++ = '*';
      if (withPrecision) {
        *out++ = '.';
        *out++ = '*';
      }
      for (const char* l = length; *l != '\0'; ++l) *out++ = *l;
      *out++ = conv;
      *out = '\0';
    }
  };

  // One argument of a conversion, read with the type its conversion and
  // length modifier give it.
  struct Argument {
    enum Kind {
      kInt,
      kLong,
      kLongLong,
      kIntMax,
      kSize,
      kPtrdiff,
      kDouble,
      kLongDouble,
      kPointer,
      kWint
    } kind = kInt;
    union {
      int i;
      long l;
      long long ll;
      intmax_t im;
      std::size_t z;
      std::ptrdiff_t t;
      double d;
      long double ld;
      const void* p;
      wint_t wc;
    } value{};

    void fetch(const Directive& d, va_list* ap) {
      const char* length = d.length;
      if (std::strchr("diouxX", d.conv) != nullptr) {
        // Unsigned conversions read the same bits through the signed type.
        if (length[0] == '\0' || length[0] == 'h') {
          kind = kInt;
          value.i = va_arg(*ap, int);
        } else if (std::strcmp(length, "l") == 0) {
          kind = kLong;
          value.l = va_arg(*ap, long);
        } else if (std::strcmp(length, "ll") == 0) {
          kind = kLongLong;
          value.ll = va_arg(*ap, long long);
        } else if (length[0] == 'j') {
          kind = kIntMax;
          value.im = va_arg(*ap, intmax_t);
        } else if (length[0] == 'z') {
          kind = kSize;
          value.z = va_arg(*ap, std::size_t);
        } else {  // t
          kind = kPtrdiff;
          value.t = va_arg(*ap, std::ptrdiff_t);
        }
      } else if (std::strchr("fFeEgGaA", d.conv) != nullptr) {
        if (length[0] == 'L') {
          kind = kLongDouble;
          value.ld = va_arg(*ap, long double);
        } else {
          kind = kDouble;
          value.d = va_arg(*ap, double);
        }
      } else if (d.conv == 'c' && length[0] == 'l') {
        kind = kWint;
        // A wint_t narrower than int (Windows: unsigned short) arrives
        // promoted to int.
        using Passed = std::conditional_t<(sizeof(wint_t) < sizeof(int)), int, wint_t>;
        value.wc = static_cast<wint_t>(va_arg(*ap, Passed));
      } else if (d.conv == 'c') {
        kind = kInt;
        value.i = va_arg(*ap, int);
      } else {  // s p
        kind = kPointer;
        value.p = va_arg(*ap, const void*);
      }
    }

    // snprintf(out, size, pattern, width[, precision], value).
    int print(char* out, std::size_t size, const char* pattern, int width, int precision) const {
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
#endif
      if (precision >= 0) {
        switch (kind) {
          case kInt:
            return std::snprintf(out, size, pattern, width, precision, value.i);
          case kLong:
            return std::snprintf(out, size, pattern, width, precision, value.l);
          case kLongLong:
            return std::snprintf(out, size, pattern, width, precision, value.ll);
          case kIntMax:
            return std::snprintf(out, size, pattern, width, precision, value.im);
          case kSize:
            return std::snprintf(out, size, pattern, width, precision, value.z);
          case kPtrdiff:
            return std::snprintf(out, size, pattern, width, precision, value.t);
          case kDouble:
            return std::snprintf(out, size, pattern, width, precision, value.d);
          case kLongDouble:
            return std::snprintf(out, size, pattern, width, precision, value.ld);
          case kPointer:
            return std::snprintf(out, size, pattern, width, precision, value.p);
          case kWint:
            return std::snprintf(out, size, pattern, width, precision, value.wc);
        }
        return -1;
      }
      switch (kind) {
        case kInt:
          return std::snprintf(out, size, pattern, width, value.i);
        case kLong:
          return std::snprintf(out, size, pattern, width, value.l);
        case kLongLong:
          return std::snprintf(out, size, pattern, width, value.ll);
        case kIntMax:
          return std::snprintf(out, size, pattern, width, value.im);
        case kSize:
          return std::snprintf(out, size, pattern, width, value.z);
        case kPtrdiff:
          return std::snprintf(out, size, pattern, width, value.t);
        case kDouble:
          return std::snprintf(out, size, pattern, width, value.d);
        case kLongDouble:
          return std::snprintf(out, size, pattern, width, value.ld);
        case kPointer:
          return std::snprintf(out, size, pattern, width, value.p);
        case kWint:
          return std::snprintf(out, size, pattern, width, value.wc);
      }
      return -1;
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
    }
  };

  // The width and precision of the directive `d`, taken from the arguments
  // where it says so: a negative width from the arguments is the '-' flag
  // (`*left`) and the width's magnitude. False for INT_MIN, which has none
  // that fits (vsnprintf fails).
  static bool takeWidthAndPrecision(const Directive& d, va_list* ap, int* width, bool* hasWidth,
                                    int* precision, bool* left) {
    if (d.widthFromArgument) {
      *width = va_arg(*ap, int);
      *hasWidth = true;
    } else if (d.width >= 0) {
      *width = d.width;
      *hasWidth = true;
    }
    *precision = d.precisionFromArgument ? va_arg(*ap, int) : d.precision;
    if (*hasWidth && *width < 0) {
      if (*width == std::numeric_limits<int>::min()) return false;
      *left = true;
      *width = -*width;
    }
    return true;
  }

  // Reads a number of digits at `*p`; false when it passes INT_MAX.
  static bool readNumber(const char** p, int* number) {
    long long n = 0;
    while (**p >= '0' && **p <= '9') {
      n = n * 10 + (**p - '0');
      if (n > std::numeric_limits<int>::max()) return false;
      ++*p;
    }
    *number = static_cast<int>(n);
    return true;
  }

  // Parses the conversion after a '%' into `d`; returns its last character,
  // or null when the format is to be left to vsnprintf.
  static const char* parse(const char* p, Directive* d) {
    if (*p == '%') {
      d->conv = '%';
      return p;
    }
    std::size_t nFlags = 0;
    for (;; ++p) {
      if (*p == '-') {
        d->left = true;
      } else if (*p == '+' || *p == ' ' || *p == '#' || *p == '0') {
        // Each flag once is enough: a repeated one changes nothing.
        if (std::strchr(d->flags, *p) == nullptr) {
          if (nFlags + 1 >= sizeof(d->flags)) return nullptr;
          d->flags[nFlags++] = *p;
        }
      } else {
        break;
      }
    }
    if (*p == '*') {
      d->widthFromArgument = true;
      ++p;
    } else if (*p >= '1' && *p <= '9') {
      if (!readNumber(&p, &d->width)) return nullptr;
    }
    if (*p == '$') return nullptr;  // a positional argument
    if (*p == '.') {
      ++p;
      if (*p == '*') {
        d->precisionFromArgument = true;
        ++p;
      } else {
        d->precision = 0;
        if (!readNumber(&p, &d->precision)) return nullptr;
      }
    }
    // A '*' followed by digits and '$' asks for a positional width.
    if (*p == '$' || (*p >= '0' && *p <= '9')) return nullptr;
    std::size_t nLength = 0;
    if ((p[0] == 'h' && p[1] == 'h') || (p[0] == 'l' && p[1] == 'l')) {
      d->length[nLength++] = *p++;
      d->length[nLength++] = *p++;
    } else if (*p != '\0' && std::strchr("hljztL", *p) != nullptr) {
      d->length[nLength++] = *p++;
    }
    if (*p == '\0' || std::strchr("diouxXfFeEgGaAcsp", *p) == nullptr) return nullptr;
    d->conv = *p;
    // The length modifiers that standard C gives each conversion.
    const char* length = d->length;
    bool valid;
    if (std::strchr("diouxX", *p) != nullptr) {
      valid = length[0] != 'L';
    } else if (std::strchr("fFeEgGaA", *p) != nullptr) {
      valid = length[0] == '\0' || std::strcmp(length, "l") == 0 || length[0] == 'L';
    } else if (*p == 'c' || *p == 's') {
      valid = length[0] == '\0' || std::strcmp(length, "l") == 0;
    } else {  // p
      valid = length[0] == '\0';
    }
    return valid ? p : nullptr;
  }
};

// Splits `timeMs` (milliseconds since 1970) into seconds and 0-999.
void splitTime(int64_t timeMs, int64_t* second, long* ms) {
  *second = timeMs / 1000;
  *ms = static_cast<long>(timeMs % 1000);
  if (*ms < 0) {  // before 1970: keep the field in 0-999
    *ms += 1000;
    --*second;
  }
}

// The local time of `second` as an offset from UTC, converted once per
// second and thread (`cache` is the calling thread's, as its own prefix
// did): the writer makes the prefix from the offset by arithmetic, never
// asking the time zone (whose lock a faulting thread may hold for good).
// False when the C library gives no local time for the second or one the
// prefix cannot show; the caller formats such a line itself.
bool localOffsetOf(int64_t second, LocalOffsetCache* cache, int32_t* offset) {
  int64_t& cachedSecond = cache->second;
  int32_t& cachedOffset = cache->offset;
  bool& cachedValid = cache->valid;
  if (second != cachedSecond) {
    const std::tm& tm = localTimeOf(static_cast<std::time_t>(second));
    cachedValid = tm.tm_mon >= 0 && tm.tm_mday >= 0 && tm.tm_hour >= 0 && tm.tm_min >= 0 &&
                  tm.tm_sec >= 0 && tm.tm_sec < 60;
    if (cachedValid) {
      const int64_t local =
          names::daysFromCivil(tm.tm_year + int64_t{1900}, static_cast<unsigned>(tm.tm_mon + 1),
                               static_cast<unsigned>(tm.tm_mday)) *
              86400 +
          tm.tm_hour * 3600 + tm.tm_min * 60 + tm.tm_sec;
      const int64_t difference = local - second;
      cachedValid = difference > -86400 * 2 && difference < 86400 * 2;
      cachedOffset = static_cast<int32_t>(difference);
    }
    cachedSecond = second;
  }
  *offset = cachedOffset;
  return cachedValid;
}

// The prefix of a line of the thread `threadId` posted at `timeMs` with the
// local time `offset` seconds from UTC, on the writer thread: the same text
// the caller's PrefixCache makes, with the calendar part rebuilt once per
// local second and the thread part once per thread.
std::size_t writePrefix(char* line, int64_t timeMs, int32_t offset, uint64_t threadId) {
  thread_local int64_t headSecond = std::numeric_limits<int64_t>::min();
  thread_local char head[48];
  thread_local std::size_t headLen = 0;
  thread_local uint64_t tailThread = 0;
  thread_local char tail[40];
  thread_local std::size_t tailLen = 0;
  int64_t second;
  long ms;
  splitTime(timeMs, &second, &ms);
  const int64_t local = second + offset;
  if (local != headSecond) {
    std::tm tm{};
    crash::calendarTime(local, &tm);
    headLen = static_cast<std::size_t>(writeCalendarPart(head, tm) - head);
    headSecond = local;
  }
  if (tailLen == 0 || threadId != tailThread) {
    std::memcpy(tail, "][tid:", 6);
    char* out = writeDecimal(tail + 6, static_cast<unsigned long long>(threadId));
    *out++ = ']';
    *out++ = ' ';
    tailLen = static_cast<std::size_t>(out - tail);
    tailThread = threadId;
  }
  std::memcpy(line, head, headLen);
  char* out = writeDecimal(line + headLen, static_cast<unsigned long long>(ms), 3);
  std::memcpy(out, tail, tailLen);
  out += tailLen;
  *out = '\0';
  return static_cast<std::size_t>(out - line);
}

}  // namespace

std::size_t formatLogLine(char* line, const char* format, va_list args) {
  return formatLogLineAt(line, platform::wallClockMs(), format, args);
}

std::size_t formatLogLineAt(char* line, int64_t timeMs, const char* format, va_list args) {
  // Neither the prefix nor the text is zero-filled: each is terminated where
  // it ends and nothing behind it is read.
  int64_t second;
  long ms;
  splitTime(timeMs, &second, &ms);
  thread_local PrefixCache prefix;
  const std::size_t prefixLen = prefix.write(line, static_cast<std::time_t>(second), ms);

  va_list bounded;   // the arguments from the start, for BoundedFormat
  va_list fallback;  // and for vsnprintf
  va_copy(bounded, args);
  va_copy(fallback, args);
  const std::size_t room = kLineSize - 1 - prefixLen;
  if (!FastFormat::formatTo(line + prefixLen, room, format, args) &&
      !BoundedFormat::formatTo(line + prefixLen, room, format, bounded)) {
    std::vsnprintf(line + prefixLen, room, format, fallback);
  }
  va_end(fallback);
  va_end(bounded);
  return prefixLen + std::strlen(line + prefixLen);
}

bool CapturedLine::capture(int64_t postedMs, LocalOffsetCache* cache, FormatPlans* plans,
                           const char* format, va_list args) {
  int64_t second;
  long ms;
  splitTime(postedMs, &second, &ms);
  timeMs = postedMs;
  return localOffsetOf(second, cache, &offset) && FastFormat::capture(format, args, plans, this);
}

void CapturedLine::write(char* out, const char* format) const {
  std::memcpy(out, &timeMs, 8);
  std::memcpy(out + 8, &offset, 4);
  const auto length = static_cast<uint32_t>(formatLength);
  std::memcpy(out + 12, &length, 4);
  copyBytes(out + kCapturedHeader, format, formatLength);
  out += kCapturedHeader + formatLength;
  for (std::size_t i = 0; i < arguments; ++i) {
    const Argument& a = argument[i];
    if (a.size == 4) {
      // The low 32 bits: an int's own, or a string's length held at
      // 2^32 - 1.
      const auto low =
          static_cast<uint32_t>(a.text != nullptr && a.value > UINT32_MAX ? UINT32_MAX : a.value);
      std::memcpy(out, &low, 4);
    } else {
      std::memcpy(out, &a.value, 8);
    }
    out += a.size;
    if (a.text != nullptr) {
      const std::size_t shown = FastFormat::shownLength(static_cast<std::size_t>(a.value));
      copyBytes(out, a.text, shown);
      out += shown;
    }
  }
}

struct WriterPlans {
  static constexpr std::size_t kPlans = 64;  // the slot is a hash's top 6 bits
  FastFormat::WriterPlan plan[kPlans];

  // The slot of the format of `length` characters at `format`, found from
  // its length and its first and last 8 characters (formats of one program
  // often begin alike: a tag, the file, the function).
  FastFormat::WriterPlan& slotOf(const char* format, std::size_t length) {
    uint64_t first = 0;
    uint64_t last = 0;
    if (length >= 8) {
      std::memcpy(&first, format, 8);
      std::memcpy(&last, format + length - 8, 8);
    } else {
      copyBytes(reinterpret_cast<char*>(&first), format, length);
    }
    uint64_t hash = (first * 0x9e3779b97f4a7c15ULL) ^ (last * 0xc2b2ae3d27d4eb4fULL) ^ length;
    hash ^= hash >> 29;
    return plan[(hash * 0x165667b19e3779f9ULL) >> 58];
  }
};

WriterPlans* newWriterPlans() noexcept {
  try {
    return new WriterPlans;
  } catch (...) {
    return nullptr;
  }
}

void deleteWriterPlans(WriterPlans* plans) noexcept { delete plans; }

std::size_t formatCapturedLine(char* line, const char* payload, uint64_t threadId,
                               WriterPlans* plans) {
  int64_t timeMs;
  std::memcpy(&timeMs, payload, 8);
  int32_t offset;
  std::memcpy(&offset, payload + 8, 4);
  uint32_t formatLength;
  std::memcpy(&formatLength, payload + 12, 4);
  const char* format = payload + kCapturedHeader;
  const std::size_t prefixLen = writePrefix(line, timeMs, offset, threadId);
  const std::size_t room = kLineSize - 1 - prefixLen;
  const char* arguments = format + formatLength;
  if (plans != nullptr) {
    FastFormat::WriterPlan& plan = plans->slotOf(format, formatLength);
    if ((plan.length == formatLength && std::memcmp(plan.text, format, formatLength) == 0) ||
        FastFormat::planFormat(format, formatLength, &plan)) {
      return prefixLen + FastFormat::formatPlanned(line + prefixLen, room, plan, arguments);
    }
  }
  return prefixLen +
         FastFormat::formatCaptured(line + prefixLen, room, format, formatLength, arguments);
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
  // No exception leaves log_print: a Logger that cannot be made (memory, a
  // thread that cannot start) or a line that cannot be queued drops the
  // line.
  // The line's time is the time of the call: read before anything else
  // (the first line also makes the Logger).
  const int64_t timeMs = zel::platform::wallClockMs();
  va_list args;
  va_start(args, format);
  try {
    Logger* logger = zel::sCachedLogger.load(std::memory_order_acquire);
    if (logger == nullptr) {
      logger = Logger::GetInstance();
      zel::sCachedLogger.store(logger, std::memory_order_release);
    }
    // The common formats are formatted on the writer thread, from the
    // time, the format and the arguments the queue keeps; the others (a
    // float, %n, %m, a precision...) here, as the caller's state gives
    // them. The line used to be built on this stack for every format: it
    // no longer is for the common ones, and its bytes are the same (the
    // prefix of this call's time and thread, the text as vsnprintf makes
    // it, cut at 4094 characters).
    zel::LineQueue* queue = zel::LineQueue::instance();
    if (queue == nullptr || !queue->postFormat(timeMs, format, args, level, flag != 0)) {
      char line[zel::kLineSize];
      const std::size_t lineLen = zel::formatLogLineAt(line, timeMs, format, args);
      logger->postLine(line, lineLen, level, flag != 0);
    }
  } catch (...) {
  }
  va_end(args);
  return 0;
}

int zel_log_level(void) { return zel::sLogLevel.load(std::memory_order_relaxed); }

void zel_set_log_level(char level) {
  zel::sLogLevel.store(static_cast<signed char>(level), std::memory_order_relaxed);
}

}  // extern "C"
