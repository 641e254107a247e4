// SPDX-License-Identifier: MIT

// Formats whose widths and precisions ask for far more than a log line
// holds: the line is what vsnprintf gives, cut where the line ends, and the
// call returns without producing the rest.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/test_util.h"
#include "utils/logger.h"

namespace {

using zel_test::LineRecorder;
using zel_test::TempDir;

// The longest line log_print() makes, prefix included (its buffer less the
// terminating NUL and the byte that the formatting keeps free).
constexpr std::size_t kLongestLine = 4094;

// One call of log_print() and what its text must be, given as the first
// `room` characters of the full text.
struct Case {
  std::string name;
  std::function<void()> log;
  std::function<std::string(std::size_t room)> head;
};

// The text that vsnprintf gives for `format`, whole.
std::string Full(const char* format, ...) ZEL_PRINTF_FORMAT(1, 2);
std::string Full(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int n = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  std::string text(n > 0 ? static_cast<std::size_t>(n) : 0, '\0');
  if (n > 0) std::vsnprintf(&text[0], text.size() + 1, format, again);
  va_end(again);
  return text;
}

std::string Cut(const std::string& text, std::size_t room) { return text.substr(0, room); }

// The length of the "[M-D hh:mm:ss.mmm][tid:N] " prefix of `line`.
std::size_t PrefixLength(const std::string& line) {
  static const std::regex prefix(R"(^\[\d+-\d+ \d\d:\d\d:\d\d\.\d\d\d\]\[tid:\d+\] )");
  std::smatch match;
  if (!std::regex_search(line, match, prefix)) return std::string::npos;
  return static_cast<std::size_t>(match.length(0));
}

// A width of 2e9, read at run time so that the compiler does not refuse the
// calls that pass it.
volatile int gHuge = 2000000000;
int Huge() { return gHuge; }

std::vector<Case> SlowCases() {
  return {
      {"width in digits", [] { log_print(0, 1, "%999999999d", 42); },
       [](std::size_t room) { return std::string(room, ' '); }},
      {"zero-padded width", [] { log_print(0, 1, "%0999999999d", -5); },
       [](std::size_t room) { return "-" + std::string(room - 1, '0'); }},
      {"left-aligned width", [] { log_print(0, 1, "%-999999999d|%d", 7, 8); },
       [](std::size_t room) { return "7" + std::string(room - 1, ' '); }},
      {"precision of an integer", [] { log_print(0, 1, "%.999999999d", 42); },
       [](std::size_t room) { return std::string(room, '0'); }},
      {"precision of a hexadecimal with #", [] { log_print(0, 1, "%#.999999999x", 255u); },
       [](std::size_t room) { return "0x" + std::string(room - 2, '0'); }},
      {"width from the arguments", [] { log_print(0, 1, "%*s", Huge(), "abc"); },
       [](std::size_t room) { return std::string(room, ' '); }},
      {"negative width from the arguments", [] { log_print(0, 1, "%*s|", -Huge(), "abc"); },
       [](std::size_t room) { return "abc" + std::string(room - 3, ' '); }},
      {"width and precision from the arguments",
       [] { log_print(0, 1, "<%-*.*d>", Huge(), Huge(), -3); },
       [](std::size_t room) { return "<-" + std::string(room - 2, '0'); }},
      {"precision of a fixed-point number", [] { log_print(0, 1, "x=%.999999999f", 0.1); },
       [](std::size_t room) { return Cut(Full("x=%.20000f", 0.1), room); }},
      {"precision of an exponent form", [] { log_print(0, 1, "%.999999999e", 1.5); },
       [](std::size_t room) { return "1.5" + std::string(room - 3, '0'); }},
      {"precision of a shortest form", [] { log_print(0, 1, "%.999999999g!", 0.1); },
       [](std::size_t room) { return Cut(Full("%.20000g!", 0.1), room); }},
      {"width of a fixed-point number", [] { log_print(0, 1, "%999999999.3f", 2.5); },
       [](std::size_t room) { return std::string(room, ' '); }},
      {"two widths longer together than vsnprintf can count",
       [] { log_print(0, 1, "%*s%*s", Huge(), "", Huge(), ""); },
       [](std::size_t room) { return std::string(room, ' '); }},
      {"width after text", [] { log_print(0, 1, "%s%*c", "head:", Huge(), 'z'); },
       [](std::size_t room) { return "head:" + std::string(room - 5, ' '); }},
  };
}

// Logs below `dir` and records every line the Logger forwards (one test a
// process: the recorder outlives the Logger's use of it).
LineRecorder& RecordLinesBelow(const TempDir& dir) {
  zel_set_log_path(dir.path().c_str());
  static LineRecorder recorder;
  zel::Logger::GetInstance()->RegisterBackend(&recorder);
  return recorder;
}

// Waits for the log and checks that `recorder` got one line for each of
// `expected`, each `expected` text cut where the line ends.
void ExpectCutLines(LineRecorder& recorder, const std::vector<std::string>& expected) {
  zel_log_flush();
  const std::vector<std::string> lines = recorder.lines();
  ASSERT_EQ(lines.size(), expected.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    SCOPED_TRACE("line " + std::to_string(i));
    const std::size_t prefix = PrefixLength(lines[i]);
    ASSERT_NE(prefix, std::string::npos);
    EXPECT_EQ(lines[i].substr(prefix), Cut(expected[i], kLongestLine - prefix));
  }
}

TEST(LoggerLineSecurityTest, HugeWidthsAndPrecisionsGiveTheCutLineAndReturn) {
  TempDir dir;
  LineRecorder& recorder = RecordLinesBelow(dir);
  // The calls run on a thread of their own, so that the test can wait for
  // them with a deadline. The state they touch outlives the test.
  static const std::vector<Case> cases = SlowCases();
  constexpr int kRounds = 3;
  auto done = std::make_shared<std::atomic<bool>>(false);
  std::thread caller([done] {
    for (int round = 0; round < kRounds; ++round) {
      for (const Case& c : cases) c.log();
    }
    done->store(true);
  });
  // Formatting the few thousand characters of a line takes microseconds; a
  // call that formats the whole width (seconds each) misses this generous
  // deadline.
  const bool returned =
      zel_test::WaitFor([&done] { return done->load(); }, std::chrono::milliseconds(60000));
  if (!returned) {
    caller.detach();
    FAIL() << "the calls did not return within 60 s";
  }
  caller.join();
  zel_log_flush();
  const std::vector<std::string> lines = recorder.lines();
  ASSERT_EQ(lines.size(), cases.size() * kRounds);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const Case& c = cases[i % cases.size()];
    SCOPED_TRACE(c.name);
    const std::string& line = lines[i];
    const std::size_t prefix = PrefixLength(line);
    ASSERT_NE(prefix, std::string::npos) << line.substr(0, 80);
    EXPECT_EQ(line.substr(prefix), c.head(kLongestLine - prefix));
  }
}

TEST(LoggerLineSecurityTest, WidthsThatFitOrNearlyFitGiveWhatVsnprintfGives) {
  // Around the room left in the line, every conversion the formatters take:
  // the text is vsnprintf's, cut at the line's end.
  TempDir dir;
  LineRecorder& recorder = RecordLinesBelow(dir);
  std::vector<std::string> expected;
  const int widths[] = {0, 1, 7, 3000, 4000, 4060, 4070, 4080, 4094, 4095, 5000, 9000};
  for (int w : widths) {
    log_print(0, 1, "%*d|%-*s|%0*ld|%*.*f|%-*.*e|%*c|%*x|%#*o|%*.*s|%+*lld|% *i|%*zu|%*p|end\n", w,
              -12345, w, "text", w, 77L, w, w % 50, 3.25, w, w % 40, -0.001, w, 'q', w, 0xbeefu, w,
              8u, w, w, "abcdef", w, -9LL, w, 5, w, static_cast<std::size_t>(w), w,
              static_cast<void*>(&expected));
    expected.push_back(Full(
        "%*d|%-*s|%0*ld|%*.*f|%-*.*e|%*c|%*x|%#*o|%*.*s|%+*lld|% *i|%*zu|%*p|end\n", w, -12345, w,
        "text", w, 77L, w, w % 50, 3.25, w, w % 40, -0.001, w, 'q', w, 0xbeefu, w, 8u, w, w,
        "abcdef", w, -9LL, w, 5, w, static_cast<std::size_t>(w), w, static_cast<void*>(&expected)));
    log_print(0, 1, "%.*d|%5.*u|%-8.*x|%.*Lf|%.*a|%hhd|%hd|%jd|%td\n", w, 42, w, 7u, w, 0xabu, w,
              static_cast<long double>(1.0) / 3, w % 20, 0.75, 300, 70000,
              static_cast<intmax_t>(-1), static_cast<std::ptrdiff_t>(-2));
    expected.push_back(Full("%.*d|%5.*u|%-8.*x|%.*Lf|%.*a|%hhd|%hd|%jd|%td\n", w, 42, w, 7u, w,
                            0xabu, w, static_cast<long double>(1.0) / 3, w % 20, 0.75, 300, 70000,
                            static_cast<intmax_t>(-1), static_cast<std::ptrdiff_t>(-2)));
    // Precisions past the room and past the width: the padding in front
    // follows the whole text's length, not that of the cut text.
    const std::string longText(3000, 's');
    log_print(0, 1, "%*s%720.768llu|%700.900d|%3500.4000s|%-650.800x|end\n", w, "", 123ULL, -5,
              longText.c_str(), 0xfu);
    expected.push_back(Full("%*s%720.768llu|%700.900d|%3500.4000s|%-650.800x|end\n", w, "", 123ULL,
                            -5, longText.c_str(), 0xfu));
  }
  ExpectCutLines(recorder, expected);
}

TEST(LoggerLineSecurityTest, CutPrecisionsThatDoNotLengthenTheTextKeepThePadding) {
  // Near the line's end, a precision past the room is cut; where it does
  // not lengthen the text (a character, an infinity, a not-a-number, the
  // shortest form without '#'), the padding in front stays the width's.
  TempDir dir;
  LineRecorder& recorder = RecordLinesBelow(dir);
  std::vector<std::string> expected;
  // Every fill from 3980 to 4070 puts each conversion at every distance
  // from the line's end.
  for (int fill = 3980; fill <= 4070; ++fill) {
    // Not a literal: a precision on %c is one that compilers warn about.
    // A null string is "(null)" in the C libraries that print one, which
    // print nothing for a precision below 6 (a cut one must not be).
    const std::string format =
        "%*s%.999s|%9.99999s|%5.796c|%12.99999E|%9.99999f|%7.99999g|%6.99999lc|%#9.99999g|end";
    const char* none = nullptr;
    log_print(0, 1, format.c_str(), fill, "", none, none, 'q', HUGE_VAL, NAN, 0.5,
              static_cast<wint_t>(L'w'), 0.5);
    expected.push_back(Full(format.c_str(), fill, "", none, none, 'q', HUGE_VAL, NAN, 0.5,
                            static_cast<wint_t>(L'w'), 0.5));
  }
  ExpectCutLines(recorder, expected);
}

}  // namespace
