// SPDX-License-Identifier: MIT

// The crash drain beside the application's own signal handlers and beside
// locks a faulting thread may hold:
// - an earlier SA_SIGINFO handler that recovers from a fault gets the
//   fault's own si_code and address, no fatal line is written, and the drain
//   stays installed for the next fault; one that jumps away leaves no fatal
//   line either;
// - a signal sent to a thread in the middle of posting a line, or holding
//   the C library's time-zone lock, ends the process within milliseconds,
//   not after the drain's whole wait;
// - a fault of the writer thread writes the lines it had gathered;
// - two threads faulting at once give the drain and one fatal line;
// - lines queued as their format and arguments when the fault comes are
//   formatted and written before the fatal line, their local time taken
//   without the time zone's lock.
// Each scenario runs in a forked child that ends by the fault; POSIX only.
#include <gtest/gtest.h>
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/test_util.h"
#include "utils/logger.h"
#include "utils/platform.h"

namespace {

using zel_test::ListDir;
using zel_test::ReadFile;
using zel_test::TempDir;
using zel_test::WaitFor;

// What a child tells the test through memory shared with it.
struct Shared {
  std::atomic<int> installResult;
  std::atomic<uint64_t> faultingTid;
  // The child's monotonic clock (shared by every process of the machine)
  // just before the signal, in ns: the time to its end is measured from here.
  std::atomic<int64_t> faultAtNs;
  // The earlier handler's view of the first fault it got.
  std::atomic<int> handlerCalls;
  std::atomic<int> firstCode;
  std::atomic<uintptr_t> firstAddress;
  std::atomic<uintptr_t> guardPage;
};

Shared* sShared = nullptr;

int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

uint64_t Tid() { return static_cast<uint64_t>(syscall(SYS_gettid)); }

struct ChildResult {
  int status = -1;  // -1: the child hung and was killed
  std::chrono::milliseconds took{-1};
  std::string log;  // the child's live file
};

// The live file of the one day directory under `base`.
std::string LiveFile(const std::string& base) {
  for (const std::string& day : ListDir(base)) {
    for (const std::string& name : ListDir(base + day)) {
      if (name.size() > 4 && name.compare(name.size() - 4, 4, ".txt") == 0) {
        return base + day + "/" + name;
      }
    }
  }
  return std::string();
}

// Runs `body` in a forked child prepared as a plain application (default
// signal actions, no core file) logging under `base` with the drain's wait
// set to `waitMs`; the child must end by a signal or exit. Collects how it
// ended, how long after shared->faultAtNs, and its log.
template <typename Body>
ChildResult RunChild(const std::string& base, int waitMs, Body body) {
  ChildResult result;
  sShared = static_cast<Shared*>(
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  if (sShared == MAP_FAILED) return result;
  new (sShared) Shared{};
  sShared->installResult.store(-2);
  const pid_t child = fork();
  if (child == 0) {
    for (int sig : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) signal(sig, SIG_DFL);
    struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    setenv("ZEL_LOG_CRASH_WAIT_MS", std::to_string(waitMs).c_str(), 1);
    zel_set_log_level(-1);
    zel_set_log_path(base.c_str());
    body();
    _exit(0);
  }
  int status = 0;
  if (!WaitFor([&] { return waitpid(child, &status, WNOHANG) == child; },
               std::chrono::milliseconds(60000))) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    status = -1;
  }
  const int64_t end = NowNs();
  result.status = status;
  if (sShared->faultAtNs.load() != 0) {
    result.took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::nanoseconds(end - sShared->faultAtNs.load()));
  }
  const std::string live = LiveFile(base);
  if (!live.empty()) result.log = ReadFile(live);
  return result;
}

std::string FatalLine(int sig, const char* name) {
  return "zel log: fatal signal " + std::to_string(sig) + " (" + name + ")\n";
}

// In the child: notes the time and sends SIGSEGV to `victim`, which ends
// the process; exits with 98 if it does not.
[[noreturn]] void FaultThread(std::thread& victim) {
  sShared->faultAtNs.store(NowNs());
  pthread_kill(victim.native_handle(), SIGSEGV);
  victim.join();
  _exit(98);
}

bool DiedOf(const ChildResult& result, int sig) {
  return result.status != -1 && WIFSIGNALED(result.status) && WTERMSIG(result.status) == sig;
}

// ---------------------------------------------------------------------------
// An earlier handler that recovers.

std::size_t PageSize() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }

// The application's handler: it cures a fault on its guard page by making
// the page writable, and lets any other fault come back.
void RecoveringHandler(int /*sig*/, siginfo_t* info, void* /*context*/) {
  if (sShared->handlerCalls.fetch_add(1) == 0) {
    sShared->firstCode.store(info->si_code);
    sShared->firstAddress.store(reinterpret_cast<uintptr_t>(info->si_addr));
  }
  if (reinterpret_cast<uintptr_t>(info->si_addr) == sShared->guardPage.load()) {
    mprotect(reinterpret_cast<void*>(sShared->guardPage.load()), PageSize(),
             PROT_READ | PROT_WRITE);
  }
}

TEST(CrashRecoveryTest, RecoveringHandlerGetsTheFaultsOwnCodeAndAddressAndTheDrainStays) {
  TempDir dir;
  const ChildResult result = RunChild(dir.path(), 30000, [] {
    struct sigaction action {};
    action.sa_sigaction = RecoveringHandler;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    sigaction(SIGSEGV, &action, nullptr);
    sShared->installResult.store(zel_log_install_crash_handler());
    void* guard = mmap(nullptr, PageSize(), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (guard == MAP_FAILED) _exit(3);
    sShared->guardPage.store(reinterpret_cast<uintptr_t>(guard));
    log_print(0, 0, "before the fault\n");
    // Faults once; the handler makes the page writable and the store runs
    // again.
    *static_cast<volatile int*>(guard) = 7;
    log_print(0, 0, "recovered, the page holds %d\n", *static_cast<volatile int*>(guard));
    // A fault the handler does not cure: the drain must still be there.
    sShared->faultingTid.store(Tid());
    volatile std::uintptr_t address = 16;
    *reinterpret_cast<volatile int*>(address) = 1;
    _exit(98);
  });
  ASSERT_EQ(sShared->installResult.load(), 0);
  EXPECT_TRUE(DiedOf(result, SIGSEGV)) << "status " << result.status;
  // The handler saw the guard-page fault as the kernel reported it, and
  // the null-page fault once (the second time it is not recovered).
  EXPECT_EQ(sShared->firstCode.load(), SEGV_ACCERR);
  EXPECT_EQ(sShared->firstAddress.load(), sShared->guardPage.load());
  EXPECT_EQ(sShared->handlerCalls.load(), 2);
  EXPECT_EQ(zel_test::StripLogPrefixes(result.log),
            "before the fault\nrecovered, the page holds 7\n" + FatalLine(SIGSEGV, "SIGSEGV"));
  EXPECT_NE(result.log.find("[tid:" + std::to_string(sShared->faultingTid.load()) + "] zel log"),
            std::string::npos)
      << result.log;
}

sigjmp_buf sProbeJump;

void JumpingHandler(int /*sig*/) { siglongjmp(sProbeJump, 1); }

TEST(CrashRecoveryTest, EarlierHandlerThatJumpsAwayLeavesNoFatalLine) {
  TempDir dir;
  const ChildResult result = RunChild(dir.path(), 30000, [] {
    signal(SIGSEGV, JumpingHandler);
    sShared->installResult.store(zel_log_install_crash_handler());
    log_print(0, 0, "probing\n");
    // A probe of an address, as a program that checks memory does it.
    bool readable = true;
    if (sigsetjmp(sProbeJump, 1) == 0) {
      volatile std::uintptr_t address = 16;
      static_cast<void>(*reinterpret_cast<volatile int*>(address));
    } else {
      readable = false;
    }
    log_print(0, 0, "the probe says %s\n", readable ? "readable" : "not readable");
    zel_log_flush();
    _exit(0);
  });
  ASSERT_EQ(sShared->installResult.load(), 0);
  EXPECT_TRUE(result.status != -1 && WIFEXITED(result.status) && WEXITSTATUS(result.status) == 0)
      << "status " << result.status;
  EXPECT_EQ(zel_test::StripLogPrefixes(result.log), "probing\nthe probe says not readable\n");
}

// ---------------------------------------------------------------------------
// A faulting thread that holds a lock.

// A thread that sets tTrapBigAllocation stops in its next allocation of at
// least kTrapSize bytes until a signal ends the process: the log's queue
// allocates the block of a line longer than its blocks while it holds the
// queue's lock.
constexpr std::size_t kTrapSize = 512 * 1024;
thread_local bool tTrapBigAllocation = false;
std::atomic<bool> sTrapped{false};

}  // namespace

// Exported, so that the library's allocations reach them too; the array
// forms as well, which a sanitizer's runtime would otherwise serve itself.
namespace {

void* TrappingAllocate(std::size_t size) {
  if (tTrapBigAllocation && size >= kTrapSize) {
    sTrapped.store(true);
    for (;;) pause();
  }
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

__attribute__((visibility("default"), noinline)) void* operator new(std::size_t size) {
  return TrappingAllocate(size);
}

__attribute__((visibility("default"), noinline)) void* operator new[](std::size_t size) {
  return TrappingAllocate(size);
}

__attribute__((visibility("default"), noinline)) void operator delete[](void* memory) noexcept {
  std::free(memory);
}

__attribute__((visibility("default"), noinline)) void operator delete[](void* memory,
                                                                        std::size_t) noexcept {
  std::free(memory);
}

__attribute__((visibility("default"), noinline)) void operator delete(void* memory) noexcept {
  std::free(memory);
}

__attribute__((visibility("default"), noinline)) void operator delete(void* memory,
                                                                      std::size_t) noexcept {
  std::free(memory);
}

namespace {

// Expects the child of `result` to have died of SIGSEGV within two seconds
// of the fault, its log holding "line 0" to "line <lines - 1>" and the
// fatal line: the drain did not wait for `waitedFor`.
void ExpectDrainedWithinTwoSeconds(const ChildResult& result, int lines,
                                   const std::string& waitedFor) {
  EXPECT_TRUE(DiedOf(result, SIGSEGV)) << "status " << result.status;
  EXPECT_GE(result.took.count(), 0);
  EXPECT_LT(result.took.count(), 2000) << "the drain waited for " << waitedFor;
  std::string expected;
  for (int i = 0; i < lines; ++i) expected += "line " + std::to_string(i) + "\n";
  expected += FatalLine(SIGSEGV, "SIGSEGV");
  EXPECT_EQ(zel_test::StripLogPrefixes(result.log), expected);
}

// The faulting thread is stopped for good in the middle of posting a line
// (in the allocation of its queue's room): the drain must not wait for it.
// The wait is set far longer than the bound, so that a drain that waits it
// out cannot pass.
TEST(CrashRecoveryTest, SignalToAThreadInTheMiddleOfPostingEndsWithinMilliseconds) {
  TempDir dir;
  const ChildResult result = RunChild(dir.path(), 10000, [] {
    sShared->installResult.store(zel_log_install_crash_handler());
    for (int i = 0; i < 100; ++i) log_print(0, 0, "line %d\n", i);
    zel_log_flush();
    std::thread victim([] {
      sShared->faultingTid.store(Tid());
      const std::string longLine(kTrapSize, 'x');
      tTrapBigAllocation = true;
      zel::Logger::GetInstance()->Log(longLine);
    });
    if (!WaitFor([] { return sTrapped.load(); }, std::chrono::milliseconds(30000))) _exit(4);
    FaultThread(victim);
  });
  ASSERT_EQ(sShared->installResult.load(), 0);
  ExpectDrainedWithinTwoSeconds(result, 100, "the lock");
  EXPECT_NE(result.log.find("[tid:" + std::to_string(sShared->faultingTid.load()) + "] zel log"),
            std::string::npos)
      << result.log;
}

// The faulting thread converts local times without a pause, so that it
// holds the C library's time-zone lock most of the time; the drain must
// take nothing from the time zone. Several children: each one's end must
// come within the bound.
TEST(CrashRecoveryTest, SignalToAThreadInsideLocaltimeEndsWithinMilliseconds) {
  constexpr int kTrials = 6;
  for (int trial = 0; trial < kTrials; ++trial) {
    SCOPED_TRACE("trial " + std::to_string(trial));
    TempDir dir;
    const ChildResult result = RunChild(dir.path(), 10000, [] {
      sShared->installResult.store(zel_log_install_crash_handler());
      // The live file is open before the conversions start; the other
      // lines come while they run, so that the writer is at work when the
      // signal comes.
      log_print(0, 0, "line 0\n");
      zel_log_flush();
      static std::atomic<uint64_t> conversions{0};
      std::thread victim([] {
        sShared->faultingTid.store(Tid());
        std::tm tm{};
        for (time_t t = 0;; t += 3607) {
          localtime_r(&t, &tm);
          conversions.fetch_add(1, std::memory_order_relaxed);
        }
      });
      if (!WaitFor([] { return conversions.load() > 10000; }, std::chrono::milliseconds(30000))) {
        _exit(4);
      }
      for (int i = 1; i < 50; ++i) log_print(0, 0, "line %d\n", i);
      FaultThread(victim);
    });
    ASSERT_EQ(sShared->installResult.load(), 0);
    ExpectDrainedWithinTwoSeconds(result, 50, "the time zone");
  }
}

// ---------------------------------------------------------------------------
// A fault of the writer thread, and two faulting threads.

// A backend that holds the writer on the line "gate" until released, and
// faults on the line "boom".
class FaultingBackend : public zel::LogBackend {
 public:
  void Log(const std::string& line) override {
    if (line.find("] gate\n") != std::string::npos) released_.Wait();
    if (line.find("] boom\n") != std::string::npos) {
      sShared->faultingTid.store(Tid());
      volatile std::uintptr_t address = 16;
      *reinterpret_cast<volatile int*>(address) = 1;
    }
  }
  void Release() { released_.Open(); }

 private:
  zel_test::Latch released_;
};

// In the child: installs the crash handler, keeping its result for the test
// to check, and a FaultingBackend.
FaultingBackend& InstallHandlerAndFaultingBackend() {
  sShared->installResult.store(zel_log_install_crash_handler());
  static FaultingBackend backend;
  zel::Logger::GetInstance()->RegisterBackend(&backend);
  return backend;
}

TEST(CrashRecoveryTest, FaultOfTheWriterThreadWritesTheLinesItGathered) {
  TempDir dir;
  const ChildResult result = RunChild(dir.path(), 30000, [] {
    FaultingBackend& backend = InstallHandlerAndFaultingBackend();
    // The writer stops on "gate"; the lines behind it are then taken
    // together and gathered into one run, in which "boom" faults.
    log_print(0, 1, "gate\n");
    for (int i = 0; i < 50; ++i) log_print(0, 1, "gathered %d\n", i);
    log_print(0, 1, "boom\n");
    for (int i = 0; i < 5; ++i) log_print(0, 1, "behind %d\n", i);
    backend.Release();
    for (;;) pause();
  });
  ASSERT_EQ(sShared->installResult.load(), 0);
  EXPECT_TRUE(DiedOf(result, SIGSEGV)) << "status " << result.status;
  std::string expected = "gate\n";
  for (int i = 0; i < 50; ++i) expected += "gathered " + std::to_string(i) + "\n";
  expected += "boom\n" + FatalLine(SIGSEGV, "SIGSEGV");
  EXPECT_EQ(zel_test::StripLogPrefixes(result.log), expected);
  EXPECT_NE(result.log.find("[tid:" + std::to_string(sShared->faultingTid.load()) + "] zel log"),
            std::string::npos)
      << result.log;
}

TEST(CrashRecoveryTest, WaitAboveTheMaximumIsCappedAtTheMaximumNotTheDefault) {
  // ZEL_LOG_CRASH_WAIT_MS past 600000 waits 600000 ms: the handler still
  // waits for the writer 2.5 s after the fault (the default would have
  // given up at 2 s and written the fatal line alone).
  TempDir dir;
  const ChildResult result = RunChild(dir.path(), 10000000, [] {
    FaultingBackend& backend = InstallHandlerAndFaultingBackend();
    log_print(0, 1, "gate\n");
    log_print(0, 1, "queued\n");
    std::thread releaser([&backend] {
      while (sShared->faultAtNs.load() == 0) std::this_thread::yield();
      const int64_t at = sShared->faultAtNs.load() + 2500 * int64_t{1000000};
      while (NowNs() < at) std::this_thread::sleep_for(std::chrono::milliseconds(10));
      backend.Release();
    });
    releaser.detach();
    sShared->faultAtNs.store(NowNs());
    volatile std::uintptr_t address = 16;
    *reinterpret_cast<volatile int*>(address) = 1;
  });
  ASSERT_EQ(sShared->installResult.load(), 0);
  EXPECT_TRUE(DiedOf(result, SIGSEGV)) << "status " << result.status;
  EXPECT_GE(result.took.count(), 2500);
  EXPECT_EQ(zel_test::StripLogPrefixes(result.log),
            "gate\nqueued\n" + FatalLine(SIGSEGV, "SIGSEGV"));
}

// A backend that holds the writer on its first line until released, then
// takes `delay` per line: the writer is far behind when the threads fault.
class SlowBackend : public zel::LogBackend {
 public:
  void Log(const std::string&) override {
    released_.Wait();
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  void Release() { released_.Open(); }

 private:
  zel_test::Latch released_;
};

TEST(CrashRecoveryTest, TwoThreadsFaultingAtOnceGiveTheDrainAndOneFatalLine) {
  TempDir dir;
  constexpr int kLines = 1500;
  const ChildResult result = RunChild(dir.path(), 30000, [] {
    sShared->installResult.store(zel_log_install_crash_handler());
    static SlowBackend backend;
    zel::Logger::GetInstance()->RegisterBackend(&backend);
    for (int i = 0; i < kLines; ++i) log_print(0, 1, "line %d\n", i);
    backend.Release();
    static std::atomic<int> ready{0};
    auto fault = [](std::uintptr_t at) {
      ready.fetch_add(1);
      while (ready.load() < 2) {
      }
      volatile std::uintptr_t address = at;
      *reinterpret_cast<volatile int*>(address) = 1;
    };
    std::thread first(fault, 16);
    std::thread second(fault, 32);
    first.join();
    second.join();
    _exit(98);
  });
  ASSERT_EQ(sShared->installResult.load(), 0);
  EXPECT_TRUE(DiedOf(result, SIGSEGV)) << "status " << result.status;
  std::string expected;
  for (int i = 0; i < kLines; ++i) expected += "line " + std::to_string(i) + "\n";
  expected += FatalLine(SIGSEGV, "SIGSEGV");
  EXPECT_EQ(zel_test::StripLogPrefixes(result.log), expected);
}

// ---------------------------------------------------------------------------
// A fault while lines wait in the queue unformatted.

// Set by FaultNotingHandler: the process has faulted.
std::atomic<bool> sFaulted{false};
struct sigaction sDrainAction;  // the crash drain's handler, called on

// Installed over the crash drain: notes the fault (which releases the
// held writer) and hands the signal to the drain.
void FaultNotingHandler(int sig, siginfo_t* info, void* context) {
  sFaulted.store(true);
  if ((sDrainAction.sa_flags & SA_SIGINFO) != 0) {
    sDrainAction.sa_sigaction(sig, info, context);
  } else {
    sDrainAction.sa_handler(sig);
  }
}

// Holds the writer on the line "gate" until the process has faulted.
class HeldUntilTheFaultBackend : public zel::LogBackend {
 public:
  void Log(const std::string& line) override {
    if (line.find("] gate\n") == std::string::npos) return;
    while (!sFaulted.load()) std::this_thread::yield();
  }
};

// In the child: installs the crash drain, a HeldUntilTheFaultBackend, and
// FaultNotingHandler over the drain.
void InstallHandlerHoldingTheWriterUntilTheFault() {
  sShared->installResult.store(zel_log_install_crash_handler());
  static HeldUntilTheFaultBackend backend;
  zel::Logger::GetInstance()->RegisterBackend(&backend);
  struct sigaction noting = {};
  noting.sa_sigaction = FaultNotingHandler;
  noting.sa_flags = SA_SIGINFO;
  sigemptyset(&noting.sa_mask);
  sigaction(SIGSEGV, &noting, &sDrainAction);
}

TEST(CrashRecoveryTest, FaultWithLinesQueuedUnformattedWritesThemFormatted) {
  TempDir dir;
  constexpr int kLines = 1000;
  const ChildResult result = RunChild(dir.path(), 30000, [] {
    InstallHandlerHoldingTheWriterUntilTheFault();
    // Every line behind "gate" is queued as its format and arguments when
    // the fault comes: the writer formats them after it.
    log_print(0, 1, "gate\n");
    for (int i = 0; i < kLines; ++i) {
      log_print(0, 0, "line %05d [%-6s] %08x %c\n", i, i % 2 == 0 ? "even" : "odd", i,
                'a' + i % 26);
    }
    volatile std::uintptr_t address = 16;
    *reinterpret_cast<volatile int*>(address) = 1;
  });
  ASSERT_EQ(sShared->installResult.load(), 0);
  EXPECT_TRUE(DiedOf(result, SIGSEGV)) << "status " << result.status;
  std::string expected = "gate\n";
  for (int i = 0; i < kLines; ++i) {
    char line[64];
    std::snprintf(line, sizeof(line), "line %05d [%-6s] %08x %c\n", i, i % 2 == 0 ? "even" : "odd",
                  i, 'a' + i % 26);
    expected += line;
  }
  expected += FatalLine(SIGSEGV, "SIGSEGV");
  EXPECT_EQ(zel_test::StripLogPrefixes(result.log), expected);
}

// Lines of new seconds wait unformatted behind the held writer while a
// thread converts local times without a pause; it faults inside the time
// zone's lock most of the time. The writer formats the lines after the
// fault: it must take their local time from the kept offset, not from the
// time zone, or it waits for that lock for good.
TEST(CrashRecoveryTest, LinesFormattedAfterAFaultInsideLocaltimeEndWithinMilliseconds) {
  constexpr int kTrials = 6;
  constexpr int kLines = 20;
  for (int trial = 0; trial < kTrials; ++trial) {
    SCOPED_TRACE("trial " + std::to_string(trial));
    TempDir dir;
    const ChildResult result = RunChild(dir.path(), 10000, [] {
      InstallHandlerHoldingTheWriterUntilTheFault();
      // The live file is open before the conversions start (opening it
      // asks the time zone for the directory's date).
      log_print(0, 0, "open\n");
      zel_log_flush();
      log_print(0, 1, "gate\n");
      // Each line a second later than the one before: none of their local
      // times is known to the writer.
      for (int i = 0; i < kLines; ++i) {
        zel_test_hook_set_wall_clock_offset_ms(1000LL * (i + 1));
        log_print(0, 0, "line %d\n", i);
      }
      static std::atomic<uint64_t> conversions{0};
      std::thread victim([] {
        sShared->faultingTid.store(Tid());
        std::tm tm{};
        for (time_t t = 0;; t += 3607) {
          localtime_r(&t, &tm);
          conversions.fetch_add(1, std::memory_order_relaxed);
        }
      });
      if (!WaitFor([] { return conversions.load() > 10000; }, std::chrono::milliseconds(30000))) {
        _exit(4);
      }
      FaultThread(victim);
    });
    ASSERT_EQ(sShared->installResult.load(), 0);
    EXPECT_TRUE(DiedOf(result, SIGSEGV)) << "status " << result.status;
    EXPECT_GE(result.took.count(), 0);
    EXPECT_LT(result.took.count(), 2000) << "the writer waited for the time zone";
    std::string expected = "open\ngate\n";
    for (int i = 0; i < kLines; ++i) expected += "line " + std::to_string(i) + "\n";
    expected += FatalLine(SIGSEGV, "SIGSEGV");
    EXPECT_EQ(zel_test::StripLogPrefixes(result.log), expected);
  }
}

}  // namespace
