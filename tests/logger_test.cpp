#include "utils/logger.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#if defined(ZEL_TEST_ON_WINDOWS)
#include <windows.h>
#include <winioctl.h>
#else
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#endif
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/test_util.h"
#include "utils/looper.h"
#include "utils/platform.h"
#include "utils/process_path.h"

namespace {

using zel::Logger;
using zel_test::CountOccurrences;
using zel_test::FileExists;
using zel_test::IsDirectory;
using zel_test::ListDir;
using zel_test::ReadFile;
using zel_test::SplitLines;
using zel_test::StdoutCapture;
using zel_test::TempDir;
using zel_test::TodayDir;

#if defined(ZEL_TEST_ON_WINDOWS)
// Under Wine, as on Windows file systems without POSIX delete semantics, a
// removed file that a process still holds open keeps its name,
// delete-pending, until its last handle is closed (renaming it is allowed:
// the log opens it with FILE_SHARE_DELETE).
constexpr char kOpenFileIsLocked[] =
    "needs POSIX unlink, which frees the name of a file another handle holds open at once; "
    "under Wine the removed live file keeps its name, delete-pending, until the log closes it";
#endif

// The path of the one live file ("*.txt") in `dir`; fails the test when
// there is not exactly one.
std::string LiveFile(const std::string& dir) {
  const std::vector<std::string> live = zel_test::LiveFiles(dir);
  EXPECT_EQ(live.size(), 1u) << "live files in " << dir;
  return live.empty() ? std::string() : live.front();
}

// "zel.log.<process name>.<hhmmss>." of the live file `path`: what every
// file of this run starts with.
std::string RunPrefix(const std::string& path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  return name.substr(0, name.size() - 3);
}

// Logs `line` exactly as given (no prefix) and waits until it is written.
void LogRaw(const std::string& line) {
  Logger::GetInstance()->Log(line);
  zel_log_flush();
}

// A backend that records what it receives, and whether the line was
// already in the log file when it received it.
class RecordingBackend : public zel::LogBackend {
 public:
  RecordingBackend(std::string name, std::vector<std::string>* order, std::mutex* mutex)
      : name_(std::move(name)), order_(order), mutex_(mutex) {}

  void Log(const std::string& line) override {
    std::lock_guard<std::mutex> lock(*mutex_);
    const std::string path = Logger::GetLogPath();
    bool inFile = false;
    for (const std::string& name : ListDir(path)) {
      if (ReadFile(path + name).find(line) != std::string::npos) inFile = true;
    }
    order_->push_back(name_ + (inFile ? ":in-file:" : ":not-in-file:") + line);
  }

 private:
  std::string name_;
  std::vector<std::string>* order_;
  std::mutex* mutex_;
};

// ---------------------------------------------------------------------------
// The line prefix.

TEST(LogPrefixTest, FormatsMonthDayTimeMillisecondsAndThread) {
  std::tm tm{};
  tm.tm_year = 2024 - 1900;
  tm.tm_mon = 2;  // March
  tm.tm_mday = 7;
  tm.tm_hour = 9;
  tm.tm_min = 5;
  tm.tm_sec = 1;
  char buf[256];
  const int len = zel::platform::formatLogPrefix(buf, sizeof(buf), tm, 42, "1234");
  EXPECT_EQ(std::string(buf), "[3-7 09:05:01.042][tid:1234] ");
  EXPECT_EQ(len, 29);
}

TEST(LogPrefixTest, MonthAndDayAreNotPadded) {
  std::tm tm{};
  tm.tm_mon = 11;
  tm.tm_mday = 31;
  tm.tm_hour = 23;
  tm.tm_min = 59;
  tm.tm_sec = 59;
  char buf[256];
  zel::platform::formatLogPrefix(buf, sizeof(buf), tm, 999, "7");
  EXPECT_EQ(std::string(buf), "[12-31 23:59:59.999][tid:7] ");
}

TEST(LogPrefixTest, DateDirectoryAndStartTimeTexts) {
  std::tm tm{};
  tm.tm_year = 2024 - 1900;
  tm.tm_mon = 0;
  tm.tm_mday = 31;
  tm.tm_hour = 14;
  tm.tm_min = 3;
  tm.tm_sec = 27;
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
// The log path functions.

TEST(LogPathTest, GetBeforeAnyLineFailsAndLeavesTheBuffer) {
  char buf[16];
  std::memset(buf, 'Q', sizeof(buf));
  EXPECT_EQ(zel_get_log_path(buf, sizeof(buf)), -1);
  for (char c : buf) EXPECT_EQ(c, 'Q');
  EXPECT_EQ(Logger::GetLogPath(), "");
}

TEST(LogPathTest, GetCopiesTheDayDirectory) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  LogRaw("x\n");
  char buf[512] = {0};
  EXPECT_EQ(zel_get_log_path(buf, sizeof(buf)), 0);
  EXPECT_EQ(std::string(buf), dir.path() + TodayDir());
  EXPECT_EQ(Logger::GetLogPath(), dir.path() + TodayDir());
  EXPECT_TRUE(IsDirectory(dir.path() + TodayDir()));
}

TEST(LogPathTest, GetWithSizeOneCopiesNothing) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  LogRaw("x\n");
  char buf[4] = {'Q', 'Q', 'Q', 'Q'};
  EXPECT_EQ(zel_get_log_path(buf, 1), 0);
  EXPECT_EQ(std::string(buf, 4), "QQQQ");
}

TEST(LogPathTest, GetCutsToSizeMinusOneWithoutTerminating) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  LogRaw("x\n");
  char buf[8];
  std::memset(buf, 'Q', sizeof(buf));
  EXPECT_EQ(zel_get_log_path(buf, 5), 0);
  EXPECT_EQ(std::string(buf, 8), dir.path().substr(0, 4) + "QQQQ");
}

TEST(LogPathTest, GetRefusesANullBufferOrASizeBelowOne) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  LogRaw("x\n");
  char buf[4] = {'Q', 'Q', 'Q', 'Q'};
  EXPECT_EQ(zel_get_log_path(buf, 0), -1);
  EXPECT_EQ(zel_get_log_path(buf, -3), -1);
  EXPECT_EQ(zel_get_log_path(nullptr, 10), -1);
  EXPECT_EQ(std::string(buf, 4), "QQQQ");
}

TEST(LogPathTest, SettingTheEmptyPathChangesNothing) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  zel_set_log_path("");
  EXPECT_EQ(Logger::SetLogPath(""), 0);
  LogRaw("x\n");
  EXPECT_EQ(Logger::GetLogPath(), dir.path() + TodayDir());
}

TEST(LogPathTest, SettingThePathDoesNotCreateTheLogger) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  EXPECT_EQ(Logger::SetLogPath(dir.path() + "other/"), 0);
  zel_log_flush();
  EXPECT_EQ(Logger::GetLogPath(), "");
  EXPECT_TRUE(ListDir(dir.path()).empty());
}

TEST(LogPathTest, ANewBaseAfterTheFirstLineDoesNotMoveTheFile) {
  TempDir first;
  TempDir second;
  zel_set_log_path(first.path().c_str());
  LogRaw("one\n");
  zel_set_log_path(second.path().c_str());
  LogRaw("two\n");
  EXPECT_EQ(ReadFile(LiveFile(first.path() + TodayDir())), "one\ntwo\n");
  EXPECT_TRUE(ListDir(second.path()).empty());
}

TEST(LogPathTest, BaseWithoutTrailingSeparatorIsUsedAsGiven) {
  TempDir dir;
  const std::string base = dir.path() + "logs";
  zel_set_log_path(base.c_str());
  LogRaw("x\n");
  EXPECT_EQ(Logger::GetLogPath(), base + TodayDir());
  EXPECT_TRUE(IsDirectory(base + TodayDir()));
  EXPECT_EQ(ReadFile(LiveFile(base + TodayDir())), "x\n");
}

TEST(LogPathTest, MissingLevelsOfTheBaseAreCreated) {
  TempDir dir;
  const std::string base = dir.path() + "a/b/c/";
  zel_set_log_path(base.c_str());
  StdoutCapture out;
  LogRaw("deep\n");
  EXPECT_EQ(ReadFile(LiveFile(base + TodayDir())), "deep\n");
  // The fixed base is reported each time the directory is computed anew.
  EXPECT_EQ(out.Stop(), "zel::Logger::getPrefix 158: prefix[" + base + TodayDir() + "]\n");
}

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

TEST(LoggerTest, OneArgumentLogEqualsLevelThreeWithoutForwarding) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  std::vector<std::string> received;
  std::mutex mutex;
  Logger* logger = Logger::GetInstance();
  logger->RegisterBackend(new RecordingBackend("b", &received, &mutex));
  logger->Log("same line\n");
  logger->Log("same line\n", 3, false);
  zel_log_flush();
  EXPECT_EQ(ReadFile(LiveFile(Logger::GetLogPath())), "same line\nsame line\n");
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_TRUE(received.empty());
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
  std::vector<std::string> received;
  std::mutex mutex;
  Logger* logger = Logger::GetInstance();
  logger->RegisterBackend(new RecordingBackend("first", &received, &mutex));
  logger->RegisterBackend(new RecordingBackend("second", &received, &mutex));
  logger->Log("one\n", 3, true);
  logger->Log("not forwarded\n", 3, false);
  log_print(3, 1, "two\n");
  zel_log_flush();
  std::lock_guard<std::mutex> lock(mutex);
  ASSERT_EQ(received.size(), 4u);
  EXPECT_EQ(received[0], "first:not-in-file:one\n");
  EXPECT_EQ(received[1], "second:not-in-file:one\n");
  EXPECT_EQ(received[2].substr(0, 17), "first:not-in-file");
  EXPECT_EQ(received[2].substr(received[2].size() - 5), " two\n");
  EXPECT_EQ(received[3].substr(0, 18), "second:not-in-file");
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
  std::vector<std::string> received;
  std::mutex mutex;
  StdoutCapture out;
  Logger* logger = Logger::GetInstance();
  logger->RegisterBackend(new RecordingBackend("b", &received, &mutex));
  logger->Log("lost 1\n", 3, true);
  logger->Log("lost 2\n", 3, true);
  zel_log_flush();
  const std::string printed = out.Stop();
  EXPECT_EQ(CountOccurrences(printed, "zel::Logger::writeLog 296: fp is null \n"), 2) << printed;
  EXPECT_NE(printed.find("mkdir error,[" + dir.path() + "file/logs]\n"), std::string::npos)
      << printed;
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_TRUE(received.empty());
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
// Log files, names and rotation.

TEST(LogFilesTest, LiveFileIsNamedAfterTheProcessAndTheStartTime) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  const std::time_t before = std::time(nullptr);
  LogRaw("x\n");
  const std::time_t after = std::time(nullptr);
  const std::vector<std::string> names = ListDir(dir.path() + TodayDir());
  ASSERT_EQ(names.size(), 1u);
  const std::string prefix = "zel.log." + get_process_name() + ".";
  ASSERT_EQ(names[0].compare(0, prefix.size(), prefix), 0) << names[0];
  const std::string start = names[0].substr(prefix.size(), 6);
  EXPECT_EQ(names[0].substr(prefix.size() + 6), ".txt");
  bool matched = false;
  for (std::time_t t = before; t <= after; ++t) {
    std::tm tm{};
    localtime_r(&t, &tm);
    char text[64];
    zel::platform::formatStartTime(text, sizeof(text), tm);
    if (start == text) matched = true;
  }
  EXPECT_TRUE(matched) << names[0];
}

TEST(LogFilesTest, AFileOfExactlyTheLimitIsNotRotatedOneByteMoreIs) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger::GetInstance()->SetLogFileInfo(10, 10);
  LogRaw("0123456789");  // 10 bytes: exactly the limit
  LogRaw("a");           // written to the same file: 11 bytes
  const std::string day = Logger::GetLogPath();
  const std::string live = LiveFile(day);
  EXPECT_EQ(ReadFile(live), "0123456789a");
  EXPECT_EQ(ListDir(day).size(), 1u);
  LogRaw("b");  // the file is over the limit: rotate first
  EXPECT_EQ(ReadFile(live), "b");
  EXPECT_EQ(ReadFile(day + RunPrefix(live) + "0"), "0123456789a");
  EXPECT_EQ(ListDir(day).size(), 2u);
}

TEST(LogFilesTest, CountOfOneRemovesEachRotatedFileAtOnce) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger::GetInstance()->SetLogFileInfo(1, 1);
  for (int i = 0; i < 5; ++i) LogRaw("line " + std::to_string(i) + "\n");
  const std::string day = Logger::GetLogPath();
  const std::vector<std::string> names = ListDir(day);
  ASSERT_EQ(names.size(), 1u);
  EXPECT_EQ(ReadFile(day + names[0]), "line 4\n");
}

TEST(LogFilesTest, DefaultCountKeepsTheLiveFileAndNineRotated) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger::GetInstance()->SetLogFileInfo(1, 10);
  // 15 lines: 14 rotations, into indices 0 to 13; rotation k removes k - 10.
  for (int i = 0; i < 15; ++i) LogRaw("line " + std::to_string(i) + "\n");
  const std::string day = Logger::GetLogPath();
  const std::string live = LiveFile(day);
  const std::string run = RunPrefix(live);
  EXPECT_EQ(ListDir(day).size(), 10u);
  for (int index = 0; index <= 4; ++index)
    EXPECT_FALSE(FileExists(day + run + std::to_string(index)));
  for (int index = 5; index <= 13; ++index) {
    EXPECT_EQ(ReadFile(day + run + std::to_string(index)), "line " + std::to_string(index) + "\n");
  }
  EXPECT_EQ(ReadFile(live), "line 14\n");
}

TEST(LogFilesTest, CountOfZeroRemovesNothingUntilTheIndexWraps) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger::GetInstance()->SetLogFileInfo(1, 0);
  // 256 lines: 255 rotations into 0..254, none removed.
  for (int i = 0; i < 256; ++i) LogRaw("line " + std::to_string(i) + "\n");
  const std::string day = Logger::GetLogPath();
  const std::string run = RunPrefix(LiveFile(day));
  EXPECT_EQ(ListDir(day).size(), 256u);
  // Rotation 256 renames into 255 and wraps the index to 0, which removes
  // the file that rotation 1 made.
  LogRaw("line 256\n");
  EXPECT_EQ(ListDir(day).size(), 256u);
  EXPECT_FALSE(FileExists(day + run + "0"));
  EXPECT_EQ(ReadFile(day + run + "255"), "line 255\n");
  EXPECT_EQ(ReadFile(day + run + "1"), "line 1\n");
}

TEST(LogFilesTest, RotationIndexWrapsFrom255To0) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger::GetInstance()->SetLogFileInfo(1, 10);
  // 259 lines: 258 rotations; the last ones go into 254, 255, 0 and 1.
  for (int i = 0; i < 259; ++i) LogRaw("line " + std::to_string(i) + "\n");
  const std::string day = Logger::GetLogPath();
  const std::string live = LiveFile(day);
  const std::string run = RunPrefix(live);
  EXPECT_EQ(ListDir(day).size(), 10u);
  EXPECT_EQ(ReadFile(day + run + "255"), "line 255\n");
  EXPECT_EQ(ReadFile(day + run + "0"), "line 256\n");
  EXPECT_EQ(ReadFile(day + run + "1"), "line 257\n");
  EXPECT_EQ(ReadFile(day + run + "249"), "line 249\n");
  EXPECT_FALSE(FileExists(day + run + "248"));
  EXPECT_EQ(ReadFile(live), "line 258\n");
}

TEST(LogFilesTest, OccupiedRotationTargetsReportRenameErrorsAndLoggingGoesOn) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger::GetInstance()->SetLogFileInfo(1, 10);
  LogRaw("a\n");
  const std::string day = Logger::GetLogPath();
  const std::string live = LiveFile(day);
  const std::string run = RunPrefix(live);
  // Directories with content under the names of the next three rotations:
  // a file cannot be renamed over them.
  for (const char* index : {"0", "1", "2"}) {
    ASSERT_EQ(mkdir((day + run + index).c_str(), 0755), 0);
    zel_test::WriteFile(day + run + index + "/keep", "");
  }
  StdoutCapture out;
  LogRaw("b\n");  // each line finds the file over the limit and tries again
  LogRaw("c\n");
  LogRaw("d\n");
  EXPECT_EQ(ReadFile(live), "a\nb\nc\nd\n");
  LogRaw("e\n");  // the fourth attempt renames into 3
  const std::string printed = out.Stop();
  EXPECT_EQ(printed, std::string("zel::Logger::getFile 516,rename error\n") +
                         "zel::Logger::getFile 516,rename error\n" +
                         "zel::Logger::getFile 516,rename error\n");
  EXPECT_EQ(ReadFile(day + run + "3"), "a\nb\nc\nd\n");
  EXPECT_EQ(ReadFile(live), "e\n");
}

TEST(LogFilesTest, LiveFileRemovedFromOutsideMakesTheNextLineRotate) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kOpenFileIsLocked;
#endif
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  LogRaw("before\n");
  const std::string day = Logger::GetLogPath();
  const std::string live = LiveFile(day);
  ASSERT_EQ(unlink(live.c_str()), 0);
  StdoutCapture out;
  LogRaw("after\n");
  LogRaw("more\n");
  EXPECT_EQ(out.Stop(), "zel::Logger::getFile 516,rename error\n");
  EXPECT_EQ(ReadFile(live), "after\nmore\n");
  EXPECT_EQ(ListDir(day).size(), 1u);
}

TEST(LogFilesTest, LogDirectoryRemovedFromOutsideIsMadeAgain) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kOpenFileIsLocked;
#endif
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  LogRaw("before\n");
  const std::string day = Logger::GetLogPath();
  const std::string live = LiveFile(day);
  TempDir::RemoveTree(dir.path());
  ASSERT_FALSE(FileExists(dir.path()));
  StdoutCapture out;
  LogRaw("after\n");
  LogRaw("more\n");
  EXPECT_EQ(out.Stop(), "zel::Logger::getFile 516,rename error\n");
  EXPECT_TRUE(IsDirectory(day));
  EXPECT_EQ(ReadFile(live), "after\nmore\n");
}

TEST(LogFilesTest, AFailedWriteIsReportedAndLaterLinesAreWritten) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << "makes the write fail with a POSIX file size limit (setrlimit), which "
                  "Windows does not have";
#else
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  const std::string first(199, 'f');
  LogRaw(first + "\n");
  const std::string live = LiveFile(Logger::GetLogPath());
  // No file of this process may grow past 200 bytes, the log file's present
  // size: its next write fails with EFBIG instead of raising SIGXFSZ. (The
  // captured standard output stays below the limit.)
  ASSERT_NE(signal(SIGXFSZ, SIG_IGN), SIG_ERR);
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  rlimit small = saved;
  small.rlim_cur = 200;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  StdoutCapture out;
  LogRaw("lost\n");
  const std::string printed = out.Stop();
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &saved), 0);
  EXPECT_EQ(printed, "zel log write error,ret[-1] \n");
  LogRaw("third\n");
  EXPECT_EQ(ReadFile(live), first + "\nthird\n");
#endif
}

// ---------------------------------------------------------------------------
// Tests under a moved clock. The test runs itself again in a child process
// under faketime; the child does the logging and the parent checks the
// files (zel_test::RunSelfUnderFaketime).

#if defined(ZEL_TEST_ON_WINDOWS)
constexpr char kNoFaketime[] =
    "moves the clock with faketime (a preloaded library) in a forked child; "
    "Windows has neither";
#else
using zel_test::kChildBaseVariable;
using zel_test::RunSelfUnderFaketime;
#endif

TEST(LogFilesTest, ChangeOfDayRenamesInTheOldDayAndStartsAFileInTheNew) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kNoFaketime;
#else
  if (const char* childBase = std::getenv(kChildBaseVariable)) {
    // Child, under a clock that starts 3 s before midnight.
    zel_set_log_path(childBase);
    std::time_t now = std::time(nullptr);
    std::tm first{};
    localtime_r(&now, &first);
    ASSERT_EQ(first.tm_mday, 22) << "the clock is not moved";
    LogRaw("before midnight\n");
    ASSERT_TRUE(zel_test::WaitFor([&] {
      std::time_t t = std::time(nullptr);
      std::tm tm{};
      localtime_r(&t, &tm);
      return tm.tm_mday != first.tm_mday;
    }));
    LogRaw("after midnight\n");
    return;
  }
  TempDir dir;
  ASSERT_EQ(RunSelfUnderFaketime("2026-11-22 23:59:57",
                                 "LogFilesTest.ChangeOfDayRenamesInTheOldDayAndStartsAFileInTheNew",
                                 dir.path()),
            0);
  const std::string oldDay = dir.path() + "20261122/";
  const std::string newDay = dir.path() + "20261123/";
  const std::vector<std::string> oldNames = ListDir(oldDay);
  ASSERT_EQ(oldNames.size(), 1u);
  const std::string run = "zel.log." + get_process_name() + ".2359";
  EXPECT_EQ(oldNames[0].compare(0, run.size(), run), 0) << oldNames[0];
  EXPECT_EQ(oldNames[0].substr(oldNames[0].size() - 2), ".0") << oldNames[0];
  EXPECT_EQ(ReadFile(oldDay + oldNames[0]), "before midnight\n");
  const std::vector<std::string> newNames = ListDir(newDay);
  ASSERT_EQ(newNames.size(), 1u);
  const std::string newRun = "zel.log." + get_process_name() + ".0000";
  EXPECT_EQ(newNames[0].compare(0, newRun.size(), newRun), 0) << newNames[0];
  EXPECT_EQ(newNames[0].substr(newNames[0].size() - 4), ".txt");
  EXPECT_EQ(ReadFile(newDay + newNames[0]), "after midnight\n");
#endif
}

TEST(LogPrintTest, PrefixUnderAMovedClockShowsItsLocalDateAndTime) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kNoFaketime;
#else
  if (const char* childBase = std::getenv(kChildBaseVariable)) {
    zel_set_log_path(childBase);
    log_print(3, 0, "tid=%lld\n", zel_test::OsThreadId());
    zel_log_flush();
    return;
  }
  TempDir dir;
  ASSERT_EQ(RunSelfUnderFaketime("2027-03-07 09:05:01",
                                 "LogPrintTest.PrefixUnderAMovedClockShowsItsLocalDateAndTime",
                                 dir.path()),
            0);
  const std::string text = ReadFile(LiveFile(dir.path() + "20270307/"));
  std::smatch m;
  ASSERT_TRUE(std::regex_match(
      text, m, std::regex(R"(^\[3-7 09:05:0\d\.\d\d\d\]\[tid:(\d+)\] tid=(\d+)\n$)")))
      << text;
  EXPECT_EQ(m[1].str(), m[2].str());
#endif
}

}  // namespace

// ---------------------------------------------------------------------------
// Rotation decisions when the live file is changed from outside, and the
// caller's formatting of the text.

namespace {

// Appends `text` to the file `path` as another program would.
void AppendFromOutside(const std::string& path, const std::string& text) {
  std::FILE* f = std::fopen(path.c_str(), "a");
  ASSERT_NE(f, nullptr) << path;
  std::fputs(text.c_str(), f);
  std::fclose(f);
}

// These scenarios change the file while the log holds it open: appends
// from outside, truncation, a rename and a removal (which on Windows skips).

TEST(LogFilesTest, AppendFromOutsideCountsOnlyOnceTheLoggerHasWrittenBehindIt) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger::GetInstance()->SetLogFileInfo(20, 10);
  LogRaw("0123456789");  // 10 bytes
  const std::string day = Logger::GetLogPath();
  const std::string live = LiveFile(day);
  AppendFromOutside(live, std::string(15, 'x'));  // the file has 25 bytes now
  // The size that counts is the logger's own position in the file, still 10:
  // no rotation yet, and the line goes to the end of the file.
  LogRaw("a");
  EXPECT_EQ(ReadFile(live), "0123456789" + std::string(15, 'x') + "a");
  EXPECT_EQ(ListDir(day).size(), 1u);
  // Having written at the end, the logger stands at 26 bytes: rotate.
  LogRaw("b");
  EXPECT_EQ(ReadFile(live), "b");
  EXPECT_EQ(ReadFile(day + RunPrefix(live) + "0"), "0123456789" + std::string(15, 'x') + "a");
}

TEST(LogFilesTest, FileTruncatedFromOutsideRotatesByTheLoggersPosition) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger::GetInstance()->SetLogFileInfo(10, 10);
  LogRaw("0123456789");  // 10 bytes: at the limit
  const std::string day = Logger::GetLogPath();
  const std::string live = LiveFile(day);
  ASSERT_EQ(truncate(live.c_str(), 0), 0);
  LogRaw("a");  // position 10, not over the limit; written at the start
  EXPECT_EQ(ReadFile(live), "a");
  LogRaw("bbbbbbbbbb");  // position 1: no rotation, 11 bytes after it
  EXPECT_EQ(ReadFile(live), "abbbbbbbbbb");
  EXPECT_EQ(ListDir(day).size(), 1u);
  LogRaw("c");  // position 11: rotate
  EXPECT_EQ(ReadFile(live), "c");
  EXPECT_EQ(ReadFile(day + RunPrefix(live) + "0"), "abbbbbbbbbb");
}

TEST(LogFilesTest, LiveFileReplacedByADirectoryRotates) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kOpenFileIsLocked;
#endif
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  LogRaw("before\n");
  const std::string day = Logger::GetLogPath();
  const std::string live = LiveFile(day);
  ASSERT_EQ(unlink(live.c_str()), 0);
  ASSERT_EQ(mkdir(live.c_str(), 0755), 0);
  StdoutCapture out;
  // Not a regular file at the path: rotate, which renames the directory.
  LogRaw("after\n");
  EXPECT_EQ(out.Stop(), "");
  EXPECT_TRUE(IsDirectory(day + RunPrefix(live) + "0"));
  EXPECT_EQ(ReadFile(live), "after\n");
}

TEST(LogFilesTest, LiveFileReplacedFromOutsideKeepsTheOpenFileUntilItIsOverTheLimit) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger::GetInstance()->SetLogFileInfo(10, 10);
  LogRaw("0123456789");
  const std::string day = Logger::GetLogPath();
  const std::string live = LiveFile(day);
  const std::string moved = dir.path() + "moved";
  ASSERT_EQ(std::rename(live.c_str(), moved.c_str()), 0);
  const std::string foreign(100, 'f');
  AppendFromOutside(live, foreign);  // a regular file at the path again
  StdoutCapture out;
  // A file is at the path and the logger's position is 10: no rotation, the
  // line goes to the file the logger has open.
  LogRaw("a");
  EXPECT_EQ(ReadFile(moved), "0123456789a");
  EXPECT_EQ(ReadFile(live), foreign);
  // Position 11: rotate, which renames whatever is at the path.
  LogRaw("b");
  EXPECT_EQ(out.Stop(), "");
  EXPECT_EQ(ReadFile(moved), "0123456789a");
  EXPECT_EQ(ReadFile(day + RunPrefix(live) + "0"), foreign);
  EXPECT_EQ(ReadFile(live), "b");
}

// Each line logged through log_print holds, after its prefix, exactly what
// snprintf makes of the same format and arguments.
TEST(LogPrintTest, FormattedTextIsWhatPrintfGivesForEveryConversion) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  std::vector<std::string> expected;
  char buf[512];
#define ZEL_CHECK_FORMAT(...)                     \
  do {                                            \
    log_print(3, 0, __VA_ARGS__);                 \
    std::snprintf(buf, sizeof(buf), __VA_ARGS__); \
    expected.push_back(buf);                      \
  } while (false)
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
#undef ZEL_CHECK_FORMAT
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

}  // namespace

// ---------------------------------------------------------------------------
// The line queue and the writer's runs of lines. A backend that holds the
// writer thread while it receives the "gate" line lets a test queue lines
// behind it, which the writer then finds together and writes as one run.

namespace {

class GateBackend : public zel::LogBackend {
 public:
  // Registers a gate with the Logger; it stays registered for the process.
  static GateBackend* Install() {
    static GateBackend* gate = [] {
      auto* g = new GateBackend;
      Logger::GetInstance()->RegisterBackend(g);
      return g;
    }();
    return gate;
  }

  void Log(const std::string& line) override {
    if (line != "gate\n") return;
    std::unique_lock<std::mutex> lock(mutex_);
    entered_ = true;
    cond_.notify_all();
    cond_.wait(lock, [this] { return open_; });
  }

  // Queues the gate line and waits until the writer holds it: every line
  // posted from now on until Open() queues behind it.
  bool Close() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      open_ = false;
      entered_ = false;
    }
    Logger::GetInstance()->Log("gate\n", 3, true);
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, std::chrono::seconds(10), [this] { return entered_; });
  }

  // Lets the writer go on.
  void Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    cond_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  bool entered_ = false;
  bool open_ = true;
};

TEST(LogRunTest, SizeLimitInsideARunRotatesOnTheSameLineAsOneByOne) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger* logger = Logger::GetInstance();
  logger->SetLogFileInfo(25, 10);
  GateBackend* gate = GateBackend::Install();
  ASSERT_TRUE(gate->Close());
  for (int i = 1; i <= 9; ++i) logger->Log("line-0" + std::to_string(i) + "\n");  // 8 bytes
  gate->Open();
  zel_log_flush();
  // One by one: the gate line takes the file to 5 bytes, lines 1-3 to 29;
  // line 4 finds 29 > 25 and rotates; lines 4-7 reach 32; line 8 rotates.
  const std::string day = Logger::GetLogPath();
  const std::string live = LiveFile(day);
  const std::string run = RunPrefix(live);
  EXPECT_EQ(ListDir(day).size(), 3u);
  EXPECT_EQ(ReadFile(day + run + "0"), "gate\nline-01\nline-02\nline-03\n");
#if defined(ZEL_TEST_ON_WINDOWS)
  // Each line takes 9 bytes on disk ("\r\n"): lines 4-6 reach 27 bytes and
  // line 7 rotates.
  EXPECT_EQ(ReadFile(day + run + "1"), "line-04\nline-05\nline-06\n");
  EXPECT_EQ(ReadFile(live), "line-07\nline-08\nline-09\n");
#else
  EXPECT_EQ(ReadFile(day + run + "1"), "line-04\nline-05\nline-06\nline-07\n");
  EXPECT_EQ(ReadFile(live), "line-08\nline-09\n");
#endif
}

TEST(LogRunTest, AnEmptyTextInsideARunFailsAloneAndSplitsTheRun) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger* logger = Logger::GetInstance();
  GateBackend* gate = GateBackend::Install();
  ASSERT_TRUE(gate->Close());
  logger->Log("a\n");
  logger->Log(std::string("\0hidden\n", 8));  // a C string of length 0
  logger->Log(std::string("b\0cut\n", 6));    // written up to the NUL
  logger->Log("c\n");
  StdoutCapture out;
  gate->Open();
  zel_log_flush();
  EXPECT_EQ(out.Stop(), "zel log write error,ret[0] \n");
  EXPECT_EQ(ReadFile(LiveFile(Logger::GetLogPath())), "gate\na\nbc\n");
}

#if !defined(ZEL_TEST_ON_WINDOWS)
TEST(LogRunTest, LiveFileRemovedBetweenTwoRunsIsNoticedBeforeTheSecond) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger* logger = Logger::GetInstance();
  LogRaw("first\n");
  const std::string day = Logger::GetLogPath();
  const std::string live = LiveFile(day);
  GateBackend* gate = GateBackend::Install();
  ASSERT_TRUE(gate->Close());  // the gate's run has checked the file already
  ASSERT_EQ(unlink(live.c_str()), 0);
  logger->Log("b\n");
  logger->Log("c\n");
  StdoutCapture out;
  gate->Open();
  zel_log_flush();
  // The removed file cannot be renamed; the index steps on and the next run
  // opens a new live file.
  EXPECT_EQ(out.Stop(), "zel::Logger::getFile 516,rename error\n");
  EXPECT_EQ(ListDir(day).size(), 1u);
  EXPECT_EQ(ReadFile(LiveFile(day)), "b\nc\n");
}

#endif

// Makes the file `path` `size` bytes long as another process would, sparse
// where the file system allows (no data is written); false on failure.
bool GrowSparse(const std::string& path, int64_t size) {
#if defined(ZEL_TEST_ON_WINDOWS)
  const HANDLE file = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  DWORD returned = 0;
  DeviceIoControl(file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
  LARGE_INTEGER end;
  end.QuadPart = size;
  const bool grown =
      SetFilePointerEx(file, end, nullptr, FILE_BEGIN) != 0 && SetEndOfFile(file) != 0;
  CloseHandle(file);
  return grown;
#else
  return truncate(path.c_str(), static_cast<off_t>(size)) == 0;
#endif
}

// The size of the file `path` in bytes, 64-bit on every platform; -1 when
// there is none.
int64_t FileSize64(const std::string& path) {
#if defined(ZEL_TEST_ON_WINDOWS)
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data) == 0) return -1;
  return (static_cast<int64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
#else
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
#endif
}

TEST(LogRunTest, LiveFileOver2GiBGrownFromOutsideStillRotates) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger::GetInstance()->SetLogFileInfo(100, 10);
  LogRaw("a\n");
  const std::string day = Logger::GetLogPath();
  const std::string live = LiveFile(day);
  // Another process makes the file 3 GiB long.
  constexpr int64_t kBig = int64_t{3} << 30;
  ASSERT_TRUE(GrowSparse(live, kBig));
  LogRaw("b\n");  // the logger stands at 2 bytes: written at the end of the file
  LogRaw("c\n");  // now at 3 GiB + one line, over the limit: rotate
  EXPECT_EQ(ReadFile(live), "c\n");
#if defined(ZEL_TEST_ON_WINDOWS)
  constexpr int64_t kLineOnDisk = 3;  // "b\r\n"
#else
  constexpr int64_t kLineOnDisk = 2;
#endif
  EXPECT_EQ(FileSize64(day + RunPrefix(live) + "0"), kBig + kLineOnDisk);
}

TEST(LogRunTest, ChangeOfDayWithABacklogWritesTheBacklogIntoTheNewDay) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kNoFaketime;
#else
  if (const char* childBase = std::getenv(kChildBaseVariable)) {
    // Child, under a clock that starts 2 s before midnight.
    zel_set_log_path(childBase);
    std::time_t now = std::time(nullptr);
    std::tm first{};
    localtime_r(&now, &first);
    ASSERT_EQ(first.tm_mday, 22) << "the clock is not moved";
    LogRaw("before midnight\n");
    GateBackend* gate = GateBackend::Install();
    ASSERT_TRUE(gate->Close());
    for (int i = 1; i <= 5; ++i) Logger::GetInstance()->Log("queued " + std::to_string(i) + "\n");
    ASSERT_TRUE(zel_test::WaitFor([&] {
      std::time_t t = std::time(nullptr);
      std::tm tm{};
      localtime_r(&t, &tm);
      return tm.tm_mday != first.tm_mday;
    }));
    gate->Open();
    zel_log_flush();
    return;
  }
  TempDir dir;
  ASSERT_EQ(RunSelfUnderFaketime("2026-11-22 23:59:58",
                                 "LogRunTest.ChangeOfDayWithABacklogWritesTheBacklogIntoTheNewDay",
                                 dir.path()),
            0);
  // The gate's run was checked before midnight; the backlog's run after it.
  const std::string oldDay = dir.path() + "20261122/";
  const std::vector<std::string> oldNames = ListDir(oldDay);
  ASSERT_EQ(oldNames.size(), 1u);
  EXPECT_EQ(oldNames[0].substr(oldNames[0].size() - 2), ".0") << oldNames[0];
  EXPECT_EQ(ReadFile(oldDay + oldNames[0]), "before midnight\ngate\n");
  EXPECT_EQ(ReadFile(LiveFile(dir.path() + "20261123/")),
            "queued 1\nqueued 2\nqueued 3\nqueued 4\nqueued 5\n");
#endif
}

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

TEST(LogFileInfoTest, CountAbove256KeepsAll256Names) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  // Every line rotates the file before it; 300 would wrap to 44 in 8 bits.
  Logger::GetInstance()->SetLogFileInfo(1, 300);
  for (int i = 0; i < 260; ++i) Logger::GetInstance()->Log("ab");
  zel_log_flush();
  EXPECT_EQ(ListDir(Logger::GetLogPath()).size(), 256u);
}

TEST(LogFileInfoTest, NegativeSizeIsTakenAsZero) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger::GetInstance()->SetLogFileInfo(-1, 10);
  StdoutCapture out;
  LogRaw("");  // opens the file and fails: the file stays empty
  out.Stop();
  LogRaw("a\n");  // an empty file is not larger than 0 bytes: no rotation
  EXPECT_EQ(ListDir(Logger::GetLogPath()).size(), 1u);
  EXPECT_EQ(ReadFile(LiveFile(Logger::GetLogPath())), "a\n");
}

}  // namespace

// ---------------------------------------------------------------------------
// Promises that show only under particular conditions: the vsnprintf
// fallback after the fast formatter went part of the way, callers that never
// wait for a stalled writer, a flush from inside a backend, the prefix's time
// cache across seconds, and the default log base.

namespace {

using zel_test::WaitFor;

// The text of a log line after its prefix "[...][tid:N] ".
std::string TextOf(const std::string& line) {
  const std::size_t tid = line.find("][tid:");
  const std::size_t end = tid == std::string::npos ? tid : line.find("] ", tid);
  return end == std::string::npos ? std::string() : line.substr(end + 2);
}

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
#define ZEL_CHECK_FORMAT(...)                     \
  do {                                            \
    log_print(3, 0, __VA_ARGS__);                 \
    std::snprintf(buf, sizeof(buf), __VA_ARGS__); \
    expected.push_back(buf);                      \
  } while (false)
  ZEL_CHECK_FORMAT("%s %.2f\n", "pi", 3.14159);
  ZEL_CHECK_FORMAT("%d %p %s\n", -7, static_cast<void*>(&local), "after");
  ZEL_CHECK_FORMAT("%x %5.1f %c\n", 0xbeefu, 2.25, 'z');
  ZEL_CHECK_FORMAT("%s|%d|%lu|%+d|%s\n", "a", 1, 2UL, 3, "b");
  ZEL_CHECK_FORMAT("%-6s|%08x|%lld|%#o|%s\n", "left", 0x1fu, -5LL, 8u, "tail");
  ZEL_CHECK_FORMAT("%c%c%c%e%s\n", 'x', 'y', 'z', 1e-5, "end");
  ZEL_CHECK_FORMAT("%zu %i %% %hd %u\n", static_cast<std::size_t>(42), 9, static_cast<short>(-3),
                   77u);
  ZEL_CHECK_FORMAT("[%s][%s %s %d] Debug:%s %.3s %d\n", "", "/a.cpp", "f", 10, "x", "abcdef", 99);
#undef ZEL_CHECK_FORMAT
  zel_log_flush();
  const std::vector<std::string> lines = SplitLines(ReadFile(LiveFile(Logger::GetLogPath())));
  ASSERT_EQ(lines.size(), expected.size());
  for (std::size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(TextOf(lines[i]), expected[i]);
}

// ---------------------------------------------------------------------------
// Callers never wait for the writer.

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

// ---------------------------------------------------------------------------
// The prefix's per-thread time cache.

// The wall clock in milliseconds since 1970, as the log prefix reads it.
int64_t WallClockMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

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

// ---------------------------------------------------------------------------
// The default log base.

#if !defined(ZEL_TEST_ON_WINDOWS)
TEST(LogDefaultBaseTest, LinesGoBelowTmpZelWhenNoBaseIsSet) {
  struct stat st;
  if (stat("/tmp/zel", &st) == 0 && access("/tmp/zel", W_OK | X_OK) != 0) {
    GTEST_SKIP() << "/tmp/zel exists and is not writable for this user";
  }
  const std::string token = "default base " + std::to_string(static_cast<long long>(getpid())) +
                            " " + std::to_string(static_cast<long long>(WallClockMs()));
  log_print(3, 0, "%s\n", token.c_str());
  zel_log_flush();
  const std::string dir = Logger::GetLogPath();
  std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  char day[16];
  std::strftime(day, sizeof(day), "%Y%m%d/", &tm);
  EXPECT_EQ(dir, std::string("/tmp/zel/") + day);
  char buffer[256] = {0};
  ASSERT_EQ(zel_get_log_path(buffer, sizeof(buffer)), 0);
  EXPECT_EQ(std::string(buffer), dir);
  // The line is in this process's live file there; the file goes again.
  bool found = false;
  for (const std::string& name : ListDir(dir)) {
    if (name.rfind("zel.log.logger_test.", 0) != 0) continue;
    if (ReadFile(dir + name).find(token) == std::string::npos) continue;
    found = true;
    std::remove((dir + name).c_str());
  }
  EXPECT_TRUE(found) << "no file below " << dir << " holds the line";
}
#endif

}  // namespace
