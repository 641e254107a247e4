// SPDX-License-Identifier: MIT

// The log line front end: the prefix of each line, log_print's formatting
// (its own fast conversions, the fallback to vsnprintf, the cut at 4094
// characters), the log level, and the prefix's time under a moved clock and
// across seconds.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_test_util.h"
#include "tests/support/test_util.h"
#include "utils/logger.h"
#include "utils/looper.h"
#include "utils/platform.h"

namespace {

using zel::Logger;
using zel_test::ListDir;
using zel_test::LiveFile;
using zel_test::ReadFile;
using zel_test::RecordingBackend;
using zel_test::SplitLines;
using zel_test::TempDir;
using zel_test::TextOf;
using zel_test::WallClockMs;

// The broken-down time of `year`, `month` (0 for January), `day`, `hour`,
// `minute` and `second`; its other fields 0.
std::tm CalendarTime(int year, int month, int day, int hour, int minute, int second) {
  std::tm tm{};
  tm.tm_year = year - 1900;
  tm.tm_mon = month;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = second;
  return tm;
}

// Logs a format and its arguments through log_print, and appends what
// snprintf makes of them to the caller's `expected` (through the caller's
// char array `buf`).
#define ZEL_CHECK_FORMAT(...)                     \
  do {                                            \
    log_print(3, 0, __VA_ARGS__);                 \
    std::snprintf(buf, sizeof(buf), __VA_ARGS__); \
    expected.push_back(buf);                      \
  } while (false)

// ---------------------------------------------------------------------------
// The line prefix.

TEST(LogPrefixTest, FormatsMonthDayTimeMillisecondsAndThread) {
  const std::tm tm = CalendarTime(2024, 2 /* March */, 7, 9, 5, 1);
  char buf[256];
  const int len = zel::platform::formatLogPrefix(buf, sizeof(buf), tm, 42, "1234");
  EXPECT_EQ(std::string(buf), "[3-7 09:05:01.042][tid:1234] ");
  EXPECT_EQ(len, 29);
}

TEST(LogPrefixTest, MonthAndDayAreNotPadded) {
  const std::tm tm = CalendarTime(1900, 11, 31, 23, 59, 59);
  char buf[256];
  zel::platform::formatLogPrefix(buf, sizeof(buf), tm, 999, "7");
  EXPECT_EQ(std::string(buf), "[12-31 23:59:59.999][tid:7] ");
}

TEST(LogPrefixTest, DateDirectoryAndStartTimeTexts) {
  const std::tm tm = CalendarTime(2024, 0, 31, 14, 3, 27);
  char date[256];
  char start[256];
  zel::platform::formatDateDir(date, sizeof(date), tm);
  zel::platform::formatStartTime(start, sizeof(start), tm);
  EXPECT_EQ(std::string(date), "20240131/");
  EXPECT_EQ(std::string(start), "140327");
}

TEST(LogPrintTest, LineStartsWithLocalTimeAndOperatingSystemThreadId) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  long tid = 0;
  const std::time_t before = std::time(nullptr);
  std::thread logger([&tid] {
    tid = static_cast<long>(zel_test::OsThreadId());
    log_print(3, 0, "hello %s\n", "world");
  });
  logger.join();
  zel_log_flush();
  const std::time_t after = std::time(nullptr);

  const std::string text = ReadFile(LiveFile(Logger::GetLogPath()));
  std::smatch m;
  const std::regex re(
      R"(^\[(\d+)-(\d+) (\d\d):(\d\d):(\d\d)\.(\d\d\d)\]\[tid:(\d+)\] hello world\n$)");
  ASSERT_TRUE(std::regex_match(text, m, re)) << text;
  EXPECT_EQ(m[7].str(), std::to_string(tid));
  // The printed local time lies between the two readings around the call.
  bool matched = false;
  for (std::time_t t = before; t <= after; ++t) {
    std::tm tm{};
    localtime_r(&t, &tm);
    if (std::stoi(m[1]) == tm.tm_mon + 1 && std::stoi(m[2]) == tm.tm_mday &&
        std::stoi(m[3]) == tm.tm_hour && std::stoi(m[4]) == tm.tm_min &&
        std::stoi(m[5]) == tm.tm_sec) {
      matched = true;
    }
  }
  EXPECT_TRUE(matched) << text;
}

TEST(LogPrintTest, ReturnsZeroAndAddsNoNewline) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  EXPECT_EQ(log_print(3, 0, "a"), 0);
  EXPECT_EQ(log_print(3, 0, "b%d\n", 1), 0);
  zel_log_flush();
  const std::string text = ReadFile(LiveFile(Logger::GetLogPath()));
  EXPECT_TRUE(
      std::regex_match(text, std::regex(R"(^\[[^\]]*\]\[tid:\d+\] a\[[^\]]*\]\[tid:\d+\] b1\n$)")))
      << text;
}

TEST(LogPrintTest, LongTextIsCutToALineOf4094Characters) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  std::vector<std::string> received;
  std::mutex mutex;
  Logger::GetInstance()->RegisterBackend(new RecordingBackend("b", &received, &mutex));
  const std::string text(5000, 'x');
  log_print(3, 1, "%s", text.c_str());
  zel_log_flush();
  const std::string file = ReadFile(LiveFile(Logger::GetLogPath()));
  EXPECT_EQ(file.size(), 4094u);
  const std::size_t textStart = file.find("] ") + 2;  // the prefix ends in "] "
  EXPECT_EQ(file.substr(textStart), std::string(4094 - textStart, 'x'));
  std::lock_guard<std::mutex> lock(mutex);
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].size(), std::string("b:not-in-file:").size() + 4094);
}

TEST(LogPrintTest, TextsUpToTheLimitAreKeptWhole) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  log_print(3, 0, "%s", "");
  zel_log_flush();
  const std::string prefixOnly = ReadFile(LiveFile(Logger::GetLogPath()));
  const std::size_t prefixLen = prefixOnly.size();
  ASSERT_GT(prefixLen, 20u);
  // The room for the text is 4094 - prefix length characters.
  const std::string fits(4094 - prefixLen, 'y');
  log_print(3, 0, "%s", fits.c_str());
  zel_log_flush();
  const std::string file = ReadFile(LiveFile(Logger::GetLogPath()));
  EXPECT_EQ(file.size(), prefixLen + 4094);
  EXPECT_EQ(file.substr(file.size() - fits.size()), fits);
}

TEST(LogPrintTest, WritesWhateverLevelItIsGiven) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  zel_set_log_level(0);
  log_print(9, 0, "level nine\n");
  zel_log_flush();
  EXPECT_NE(ReadFile(LiveFile(Logger::GetLogPath())).find("level nine\n"), std::string::npos);
}

TEST(LogLevelTest, StartsAtThreeAndIsSignExtended) {
  EXPECT_EQ(zel_log_level(), 3);
  zel_set_log_level(-1);
  EXPECT_EQ(zel_log_level(), -1);
  zel_set_log_level(0);
  EXPECT_EQ(zel_log_level(), 0);
  zel_set_log_level(127);
  EXPECT_EQ(zel_log_level(), 127);
  zel_set_log_level(static_cast<char>(-128));
  EXPECT_EQ(zel_log_level(), -128);
}

TEST(LogLevelTest, MinusOneSilencesTheLibraryEvenItsErrorsAndCreatesNoLogger) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  zel_set_log_level(-1);
  {
    // A stop from inside a message and the loop's exit are the library's
    // own log lines at levels 1 and 4.
    zel::Looper looper;
    looper.Start();
    std::atomic<bool> stopped{false};
    struct StopSelf : zel::Message {
      StopSelf(zel::Looper* l, std::atomic<bool>* s) : looper(l), flag(s) {}
      void Run() override {
        looper->Stop();
        flag->store(true);
      }
      zel::Looper* looper;
      std::atomic<bool>* flag;
    };
    looper.PostMessageAAA(std::make_unique<StopSelf>(&looper, &stopped));
    ASSERT_TRUE(zel_test::WaitFor([&] { return stopped.load(); }));
    ASSERT_TRUE(zel_test::WaitFor([&] { return looper.IsStoped(); }));
    zel::Looper other;
    other.Start();
    other.Stop();
  }
  // Nothing called log_print: the Logger was never made and chose no
  // directory.
  EXPECT_EQ(Logger::GetLogPath(), "");
  EXPECT_TRUE(ListDir(dir.path()).empty());
}

// ---------------------------------------------------------------------------
// The prefix under a moved clock.

TEST(LogPrintTest, PrefixUnderAMovedClockShowsItsLocalDateAndTime) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << zel_test::kNoFaketime;
#else
  if (const char* childBase = std::getenv(zel_test::kChildBaseVariable)) {
    zel_set_log_path(childBase);
    log_print(3, 0, "tid=%lld\n", zel_test::OsThreadId());
    zel_log_flush();
    return;
  }
  TempDir dir;
  ASSERT_EQ(zel_test::RunSelfUnderFaketime(
                "2027-03-07 09:05:01",
                "LogPrintTest.PrefixUnderAMovedClockShowsItsLocalDateAndTime", dir.path()),
            0);
  const std::string text = ReadFile(LiveFile(dir.path() + "20270307/"));
  std::smatch m;
  ASSERT_TRUE(std::regex_match(
      text, m, std::regex(R"(^\[3-7 09:05:0\d\.\d\d\d\]\[tid:(\d+)\] tid=(\d+)\n$)")))
      << text;
  EXPECT_EQ(m[1].str(), m[2].str());
#endif
}

// ---------------------------------------------------------------------------
// The caller's formatting of the text.

// Each line logged through log_print holds, after its prefix, exactly what
// snprintf makes of the same format and arguments.
TEST(LogPrintTest, FormattedTextIsWhatPrintfGivesForEveryConversion) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  std::vector<std::string> expected;
  char buf[512];
  ZEL_CHECK_FORMAT("[%s][%s %s %d] Debug:device %s attached vid=0x%04x pid=0x%04x\n", "",
                   "/main.cpp", "zel::Main", 214, "usb-1", 0x1d6b, 0x3);
  ZEL_CHECK_FORMAT("%d|%i|%5d|%-5d|%05d|%0d|%02d\n", -42, 7, -3, 12, -17, 0, 123);
  ZEL_CHECK_FORMAT("%u|%x|%X|%08X|%-8x|%3u\n", 4294967295u, 0xdeadbeefu, 0xabcu, 0x1fu, 0x2au, 5u);
#if defined(ZEL_TEST_ON_WINDOWS)
  // long is 32 bits on Windows.
  ZEL_CHECK_FORMAT("%ld|%lu|%lx|%lld|%llu|%zu|%zd\n", -1234567890L, 3876543210UL, 0xfedcbaUL,
                   -9223372036854775807LL - 1, 18446744073709551615ULL, static_cast<size_t>(77),
                   static_cast<ssize_t>(-5));
#else
  ZEL_CHECK_FORMAT("%ld|%lu|%lx|%lld|%llu|%zu|%zd\n", -1234567890L, 987654321UL, 0xfedcbaUL,
                   -9223372036854775807LL - 1, 18446744073709551615ULL, static_cast<size_t>(77),
                   static_cast<ssize_t>(-5));
#endif
  ZEL_CHECK_FORMAT("%s|%8s|%-8s|%1s|%c|%3c|%-3c|%%|100%%\n", "abc", "right", "left", "wide", 'q',
                   'r', 's');
  const char* volatile missing = nullptr;  // hidden from the compiler's checks
  ZEL_CHECK_FORMAT("%s|%-8s|\n", missing, missing);
  // Conversions the fast path leaves to vsnprintf.
  ZEL_CHECK_FORMAT("%.3f|%+d|% d|%#x|%.2s|%*d|%p|%hd|%e\n", 3.14159, 5, 6, 255, "abcdef", 4, 7,
                   static_cast<void*>(buf), static_cast<short>(-2), 1e10);
  zel_log_flush();
  const std::vector<std::string> lines = SplitLines(ReadFile(LiveFile(Logger::GetLogPath())));
  ASSERT_EQ(lines.size(), expected.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::size_t start = lines[i].find("] ");
    ASSERT_NE(start, std::string::npos) << lines[i];
    EXPECT_EQ(lines[i].substr(start + 2), expected[i]);
  }
}

TEST(LogPrintTest, LongTextThroughEveryConversionIsCutAt4094) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  const std::string big(3000, 'b');
  log_print(3, 0, "%s|%08x|%-2000s|%d", big.c_str(), 0xabcdu, "pad", -5);
  zel_log_flush();
  const std::string text = ReadFile(LiveFile(Logger::GetLogPath()));
  ASSERT_EQ(text.size(), 4094u);
  char full[8192];
  std::snprintf(full, sizeof(full), "%s|%08x|%-2000s|%d", big.c_str(), 0xabcdu, "pad", -5);
  const std::size_t start = text.find("] ") + 2;
  EXPECT_EQ(text.substr(start), std::string(full).substr(0, 4094 - start));
}

// ---------------------------------------------------------------------------
// The fallback to vsnprintf.

// The fast formatter handles a first part of each format and gives up at a
// conversion it does not handle; vsnprintf then formats the whole line again
// from the first argument. Every line must be exactly snprintf's.
TEST(LogFallbackTest, SupportedConversionsBeforeAnUnsupportedOneGiveSnprintfsText) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  std::vector<std::string> expected;
  char buf[512];
  int local = 0;
  ZEL_CHECK_FORMAT("%s %.2f\n", "pi", 3.14159);
  ZEL_CHECK_FORMAT("%d %p %s\n", -7, static_cast<void*>(&local), "after");
  ZEL_CHECK_FORMAT("%x %5.1f %c\n", 0xbeefu, 2.25, 'z');
  ZEL_CHECK_FORMAT("%s|%d|%lu|%+d|%s\n", "a", 1, 2UL, 3, "b");
  ZEL_CHECK_FORMAT("%-6s|%08x|%lld|%#o|%s\n", "left", 0x1fu, -5LL, 8u, "tail");
  ZEL_CHECK_FORMAT("%c%c%c%e%s\n", 'x', 'y', 'z', 1e-5, "end");
  ZEL_CHECK_FORMAT("%zu %i %% %hd %u\n", static_cast<std::size_t>(42), 9, static_cast<short>(-3),
                   77u);
  ZEL_CHECK_FORMAT("[%s][%s %s %d] Debug:%s %.3s %d\n", "", "/a.cpp", "f", 10, "x", "abcdef", 99);
  zel_log_flush();
  const std::vector<std::string> lines = SplitLines(ReadFile(LiveFile(Logger::GetLogPath())));
  ASSERT_EQ(lines.size(), expected.size());
  for (std::size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(TextOf(lines[i]), expected[i]);
}

// ---------------------------------------------------------------------------
// The prefix's per-thread time cache.

// Milliseconds since local midnight of the wall-clock time `ms` (since 1970).
long LocalMsOfDay(int64_t ms) {
  const auto second = static_cast<std::time_t>(ms / 1000);
  std::tm tm{};
  localtime_r(&second, &tm);
  return ((tm.tm_hour * 60L + tm.tm_min) * 60L + tm.tm_sec) * 1000L + static_cast<long>(ms % 1000);
}

// One thread logs for a little over two seconds: the time in each line's
// prefix lies between the clock read just before and just after the call,
// also for the lines after each change of second.
TEST(LogTimeCacheTest, PrefixTimeFollowsTheClockAcrossSeconds) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  struct Sample {
    int64_t before;
    int64_t after;
  };
  std::vector<Sample> samples;
  const int64_t start = WallClockMs();
  // Until the clock has passed two changes of second.
  const int64_t end = (start / 1000 + 2) * 1000 + 200;
  while (WallClockMs() < end) {
    const int64_t before = WallClockMs();
    log_print(3, 0, "%d\n", static_cast<int>(samples.size()));
    samples.push_back({before, WallClockMs()});
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  zel_log_flush();
  const std::vector<std::string> lines = SplitLines(ReadFile(LiveFile(Logger::GetLogPath())));
  ASSERT_EQ(lines.size(), samples.size());
  std::size_t checked = 0;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    int month = 0, day = 0, hour = 0, minute = 0, second = 0, ms = 0;
    ASSERT_EQ(std::sscanf(lines[i].c_str(), "[%d-%d %d:%d:%d.%d]", &month, &day, &hour, &minute,
                          &second, &ms),
              6)
        << lines[i];
    const long shown = ((hour * 60L + minute) * 60L + second) * 1000L + ms;
    const long lo = LocalMsOfDay(samples[i].before);
    const long hi = LocalMsOfDay(samples[i].after);
    if (hi < lo) continue;  // across local midnight
    EXPECT_GE(shown, lo) << lines[i];
    EXPECT_LE(shown, hi) << lines[i];
    ++checked;
  }
  EXPECT_GT(checked, lines.size() / 2);
}

}  // namespace

#undef ZEL_CHECK_FORMAT
