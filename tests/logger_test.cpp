// SPDX-License-Identifier: MIT

// The Logger: one instance, levels and forwarding to backends, lines of
// several threads, flushing, the bound of the line queue, and callers that
// never wait for the writer.
#include "utils/logger.h"

#include <gtest/gtest.h>
#include <unistd.h>
#if !defined(ZEL_TEST_ON_WINDOWS)
#include <fcntl.h>
#endif
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_test_util.h"
#include "tests/support/test_util.h"

namespace {

using zel::Logger;
using zel_test::CountOccurrences;
using zel_test::GateBackend;
using zel_test::ListDir;
using zel_test::LiveFile;
using zel_test::LogRaw;
using zel_test::ReadFile;
using zel_test::RecordingBackend;
using zel_test::SplitLines;
using zel_test::StdoutCapture;
using zel_test::TempDir;
using zel_test::TextOf;
using zel_test::WaitFor;

// ---------------------------------------------------------------------------
// The Logger.

TEST(LoggerTest, GetInstanceAlwaysReturnsTheSameLogger) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger* first = Logger::GetInstance();
  std::vector<Logger*> seen(4, nullptr);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([&seen, i] { seen[i] = Logger::GetInstance(); });
  for (std::thread& t : threads) t.join();
  ASSERT_NE(first, nullptr);
  for (Logger* l : seen) EXPECT_EQ(l, first);
}

// The lines that a test's RecordingBackends received, in the order they
// came.
struct Received {
  // Registers a RecordingBackend named `name` that records here.
  void Register(const std::string& name) {
    Logger::GetInstance()->RegisterBackend(new RecordingBackend(name, &lines, &mutex));
  }

  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> lock(mutex);
    return lines;
  }

  std::mutex mutex;
  std::vector<std::string> lines;  // guarded by mutex
};

TEST(LoggerTest, OneArgumentLogEqualsLevelThreeWithoutForwarding) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Received received;
  received.Register("b");
  Logger* logger = Logger::GetInstance();
  logger->Log("same line\n");
  logger->Log("same line\n", 3, false);
  zel_log_flush();
  EXPECT_EQ(ReadFile(LiveFile(Logger::GetLogPath())), "same line\nsame line\n");
  EXPECT_TRUE(received.Lines().empty());
}

TEST(LoggerTest, ForwardedLineWithoutBackendsGoesToTheFileOnly) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger::GetInstance()->Log("forwarded\n", 0, true);
  zel_log_flush();
  EXPECT_EQ(ReadFile(LiveFile(Logger::GetLogPath())), "forwarded\n");
}

TEST(LoggerTest, BackendsReceiveForwardedLinesInRegistrationOrderBeforeTheFile) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Received received;
  received.Register("first");
  received.Register("second");
  Logger* logger = Logger::GetInstance();
  logger->Log("one\n", 3, true);
  logger->Log("not forwarded\n", 3, false);
  log_print(3, 1, "two\n");
  zel_log_flush();
  const std::vector<std::string> lines = received.Lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], "first:not-in-file:one\n");
  EXPECT_EQ(lines[1], "second:not-in-file:one\n");
  EXPECT_EQ(lines[2].substr(0, 17), "first:not-in-file");
  EXPECT_EQ(lines[2].substr(lines[2].size() - 5), " two\n");
  EXPECT_EQ(lines[3].substr(0, 18), "second:not-in-file");
  const std::string file = ReadFile(LiveFile(Logger::GetLogPath()));
  EXPECT_EQ(file.substr(0, 19), "one\nnot forwarded\n[");
}

TEST(LoggerTest, NoFileMeansNoBackendAndAReportPerLine) {
  TempDir dir;
  // A regular file where a directory level should be: nothing can be made
  // below it.
  zel_test::WriteFile(dir.path() + "file", "");
  const std::string base = dir.path() + "file/logs/";
  zel_set_log_path(base.c_str());
  Received received;
  StdoutCapture out;
  received.Register("b");
  Logger* logger = Logger::GetInstance();
  logger->Log("lost 1\n", 3, true);
  logger->Log("lost 2\n", 3, true);
  zel_log_flush();
  const std::string printed = out.Stop();
  EXPECT_EQ(CountOccurrences(printed, "zel::Logger::writeLog 296: fp is null \n"), 2) << printed;
  EXPECT_NE(printed.find("mkdir error,[" + dir.path() + "file/logs]\n"), std::string::npos)
      << printed;
  EXPECT_TRUE(received.Lines().empty());
}

TEST(LoggerTest, EmptyLineTakesTheWriteErrorPathAndLoggingGoesOn) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  LogRaw("before\n");
  StdoutCapture out;
  LogRaw("");
  EXPECT_EQ(out.Stop(), "zel log write error,ret[0] \n");
  LogRaw("after\n");
  EXPECT_EQ(ReadFile(LiveFile(Logger::GetLogPath())), "before\nafter\n");
}

TEST(LoggerTest, LinesOfFourThreadsAreEachWrittenOnceInPostingOrder) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  constexpr int kThreads = 4;
  constexpr int kLines = 10000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) log_print(3, 0, "thread %d line %d\n", t, i);
    });
  }
  for (std::thread& t : threads) t.join();
  zel_log_flush();
  const std::vector<std::string> lines = SplitLines(ReadFile(LiveFile(Logger::GetLogPath())));
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
  std::vector<int> next(kThreads, 0);
  for (const std::string& line : lines) {
    // "[M-D hh:mm:ss.mmm][tid:N] thread T line I\n"
    const std::size_t text = line.find("] ");
    ASSERT_NE(text, std::string::npos) << line;
    int t = -1;
    int i = -1;
    char end = 0;
    ASSERT_EQ(std::sscanf(line.c_str() + text + 2, "thread %d line %d%c", &t, &i, &end), 3) << line;
    ASSERT_EQ(end, '\n');
    ASSERT_TRUE(t >= 0 && t < kThreads) << line;
    ASSERT_EQ(i, next[t]) << "thread " << t;
    ++next[t];
  }
  for (int n : next) EXPECT_EQ(n, kLines);
}

TEST(LoggerTest, FlushReturnsOnlyAfterEveryEarlierLineIsWritten) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  for (int i = 0; i < 2000; ++i) Logger::GetInstance()->Log("line " + std::to_string(i) + "\n");
  zel_log_flush();
  const std::vector<std::string> lines = SplitLines(ReadFile(LiveFile(Logger::GetLogPath())));
  ASSERT_EQ(lines.size(), 2000u);
  EXPECT_EQ(lines.back(), "line 1999\n");
}

TEST(LoggerTest, FlushBeforeAnyLineCreatesNothing) {
  zel_log_flush();
  EXPECT_EQ(Logger::GetLogPath(), "");
}

// ---------------------------------------------------------------------------
// The bound of the line queue. A gate backend holds the writer thread so
// that lines queue behind it.

TEST(LogQueueTest, DropPolicyCountsDroppedLinesAndWritesOneNotice) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger* logger = Logger::GetInstance();
  GateBackend* gate = GateBackend::Install();
  EXPECT_EQ(zel_log_dropped(), 0u);
  ASSERT_TRUE(gate->Close());  // 5 bytes queued until the gate opens
  zel_set_log_queue_limit(100, 0);
  // Four lines of 20 bytes fit (85 bytes); the next six would not.
  for (int i = 0; i < 10; ++i)
    logger->Log("line " + std::to_string(i) + std::string(13, '.') + "\n");
  EXPECT_EQ(zel_log_dropped(), 6u);
  gate->Open();
  zel_log_flush();
  logger->Log("after\n");
  zel_log_flush();
  EXPECT_EQ(zel_log_dropped(), 6u);
  const std::string text = ReadFile(LiveFile(Logger::GetLogPath()));
  std::smatch m;
  ASSERT_TRUE(
      std::regex_match(text, m,
                       std::regex("gate\n"
                                  "line 0\\.{13}\nline 1\\.{13}\nline 2\\.{13}\nline 3\\.{13}\n"
                                  R"(\[\d+-\d+ \d\d:\d\d:\d\d\.\d\d\d\]\[tid:\d+\] )"
                                  "zel log: 6 lines dropped \\(queue full\\)\n"
                                  "after\n")))
      << text;
}

TEST(LogQueueTest, BlockPolicyFromFourThreadsLosesNothingUnderATinyBound) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger* logger = Logger::GetInstance();
  zel_set_log_queue_limit(64, 1);
  constexpr int kThreads = 4;
  constexpr int kLines = 1000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, logger] {
      for (int i = 0; i < kLines; ++i) {
        logger->Log("t" + std::to_string(t) + " " + std::to_string(i) + "\n");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  zel_log_flush();
  EXPECT_EQ(zel_log_dropped(), 0u);
  std::vector<int> next(kThreads, 0);
  int lines = 0;
  for (const std::string& line : SplitLines(ReadFile(LiveFile(Logger::GetLogPath())))) {
    int t = -1;
    int i = -1;
    ASSERT_EQ(std::sscanf(line.c_str(), "t%d %d", &t, &i), 2) << line;
    ASSERT_TRUE(t >= 0 && t < kThreads) << line;
    EXPECT_EQ(i, next[static_cast<std::size_t>(t)]) << "out of order: " << line;
    next[static_cast<std::size_t>(t)] = i + 1;
    ++lines;
  }
  EXPECT_EQ(lines, kThreads * kLines);
}

TEST(LogQueueTest, BlockPolicyHoldsTheCallerUntilTheWriterMadeRoom) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger* logger = Logger::GetInstance();
  GateBackend* gate = GateBackend::Install();
  ASSERT_TRUE(gate->Close());  // 5 bytes queued until the gate opens
  Logger::SetQueueLimit(20, zel::QueueFullPolicy::kBlock);
  std::atomic<bool> posted{false};
  std::thread caller([&] {
    logger->Log("0123456789abcdef\n");  // 17 bytes: 22 > 20
    posted = true;
  });
  // Not before the gate's line is written.
  EXPECT_FALSE(zel_test::WaitFor([&] { return posted.load(); }, std::chrono::milliseconds(300)));
  gate->Open();
  caller.join();
  zel_log_flush();
  EXPECT_EQ(ReadFile(LiveFile(Logger::GetLogPath())), "gate\n0123456789abcdef\n");
  EXPECT_EQ(zel_log_dropped(), 0u);
}

TEST(LogQueueTest, BoundOfZeroMeansNoBound) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger* logger = Logger::GetInstance();
  GateBackend* gate = GateBackend::Install();
  Logger::SetQueueLimit(10, zel::QueueFullPolicy::kDrop);
  Logger::SetQueueLimit(0, zel::QueueFullPolicy::kDrop);
  ASSERT_TRUE(gate->Close());
  std::string expected = "gate\n";
  for (int i = 0; i < 200; ++i) {
    const std::string line = "line " + std::to_string(i) + "\n";
    logger->Log(line);
    expected += line;
  }
  gate->Open();
  zel_log_flush();
  EXPECT_EQ(zel_log_dropped(), 0u);
  EXPECT_EQ(ReadFile(LiveFile(Logger::GetLogPath())), expected);
}

// ---------------------------------------------------------------------------
// Callers never wait for the writer.

// A gate that a backend waits at until the test opens it.
struct Gate {
  std::mutex mutex;
  std::condition_variable cond;
  bool entered = false;
  bool open = false;

  void Enter() {
    std::unique_lock<std::mutex> lock(mutex);
    entered = true;
    cond.notify_all();
    cond.wait(lock, [this] { return open; });
  }
  bool WaitEntered(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    return cond.wait_for(lock, timeout, [this] { return entered; });
  }
  void Open() {
    std::lock_guard<std::mutex> lock(mutex);
    open = true;
    cond.notify_all();
  }
};

// Holds the writer thread at the first forwarded line until the gate opens.
class HoldingBackend : public zel::LogBackend {
 public:
  explicit HoldingBackend(Gate* gate) : gate_(gate) {}
  void Log(const std::string& /*line*/) override { gate_->Enter(); }

 private:
  Gate* gate_;
};

// Logs `count` numbered lines from a thread of its own and reports when
// every call has returned.
class Caller {
 public:
  explicit Caller(int count)
      : thread_([this, count] {
          for (int i = 0; i < count; ++i) log_print(3, 0, "caller line %d\n", i);
          done_.store(true);
        }) {}
  ~Caller() { thread_.join(); }
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;
  bool done() const { return done_.load(); }

 private:
  std::atomic<bool> done_{false};
  std::thread thread_;
};

// Every numbered caller line, in order, after the line "held\n".
void ExpectCallerLines(const std::vector<std::string>& lines, int count) {
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(count) + 1);
  EXPECT_EQ(TextOf(lines[0]), "held\n");
  for (int i = 0; i < count; ++i) {
    ASSERT_EQ(TextOf(lines[static_cast<std::size_t>(i) + 1]),
              "caller line " + std::to_string(i) + "\n");
  }
}

// While a backend holds the writer thread, log_print still returns at once
// for thousands of lines; every line is written once the backend lets go.
TEST(LogNonBlockingTest, CallersReturnWhileABackendHoldsTheWriter) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Gate gate;
  Logger::GetInstance()->RegisterBackend(new HoldingBackend(&gate));
  log_print(3, 1, "held\n");
  ASSERT_TRUE(gate.WaitEntered(std::chrono::seconds(10)));
  constexpr int kLines = 20000;
  {
    Caller caller(kLines);
    const bool returned = WaitFor([&caller] { return caller.done(); });
    gate.Open();
    EXPECT_TRUE(returned) << "log_print waited for the held writer";
  }
  zel_log_flush();
  ExpectCallerLines(SplitLines(ReadFile(LiveFile(Logger::GetLogPath()))), kLines);
}

#if !defined(ZEL_TEST_ON_WINDOWS)
// The writer thread stalls in the file system (its live file is a FIFO that
// nobody reads yet, so opening it blocks); the callers go on regardless, and
// the lines arrive once a reader appears.
TEST(LogNonBlockingTest, CallersReturnWhileTheLogFileStallsTheWriter) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  // The Logger chooses its directory and start time now; its file is opened
  // at the first line. A FIFO waits under the name of each second the start
  // time can have.
  const std::time_t before = std::time(nullptr);
  Logger* logger = Logger::GetInstance();
  const std::time_t after = std::time(nullptr);
  const std::string day = Logger::GetLogPath();
  ASSERT_FALSE(day.empty());
  std::vector<std::string> fifos;
  for (std::time_t t = before; t <= after; ++t) {
    std::tm tm{};
    localtime_r(&t, &tm);
    char start[16];
    std::strftime(start, sizeof(start), "%H%M%S", &tm);
    fifos.push_back(day + "zel.log.logger_test." + start + ".txt");
    ASSERT_EQ(mkfifo(fifos.back().c_str(), 0600), 0) << fifos.back();
  }
  (void)logger;
  log_print(3, 0, "held\n");
  constexpr int kLines = 20000;
  std::vector<int> fds;
  {
    Caller caller(kLines);
    const bool returned = WaitFor([&caller] { return caller.done(); });
    // A reader lets the writer's open go on. The FIFOs stay open for
    // reading until the process ends, so the writer never meets a FIFO
    // without a reader.
    for (const std::string& fifo : fifos) fds.push_back(open(fifo.c_str(), O_RDONLY | O_NONBLOCK));
    EXPECT_TRUE(returned) << "log_print waited for the stalled writer";
  }
  zel_log_flush();
  // The first line went into the FIFO; the FIFO is no regular file, so the
  // next line rotated it away and the rest went into a regular live file.
  std::string received;
  char chunk[4096];
  for (int fd : fds) {
    ssize_t n;
    while ((n = read(fd, chunk, sizeof(chunk))) > 0)
      received.append(chunk, static_cast<std::size_t>(n));
  }
  for (const std::string& name : ListDir(day)) {
    struct stat st;
    if (stat((day + name).c_str(), &st) == 0 && S_ISREG(st.st_mode))
      received += ReadFile(day + name);
  }
  ExpectCallerLines(SplitLines(received), kLines);
}
#endif

// ---------------------------------------------------------------------------
// zel_log_flush from the writer thread.

// A backend that flushes the log from inside Log() and records that the
// call returned.
class FlushingBackend : public zel::LogBackend {
 public:
  void Log(const std::string& /*line*/) override {
    zel_log_flush();
    returned.store(true);
  }
  std::atomic<bool> returned{false};
};

TEST(LogFlushTest, FlushFromInsideABackendReturnsAtOnce) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  auto* backend = new FlushingBackend;
  Logger::GetInstance()->RegisterBackend(backend);
  log_print(3, 1, "flush from the writer\n");
  ASSERT_TRUE(WaitFor([backend] { return backend->returned.load(); }))
      << "zel_log_flush() from the writer thread waited for itself";
  log_print(3, 0, "after\n");
  zel_log_flush();
  const std::vector<std::string> lines = SplitLines(ReadFile(LiveFile(Logger::GetLogPath())));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(TextOf(lines[1]), "after\n");
}

}  // namespace
