// SPDX-License-Identifier: MIT

// Safe log directories, files and handles: the log refuses a base owned by
// another user or writable by others without the sticky bit, a linked day
// directory and a linked live file (reported once, lines dropped); it makes
// its directories private; a child process does not inherit the live file;
// an exception of a backend or an allocation failure in log_print does not
// escape.
#include <gtest/gtest.h>
#include <sys/stat.h>
#if !defined(ZEL_TEST_ON_WINDOWS)
#include <pwd.h>
#include <sys/wait.h>
#endif
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/malloc_operators.h"
#include "tests/support/test_util.h"
#include "utils/logger.h"

// Allocation failure on demand: while set on a thread, the next allocation
// there throws std::bad_alloc (this executable's operator new comes first
// in the dynamic linker's lookup, so the library's allocations use it too).
namespace {
thread_local bool tFailAllocations = false;
}  // namespace

void* operator new(std::size_t size) {
  if (tFailAllocations) throw std::bad_alloc();
  return zel_test::MallocOrThrow(size);
}
// Its operator delete pair comes with tests/support/malloc_operators.h.

namespace {

using zel::Logger;
using zel_test::CountFiles;
using zel_test::CountOccurrences;
using zel_test::DayName;
using zel_test::FileExists;
using zel_test::ListDir;
using zel_test::LivePath;
using zel_test::MakeSymbolicLink;
using zel_test::ReadFile;
using zel_test::StdoutCapture;
using zel_test::TempDir;
using zel_test::TodayDir;

#if defined(ZEL_TEST_ON_WINDOWS)
// Ownership and access lists are left to Windows' own access checks; the
// library checks POSIX owners and mode bits only.
constexpr char kNoPosixModes[] =
    "needs POSIX owners and mode bits (chown, chmod, the sticky bit), which the library checks "
    "on POSIX only; Windows keeps access lists";
#endif

// Skips the test when no symbolic link can be made here.
#define ZEL_MAKE_LINK_OR_SKIP(target, link, directory)                                         \
  do {                                                                                         \
    if (!MakeSymbolicLink(target, link, directory)) {                                          \
      GTEST_SKIP() << "cannot make a link here that the system shows as one (Windows: "        \
                      "CreateSymbolicLinkA needs the privilege or developer mode; Wine shows " \
                      "a host link to a file as a plain file)";                                \
    }                                                                                          \
  } while (false)

void LogLine(const char* text) {
  log_print(3, 0, "%s\n", text);
  zel_log_flush();
  std::fflush(stdout);
}

void Start(const std::string& base) {
  zel_set_log_level(-1);
  zel_set_log_path(base.c_str());
}

// The live file of today's directory below `base`.
std::string LiveFile(const std::string& base) { return LivePath(base + TodayDir()); }

// Expects `printed` to hold one refusal, and `reason` in it.
void ExpectRefusedOnce(const std::string& printed, const std::string& reason) {
  EXPECT_EQ(CountOccurrences(printed, "zel log: refusing"), 1) << printed;
  EXPECT_NE(printed.find(reason), std::string::npos) << printed;
}

#if !defined(ZEL_TEST_ON_WINDOWS)
// Makes the directory `path` with exactly `mode` (the umask aside).
bool MakeDirectoryWithMode(const std::string& path, mode_t mode) {
  return mkdir(path.c_str(), 0700) == 0 && chmod(path.c_str(), mode) == 0;
}
#endif

// Starts the log on `base`, logs two lines and returns what it printed.
std::string PrintedForTwoLines(const std::string& base) {
  StdoutCapture out;
  Start(base);
  LogLine("first");
  LogLine("second");
  return out.Stop();
}

// Starts the log on `start`, logs `line`, and expects no refusal printed
// and the line in the live file below `base` (where `start` leads).
void ExpectLoggedWithoutRefusal(const std::string& start, const std::string& base,
                                const std::string& line) {
  StdoutCapture out;
  Start(start);
  LogLine(line.c_str());
  EXPECT_EQ(out.Stop().find("refusing"), std::string::npos);
  const std::string live = LiveFile(base);
  ASSERT_FALSE(live.empty());
  EXPECT_NE(ReadFile(live).find(line), std::string::npos);
}

TEST(LogSafetyTest, BaseOwnedByAnotherUserIsRefusedOnce) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kNoPosixModes;
#else
  if (geteuid() != 0) GTEST_SKIP() << "needs root to give a directory to another user";
  const passwd* nobody = getpwnam("nobody");
  ASSERT_NE(nobody, nullptr);
  TempDir tmp;
  const std::string base = tmp.path() + "planted/";
  ASSERT_EQ(mkdir(base.c_str(), 0755), 0);
  ASSERT_EQ(chown(base.c_str(), nobody->pw_uid, nobody->pw_gid), 0);
  const std::string printed = PrintedForTwoLines(base);
  ExpectRefusedOnce(printed, tmp.path() + "planted: it is owned by another user");
  EXPECT_EQ(printed.find("fp is null"), std::string::npos) << printed;
  EXPECT_EQ(CountFiles(base), 0);
#endif
}

TEST(LogSafetyTest, WorldWritableBaseWithoutStickyBitIsRefused) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kNoPosixModes;
#else
  TempDir tmp;
  const std::string base = tmp.path() + "open/";
  ASSERT_TRUE(MakeDirectoryWithMode(base, 0777));
  const std::string printed = PrintedForTwoLines(base);
  ExpectRefusedOnce(printed, "other users may write into it");
  EXPECT_EQ(CountFiles(base), 0);
#endif
}

TEST(LogSafetyTest, WorldWritableBaseWithStickyBitIsUsed) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kNoPosixModes;
#else
  TempDir tmp;
  const std::string base = tmp.path() + "sticky/";
  ASSERT_TRUE(MakeDirectoryWithMode(base, 01777));  // as /tmp is
  ExpectLoggedWithoutRefusal(base, base, "kept");
#endif
}

TEST(LogSafetyTest, BaseGivenAsALinkToTheUsersDirectoryIsUsed) {
  TempDir tmp;
  const std::string real = tmp.path() + "real/";
  ASSERT_EQ(mkdir(real.c_str(), 0700), 0);
  ZEL_MAKE_LINK_OR_SKIP(real, tmp.path() + "link", true);
  ExpectLoggedWithoutRefusal(tmp.path() + "link/", real, "through the link");
}

TEST(LogSafetyTest, LinkedDayDirectoryIsRefused) {
  TempDir tmp;
  const std::string base = tmp.path() + "base/";
  const std::string elsewhere = tmp.path() + "elsewhere/";
  for (const std::string& made : {base, elsewhere}) ASSERT_EQ(mkdir(made.c_str(), 0700), 0);
  ZEL_MAKE_LINK_OR_SKIP(elsewhere, base + DayName(), true);
  const std::string printed = PrintedForTwoLines(base);
  ExpectRefusedOnce(printed, base + DayName() + ": it is a link");
  EXPECT_TRUE(ListDir(elsewhere).empty());
}

TEST(LogSafetyTest, LinkedLiveFileIsRefused) {
  TempDir tmp;
  const std::string base = tmp.path();
  Start(base);
  LogLine("first");
  const std::string live = LiveFile(base);
  ASSERT_FALSE(live.empty());
  // The live file is moved away and a link to a file of the attacker's
  // choice takes its name; a directory in the way keeps the rotation from
  // renaming the link aside, so the writer opens the live file's name again.
  const std::string victim = tmp.path() + "victim";
  ASSERT_EQ(std::rename(live.c_str(), (tmp.path() + "moved").c_str()), 0);
  ASSERT_EQ(mkdir((live.substr(0, live.size() - 3) + "0").c_str(), 0700), 0);
  ZEL_MAKE_LINK_OR_SKIP(victim, live, false);
  StdoutCapture out;
  LogLine("second");
  LogLine("third");
  const std::string printed = out.Stop();
  EXPECT_FALSE(FileExists(victim));
  ExpectRefusedOnce(printed, live + ": it is a link");
}

TEST(LogSafetyTest, DirectoriesAreMadePrivate) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kNoPosixModes;
#else
  TempDir tmp;
  const std::string base = tmp.path() + "a/b/";
  Start(base);
  LogLine("line");
  for (const std::string& dir : {tmp.path() + "a", tmp.path() + "a/b", base + DayName()}) {
    struct stat st;
    ASSERT_EQ(stat(dir.c_str(), &st), 0) << dir;
    EXPECT_EQ(st.st_mode & 0777, 0700u) << dir;
  }
#endif
}

TEST(LogSafetyTest, AChildProcessDoesNotInheritTheLiveFile) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << "needs fork, exec and /proc to list a child's descriptors; on Windows "
                  "PlatformWinTest.LiveLogFileHandleIsNotInheritedAndLetsOthersRenameAndDelete "
                  "checks the handle";
#else
  TempDir tmp;
  Start(tmp.path());
  LogLine("line");
  const std::string live = LiveFile(tmp.path());
  ASSERT_FALSE(live.empty());
  // The child lists the files its descriptors refer to, after exec.
  const std::string listing = tmp.path() + "fds";
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const std::string script =
        "for f in /proc/$$/fd/*; do readlink \"$f\"; done > '" + listing + "'; exit 0";
    execl("/bin/sh", "sh", "-c", script.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  const std::string fds = ReadFile(listing);
  EXPECT_NE(fds.find("/dev/"), std::string::npos) << fds;  // the listing works
  EXPECT_EQ(fds.find(live), std::string::npos) << fds;
#endif
}

// A backend that throws for every line.
class ThrowingBackend : public zel::LogBackend {
 public:
  void Log(const std::string&) override { throw std::runtime_error("backend failed"); }
};

// A backend that counts its lines.
class CountingBackend : public zel::LogBackend {
 public:
  void Log(const std::string&) override { ++count; }
  std::atomic<int> count{0};
};

TEST(LogSafetyTest, AThrowingBackendIsCountedReportedOnceAndTheLineStillWritten) {
  TempDir tmp;
  static ThrowingBackend throwing;
  static CountingBackend counting;
  StdoutCapture out;
  Start(tmp.path());
  Logger* logger = Logger::GetInstance();
  logger->RegisterBackend(&throwing);
  logger->RegisterBackend(&counting);
  log_print(3, 1, "one\n");
  log_print(3, 1, "two\n");
  zel_log_flush();
  const std::string printed = out.Stop();
  EXPECT_EQ(logger->BackendFailures(), 2u);
  EXPECT_EQ(counting.count.load(), 2);
  EXPECT_EQ(CountOccurrences(printed, "a log backend threw an exception"), 1) << printed;
  const std::string text = ReadFile(LiveFile(tmp.path()));
  EXPECT_NE(text.find("] one\n"), std::string::npos) << text;
  EXPECT_NE(text.find("] two\n"), std::string::npos) << text;
}

#if defined(ZEL_TEST_ON_WINDOWS)
constexpr char kNeedsOwnOperatorNew[] =
    "needs this program's operator new to serve the library's allocations (ELF symbol "
    "interposition); a DLL allocates with its own";
#endif

// log_print of `text` while every allocation on this thread fails: expects
// no exception to escape, and returns what log_print returned.
int LogPrintWhileAllocationsFail(const char* text) {
  int result = -1;
  tFailAllocations = true;
  EXPECT_NO_THROW(result = log_print(3, 0, "%s", text));
  tFailAllocations = false;
  return result;
}

TEST(LogSafetyTest, AllocationFailureInLogPrintDropsTheLine) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kNeedsOwnOperatorNew;
#endif
  TempDir tmp;
  Start(tmp.path());
  LogLine("before");
  // The first line of a thread needs memory for the thread's queue.
  std::thread([] { EXPECT_EQ(LogPrintWhileAllocationsFail("dropped\n"), 0); }).join();
  LogLine("after");
  const std::string text = ReadFile(LiveFile(tmp.path()));
  EXPECT_NE(text.find("] before\n"), std::string::npos) << text;
  EXPECT_NE(text.find("] after\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("dropped"), std::string::npos) << text;
  EXPECT_EQ(zel_log_dropped(), 1u);
  EXPECT_NE(text.find("zel log: 1 lines lost (out of memory)\n"), std::string::npos) << text;
}

TEST(LogSafetyTest, AllocationFailureWhenTheLoggerIsMadeDropsTheLine) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kNeedsOwnOperatorNew;
#endif
  TempDir tmp;
  Start(tmp.path());
  EXPECT_EQ(LogPrintWhileAllocationsFail("dropped\n"), 0);
  // The next line makes the Logger and is written.
  LogLine("after");
  const std::string text = ReadFile(LiveFile(tmp.path()));
  EXPECT_EQ(text.find("dropped"), std::string::npos) << text;
  EXPECT_NE(text.find("] after\n"), std::string::npos) << text;
}

}  // namespace
