// SPDX-License-Identifier: MIT

// Retention of the log across runs: with Logger::SetRetention() set, the
// writer removes, below the base, day directories older than the kept days
// and then the oldest log files until the total fits, at start-up. The
// scenes are fabricated day directories and files of earlier runs next to
// foreign files and links, which must be left alone.
#include <gtest/gtest.h>
#include <sys/stat.h>
#if !defined(ZEL_TEST_ON_WINDOWS)
#include <sys/wait.h>
#endif
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "tests/support/test_util.h"
#include "utils/logger.h"

namespace {

using zel::Logger;
// The helpers of tests/support/test_util.h.
using namespace zel_test;  // NOLINT(build/namespaces)

// Makes the day directory `daysAgo` days old below `base` and returns its
// path (ending in '/').
std::string MakeDay(const std::string& base, int daysAgo) {
  const std::string dir = base + DayName(daysAgo) + "/";
  mkdir(dir.c_str(), 0700);
  return dir;
}

void MakeFile(const std::string& path, std::size_t size) {
  WriteFile(path, std::string(size, 'x'));
}

// Makes the day directory `daysAgo` days old below `base` with one small
// log file of a run at 09:00 in it, and returns its path (ending in '/').
std::string MakeDayWithLogFile(const std::string& base, int daysAgo) {
  const std::string day = MakeDay(base, daysAgo);
  MakeFile(day + "zel.log.a.090000.txt", 10);
  return day;
}

// Starts the Logger on `base`, writes one line and waits for it.
void LogOneLine(const std::string& base) {
  zel_test::StartLogBelow(base, 3, "retention test line\n");
}

// The live file of today's directory below `base`.
std::string LiveFile(const std::string& base) { return LivePath(base + TodayDir()); }

TEST(LogRetentionTest, OldDayDirectoriesGoWithTheirLogFilesForeignFilesStay) {
  TempDir tmp;
  const std::string base = tmp.path() + "logs/";
  mkdir(base.c_str(), 0700);
  const std::string old40 = MakeDay(base, 40);
  MakeFile(old40 + "zel.log.client.exe.101010.txt", 100);
  MakeFile(old40 + "zel.log.client.exe.101010.0", 100);
  const std::string old10 = MakeDay(base, 10);
  MakeFile(old10 + "zel.log.client.exe.090000.txt", 100);
  MakeFile(old10 + "notes.txt", 100);  // foreign: keeps its directory
  const std::string recent = MakeDay(base, 2);
  MakeFile(recent + "zel.log.client.exe.080000.txt", 100);
  // Not day directories of the library: left alone whatever their age.
  mkdir((base + "2019013").c_str(), 0700);
  mkdir((base + "20241399").c_str(), 0700);
  mkdir((base + "other").c_str(), 0700);
  MakeFile(base + "other/zel.log.client.exe.070000.txt", 100);
  // A link named like an old day directory: neither followed nor removed.
  const std::string target = tmp.path() + "target/";
  mkdir(target.c_str(), 0700);
  MakeFile(target + "zel.log.client.exe.060000.txt", 100);
  const std::string linkDay = base + DayName(30);
  ASSERT_TRUE(MakeSymbolicLink(target, linkDay, true));

  Logger::SetRetention(7, 0);
  StdoutCapture out;
  LogOneLine(base);
  const std::string printed = out.Stop();

  EXPECT_FALSE(FileExists(old40)) << printed;
  EXPECT_TRUE(IsDirectory(old10));
  EXPECT_EQ(ListDir(old10), std::vector<std::string>{"notes.txt"});
  EXPECT_EQ(ListDir(recent), std::vector<std::string>{"zel.log.client.exe.080000.txt"});
  EXPECT_TRUE(IsDirectory(base + "2019013"));
  EXPECT_TRUE(IsDirectory(base + "20241399"));
  EXPECT_TRUE(FileExists(base + "other/zel.log.client.exe.070000.txt"));
  EXPECT_TRUE(FileExists(target + "zel.log.client.exe.060000.txt"));
  struct stat st;
  EXPECT_EQ(lstat(linkDay.c_str(), &st), 0);
  EXPECT_FALSE(LiveFile(base).empty());
  // Each removal is reported with its path.
  EXPECT_EQ(CountOccurrences(printed, "zel log: retention removed "), 4) << printed;
  EXPECT_NE(printed.find(old40 + "zel.log.client.exe.101010.0"), std::string::npos) << printed;
  EXPECT_NE(printed.find(old10 + "zel.log.client.exe.090000.txt"), std::string::npos) << printed;
}

TEST(LogRetentionTest, OldestLogFilesGoUntilTheTotalFits) {
  TempDir tmp;
  const std::string base = tmp.path();
  const std::string day3 = MakeDay(base, 3);
  MakeFile(day3 + "zel.log.a.090000.0", 1000);    // oldest
  MakeFile(day3 + "zel.log.a.090000.1", 1000);    // second
  MakeFile(day3 + "zel.log.a.090000.txt", 1000);  // third: the last of its run
  MakeFile(day3 + "zel.log.a.100000.0", 1000);    // fourth: a later run
  MakeFile(day3 + "big-foreign-file", 100000);    // not counted, not removed
  // A link named like the oldest log file: not counted, not removed, not
  // followed. (Wine cannot show a link to a file as one: there the scene
  // goes without it.)
  MakeFile(tmp.path() + "linked", 100000);
  const bool linked = MakeSymbolicLink(tmp.path() + "linked", day3 + "zel.log.a.000000.txt", false);
#if !defined(ZEL_TEST_ON_WINDOWS)
  ASSERT_TRUE(linked);
#endif
  const std::string day1 = MakeDay(base, 1);
  MakeFile(day1 + "zel.log.a.080000.2", 1000);   // fifth: a later day
  MakeFile(day1 + "zel.log.a.080000.10", 1000);  // sixth: index 10 after 2

  // 6 files of 1000 bytes and the live file (empty when it is opened):
  // keeping at most 1500 bytes leaves the newest and the live file.
  Logger::SetRetention(0, 1500);
  StdoutCapture out;
  LogOneLine(base);
  const std::string printed = out.Stop();

  EXPECT_EQ(ListDir(day3),
            linked ? (std::vector<std::string>{"big-foreign-file", "zel.log.a.000000.txt"})
                   : (std::vector<std::string>{"big-foreign-file"}))
      << printed;
  EXPECT_EQ(ListDir(day1), std::vector<std::string>{"zel.log.a.080000.10"}) << printed;
  EXPECT_EQ(ReadFile(tmp.path() + "linked").size(), 100000u);
  const std::string live = LiveFile(base);
  ASSERT_FALSE(live.empty());
  EXPECT_NE(ReadFile(live).find("retention test line"), std::string::npos);
  // Removed oldest first.
  const std::vector<std::string> order = {"zel.log.a.090000.0", "zel.log.a.090000.1",
                                          "zel.log.a.090000.txt", "zel.log.a.100000.0",
                                          "zel.log.a.080000.2"};
  std::size_t last = 0;
  for (const std::string& name : order) {
    const std::size_t at = printed.find(name);
    ASSERT_NE(at, std::string::npos) << name << "\n" << printed;
    EXPECT_GE(at, last) << name << "\n" << printed;
    last = at;
  }
}

TEST(LogRetentionTest, ATinyTotalRemovesEverythingButTheLiveFile) {
  TempDir tmp;
  const std::string base = tmp.path();
  const std::string day5 = MakeDayWithLogFile(base, 5);
  // A file of today that sorts after the live file (a later start time):
  // the live file is passed over on the way to it.
  const std::string today = MakeDay(base, 0);
  MakeFile(today + "zel.log.a.235959.0", 10);
  Logger::SetRetention(0, 1);
  StdoutCapture out;
  LogOneLine(base);
  out.Stop();
  EXPECT_FALSE(FileExists(day5));
  EXPECT_FALSE(FileExists(today + "zel.log.a.235959.0"));
  const std::string live = LiveFile(base);
  ASSERT_FALSE(live.empty());
  EXPECT_NE(ReadFile(live).find("retention test line"), std::string::npos);
}

TEST(LogRetentionTest, WithoutRetentionFilesOfEarlierRunsStay) {
  TempDir tmp;
  const std::string day400 = MakeDayWithLogFile(tmp.path(), 400);
  StdoutCapture out;
  LogOneLine(tmp.path());
  EXPECT_EQ(out.Stop().find("retention"), std::string::npos);
  EXPECT_TRUE(FileExists(day400 + "zel.log.a.090000.txt"));
}

TEST(LogRetentionTest, SetAfterStartUpAppliesAtTheNextLine) {
  TempDir tmp;
  const std::string day9 = MakeDayWithLogFile(tmp.path(), 9);
  StdoutCapture out;
  LogOneLine(tmp.path());
  EXPECT_TRUE(FileExists(day9));
  zel_set_log_retention(3, 0);
  log_print(3, 0, "second line\n");
  zel_log_flush();
  out.Stop();
  EXPECT_FALSE(FileExists(day9));
}

#if !defined(ZEL_TEST_ON_WINDOWS)
using zel_test::kChildBaseVariable;
using zel_test::RunSelfUnderFaketime;
#endif

TEST(LogRetentionTest, AppliedAtStartUpAndAgainAfterTheChangeOfDay) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << "needs faketime (an LD_PRELOAD library) to start the program 3 s before "
                  "midnight";
#else
  if (const char* childBase = std::getenv(kChildBaseVariable)) {
    // Child, under a clock that starts 3 s before midnight of 22 November.
    const std::string base = childBase;
    Logger::SetRetention(3, 0);
    LogOneLine(base);
    // At start-up on the 22nd: the 18th is more than 3 days old, the 19th
    // not yet.
    ASSERT_FALSE(FileExists(base + "20261118"));
    ASSERT_TRUE(FileExists(base + "20261119/zel.log.a.090000.txt"));
    ASSERT_TRUE(zel_test::WaitFor(
        [] {
          std::time_t t = std::time(nullptr);
          std::tm tm{};
          localtime_r(&t, &tm);
          return tm.tm_mday == 23;
        },
        std::chrono::milliseconds(20000)));
    log_print(3, 0, "after midnight\n");
    zel_log_flush();
    return;
  }
  TempDir tmp;
  for (const char* day : {"20261118", "20261119", "20261120"}) {
    const std::string dir = tmp.path() + day + "/";
    mkdir(dir.c_str(), 0700);
    MakeFile(dir + "zel.log.a.090000.txt", 10);
  }
  ASSERT_EQ(RunSelfUnderFaketime("2026-11-22 23:59:57",
                                 "LogRetentionTest.AppliedAtStartUpAndAgainAfterTheChangeOfDay",
                                 tmp.path()),
            0);
  // On the 23rd the 19th is more than 3 days old; the 20th stays.
  EXPECT_FALSE(FileExists(tmp.path() + "20261118"));
  EXPECT_FALSE(FileExists(tmp.path() + "20261119"));
  EXPECT_TRUE(FileExists(tmp.path() + "20261120/zel.log.a.090000.txt"));
  EXPECT_TRUE(FileExists(tmp.path() + "20261123"));
#endif
}

}  // namespace
