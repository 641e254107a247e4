// SPDX-License-Identifier: MIT

// The log's files: the log path functions, the live file's name, rotation
// by size and count, the change of day, the file changed or removed from
// outside, the writer's runs of queued lines, and the default log base.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#if defined(ZEL_TEST_ON_WINDOWS)
#include <windows.h>
#include <winioctl.h>
#else
#include <sys/resource.h>
#endif
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "tests/support/log_test_util.h"
#include "tests/support/test_util.h"
#include "utils/logger.h"
#include "utils/platform.h"
#include "utils/process_path.h"

namespace {

using zel::Logger;
using zel_test::FileExists;
using zel_test::GateBackend;
using zel_test::IsDirectory;
using zel_test::ListDir;
using zel_test::LiveFile;
using zel_test::LocalNow;
using zel_test::LogRaw;
using zel_test::ReadFile;
using zel_test::RunPrefix;
using zel_test::StdoutCapture;
using zel_test::TempDir;
using zel_test::TodayDir;
using zel_test::WaitForDayAfter;
using zel_test::WallClockMs;
#if defined(ZEL_TEST_ON_WINDOWS)
using zel_test::kNoFaketime;
#else
using zel_test::kChildBaseVariable;
using zel_test::RunSelfUnderFaketime;
#endif

#if defined(ZEL_TEST_ON_WINDOWS)
// Under Wine, as on Windows file systems without POSIX delete semantics, a
// removed file that a process still holds open keeps its name,
// delete-pending, until its last handle is closed (renaming it is allowed:
// the log opens it with FILE_SHARE_DELETE).
constexpr char kOpenFileIsLocked[] =
    "needs POSIX unlink, which frees the name of a file another handle holds open at once; "
    "under Wine the removed live file keeps its name, delete-pending, until the log closes it";
#endif
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
// Log files, names and rotation.

// Each test logs below a temporary base of its own. After the first line,
// Locate() names the day directory, the live file and the prefix that the
// run's rotated files share.
class TempLogTest : public ::testing::Test {
 protected:
  void SetUp() override { zel_set_log_path(dir.path().c_str()); }

  void Locate() {
    day = Logger::GetLogPath();
    live = LiveFile(day);
    run = RunPrefix(live);
  }

  // Sets the file limits, writes `first` and locates the files.
  void Start(int sizeLimit, int count, const std::string& first) {
    Logger::GetInstance()->SetLogFileInfo(sizeLimit, count);
    LogRaw(first);
    Locate();
  }

  // The rotated file with the index `index`.
  std::string Rotated(int index) const { return day + run + std::to_string(index); }

  // Logs "line 0\n" to "line <count - 1>\n", each written before the next.
  static void LogNumberedLines(int count) {
    for (int i = 0; i < count; ++i) LogRaw("line " + std::to_string(i) + "\n");
  }

  TempDir dir;
  std::string day;
  std::string live;
  std::string run;
};

class LogFilesTest : public TempLogTest {};
class LogRunTest : public TempLogTest {};
class LogFileInfoTest : public TempLogTest {};

TEST_F(LogFilesTest, LiveFileIsNamedAfterTheProcessAndTheStartTime) {
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

TEST_F(LogFilesTest, AFileOfExactlyTheLimitIsNotRotatedOneByteMoreIs) {
  Logger::GetInstance()->SetLogFileInfo(10, 10);
  LogRaw("0123456789");  // 10 bytes: exactly the limit
  LogRaw("a");           // written to the same file: 11 bytes
  Locate();
  EXPECT_EQ(ReadFile(live), "0123456789a");
  EXPECT_EQ(ListDir(day).size(), 1u);
  LogRaw("b");  // the file is over the limit: rotate first
  EXPECT_EQ(ReadFile(live), "b");
  EXPECT_EQ(ReadFile(Rotated(0)), "0123456789a");
  EXPECT_EQ(ListDir(day).size(), 2u);
}

TEST_F(LogFilesTest, CountOfOneRemovesEachRotatedFileAtOnce) {
  Logger::GetInstance()->SetLogFileInfo(1, 1);
  LogNumberedLines(5);
  Locate();
  const std::vector<std::string> names = ListDir(day);
  ASSERT_EQ(names.size(), 1u);
  EXPECT_EQ(ReadFile(day + names[0]), "line 4\n");
}

TEST_F(LogFilesTest, DefaultCountKeepsTheLiveFileAndNineRotated) {
  Logger::GetInstance()->SetLogFileInfo(1, 10);
  // 15 lines: 14 rotations, into indices 0 to 13; rotation k removes k - 10.
  LogNumberedLines(15);
  Locate();
  EXPECT_EQ(ListDir(day).size(), 10u);
  for (int index = 0; index <= 4; ++index) EXPECT_FALSE(FileExists(Rotated(index)));
  for (int index = 5; index <= 13; ++index) {
    EXPECT_EQ(ReadFile(Rotated(index)), "line " + std::to_string(index) + "\n");
  }
  EXPECT_EQ(ReadFile(live), "line 14\n");
}

TEST_F(LogFilesTest, CountOfZeroRemovesNothingUntilTheIndexWraps) {
  Logger::GetInstance()->SetLogFileInfo(1, 0);
  // 256 lines: 255 rotations into 0..254, none removed.
  LogNumberedLines(256);
  Locate();
  EXPECT_EQ(ListDir(day).size(), 256u);
  // Rotation 256 renames into 255 and wraps the index to 0, which removes
  // the file that rotation 1 made.
  LogRaw("line 256\n");
  EXPECT_EQ(ListDir(day).size(), 256u);
  EXPECT_FALSE(FileExists(Rotated(0)));
  EXPECT_EQ(ReadFile(Rotated(255)), "line 255\n");
  EXPECT_EQ(ReadFile(Rotated(1)), "line 1\n");
}

TEST_F(LogFilesTest, RotationIndexWrapsFrom255To0) {
  Logger::GetInstance()->SetLogFileInfo(1, 10);
  // 259 lines: 258 rotations; the last ones go into 254, 255, 0 and 1.
  LogNumberedLines(259);
  Locate();
  EXPECT_EQ(ListDir(day).size(), 10u);
  EXPECT_EQ(ReadFile(Rotated(255)), "line 255\n");
  EXPECT_EQ(ReadFile(Rotated(0)), "line 256\n");
  EXPECT_EQ(ReadFile(Rotated(1)), "line 257\n");
  EXPECT_EQ(ReadFile(Rotated(249)), "line 249\n");
  EXPECT_FALSE(FileExists(Rotated(248)));
  EXPECT_EQ(ReadFile(live), "line 258\n");
}

TEST_F(LogFilesTest, OccupiedRotationTargetsReportRenameErrorsAndLoggingGoesOn) {
  Start(1, 10, "a\n");
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
  EXPECT_EQ(ReadFile(Rotated(3)), "a\nb\nc\nd\n");
  EXPECT_EQ(ReadFile(live), "e\n");
}

TEST_F(LogFilesTest, LiveFileRemovedFromOutsideMakesTheNextLineRotate) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kOpenFileIsLocked;
#endif
  LogRaw("before\n");
  Locate();
  ASSERT_EQ(unlink(live.c_str()), 0);
  StdoutCapture out;
  LogRaw("after\n");
  LogRaw("more\n");
  EXPECT_EQ(out.Stop(), "zel::Logger::getFile 516,rename error\n");
  EXPECT_EQ(ReadFile(live), "after\nmore\n");
  EXPECT_EQ(ListDir(day).size(), 1u);
}

TEST_F(LogFilesTest, LogDirectoryRemovedFromOutsideIsMadeAgain) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kOpenFileIsLocked;
#endif
  LogRaw("before\n");
  Locate();
  TempDir::RemoveTree(dir.path());
  ASSERT_FALSE(FileExists(dir.path()));
  StdoutCapture out;
  LogRaw("after\n");
  LogRaw("more\n");
  EXPECT_EQ(out.Stop(), "zel::Logger::getFile 516,rename error\n");
  EXPECT_TRUE(IsDirectory(day));
  EXPECT_EQ(ReadFile(live), "after\nmore\n");
}

TEST_F(LogFilesTest, AFailedWriteIsReportedAndLaterLinesAreWritten) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << "makes the write fail with a POSIX file size limit (setrlimit), which "
                  "Windows does not have";
#else
  const std::string first(199, 'f');
  LogRaw(first + "\n");
  Locate();
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
// The change of day, under a moved clock.

TEST_F(LogFilesTest, ChangeOfDayRenamesInTheOldDayAndStartsAFileInTheNew) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kNoFaketime;
#else
  if (const char* childBase = std::getenv(kChildBaseVariable)) {
    // Child, under a clock that starts 3 s before midnight.
    zel_set_log_path(childBase);
    ASSERT_EQ(LocalNow().tm_mday, 22) << "the clock is not moved";
    LogRaw("before midnight\n");
    ASSERT_TRUE(WaitForDayAfter(22));
    LogRaw("after midnight\n");
    return;
  }
  ASSERT_EQ(RunSelfUnderFaketime("2026-11-22 23:59:57",
                                 "LogFilesTest.ChangeOfDayRenamesInTheOldDayAndStartsAFileInTheNew",
                                 dir.path()),
            0);
  const std::string oldDay = dir.path() + "20261122/";
  const std::string newDay = dir.path() + "20261123/";
  const std::vector<std::string> oldNames = ListDir(oldDay);
  ASSERT_EQ(oldNames.size(), 1u);
  const std::string oldRun = "zel.log." + get_process_name() + ".2359";
  EXPECT_EQ(oldNames[0].compare(0, oldRun.size(), oldRun), 0) << oldNames[0];
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

// ---------------------------------------------------------------------------
// Rotation decisions when the live file is changed from outside, and the
// caller's formatting of the text.

// Appends `text` to the file `path` as another program would.
void AppendFromOutside(const std::string& path, const std::string& text) {
  std::FILE* f = std::fopen(path.c_str(), "a");
  ASSERT_NE(f, nullptr) << path;
  std::fputs(text.c_str(), f);
  std::fclose(f);
}

// These scenarios change the file while the log holds it open: appends
// from outside, truncation, a rename and a removal (which on Windows skips).

TEST_F(LogFilesTest, AppendFromOutsideCountsOnlyOnceTheLoggerHasWrittenBehindIt) {
  Start(20, 10, "0123456789");                    // 10 bytes
  AppendFromOutside(live, std::string(15, 'x'));  // the file has 25 bytes now
  // The size that counts is the logger's own position in the file, still 10:
  // no rotation yet, and the line goes to the end of the file.
  LogRaw("a");
  EXPECT_EQ(ReadFile(live), "0123456789" + std::string(15, 'x') + "a");
  EXPECT_EQ(ListDir(day).size(), 1u);
  // Having written at the end, the logger stands at 26 bytes: rotate.
  LogRaw("b");
  EXPECT_EQ(ReadFile(live), "b");
  EXPECT_EQ(ReadFile(Rotated(0)), "0123456789" + std::string(15, 'x') + "a");
}

TEST_F(LogFilesTest, FileTruncatedFromOutsideRotatesByTheLoggersPosition) {
  Start(10, 10, "0123456789");  // 10 bytes: at the limit
  ASSERT_EQ(truncate(live.c_str(), 0), 0);
  LogRaw("a");  // position 10, not over the limit; written at the start
  EXPECT_EQ(ReadFile(live), "a");
  LogRaw("bbbbbbbbbb");  // position 1: no rotation, 11 bytes after it
  EXPECT_EQ(ReadFile(live), "abbbbbbbbbb");
  EXPECT_EQ(ListDir(day).size(), 1u);
  LogRaw("c");  // position 11: rotate
  EXPECT_EQ(ReadFile(live), "c");
  EXPECT_EQ(ReadFile(Rotated(0)), "abbbbbbbbbb");
}

TEST_F(LogFilesTest, LiveFileReplacedByADirectoryRotates) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kOpenFileIsLocked;
#endif
  LogRaw("before\n");
  Locate();
  ASSERT_EQ(unlink(live.c_str()), 0);
  ASSERT_EQ(mkdir(live.c_str(), 0755), 0);
  StdoutCapture out;
  // Not a regular file at the path: rotate, which renames the directory.
  LogRaw("after\n");
  EXPECT_EQ(out.Stop(), "");
  EXPECT_TRUE(IsDirectory(Rotated(0)));
  EXPECT_EQ(ReadFile(live), "after\n");
}

TEST_F(LogFilesTest, LiveFileReplacedFromOutsideKeepsTheOpenFileUntilItIsOverTheLimit) {
  Start(10, 10, "0123456789");
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
  EXPECT_EQ(ReadFile(Rotated(0)), foreign);
  EXPECT_EQ(ReadFile(live), "b");
}

// ---------------------------------------------------------------------------
// The writer's runs of lines: a gate backend holds the writer thread while
// the test queues lines behind it, which the writer then finds together and
// writes as one run.

TEST_F(LogRunTest, SizeLimitInsideARunRotatesOnTheSameLineAsOneByOne) {
  Logger* logger = Logger::GetInstance();
  logger->SetLogFileInfo(25, 10);
  GateBackend* gate = GateBackend::Install();
  ASSERT_TRUE(gate->Close());
  for (int i = 1; i <= 9; ++i) logger->Log("line-0" + std::to_string(i) + "\n");  // 8 bytes
  gate->Open();
  zel_log_flush();
  // One by one: the gate line takes the file to 5 bytes, lines 1-3 to 29;
  // line 4 finds 29 > 25 and rotates; lines 4-7 reach 32; line 8 rotates.
  Locate();
  EXPECT_EQ(ListDir(day).size(), 3u);
  EXPECT_EQ(ReadFile(Rotated(0)), "gate\nline-01\nline-02\nline-03\n");
#if defined(ZEL_TEST_ON_WINDOWS)
  // Each line takes 9 bytes on disk ("\r\n"): lines 4-6 reach 27 bytes and
  // line 7 rotates.
  EXPECT_EQ(ReadFile(Rotated(1)), "line-04\nline-05\nline-06\n");
  EXPECT_EQ(ReadFile(live), "line-07\nline-08\nline-09\n");
#else
  EXPECT_EQ(ReadFile(Rotated(1)), "line-04\nline-05\nline-06\nline-07\n");
  EXPECT_EQ(ReadFile(live), "line-08\nline-09\n");
#endif
}

TEST_F(LogRunTest, AnEmptyTextInsideARunFailsAloneAndSplitsTheRun) {
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
TEST_F(LogRunTest, LiveFileRemovedBetweenTwoRunsIsNoticedBeforeTheSecond) {
  Logger* logger = Logger::GetInstance();
  LogRaw("first\n");
  Locate();
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

TEST_F(LogRunTest, LiveFileOver2GiBGrownFromOutsideStillRotates) {
  Start(100, 10, "a\n");
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
  EXPECT_EQ(FileSize64(Rotated(0)), kBig + kLineOnDisk);
}

TEST_F(LogRunTest, ChangeOfDayWithABacklogWritesTheBacklogIntoTheNewDay) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kNoFaketime;
#else
  if (const char* childBase = std::getenv(kChildBaseVariable)) {
    // Child, under a clock that starts 2 s before midnight.
    zel_set_log_path(childBase);
    ASSERT_EQ(LocalNow().tm_mday, 22) << "the clock is not moved";
    LogRaw("before midnight\n");
    GateBackend* gate = GateBackend::Install();
    ASSERT_TRUE(gate->Close());
    for (int i = 1; i <= 5; ++i) Logger::GetInstance()->Log("queued " + std::to_string(i) + "\n");
    ASSERT_TRUE(WaitForDayAfter(22));
    gate->Open();
    zel_log_flush();
    return;
  }
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

TEST_F(LogFileInfoTest, CountAbove256KeepsAll256Names) {
  // Every line rotates the file before it; 300 would wrap to 44 in 8 bits.
  Logger::GetInstance()->SetLogFileInfo(1, 300);
  for (int i = 0; i < 260; ++i) Logger::GetInstance()->Log("ab");
  zel_log_flush();
  EXPECT_EQ(ListDir(Logger::GetLogPath()).size(), 256u);
}

TEST_F(LogFileInfoTest, NegativeSizeIsTakenAsZero) {
  Logger::GetInstance()->SetLogFileInfo(-1, 10);
  StdoutCapture out;
  LogRaw("");  // opens the file and fails: the file stays empty
  out.Stop();
  LogRaw("a\n");  // an empty file is not larger than 0 bytes: no rotation
  EXPECT_EQ(ListDir(Logger::GetLogPath()).size(), 1u);
  EXPECT_EQ(ReadFile(LiveFile(Logger::GetLogPath())), "a\n");
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
