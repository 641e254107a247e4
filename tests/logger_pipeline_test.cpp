// SPDX-License-Identifier: MIT

// The log's queues per posting thread:
// - a post that happens before another (ordered by an atomic, a lock or a
//   join) is written first, even when the two threads' lines wait in their
//   own queues behind a held writer;
// - a thread that ends with lines queued loses none of them;
// - a thousand short-lived threads, each with a line, cost bounded memory:
//   the queue of an ended thread is freed once its lines are written;
// - an idle thread's queue gives back its segments once they are written;
// - the byte bound holds for the queues of every thread together.
#include <gtest/gtest.h>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_test_util.h"
#include "tests/support/sanitizers.h"
#include "tests/support/test_util.h"
#include "utils/logger.h"

namespace {

using zel::Logger;
using zel_test::GateBackend;
using zel_test::LiveFile;
using zel_test::ReadFile;
using zel_test::SplitLines;
using zel_test::TempDir;

// The lines of the live file, their prefixes and line ends removed.
std::vector<std::string> Texts() {
  std::vector<std::string> texts;
  for (const std::string& line : SplitLines(ReadFile(LiveFile(Logger::GetLogPath())))) {
    std::string text = zel_test::TextOf(line).empty() ? line : zel_test::TextOf(line);
    while (!text.empty() && text.back() == '\n') text.pop_back();
    texts.push_back(text);
  }
  return texts;
}

// Lines of the usual conversions are formatted by the writer from the
// stored format and arguments (ints in 4 bytes, the others in 8, strings
// with their whole length): each must come out as snprintf makes it.
TEST(LogPipelineTest, LinesFormattedOnTheWriterAreWhatSnprintfMakes) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  const std::string longText(5000, 's');
  std::vector<std::string> expected;
  auto both = [&expected](const char* format, auto... args) {
    char text[8192];
    std::snprintf(text, sizeof(text), format, args...);
    expected.push_back(text);
    log_print(3, 0, format, args...);
  };
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
#endif
  both("%d %i %u %x %X|\n", INT_MIN, -1, -1, -1, INT_MIN);
  both("%05d|%-6d|%6u|%08x\n", -42, -7, 4000000000U, 0xbeefU);
  both("%ld %lu %lx|\n", LONG_MIN, ULONG_MAX, -1L);
  both("%lld %llu %llX|\n", LLONG_MIN, ULLONG_MAX, -2LL);
  both("%zd %zu %zx|\n", static_cast<std::size_t>(-3), SIZE_MAX, SIZE_MAX);
  both("%c%c%c|%3c|%-3c|\n", 'a', -1, 200, 'z', 'y');
  const char* volatile none = nullptr;  // snprintf's "(null)", unseen by the compiler
  both("[%s][%10s][%-10s][%s][%8s]\n", "", "right", "left", none, none);
  both("%%%d%%%s%%\n", 5, "x");
  both("%4000s|%s\n", "w", "near the limit");
  // Last, as its cut leaves it without a line end: 1,000 blanks of padding
  // (the string's whole length counts, not the part that is kept), then
  // the string, cut at the limit.
  both("%6000s\n", longText.c_str());
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
  zel_log_flush();
  const std::vector<std::string> lines = SplitLines(ReadFile(LiveFile(Logger::GetLogPath())));
  ASSERT_EQ(lines.size(), expected.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    // A line holds 4094 characters with its prefix.
    const std::string text = zel_test::TextOf(lines[i]);
    const std::size_t prefix = lines[i].size() - text.size();
    EXPECT_EQ(text, expected[i].substr(0, 4094 - prefix)) << "line " << i;
  }
}

// A thread keeps what it learnt of the formats it posted, found by their
// address. A caller that reuses one buffer for other formats (longer,
// shorter, with other arguments, or one the writer cannot format) must get
// each line as snprintf makes it, not as the format that was there before.
TEST(LogPipelineTest, FormatBufferReusedForOtherTextsGivesEachItsOwnLine) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  char format[256];
  std::vector<std::string> expected;
  auto both = [&expected, &format](const char* text, auto... args) {
    std::snprintf(format, sizeof(format), "%s", text);
    char line[512];
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
#endif
    std::snprintf(line, sizeof(line), format, args...);
    log_print(3, 0, format, args...);
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
    expected.push_back(line);
    expected.back().pop_back();  // Texts() gives the lines without their end
  };
  both("a=%d b=%d\n", 1, 2);
  both("a=%d b=%d\n", 3, 4);          // the same text again
  both("a=%d b=%d c=%d\n", 5, 6, 7);  // longer, one more argument
  both("a=%d\n", 8);                  // shorter
  both("%ld|%s|%x\n", -9L, "ten", 11u);
  both("%.1f\n", 2.5);  // not one the writer formats
  both("%.1f\n", 3.5);
  both("%5d|%-3s|\n", 12, "z");  // after it, one it formats again
  both("no conversion\n");
  zel_log_flush();
  EXPECT_EQ(Texts(), expected);
}

// The writer keeps what it learnt of the formats it formatted, found by
// their length and their first and last characters: formats alike in all
// three, taking turns, must each be formatted as their own text says.
TEST(LogPipelineTest, FormatsAlikeInLengthStartAndEndAreEachFormattedAsTheirOwn) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  std::vector<std::string> expected;
  for (int i = 0; i < 3; ++i) {
    log_print(3, 0, "same start: %d|%s same end of format\n", i, "one");
    log_print(3, 0, "same start: %s|%d same end of format\n", "two", i);
    log_print(3, 0, "same start: %x|%2u same end of format\n", 255u + static_cast<unsigned>(i), 7u);
    expected.push_back("same start: " + std::to_string(i) + "|one same end of format");
    expected.push_back("same start: two|" + std::to_string(i) + " same end of format");
    expected.push_back(std::string("same start: ") +
                       (i == 0   ? "ff"
                        : i == 1 ? "100"
                                 : "101") +
                       "| 7 same end of format");
  }
  zel_log_flush();
  EXPECT_EQ(Texts(), expected);
}

TEST(LogPipelineTest, PostsOrderedByAnAtomicAreWrittenInThatOrder) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  GateBackend* gate = GateBackend::Install();
  ASSERT_TRUE(gate->Close());
  // Two threads take turns through an atomic: each line of one happens
  // before the next line of the other. Their queues fill behind the held
  // writer, which then finds both full at once.
  constexpr int kRounds = 500;
  std::atomic<int> turn{0};
  auto player = [&turn](int me) {
    for (int i = 0; i < kRounds; ++i) {
      while (turn.load(std::memory_order_acquire) != 2 * i + me) std::this_thread::yield();
      log_print(3, 0, "turn %d of %c\n", 2 * i + me, me == 0 ? 'a' : 'b');
      turn.store(2 * i + me + 1, std::memory_order_release);
    }
  };
  std::thread a(player, 0);
  std::thread b(player, 1);
  a.join();
  b.join();
  // Ordered by the joins.
  log_print(3, 0, "after the joins\n");
  gate->Open();
  zel_log_flush();
  const std::vector<std::string> texts = Texts();
  ASSERT_EQ(texts.size(), 2u * kRounds + 2) << ReadFile(LiveFile(Logger::GetLogPath()));
  EXPECT_EQ(texts.front(), "gate");
  for (int n = 0; n < 2 * kRounds; ++n) {
    char expected[32];
    std::snprintf(expected, sizeof(expected), "turn %d of %c", n, n % 2 == 0 ? 'a' : 'b');
    ASSERT_EQ(texts[static_cast<std::size_t>(n) + 1], expected) << "line " << n + 1;
  }
  EXPECT_EQ(texts.back(), "after the joins");
}

TEST(LogPipelineTest, PostsOrderedByALockAreWrittenInThatOrder) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  GateBackend* gate = GateBackend::Install();
  ASSERT_TRUE(gate->Close());
  // Four threads count under one lock and log the count under it (through
  // both ways a line is posted: formatted on the writer, and given whole).
  constexpr int kThreads = 4;
  constexpr int kLines = 300;
  std::mutex mutex;
  int count = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kLines; ++i) {
        std::lock_guard<std::mutex> lock(mutex);
        ++count;
        if ((i + t) % 2 == 0) {
          log_print(3, 0, "count %d\n", count);
        } else {
          Logger::GetInstance()->Log("count " + std::to_string(count) + "\n");
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  gate->Open();
  zel_log_flush();
  const std::vector<std::string> texts = Texts();
  ASSERT_EQ(texts.size(), static_cast<std::size_t>(kThreads * kLines) + 1);
  for (int n = 1; n <= kThreads * kLines; ++n) {
    ASSERT_EQ(texts[static_cast<std::size_t>(n)], "count " + std::to_string(n)) << "line " << n;
  }
}

TEST(LogPipelineTest, ThreadThatEndsWithLinesQueuedLosesNone) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  GateBackend* gate = GateBackend::Install();
  ASSERT_TRUE(gate->Close());
  constexpr int kLines = 2000;  // several segments of the thread's queue
  std::thread([] {
    for (int i = 0; i < kLines; ++i) log_print(3, 0, "ended %04d %s\n", i, "abcdefghij");
  }).join();
  // The thread is gone and its lines still wait behind the gate.
  gate->Open();
  zel_log_flush();
  const std::vector<std::string> texts = Texts();
  ASSERT_EQ(texts.size(), static_cast<std::size_t>(kLines) + 1);
  for (int i = 0; i < kLines; ++i) {
    char expected[32];
    std::snprintf(expected, sizeof(expected), "ended %04d abcdefghij", i);
    ASSERT_EQ(texts[static_cast<std::size_t>(i) + 1], expected);
  }
  EXPECT_EQ(zel_log_dropped(), 0u);
}

// The bytes the C library's allocator has handed out and not had back, or
// -1 where it does not tell (the sanitizers have allocators of their own).
long long HeapInUse() {
#if defined(__GLIBC__)
  if (!zel_test::kUnderThreadSanitizer && !zel_test::kUnderAddressSanitizer) {
    return static_cast<long long>(mallinfo2().uordblks);
  }
#endif
  return -1;
}

TEST(LogPipelineTest, ThousandShortLivedThreadsCostBoundedMemory) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  log_print(3, 0, "start\n");
  zel_log_flush();
  const long long before = HeapInUse();
  // Ten at a time, each with a line of 16 KiB and a short one: every
  // queue takes a segment of 32 KiB, which the writer frees once the
  // thread has ended and its lines are written (kept, the thousand would
  // hold 32 MiB).
  constexpr int kThreads = 1000;
  constexpr int kAtOnce = 10;
  const std::string big(16 * 1024 - 1, 'x');
  for (int started = 0; started < kThreads; started += kAtOnce) {
    std::vector<std::thread> threads;
    for (int t = started; t < started + kAtOnce; ++t) {
      threads.emplace_back([t, &big] {
        Logger::GetInstance()->Log(big + "\n");
        log_print(3, 0, "thread %d\n", t);
      });
    }
    for (std::thread& thread : threads) thread.join();
    zel_log_flush();
  }
  // 16 MiB of lines: the file rotates on the way.
  std::string text;
  for (const std::string& name : zel_test::ListDir(Logger::GetLogPath())) {
    text += ReadFile(Logger::GetLogPath() + name);
  }
  for (int t = 0; t < kThreads; ++t) {
    ASSERT_NE(text.find("] thread " + std::to_string(t) + "\n"), std::string::npos) << t;
  }
  if (before < 0) GTEST_SKIP() << "the allocator does not tell what it has handed out";
  EXPECT_LT(HeapInUse() - before, 2LL * 1024 * 1024) << "bytes";
}

TEST(LogPipelineTest, QueueOfAnIdleThreadShrinksOnceItsLinesAreWritten) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  GateBackend* gate = GateBackend::Install();
  log_print(3, 0, "start\n");
  zel_log_flush();
  const long long before = HeapInUse();
  ASSERT_TRUE(gate->Close());
  // A thread queues 2 MiB behind the held writer (64 segments), and then
  // stays, idle, until the test is done.
  zel_test::Latch done;
  zel_test::Latch posted;
  std::thread thread([&] {
    const std::string line(1023, 'y');
    for (int i = 0; i < 2048; ++i) Logger::GetInstance()->Log(line + "\n");
    posted.Open();
    done.Wait();
  });
  posted.Wait();
  gate->Open();
  zel_log_flush();
  // Written: the queue is down to the segment it fills next.
  const long long grown = HeapInUse() - before;
  done.Open();
  thread.join();
  if (before < 0) GTEST_SKIP() << "the allocator does not tell what it has handed out";
  EXPECT_LT(grown, 256LL * 1024) << "bytes";
}

TEST(LogPipelineTest, ByteBoundHoldsForTheQueuesOfAllThreadsTogether) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  GateBackend* gate = GateBackend::Install();
  ASSERT_TRUE(gate->Close());  // 5 bytes queued until the gate opens
  // 1,000 bytes for four threads posting 50 lines of 20 bytes each: 49
  // lines fit in all (not 49 per thread), the others are dropped.
  Logger::SetQueueLimit(1000, zel::QueueFullPolicy::kDrop);
  constexpr int kThreads = 4;
  constexpr int kLines = 50;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) {
        char line[32];
        std::snprintf(line, sizeof(line), "t%d line %02d ........\n", t, i);
        Logger::GetInstance()->Log(line);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const uint64_t dropped = zel_log_dropped();
  EXPECT_EQ(dropped, static_cast<uint64_t>(kThreads * kLines - 49));
  gate->Open();
  zel_log_flush();
  Logger::SetQueueLimit(0, zel::QueueFullPolicy::kDrop);
  const std::string text = ReadFile(LiveFile(Logger::GetLogPath()));
  int written = 0;
  uint64_t noticed = 0;
  for (const std::string& line : SplitLines(text)) {
    unsigned long long count = 0;
    if (line.find(" line ") != std::string::npos) ++written;
    const std::size_t at = line.find("zel log: ");
    if (at != std::string::npos &&
        std::sscanf(line.c_str() + at, "zel log: %llu lines dropped", &count) == 1) {
      noticed += count;
    }
  }
  EXPECT_EQ(written, 49) << text;
  EXPECT_EQ(noticed, dropped) << text;
}

}  // namespace
