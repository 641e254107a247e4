// SPDX-License-Identifier: MIT

// The log under a crash: a child process logs heavily from several threads
// and is killed (SIGKILL; TerminateProcess on Windows) at a random moment,
// many times over. Each time
// every line in its files must be whole, except possibly the very last one
// of the live file (the write under way), each thread's lines must be in
// posting order without a gap or a duplicate, and every line for which a
// Flush() had returned before the kill must be there.
//
// The crash drain: a child installs it, logs from several threads through a
// slow writer and then faults (a null pointer, abort(), a raised signal);
// every line it queued must be in the file, followed by the fatal line, and
// it must die of the same signal as without the drain. On Windows the fault
// is an access violation that reaches the unhandled-exception filter.
#include <fcntl.h>
#include <gtest/gtest.h>
#if !defined(ZEL_TEST_ON_WINDOWS)
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#endif
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/test_util.h"
#include "utils/logger.h"

namespace {

using zel_test::ChildHandle;
using zel_test::KillChild;
using zel_test::kNoChild;
using zel_test::ListDir;
using zel_test::LiveFileBelow;
using zel_test::ReadFile;
using zel_test::StartChild;
using zel_test::TempDir;
using zel_test::WaitChild;
using zel_test::WaitFor;

constexpr int kThreads = 4;

// Shared between the test and its child (an anonymous shared mapping made
// before the fork; on Windows a named mapping that the child opens): how
// many lines each thread has posted, and how many of them a returned Flush()
// covers.
struct Shared {
  std::atomic<uint64_t> posted[kThreads];
  std::atomic<uint64_t> flushed[kThreads];
};

char PayloadChar(int thread, uint64_t seq, std::size_t i) {
  return static_cast<char>('a' + (static_cast<uint64_t>(thread) * 5 + seq * 11 + i) % 26);
}

std::size_t PayloadLength(uint64_t seq) { return 10 + static_cast<std::size_t>(seq * 37 % 300); }

// The child: logs "C <thread> <seq> <payload>" lines from kThreads threads
// until it is killed; every 64 lines a thread flushes and then publishes
// how far the flush reached.
[[noreturn]] void RunChild(const std::string& base, Shared* shared) {
  zel_set_log_level(-1);
  zel_set_log_path(base.c_str());
  zel::Logger::GetInstance()->SetLogFileInfo(32 * 1024, 255);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, shared] {
      std::string payload;
      for (uint64_t seq = 0;; ++seq) {
        payload.assign(PayloadLength(seq), ' ');
        for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = PayloadChar(t, seq, i);
        log_print(3, 0, "C %d %" PRIu64 " %s\n", t, seq, payload.c_str());
        shared->posted[t].store(seq + 1);
        if (seq % 64 == 63) {
          zel_log_flush();
          shared->flushed[t].store(seq + 1);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  _exit(0);
}

// Runs the child role `role`: {"log", shared memory, log base} for the
// child killed while logging, {"drain", shared memory, log base, fault,
// stuck writer "0"/"1", prior handler's marker file} for the crash drain.
[[noreturn]] void RunChildRole(const std::vector<std::string>& role);

// Parses "[M-D hh:mm:ss.mmm][tid:N] C <t> <seq> <payload>\n"; false when the
// line is not whole.
bool ParseLine(const std::string& line, int* thread, uint64_t* seq) {
  static const std::regex whole(
      R"(\[\d+-\d+ \d\d:\d\d:\d\d\.\d\d\d\]\[tid:\d+\] C (\d+) (\d+) ([a-z]+)\n)");
  std::smatch match;
  if (!std::regex_match(line, match, whole)) return false;
  *thread = std::stoi(match[1]);
  *seq = std::stoull(match[2]);
  if (*thread < 0 || *thread >= kThreads) return false;
  const std::string payload = match[3];
  if (payload.size() != PayloadLength(*seq)) return false;
  for (std::size_t i = 0; i < payload.size(); ++i) {
    if (payload[i] != PayloadChar(*thread, *seq, i)) return false;
  }
  return true;
}

// The log files of the child's one day directory under `base`: rotated
// files by index, then the live file.
std::vector<std::string> ChildLogFiles(const std::string& base) {
  std::vector<std::string> files;
  for (const std::string& day : ListDir(base)) {
    const std::string dir = base + day + "/";
    std::string live;
    std::vector<std::pair<int, std::string>> rotated;
    for (const std::string& name : ListDir(dir)) {
      if (name.size() > 4 && name.compare(name.size() - 4, 4, ".txt") == 0) {
        live = dir + name;
      } else {
        rotated.emplace_back(std::stoi(name.substr(name.rfind('.') + 1)), dir + name);
      }
    }
    std::sort(rotated.begin(), rotated.end());
    for (const auto& entry : rotated) files.push_back(entry.second);
    if (!live.empty()) files.push_back(live);
  }
  return files;
}

TEST(CrashTest, KilledWhileLoggingLeavesWholeLinesAndEveryFlushedLine) {
  const zel_test::SharedWithChild<Shared> memory;
  Shared* shared = memory.get();
  ASSERT_NE(shared, nullptr);
  std::mt19937 random(std::random_device{}());
  constexpr int kRounds = 15;
  int roundsWithLines = 0;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    for (int t = 0; t < kThreads; ++t) {
      shared->posted[t].store(0);
      shared->flushed[t].store(0);
    }
    // Kill after a random number of posted lines (up to a few rotations).
    const uint64_t killAfter = std::uniform_int_distribution<uint64_t>(1, 3000)(random);
    const ChildHandle child = StartChild(RunChildRole, {"log", memory.role(), dir.path()});
    ASSERT_NE(child, kNoChild) << "no child";

    const bool reached = WaitFor(
        [shared, killAfter] {
          uint64_t total = 0;
          for (int t = 0; t < kThreads; ++t) total += shared->posted[t].load();
          return total >= killAfter;
        },
        std::chrono::milliseconds(60000));
    const bool killed = KillChild(child);
    ASSERT_TRUE(reached) << "the child did not log " << killAfter << " lines within 60 s";
    ASSERT_TRUE(killed) << "the child ended before it was killed";

    uint64_t flushed[kThreads];
    for (int t = 0; t < kThreads; ++t) flushed[t] = shared->flushed[t].load();

    const std::vector<std::string> files = ChildLogFiles(dir.path());
    std::vector<uint64_t> next(kThreads, 0);
    for (std::size_t f = 0; f < files.size(); ++f) {
      const std::vector<std::string> lines = zel_test::SplitLines(ReadFile(files[f]));
      for (std::size_t i = 0; i < lines.size(); ++i) {
        int thread = 0;
        uint64_t seq = 0;
        if (!ParseLine(lines[i], &thread, &seq)) {
          const bool lastOfLive = f + 1 == files.size() && i + 1 == lines.size();
          EXPECT_TRUE(lastOfLive) << files[f] << ": torn line " << i << ": " << lines[i];
          continue;
        }
        EXPECT_EQ(seq, next[static_cast<std::size_t>(thread)])
            << files[f] << ": thread " << thread << " out of order, lost or doubled";
        next[static_cast<std::size_t>(thread)] = seq + 1;
      }
    }
    uint64_t found = 0;
    for (int t = 0; t < kThreads; ++t) {
      EXPECT_GE(next[static_cast<std::size_t>(t)], flushed[t])
          << "thread " << t << ": a line covered by a returned Flush() is missing";
      found += next[static_cast<std::size_t>(t)];
    }
    if (found > 0) ++roundsWithLines;
  }
  // The kills must have hit a log under way, not only children that had
  // not written anything yet.
  EXPECT_GT(roundsWithLines, kRounds / 2);
}

// ---------------------------------------------------------------------------
// The crash drain. On POSIX the children fork and fault with signals; on
// Windows they are this program started again, and fault with an access
// violation that no handler catches (the unhandled-exception filter).

constexpr int kCrashLinesPerThread = 500;

// What the crashing child tells the test through shared memory.
struct CrashShared {
  std::atomic<uint64_t> faultingTid;
  // The child's monotonic clock (shared by every process of the machine)
  // just before it faults, in ns; the time to its end is measured from here,
  // since the test notices the fault only a poll interval later.
  std::atomic<int64_t> faultAtNs;
  std::atomic<int64_t> linesInFileBeforeFault;  // -1 until known
  std::atomic<int> installResult;

  // The state before a child has reported anything.
  void Reset() {
    faultingTid.store(0);
    faultAtNs.store(0);
    linesInFileBeforeFault.store(-1);
    installResult.store(-2);
  }
};

// A backend that holds up the writer: it holds the first line until
// Release(), so that the writer is surely behind when the child faults,
// then each line costs it `delay`.
class SlowBackend : public zel::LogBackend {
 public:
  explicit SlowBackend(std::chrono::microseconds delay) : delay_(delay) {}
  void Log(const std::string&) override {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      cond_.wait(lock, [this] { return released_; });
    }
    std::this_thread::sleep_for(delay_);
  }
  void Release() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    cond_.notify_all();
  }

 private:
  std::chrono::microseconds delay_;
  std::mutex mutex_;
  std::condition_variable cond_;
  bool released_ = false;
};

// A backend that never returns: the writer stays blocked in it.
class StuckBackend : public zel::LogBackend {
 public:
  void Log(const std::string&) override {
    std::unique_lock<std::mutex> lock(mutex_);
    cond_.wait(lock, [] { return false; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
};

int CountNewlines(const std::string& path) {
  return zel_test::CountOccurrences(ReadFile(path), "\n");
}

// The child's part before its fault: installs the crash drain, logs
// kCrashLinesPerThread lines from each of kThreads threads through a writer
// slowed down by a backend (or stuck in one), and tells the test how far
// the writer had come and which thread faults.
void LogBehindASlowWriter(const std::string& base, CrashShared* shared, bool stuckWriter) {
  zel_set_log_level(-1);
  zel_set_log_path(base.c_str());
  shared->installResult.store(zel_log_install_crash_handler());
  zel::Logger* logger = zel::Logger::GetInstance();
  static SlowBackend slow(std::chrono::microseconds(200));
  static StuckBackend stuck;
  logger->RegisterBackend(stuckWriter ? static_cast<zel::LogBackend*>(&stuck) : &slow);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int seq = 0; seq < kCrashLinesPerThread; ++seq) log_print(3, 1, "T %d %d\n", t, seq);
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::string live = LiveFileBelow(base);
  shared->linesInFileBeforeFault.store(live.empty() ? 0 : CountNewlines(live));
  slow.Release();
  shared->faultAtNs.store(std::chrono::duration_cast<std::chrono::nanoseconds>(
                              std::chrono::steady_clock::now().time_since_epoch())
                              .count());
  shared->faultingTid.store(static_cast<uint64_t>(zel_test::OsThreadId()));
}

struct CrashResult {
  int status = 0;  // waitpid's status; on Windows the exit code
  std::chrono::milliseconds took{0};
  std::string log;
  int64_t linesBeforeFault = -1;
  uint64_t faultingTid = 0;
  int installResult = -2;
};

// Waits for the child's report that it is about to fault, then measures how
// long it took to end from the moment of that report (`waitEnd` waits for
// its end).
template <typename WaitEnd>
void CollectCrash(const std::string& base, CrashShared* shared, WaitEnd waitEnd,
                  CrashResult* result) {
  WaitFor([shared] { return shared->faultingTid.load() != 0; }, std::chrono::milliseconds(60000));
  const std::chrono::steady_clock::time_point start{
      std::chrono::duration_cast<std::chrono::steady_clock::duration>(
          std::chrono::nanoseconds(shared->faultAtNs.load()))};
  waitEnd();
  result->took = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - start);
  result->linesBeforeFault = shared->linesInFileBeforeFault.load();
  result->faultingTid = shared->faultingTid.load();
  result->installResult = shared->installResult.load();
  const std::string live = LiveFileBelow(base);
  if (!live.empty()) result->log = ReadFile(live);
}

// The record in `memory`, reset for a new child; null when the memory could
// not be made.
CrashShared* ResetRecord(const zel_test::SharedWithChild<CrashShared>& memory) {
  CrashShared* shared = memory.get();
  if (shared != nullptr) shared->Reset();
  return shared;
}

#if defined(ZEL_TEST_ON_WINDOWS)

// The exception filter the application had before the drain: appends a
// marker to a file, then lets the system end the process.
std::string sPriorMarker;
LONG WINAPI PriorFilter(EXCEPTION_POINTERS* /*pointers*/) {
  const std::string marker = "prior filter ran\n";
  const HANDLE file = CreateFileA(sPriorMarker.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr,
                                  OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  DWORD written = 0;
  if (file == INVALID_HANDLE_VALUE ||
      !WriteFile(file, marker.data(), static_cast<DWORD>(marker.size()), &written, nullptr)) {
    TerminateProcess(GetCurrentProcess(), 97);
  }
  CloseHandle(file);
  return EXCEPTION_CONTINUE_SEARCH;
}

// The child: the application's own filter first when `priorMarker` is
// given, then the drain, the lines, and an access violation.
[[noreturn]] void RunCrashChild(const std::string& base, CrashShared* shared, bool stuckWriter,
                                const std::string& priorMarker) {
  // No error box for the fault: the process just ends.
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
  if (!priorMarker.empty()) {
    sPriorMarker = priorMarker;
    SetUnhandledExceptionFilter(PriorFilter);
  }
  if (std::getenv("ZEL_LOG_CRASH_WAIT_MS") == nullptr) _putenv_s("ZEL_LOG_CRASH_WAIT_MS", "30000");
  LogBehindASlowWriter(base, shared, stuckWriter);
  volatile std::uintptr_t address = 16;
  *reinterpret_cast<volatile int*>(address) = 1;
  _exit(98);  // not reached: the fault ends the process
}

CrashResult RunCrash(const std::string& base, bool stuckWriter,
                     const std::string& priorMarker = std::string()) {
  CrashResult result;
  const zel_test::SharedWithChild<CrashShared> memory;
  CrashShared* shared = ResetRecord(memory);
  if (shared == nullptr) return result;
  // The child's streams are NUL: whatever the system starts for the
  // unhandled fault (Wine's debugger, unless the windows test preset
  // disables it) must not hold the test's output open after the test.
  const ChildHandle child =
      StartChild(RunChildRole,
                 {"drain", memory.role(), base, "0", stuckWriter ? "1" : "0", priorMarker}, true);
  if (child != kNoChild) {
    CollectCrash(
        base, shared,
        [&] {
          if (!WaitChild(child, std::chrono::minutes(10), &result.status)) KillChild(child);
        },
        &result);
  }
  return result;
}

std::string FatalLinePattern(uint64_t tid) {
  return R"(\[\d+-\d+ \d\d:\d\d:\d\d\.\d\d\d\]\[tid:)" + std::to_string(tid) +
         R"(\] zel log: fatal exception 0xC0000005 \(EXCEPTION_ACCESS_VIOLATION\)\n)";
}

// The child ended as an access violation ends a process without the drain.
void ExpectEndedByTheFault(const CrashResult& result) {
  EXPECT_EQ(static_cast<DWORD>(result.status), static_cast<DWORD>(EXCEPTION_ACCESS_VIOLATION))
      << "exit code 0x" << std::hex << static_cast<DWORD>(result.status);
}

#else

enum class Fault { kNullPointer, kAbort, kRaiseBus };

int SignalOf(Fault fault) {
  switch (fault) {
    case Fault::kNullPointer:
      return SIGSEGV;
    case Fault::kAbort:
      return SIGABRT;
    case Fault::kRaiseBus:
      return SIGBUS;
  }
  return 0;
}

const char* NameOf(int sig) {
  switch (sig) {
    case SIGSEGV:
      return "SIGSEGV";
    case SIGABRT:
      return "SIGABRT";
    case SIGBUS:
      return "SIGBUS";
    default:
      return "?";
  }
}

void Crash(Fault fault) {
  switch (fault) {
    case Fault::kNullPointer: {
      // An address in the unmapped page at null; not null itself, so that
      // the undefined-behaviour sanitizer lets the fault happen.
      volatile std::uintptr_t address = 16;
      *reinterpret_cast<volatile int*>(address) = 1;
      break;
    }
    case Fault::kAbort:
      std::abort();
    case Fault::kRaiseBus:
      raise(SIGBUS);
      break;
  }
}

// A previous handler of the application: appends a marker to the file
// whose descriptor it was given, then lets the signal end the process.
int sPriorMarkerFd = -1;
void PriorHandler(int sig) {
  const char marker[] = "prior handler ran\n";
  if (write(sPriorMarkerFd, marker, sizeof(marker) - 1) < 0) _exit(97);
  signal(sig, SIG_DFL);
  raise(sig);
}

// The child: installs the crash drain (after `prior` as the application's
// own handler of the fault's signal, when given), logs behind a slow or
// stuck writer, then faults.
[[noreturn]] void RunCrashChild(const std::string& base, CrashShared* shared, Fault fault,
                                bool stuckWriter, const std::string& priorMarker) {
  // A plain application: the default actions (a sanitizer's own handlers
  // would change the exit status), and no core file.
  for (int sig : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) signal(sig, SIG_DFL);
  struct rlimit noCore = {0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  if (!priorMarker.empty()) {
    sPriorMarkerFd = open(priorMarker.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    signal(SignalOf(fault), PriorHandler);
  }
  // The drain tests wait as long as a loaded machine under a sanitizer may
  // need; the test of a stuck writer sets its own short wait.
  setenv("ZEL_LOG_CRASH_WAIT_MS", "30000", 0);
  LogBehindASlowWriter(base, shared, stuckWriter);
  Crash(fault);
  _exit(98);  // not reached: the fault ends the process
}

CrashResult RunCrash(const std::string& base, Fault fault, bool stuckWriter,
                     const std::string& priorMarker = std::string()) {
  CrashResult result;
  const zel_test::SharedWithChild<CrashShared> memory;
  CrashShared* shared = ResetRecord(memory);
  if (shared == nullptr) return result;
  const ChildHandle child = StartChild(
      RunChildRole, {"drain", memory.role(), base, std::to_string(static_cast<int>(fault)),
                     stuckWriter ? "1" : "0", priorMarker});
  if (child == kNoChild) return result;
  CollectCrash(
      base, shared, [&] { waitpid(child, &result.status, 0); }, &result);
  return result;
}

std::string FatalLinePattern(int sig, uint64_t tid) {
  return R"(\[\d+-\d+ \d\d:\d\d:\d\d\.\d\d\d\]\[tid:)" + std::to_string(tid) +
         R"(\] zel log: fatal signal )" + std::to_string(sig) + " \\(" + NameOf(sig) + "\\)\n";
}

#endif

[[noreturn]] void RunChildRole(const std::vector<std::string>& role) {
  if (role.size() == 3 && role[0] == "log") {
    Shared* shared = zel_test::SharedWithChild<Shared>::Open(role[1]);
    if (shared != nullptr) RunChild(role[2], shared);
  }
  if (role.size() == 6 && role[0] == "drain") {
    CrashShared* shared = zel_test::SharedWithChild<CrashShared>::Open(role[1]);
    if (shared != nullptr) {
#if defined(ZEL_TEST_ON_WINDOWS)
      RunCrashChild(role[2], shared, role[4] == "1", role[5]);
#else
      RunCrashChild(role[2], shared, static_cast<Fault>(std::stoi(role[3])), role[4] == "1",
                    role[5]);
#endif
    }
  }
  _exit(2);
}

// In a child started on Windows, runs its role instead of the tests.
const bool kRanAsChild = zel_test::RunChildRoleIfAsked(RunChildRole);

// Every queued line is in the file, each thread's in order, followed by the
// fatal line (matching `fatalPattern`) and nothing else.
void ExpectDrainedThenFatal(const CrashResult& result, const std::string& fatalPattern) {
  ASSERT_EQ(result.installResult, 0);
  // The writer was behind when the fault came: the drain had work to do.
  EXPECT_LT(result.linesBeforeFault, kThreads * kCrashLinesPerThread);
  const std::vector<std::string> lines = zel_test::SplitLines(result.log);
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kCrashLinesPerThread + 1));
  std::vector<int> next(kThreads, 0);
  static const std::regex logged(R"(\[\d+-\d+ [\d:.]+\]\[tid:\d+\] T (\d) (\d+)\r?\n)");
  for (std::size_t i = 0; i + 1 < lines.size(); ++i) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(lines[i], match, logged)) << "line " << i << ": " << lines[i];
    const int t = std::stoi(match[1]);
    ASSERT_LT(t, kThreads);
    EXPECT_EQ(std::stoi(match[2]), next[static_cast<std::size_t>(t)]) << "thread " << t;
    ++next[static_cast<std::size_t>(t)];
  }
  EXPECT_TRUE(std::regex_match(lines.back(), std::regex(fatalPattern))) << lines.back();
  // The fatal line's local date and hour, made without the C library, are
  // those of the line before it (made by log_print).
  const std::string before = lines[lines.size() - 2];
  const std::string fatal = lines.back();
  EXPECT_EQ(fatal.substr(0, fatal.find(':')), before.substr(0, before.find(':')))
      << before << fatal;
}

#if defined(ZEL_TEST_ON_WINDOWS)

TEST(CrashDrainTest, AccessViolationWritesEveryQueuedLineThenTheFatalLine) {
  TempDir dir;
  const CrashResult result = RunCrash(dir.path(), false);
  ExpectEndedByTheFault(result);
  ExpectDrainedThenFatal(result, FatalLinePattern(result.faultingTid));
}

TEST(CrashDrainTest, PreviousFilterStillRunsAfterTheDrain) {
  TempDir dir;
  const std::string marker = dir.path() + "marker";
  const CrashResult result = RunCrash(dir.path() + "log/", false, marker);
  ExpectEndedByTheFault(result);
  ExpectDrainedThenFatal(result, FatalLinePattern(result.faultingTid));
  EXPECT_EQ(ReadFile(marker), "prior filter ran\n");
}

TEST(CrashDrainTest, BlockedWriterStillDiesWithinTheWait) {
  TempDir dir;
  _putenv_s("ZEL_LOG_CRASH_WAIT_MS", "500");
  const CrashResult result = RunCrash(dir.path(), true);
  _putenv_s("ZEL_LOG_CRASH_WAIT_MS", "");
  ASSERT_EQ(result.installResult, 0);
  ExpectEndedByTheFault(result);
  // It waited for the writer, then gave up: not before the wait, and not
  // for ever (generous bound for a loaded machine).
  EXPECT_GE(result.took.count(), 500);
  EXPECT_LT(result.took.count(), 10000);
  // The writer is stuck in the backend with the first line: nothing was
  // written but the fatal line.
  const std::vector<std::string> lines = zel_test::SplitLines(result.log);
  ASSERT_EQ(lines.size(), 1u) << result.log;
  EXPECT_TRUE(std::regex_match(lines[0], std::regex(FatalLinePattern(result.faultingTid))))
      << lines[0];
}

#else

// The child died of `sig`, as it would have without the drain.
void ExpectDrainedThenFatalLine(const CrashResult& result, int sig) {
  ASSERT_TRUE(WIFSIGNALED(result.status)) << "status " << result.status;
  EXPECT_EQ(WTERMSIG(result.status), sig);
  ExpectDrainedThenFatal(result, FatalLinePattern(sig, result.faultingTid));
}

TEST(CrashDrainTest, NullPointerWritesEveryQueuedLineThenTheFatalLine) {
  TempDir dir;
  ExpectDrainedThenFatalLine(RunCrash(dir.path(), Fault::kNullPointer, false), SIGSEGV);
}

TEST(CrashDrainTest, AbortWritesEveryQueuedLineThenTheFatalLine) {
  TempDir dir;
  ExpectDrainedThenFatalLine(RunCrash(dir.path(), Fault::kAbort, false), SIGABRT);
}

TEST(CrashDrainTest, RaisedSignalWritesEveryQueuedLineThenTheFatalLine) {
  TempDir dir;
  ExpectDrainedThenFatalLine(RunCrash(dir.path(), Fault::kRaiseBus, false), SIGBUS);
}

TEST(CrashDrainTest, PreviousHandlerStillRunsAfterTheDrain) {
  TempDir dir;
  const std::string marker = dir.path() + "marker";
  const CrashResult result = RunCrash(dir.path() + "log/", Fault::kNullPointer, false, marker);
  ExpectDrainedThenFatalLine(result, SIGSEGV);
  EXPECT_EQ(ReadFile(marker), "prior handler ran\n");
}

TEST(CrashDrainTest, BlockedWriterStillDiesWithinTheWait) {
  TempDir dir;
  setenv("ZEL_LOG_CRASH_WAIT_MS", "500", 1);
  const CrashResult result = RunCrash(dir.path(), Fault::kNullPointer, true);
  unsetenv("ZEL_LOG_CRASH_WAIT_MS");
  ASSERT_EQ(result.installResult, 0);
  ASSERT_TRUE(WIFSIGNALED(result.status));
  EXPECT_EQ(WTERMSIG(result.status), SIGSEGV);
  // It waited for the writer, then gave up: not before the wait, and not
  // for ever (generous bound for a loaded machine).
  EXPECT_GE(result.took.count(), 500);
  EXPECT_LT(result.took.count(), 10000);
  // The writer is stuck in the backend with the first line: nothing was
  // written but the fatal line.
  const std::vector<std::string> lines = zel_test::SplitLines(result.log);
  ASSERT_EQ(lines.size(), 1u) << result.log;
  EXPECT_TRUE(std::regex_match(lines[0], std::regex(FatalLinePattern(SIGSEGV, result.faultingTid))))
      << lines[0];
}

#endif

}  // namespace
