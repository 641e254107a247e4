// SPDX-License-Identifier: MIT

// Fuzzes log_print with long and odd arguments. Byte 0 chooses one of a set
// of formats (the format itself is never taken from the input: a format is
// the caller's constant); the rest is split at '\n' into the text arguments.
// Every line goes through a log backend, which checks it against the same
// format applied with snprintf: the prefix, then the caller's text cut so
// that the whole line is at most 4094 characters.
#include <ftw.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <regex>
#include <string>

#include "fuzz/fuzz_log.h"
#include "fuzz/fuzz_util.h"
#include "utils/logger.h"

namespace {

using zel_fuzz::LastLine;
using zel_fuzz::RemoveLogTree;

LastLine* gBackend = nullptr;

// What log_print must have made of the caller's text: `text` cut so that
// the line (prefix included) has at most 4094 characters.
void Check(const std::string& line, const std::string& text) {
  static const std::regex prefix(R"(\[\d+-\d+ \d\d:\d\d:\d\d\.\d\d\d\]\[tid:\d+\] )");
  std::smatch match;
  if (!std::regex_search(line, match, prefix) || match.position(0) != 0) std::abort();
  const std::size_t prefixLength = static_cast<std::size_t>(match.length(0));
  if (line.size() > 4094) std::abort();
  // The text is cut at its first NUL (a C string) and at the limit.
  const std::string expected = text.substr(0, 4094 - prefixLength);
  if (line.compare(prefixLength, std::string::npos, expected) != 0) std::abort();
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
  if (size == 0) return 0;
  const unsigned choice = data[0];
  std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
  // Long arguments: a repeat count in byte 1 multiplies the first argument.
  std::string a = zel_fuzz::TakeLine(input);
  const std::string b = zel_fuzz::TakeLine(input);
  const std::string c = input;
  if (!a.empty() && static_cast<unsigned char>(a[0]) > 200) {
    std::string longer;
    for (int i = 0; i < 64; ++i) longer += a;
    a = longer;
  }
  const int number = static_cast<int>(size * 2654435761u);
  char* text = nullptr;
  int made = -1;
  // Each format is applied twice: by log_print and by asprintf for the
  // expected text.
#define ZEL_FUZZ_FORMAT(...)             \
  do {                                   \
    log_print(9, 1, __VA_ARGS__);        \
    made = asprintf(&text, __VA_ARGS__); \
  } while (0)
  switch (choice % 8) {
    case 0:
      ZEL_FUZZ_FORMAT("%s", a.c_str());
      break;
    case 1:
      ZEL_FUZZ_FORMAT("[%s][%s %s %d] Error:%s \n\n", a.c_str(), b.c_str(), c.c_str(), number,
                      a.c_str());
      break;
    case 2:
      ZEL_FUZZ_FORMAT("%s%s%s", a.c_str(), b.c_str(), c.c_str());
      break;
    case 3:
      ZEL_FUZZ_FORMAT("%.*s|%d", static_cast<int>(b.size()), c.c_str(), number);
      break;
    case 4:
      ZEL_FUZZ_FORMAT("%-5000s|", a.c_str());
      break;
    case 5:
      ZEL_FUZZ_FORMAT("%x %lld %c %s", static_cast<unsigned>(number),
                      static_cast<long long>(number), b.empty() ? 'x' : b[0], c.c_str());
      break;
    case 6:
      ZEL_FUZZ_FORMAT("%*d%s", static_cast<int>(static_cast<unsigned char>(choice)) * 20, number,
                      b.c_str());
      break;
    default:
      ZEL_FUZZ_FORMAT("%%%s%%\n", c.c_str());
      break;
  }
#undef ZEL_FUZZ_FORMAT
  if (made < 0) std::abort();
  const std::string expected(text, static_cast<std::size_t>(made));
  std::free(text);
  zel_log_flush();
  Check(gBackend->Take(), expected.substr(0, std::strlen(expected.c_str())));
  return 0;
}
