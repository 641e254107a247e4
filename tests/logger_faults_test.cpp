// SPDX-License-Identifier: MIT

// The log under faults: allocations that fail on a caller's thread or on
// the writer's, a writer thread that cannot be created, floods of empty
// lines, and a policy that changes under waiting callers. The log goes on
// in every case, nothing hangs, and every line lost is counted and noticed
// in the file.
//
// Linux only (left out of the Windows build): allocation failures come
// from this program's operator new, and thread creation failures from its
// pthread_create, both found by the library through ELF symbol
// interposition.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/malloc_operators.h"
#include "tests/support/sanitizers.h"
#include "tests/support/test_util.h"
#include "utils/logger.h"

// Allocation failure on demand, on one thread: after tAllocationsLeft more
// allocations on that thread, the next tAllocationsToFail throw
// std::bad_alloc. This program's operator new comes first in the dynamic
// linker's lookup, so the library's allocations use it too.
namespace {
thread_local long tAllocationsLeft = 0;
thread_local long tAllocationsToFail = 0;
}  // namespace

void* operator new(std::size_t size) {
  if (tAllocationsToFail > 0) {
    if (tAllocationsLeft > 0) {
      --tAllocationsLeft;
    } else {
      --tAllocationsToFail;
      throw std::bad_alloc();
    }
  }
  return zel_test::MallocOrThrow(size);
}
// Its operator delete pair comes with tests/support/malloc_operators.h.

// Thread creation failure on demand: while set, pthread_create fails with
// EAGAIN, as when the process is out of threads; but not for the test's own
// threads, made while tTestMakesThread is set.
namespace {
std::atomic<bool> gFailThreadCreation{false};
thread_local bool tTestMakesThread = false;
}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*),
                              void* arg) {
  if (gFailThreadCreation.load() && !tTestMakesThread) return EAGAIN;
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  // The next definition: a sanitizer's (which must see every thread) or the
  // C library's.
  static const auto next = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  return next(thread, attr, start, arg);
}

namespace {

using zel::Logger;
using zel::QueueFullPolicy;
using zel_test::ListDir;
using zel_test::OsThreadId;
using zel_test::ReadFile;
using zel_test::StdoutCapture;
using zel_test::TempDir;
using zel_test::WaitFor;

constexpr auto kDeadline = std::chrono::seconds(20);

// The resident memory says nothing about the queue's under ThreadSanitizer,
// whose shadow memory takes several times each byte the program touches.
constexpr bool kResidentMemoryMeasuresTheQueue = !zel_test::kUnderThreadSanitizer;

// Makes the next `count` allocations on the calling thread fail, after
// `after` more have been served.
void FailAllocations(long count, long after = 0) {
  tAllocationsLeft = after;
  tAllocationsToFail = count;
}

void StopFailingAllocations() {
  tAllocationsToFail = 0;
  tAllocationsLeft = 0;
}

void Start(const std::string& base) {
  zel_set_log_level(-1);
  zel_set_log_path(base.c_str());
}

// The text of every log file below the base (live and rotated files).
std::string AllLogText(const std::string& base) {
  std::string text;
  for (const std::string& day : ListDir(base)) {
    for (const std::string& name : ListDir(base + day)) text += ReadFile(base + day + "/" + name);
  }
  return text;
}

// The sum of the counts of every drop notice in `text`.
uint64_t NoticedDrops(const std::string& text) {
  static const std::regex notice(
      R"(zel log: (\d+) lines (dropped \(queue full\)|lost \(out of memory\)|lost \(no writer thread\))\n)");
  uint64_t sum = 0;
  for (auto it = std::sregex_iterator(text.begin(), text.end(), notice);
       it != std::sregex_iterator(); ++it) {
    sum += std::stoull((*it)[1].str());
  }
  return sum;
}

// Runs `work` on a thread of its own; true when it returned within
// kDeadline. A call that hangs is left behind (its thread detached), so
// that the test can report it.
bool ReturnsInTime(std::function<void()> work) {
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  tTestMakesThread = true;
  std::thread thread([work, done] {
    work();
    done->set_value();
  });
  tTestMakesThread = false;
  if (finished.wait_for(kDeadline) == std::future_status::ready) {
    thread.join();
    return true;
  }
  thread.detach();
  return false;
}

// The scheduling state of thread `tid` of this process ('R', 'S', ...).
char ThreadState(long long tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string all((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  const std::size_t paren = all.rfind(')');
  return paren != std::string::npos && paren + 2 < all.size() ? all[paren + 2] : '?';
}

// A field of /proc/self/status in kB ("VmRSS", "VmHWM").
long StatusKb(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const std::string key = std::string(field) + ":";
  while (std::getline(status, line)) {
    if (line.compare(0, key.size(), key) == 0) return std::stol(line.substr(key.size()));
  }
  return -1;
}

// A backend that holds the writer thread inside the first forwarded line
// until Release(), and records the writer's thread id. Registered once per
// process and kept alive to its end.
class HoldingBackend : public zel::LogBackend {
 public:
  void Log(const std::string& /*line*/) override {
    std::unique_lock<std::mutex> lock(mutex_);
    writerTid_ = OsThreadId();
    ++calls_;
    const long fail = failNextOnWriter_;
    const long after = failAfter_;
    failNextOnWriter_ = 0;
    changed_.notify_all();
    // A test that leaves the writer held ends with it held: the process
    // ends meanwhile.
    changed_.wait_for(lock, std::chrono::seconds(60), [this] { return !holding_; });
    lock.unlock();
    if (fail > 0) FailAllocations(fail, after);
  }
  // Makes the next forwarded line hold the writer.
  void Hold() {
    std::lock_guard<std::mutex> lock(mutex_);
    holding_ = true;
  }
  // Waits until the writer is held (or has passed by) `calls` lines.
  bool WaitForCalls(int calls) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kDeadline, [this, calls] { return calls_ >= calls; });
  }
  void Release() {
    std::lock_guard<std::mutex> lock(mutex_);
    holding_ = false;
    changed_.notify_all();
  }
  // Makes `count` allocations on the writer thread fail, after `after`
  // more, once the next forwarded line that comes after this call has been
  // handed over.
  void FailOnWriterAfterNextLine(long count, long after) {
    std::lock_guard<std::mutex> lock(mutex_);
    failNextOnWriter_ = count;
    failAfter_ = after;
  }
  long long writerTid() {
    std::lock_guard<std::mutex> lock(mutex_);
    return writerTid_;
  }

 private:
  std::mutex mutex_;
  // Signalled when a line comes to the writer or the writer is released.
  std::condition_variable changed_;
  bool holding_ = false;       // guarded by mutex_
  int calls_ = 0;              // guarded by mutex_
  long failNextOnWriter_ = 0;  // guarded by mutex_
  long failAfter_ = 0;         // guarded by mutex_
  long long writerTid_ = 0;    // guarded by mutex_
};

HoldingBackend* Backend() {
  static HoldingBackend* backend = [] {
    auto* b = new HoldingBackend();
    Logger::GetInstance()->RegisterBackend(b);
    return b;
  }();
  return backend;
}

TEST(LoggerFaultsTest, FailedWakeOfTheWriterNeitherStopsTheLogNorHangsTheFlush) {
  TempDir tmp;
  Start(tmp.path());
  HoldingBackend* backend = Backend();
  log_print(3, 1, "find the writer\n");
  zel_log_flush();
  ASSERT_TRUE(backend->WaitForCalls(1));
  const long long writer = backend->writerTid();
  // Each line is posted to a sleeping writer, so that it wakes it through
  // the Looper, with the allocations of the call failing from the first,
  // second, third or fourth on: among them the Looper's queue growing
  // (about once in 21 posts).
  constexpr int kLines = 120;
  for (int i = 0; i < kLines; ++i) {
    ASSERT_TRUE(WaitFor([writer] { return ThreadState(writer) == 'S'; }, kDeadline)) << i;
    FailAllocations(1000, i % 4);
    log_print(3, 0, "line %03d\n", i);
    StopFailingAllocations();
    ASSERT_TRUE(ReturnsInTime([] { zel_log_flush(); })) << "the flush after line " << i;
  }
  log_print(3, 0, "after\n");
  ASSERT_TRUE(ReturnsInTime([] { zel_log_flush(); }));
  const std::string text = AllLogText(tmp.path());
  int written = 0;
  for (int i = 0; i < kLines; ++i) {
    char line[32];
    std::snprintf(line, sizeof(line), "] line %03d\n", i);
    if (text.find(line) != std::string::npos) ++written;
  }
  EXPECT_NE(text.find("] after\n"), std::string::npos) << text;
  // Every line is written or counted, and the count is noticed.
  EXPECT_EQ(static_cast<uint64_t>(kLines - written), zel_log_dropped()) << text;
  EXPECT_EQ(NoticedDrops(text), zel_log_dropped()) << text;
}

TEST(LoggerFaultsTest, FailedQueuingLosesOnlyThoseLinesAndCountsThem) {
  TempDir tmp;
  Start(tmp.path());
  HoldingBackend* backend = Backend();
  // The writer is held with one line, so the lines below fill the thread's
  // queue, which needs a new segment every few hundred lines. From line
  // kFailing on, one allocation per line fails: the lines from the first
  // one that needs a segment are lost, until a line's one failure goes to
  // the notice of the lost ones (which stays pending) and the line gets
  // its segment. Then allocations work again.
  backend->Hold();
  log_print(3, 1, "held\n");
  ASSERT_TRUE(backend->WaitForCalls(1));
  constexpr int kLines = 3000;
  constexpr int kFailing = 2048;
  bool losing = false;
  int windowEnd = kLines;  // the first line written after the lost ones
  for (int i = 0; i < kLines; ++i) {
    if (i >= kFailing && i < windowEnd) FailAllocations(1);
    const uint64_t before = zel_log_dropped();
    log_print(3, 0, "line %05d abcdefghijklmnopqrstuvwxyz\n", i);
    StopFailingAllocations();
    if (zel_log_dropped() != before) {
      losing = true;
    } else if (losing && windowEnd == kLines) {
      windowEnd = i;
    }
  }
  backend->Release();
  ASSERT_TRUE(ReturnsInTime([] { zel_log_flush(); }));
  // The queue's accounting is intact: more lines go through under a bound.
  Logger::SetQueueLimit(64 * 1024, QueueFullPolicy::kDrop);
  for (int i = 0; i < 100; ++i) log_print(3, 0, "later %03d\n", i);
  ASSERT_TRUE(ReturnsInTime([] { zel_log_flush(); }));
  const std::string text = AllLogText(tmp.path());
  std::vector<int> lost;
  for (int i = 0; i < kLines; ++i) {
    char line[64];
    std::snprintf(line, sizeof(line), "] line %05d abcdefghijklmnopqrstuvwxyz\n", i);
    if (text.find(line) == std::string::npos) lost.push_back(i);
  }
  // One run of lines lost, all of the window.
  ASSERT_FALSE(lost.empty());
  EXPECT_GE(lost.front(), kFailing);
  EXPECT_EQ(lost.back() + 1, windowEnd);
  EXPECT_EQ(lost.back() - lost.front() + 1, static_cast<int>(lost.size()));
  for (int i = 0; i < 100; ++i) {
    char line[32];
    std::snprintf(line, sizeof(line), "] later %03d\n", i);
    ASSERT_NE(text.find(line), std::string::npos) << "later line " << i;
  }
  EXPECT_EQ(zel_log_dropped(), lost.size());
  EXPECT_NE(text.find("zel log: " + std::to_string(lost.size()) + " lines lost (out of memory)\n"),
            std::string::npos)
      << text;
  EXPECT_EQ(NoticedDrops(text), zel_log_dropped());
}

TEST(LoggerFaultsTest, AllocationFailureOnTheWriterThreadIsCaughtReportedOnceAndTheLogGoesOn) {
  TempDir tmp;
  Start(tmp.path());
  StdoutCapture out;
  HoldingBackend* backend = Backend();
  // Every line finds the file past its size limit: each run rotates first,
  // building the rotated file's name.
  Logger::GetInstance()->SetLogFileInfo(0, 256);
  log_print(3, 0, "first\n");
  zel_log_flush();
  constexpr int kRounds = 8;
  for (int round = 0; round < kRounds; ++round) {
    // The writer is held while "arm" and "next" are queued, so that it
    // writes them in one go: "next" starts a run of its own, which rotates
    // the file first, with one of the writer's allocations failing: in
    // each round a later one (some of them the file's code catches itself).
    backend->Hold();
    log_print(3, 1, "hold %d\n", round);
    ASSERT_TRUE(backend->WaitForCalls(2 * round + 1));
    backend->FailOnWriterAfterNextLine(1, round);
    log_print(3, 1, "arm %d\n", round);
    log_print(3, 0, "next %d\n", round);
    backend->Release();
    ASSERT_TRUE(ReturnsInTime([] { zel_log_flush(); })) << round;
  }
  log_print(3, 0, "last\n");
  ASSERT_TRUE(ReturnsInTime([] { zel_log_flush(); }));
  const std::string console = out.Stop();
  const std::string text = AllLogText(tmp.path());
  for (int round = 0; round < kRounds; ++round) {
    EXPECT_NE(text.find("] arm " + std::to_string(round) + "\n"), std::string::npos) << text;
    // The run that threw is tried again: the line is not lost.
    EXPECT_NE(text.find("] next " + std::to_string(round) + "\n"), std::string::npos) << text;
  }
  EXPECT_NE(text.find("] last\n"), std::string::npos) << text;
  EXPECT_EQ(zel_test::CountOccurrences(console, "the writer thread ran out of memory"), 1)
      << console;
}

TEST(LoggerFaultsTest, WriterThreadThatCannotBeCreatedDropsCountsAndIsTriedAgain) {
  TempDir tmp;
  Start(tmp.path());
  StdoutCapture out;
  gFailThreadCreation = true;
  // The Logger is made now, without its writer thread.
  ASSERT_TRUE(ReturnsInTime([] { log_print(3, 0, "lost 1\n"); }));
  ASSERT_TRUE(ReturnsInTime([] { zel_log_flush(); }));
  // Under kBlock too, nobody waits for a writer that is not there.
  Logger::SetQueueLimit(10, QueueFullPolicy::kBlock);
  ASSERT_TRUE(ReturnsInTime([] {
    log_print(3, 0, "lost 2\n");
    log_print(3, 0, "lost 3\n");
  }));
  ASSERT_TRUE(ReturnsInTime([] { zel_log_flush(); }));
  EXPECT_EQ(zel_log_dropped(), 3u);
  gFailThreadCreation = false;
  Logger::SetQueueLimit(1 << 20, QueueFullPolicy::kBlock);
  // The next line starts the writer.
  ASSERT_TRUE(ReturnsInTime([] {
    log_print(3, 0, "written\n");
    zel_log_flush();
  }));
  const std::string console = out.Stop();
  const std::string text = AllLogText(tmp.path());
  EXPECT_NE(text.find("zel log: 3 lines lost (no writer thread)\n"), std::string::npos) << text;
  EXPECT_NE(text.find("] written\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("] lost"), std::string::npos) << text;
  EXPECT_EQ(NoticedDrops(text), zel_log_dropped());
  EXPECT_EQ(zel_test::CountOccurrences(console, "the writer thread cannot be started"), 1)
      << console;
}

TEST(LoggerFaultsTest, DropCountAndNoticesAgreeWhenTheNoticeCannotBeQueued) {
  TempDir tmp;
  Start(tmp.path());
  HoldingBackend* backend = Backend();
  Logger::SetQueueLimit(100, QueueFullPolicy::kDrop);
  backend->Hold();
  log_print(3, 1, "held line of some length to fill most of the bound\n");
  ASSERT_TRUE(backend->WaitForCalls(1));
  // This line finds the queue full; its notice needs a block of its own,
  // and that allocation fails.
  FailAllocations(1);
  log_print(3, 0, "over the bound and dropped, with a notice that cannot be queued\n");
  StopFailingAllocations();
  EXPECT_EQ(zel_log_dropped(), 1u);
  backend->Release();
  ASSERT_TRUE(ReturnsInTime([] { zel_log_flush(); }));
  const std::string text = AllLogText(tmp.path());
  EXPECT_EQ(text.find("with a notice"), std::string::npos) << text;
  EXPECT_EQ(NoticedDrops(text), zel_log_dropped()) << text;
  EXPECT_NE(text.find("zel log: 1 lines dropped (queue full)\n"), std::string::npos) << text;
}

// Bounds the queue at `bound` bytes (lines beyond it dropped), posts
// `count` lines of `text` while the writer is held, and expects the peak
// resident memory to have grown by no more than the bound and a margin
// meanwhile. The writer stays held.
void FloodWithTheWriterHeld(const std::string& text, long count, std::size_t bound) {
  Logger::SetQueueLimit(bound, QueueFullPolicy::kDrop);
  HoldingBackend* backend = Backend();
  backend->Hold();
  log_print(3, 1, "held\n");
  EXPECT_TRUE(backend->WaitForCalls(1));
  const long before = StatusKb("VmRSS");
  EXPECT_GT(before, 0);
  Logger* logger = Logger::GetInstance();
  for (long i = 0; i < count; ++i) logger->Log(text, 3, false);
  const long grown = StatusKb("VmHWM") - before;
  if (kResidentMemoryMeasuresTheQueue) {
    EXPECT_LT(grown, static_cast<long>(bound / 1024) + 24 * 1024) << "kB";
  }
}

TEST(LoggerFaultsTest, FloodOfEmptyLinesStaysWithinTheBoundAndIsCounted) {
  TempDir tmp;
  Start(tmp.path());
  // Lines of no text, which a bound of text alone does not stop. (The
  // writer stays held to the end: each empty line takes the slow path of a
  // failed write, which would report it on standard output.)
  constexpr long kLines = 4L * 1024 * 1024;
  FloodWithTheWriterHeld(std::string(), kLines, 1 << 20);
  // Lines beyond the cap of the records are dropped and counted.
  EXPECT_GT(zel_log_dropped(), 0u);
  EXPECT_LT(zel_log_dropped(), static_cast<uint64_t>(kLines));
}

TEST(LoggerFaultsTest, FloodOfOneByteLinesStaysWithinTheBoundAndIsCounted) {
  TempDir tmp;
  Start(tmp.path());
  constexpr long kLines = 4L * 1024 * 1024;
  FloodWithTheWriterHeld("x", kLines, 4 << 20);
  const uint64_t dropped = zel_log_dropped();
  EXPECT_GT(dropped, 0u);
  Backend()->Release();
  ASSERT_TRUE(ReturnsInTime([] { zel_log_flush(); }));
  const std::string text = AllLogText(tmp.path());
  EXPECT_EQ(NoticedDrops(text), dropped);
  // Every line not dropped is written.
  EXPECT_EQ(static_cast<uint64_t>(zel_test::CountOccurrences(text, "x")), kLines - dropped);
}

TEST(LoggerFaultsTest, CallerWaitingUnderBlockIsDroppedWhenThePolicyBecomesDrop) {
  TempDir tmp;
  Start(tmp.path());
  HoldingBackend* backend = Backend();
  Logger* logger = Logger::GetInstance();
  Logger::SetQueueLimit(100, QueueFullPolicy::kBlock);
  backend->Hold();
  // 50 bytes queued (the held line's text counts until it is written).
  logger->Log(std::string(49, 'h') + "\n", 3, true);
  ASSERT_TRUE(backend->WaitForCalls(1));
  std::atomic<long long> waiter{0};
  std::thread caller([logger, &waiter] {
    waiter = OsThreadId();
    // 55 more bytes: over the bound, so the caller waits for room.
    logger->Log(std::string(54, 'w') + "\n", 3, false);
  });
  ASSERT_TRUE(WaitFor([&waiter] { return waiter.load() != 0; }, kDeadline));
  ASSERT_TRUE(WaitFor([&waiter] { return ThreadState(waiter.load()) == 'S'; }, kDeadline));
  Logger::SetQueueLimit(100, QueueFullPolicy::kDrop);
  caller.join();
  EXPECT_EQ(zel_log_dropped(), 1u);
  backend->Release();
  ASSERT_TRUE(ReturnsInTime([] { zel_log_flush(); }));
  const std::string text = AllLogText(tmp.path());
  EXPECT_EQ(text.find("wwww"), std::string::npos) << text;
  EXPECT_NE(text.find("zel log: 1 lines dropped (queue full)\n"), std::string::npos) << text;
}

}  // namespace
