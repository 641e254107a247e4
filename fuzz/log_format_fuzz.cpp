// SPDX-License-Identifier: MIT

// Differential fuzzing of log_print's formatting: random formats made of
// every conversion, flag, width, precision and length modifier that the
// fast formatter handles ("%%", %d %i %u %x %X %s %c with '-', '0', a width
// and l, ll, z) and of many that it hands to vsnprintf (%o %p %f %F %e %E %g
// %G %a %A, '+', ' ', '#', precisions, '*', hh, h, j, t, L), with random
// arguments of the matching types. Supported and unsupported conversions are
// mixed in any order, so the fallback runs after the fast formatter has gone
// part of the way. The line a backend receives, less its prefix, must be
// byte for byte what snprintf makes of the same format and arguments, cut at
// its first NUL and at the line limit of 4094 characters. Each format is
// logged twice (the second time from what the thread learnt of it), and
// the formats of successive inputs often share an address: a thread that
// took a new text for the one it knew would show.
//
// Input layout: a stream of choice bytes read front to back (see
// Generator); an input that runs out reads zeros.
#include <ftw.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "fuzz/fuzz_log.h"
#include "fuzz/fuzz_util.h"
#include "utils/logger.h"

namespace {

using zel_fuzz::LastLine;
using zel_fuzz::RemoveLogTree;

LastLine* gBackend = nullptr;

// The C types an argument can have; each conversion takes exactly its own.
enum Kind { kInt, kUnsigned, kLong, kULong, kLLong, kULLong, kDouble, kLDouble, kText, kKinds };

struct Arg {
  Kind kind;
  long long i;
  unsigned long long u;
  double d;
  long double ld;
  const char* s;
};

// A conversion: its length modifier and letter, and the kind it takes.
struct Conversion {
  const char* letters;  // length modifier and conversion letter
  Kind kind;
};

const Conversion kConversions[] = {
    // Handled by the fast formatter (with the flags '-' and '0' and a width).
    {"d", kInt},
    {"i", kInt},
    {"u", kUnsigned},
    {"x", kUnsigned},
    {"X", kUnsigned},
    {"ld", kLong},
    {"li", kLong},
    {"lu", kULong},
    {"lx", kULong},
    {"lX", kULong},
    {"lld", kLLong},
    {"lli", kLLong},
    {"llu", kULLong},
    {"llx", kULLong},
    {"llX", kULLong},
    {"zd", kLong},
    {"zu", kULong},
    {"zx", kULong},
    {"zX", kULong},
    {"c", kInt},
    {"s", kText},
    // Handed to vsnprintf.
    {"o", kUnsigned},
    {"lo", kULong},
    {"llo", kULLong},
    {"hhd", kInt},
    {"hd", kInt},
    {"hhu", kUnsigned},
    {"hx", kUnsigned},
    {"jd", kLong},
    {"ju", kULong},
    {"td", kLong},
    {"tx", kULong},
    {"p", kText},
    {"f", kDouble},
    {"F", kDouble},
    {"e", kDouble},
    {"E", kDouble},
    {"g", kDouble},
    {"G", kDouble},
    {"a", kDouble},
    {"A", kDouble},
    {"Lf", kLDouble},
    {"Le", kLDouble},
    {"Lg", kLDouble},
    {"La", kLDouble},
};
constexpr std::size_t kConversionCount = sizeof(kConversions) / sizeof(kConversions[0]);

// At most this many arguments per line ('*' takes one of its own).
constexpr std::size_t kMaxArgs = 3;

// Reads the input as a stream of choices.
class Generator {
 public:
  Generator(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  unsigned Byte() { return at_ < size_ ? data_[at_++] : 0; }
  unsigned Below(unsigned n) { return Byte() % n; }
  bool Done() const { return at_ >= size_; }

  // Up to `max` bytes of the input as a text (it may hold any byte, NUL
  // included; a C text ends at the first).
  std::string Text(std::size_t max) {
    std::size_t n = Byte();
    if (n > 250) n = (n - 250) * 800;  // now and then a long one
    if (n > max) n = max;
    if (n > size_ - at_) n = size_ - at_;
    std::string text(reinterpret_cast<const char*>(data_ + at_), n);
    at_ += n;
    return text;
  }

  uint64_t Bits() {
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v = v << 8 | Byte();
    return v;
  }

 private:
  const uint8_t* data_;
  std::size_t size_;
  std::size_t at_ = 0;
};

// A signed value: now and then a limit, otherwise from the input.
long long SignedValue(Generator& g, Kind kind) {
  const long long limits[] = {0, -1, 1, INT_MIN, INT_MAX, LONG_MIN, LONG_MAX, -9};
  const long long v = g.Below(4) == 0 ? limits[g.Below(8)] : static_cast<long long>(g.Bits());
  return kind == kInt ? static_cast<int>(v) : v;
}

unsigned long long UnsignedValue(Generator& g, Kind kind) {
  const unsigned long long limits[] = {0, 1, UINT_MAX, ULONG_MAX, 0x80000000u, 255, 16, 4096};
  const unsigned long long v = g.Below(4) == 0 ? limits[g.Below(8)] : g.Bits();
  return kind == kUnsigned ? static_cast<unsigned>(v) : v;
}

double DoubleValue(Generator& g) {
  const double specials[] = {0.0,     -0.0,    1.0,      -1.5,      0.1, 1e300,
                             DBL_MIN, DBL_MAX, HUGE_VAL, -HUGE_VAL, NAN, 2.5};
  if (g.Below(3) == 0) return specials[g.Below(12)];
  const uint64_t bits = g.Bits();
  double d;
  std::memcpy(&d, &bits, sizeof(d));
  return d;
}

// Checks the line the backend received against `full`, what snprintf made
// of the same format and arguments.
void CheckLine(const std::string& format, const std::string& full) {
  zel_log_flush();
  const std::string line = gBackend->Take();
  const std::size_t tid = line.find("][tid:");
  if (line.empty() || line[0] != '[' || tid == std::string::npos) std::abort();
  const std::size_t end = line.find("] ", tid);
  if (end == std::string::npos) std::abort();
  const std::size_t prefixLength = end + 2;
  if (line.size() > 4094) std::abort();
  // Cut at the first NUL (the line is a C text) and at the line limit.
  const std::string expected =
      full.substr(0, std::strlen(full.c_str())).substr(0, 4094 - prefixLength);
  if (line.compare(prefixLength, std::string::npos, expected) != 0) {
    std::fprintf(stderr, "format [%s]\nline     [%s]\nexpected [%s]\n", format.c_str(),
                 line.c_str() + prefixLength, expected.c_str());
    std::abort();
  }
}

// Formats the line with snprintf for the check, and logs it twice: the
// second time the thread knows the format (its text at the same address)
// and does not read it again. Kept small: it is made once for every
// combination of argument types.
template <typename... T>
void Leaf(const std::string& format, T... args) {
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat-nonliteral"
#pragma clang diagnostic ignored "-Wformat-security"
  const int n = std::snprintf(nullptr, 0, format.c_str(), args...);
  if (n < 0) std::abort();
  std::string full(static_cast<std::size_t>(n) + 1, '\0');
  std::snprintf(&full[0], full.size(), format.c_str(), args...);
  full.resize(static_cast<std::size_t>(n));
  for (int time = 0; time < 2; ++time) {
    log_print(9, 1, format.c_str(), args...);
    CheckLine(format, full);
  }
#pragma clang diagnostic pop
}

// Passes args[k..n) to Leaf with their own C types, one level per argument.
template <std::size_t Depth, typename... T>
void Call(const std::string& format, const Arg* args, std::size_t n, std::size_t k, T... values) {
  if constexpr (Depth == 0) {
    Leaf(format, values...);
  } else {
    if (k == n) {
      Leaf(format, values...);
      return;
    }
    const Arg& a = args[k];
    switch (a.kind) {
      case kInt:
        Call<Depth - 1>(format, args, n, k + 1, values..., static_cast<int>(a.i));
        break;
      case kUnsigned:
        Call<Depth - 1>(format, args, n, k + 1, values..., static_cast<unsigned>(a.u));
        break;
      case kLong:
        Call<Depth - 1>(format, args, n, k + 1, values..., static_cast<long>(a.i));
        break;
      case kULong:
        Call<Depth - 1>(format, args, n, k + 1, values..., static_cast<unsigned long>(a.u));
        break;
      case kLLong:
        Call<Depth - 1>(format, args, n, k + 1, values..., a.i);
        break;
      case kULLong:
        Call<Depth - 1>(format, args, n, k + 1, values..., a.u);
        break;
      case kDouble:
        Call<Depth - 1>(format, args, n, k + 1, values..., a.d);
        break;
      case kLDouble:
        Call<Depth - 1>(format, args, n, k + 1, values..., a.ld);
        break;
      default:
        Call<Depth - 1>(format, args, n, k + 1, values..., a.s);
        break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  zel_set_log_level(-1);
  zel_set_log_path(zel_fuzz::ScratchDir().c_str());
  std::atexit(RemoveLogTree);
  zel::Logger::GetInstance()->SetLogFileInfo(1 << 20, 2);
  gBackend = new LastLine;
  zel::Logger::GetInstance()->RegisterBackend(gBackend);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Generator g(data, size);
  std::string format;
  Arg args[kMaxArgs];
  std::size_t n = 0;
  std::deque<std::string> texts;  // the %s arguments, alive until the end

  const auto takeInt = [&](long long value) {
    args[n++] = Arg{kInt, value, 0, 0.0, 0.0L, nullptr};
  };
  while (n < kMaxArgs && !g.Done()) {
    // Literal text, without '%' and NUL.
    for (unsigned i = g.Below(6); i > 0; --i) {
      const char c = static_cast<char>(g.Byte());
      format += c == '%' || c == '\0' ? '_' : c;
    }
    if (g.Below(8) == 0) format += "%%";
    format += '%';
    for (unsigned i = g.Below(4); i > 0; --i) format += "-0+ #"[g.Below(5)];
    switch (g.Below(5)) {
      case 1:
        format += std::to_string(g.Below(30));
        break;
      case 2:
        format += std::to_string(g.Byte() * 20);  // up to 5100, past the line
        break;
      case 3:
        if (n + 1 < kMaxArgs) {
          format += '*';
          takeInt(static_cast<int>(g.Byte() * 20) - 2550);  // negative: left-aligned
        }
        break;
      default:
        break;
    }
    switch (g.Below(5)) {
      case 1:
        format += "." + std::to_string(g.Below(20));
        break;
      case 2:
        format += "." + std::to_string(g.Byte() * 4);
        break;
      case 3:
        if (n + 1 < kMaxArgs) {
          format += ".*";
          takeInt(static_cast<int>(g.Byte()) - 20);  // negative: as if none
        }
        break;
      case 4:
        format += '.';
        break;
      default:
        break;
    }
    const Conversion& conversion = kConversions[g.Below(kConversionCount)];
    format += conversion.letters;
    Arg arg{conversion.kind, 0, 0, 0.0, 0.0L, nullptr};
    switch (conversion.kind) {
      case kInt:
      case kLong:
      case kLLong:
        arg.i = SignedValue(g, conversion.kind);
        break;
      case kUnsigned:
      case kULong:
      case kULLong:
        arg.u = UnsignedValue(g, conversion.kind);
        break;
      case kDouble:
        arg.d = DoubleValue(g);
        break;
      case kLDouble:
        arg.ld = static_cast<long double>(DoubleValue(g)) * (g.Below(2) == 0 ? 1.0L : 1e4000L);
        break;
      default:
        if (g.Below(16) == 0) {
          arg.s = nullptr;  // printed as "(null)" (or "(nil)" by %p)
        } else {
          texts.push_back(g.Text(6000));
          arg.s = texts.back().c_str();
        }
        break;
    }
    args[n++] = arg;
  }
  // Trailing literal text.
  for (unsigned i = g.Below(4); i > 0; --i) format += "ab\n\t"[g.Below(4)];
  if (n == 0) return 0;
  Call<kMaxArgs>(format, args, n, 0);
  return 0;
}
