// SPDX-License-Identifier: MIT

// The log in a process that forks after its first line: the child's
// zel_log_flush() returns, its lines (under both queue policies) go to a
// live file of its own whose name differs from the parent's and from every
// sibling's, a crashing child's fatal line lands in the child's file, and a
// daemon that closes every descriptor after forking still logs into its own
// file and never into a file that took over one of the log's descriptor
// numbers. Linux only: Windows has no fork.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "tests/support/test_util.h"
#include "utils/logger.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZEL_TEST_UNDER_TSAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__) || defined(ZEL_TEST_UNDER_TSAN)
// ThreadSanitizer ends a child forked by a process with threads unless told
// otherwise; these children are the subject of the tests.
extern "C" __attribute__((visibility("default"), used)) const char* __tsan_default_options() {
  return "die_after_fork=0";
}
#endif

namespace {

using zel_test::ListDir;
using zel_test::ReadFile;
using zel_test::TempDir;
using zel_test::WaitFor;

// Waits for `child` at most `limit`; a child still running then (hung) is
// killed. Returns its wait status, or -1 when it had to be killed.
int WaitChild(pid_t child, std::chrono::milliseconds limit = std::chrono::milliseconds(30000)) {
  int status = 0;
  const bool ended = WaitFor([&] { return waitpid(child, &status, WNOHANG) == child; }, limit);
  if (!ended) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return -1;
  }
  return status;
}

bool ExitedWith(int status, int code) {
  return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == code;
}

// The log files (names) of the one day directory under `base`.
std::vector<std::string> LogFiles(const std::string& base, std::string* dayDir) {
  const std::vector<std::string> days = ListDir(base);
  if (days.size() != 1) return {};
  *dayDir = base + days[0] + "/";
  return ListDir(*dayDir);
}

// The one file name among `names` that holds ".<pid>." in its process
// part, or the empty text.
std::string FileOfChild(const std::vector<std::string>& names, pid_t pid) {
  const std::string mark = "." + std::to_string(pid) + ".";
  std::string found;
  for (const std::string& name : names) {
    if (name.find(mark) != std::string::npos) {
      if (!found.empty()) return std::string();
      found = name;
    }
  }
  return found;
}

// Starts the log in this process under `base` with a first line, as a
// daemon or a pre-forking server does before it forks.
void StartLogging(const std::string& base) {
  zel_test::StartLogBelow(base, 0, "parent before fork\n");
}

// A child: logs `lines` lines naming itself, flushes, and exits 0 (or 3
// when the flush did not cover its lines).
[[noreturn]] void ChildLogs(int index, int lines) {
  for (int i = 0; i < lines; ++i) {
    log_print(0, 0, "child %d line %d of %d with some text to fill the queue\n", index, i, lines);
  }
  zel_log_flush();
  _exit(0);
}

// Forks `children` children right after each other (within one second on
// any machine that is not stalled), each logging `lines` lines; the parent
// logs before and after. Checks every child ended normally, wrote its lines
// into a file of its own named with its process id, and the parent's file
// holds the parent's lines only.
void ForkChildrenAndCheck(const std::string& base, int children, int lines) {
  StartLogging(base);
  std::vector<pid_t> pids;
  for (int c = 0; c < children; ++c) {
    const pid_t pid = fork();
    if (pid == 0) ChildLogs(c, lines);
    ASSERT_GT(pid, 0);
    pids.push_back(pid);
  }
  for (pid_t pid : pids) {
    // A child whose flush or blocked line never returns is killed: -1.
    EXPECT_TRUE(ExitedWith(WaitChild(pid), 0)) << "child " << pid << " hung or failed";
  }
  log_print(0, 0, "parent after fork\n");
  zel_log_flush();

  std::string dayDir;
  const std::vector<std::string> names = LogFiles(base, &dayDir);
  ASSERT_EQ(names.size(), static_cast<std::size_t>(children + 1))
      << "one live file per process expected in " << dayDir;
  std::set<std::string> childFiles;
  for (int c = 0; c < children; ++c) {
    const std::string name = FileOfChild(names, pids[static_cast<std::size_t>(c)]);
    ASSERT_FALSE(name.empty()) << "no file of its own for child " << pids[c];
    childFiles.insert(name);
    const std::string text = zel_test::StripLogPrefixes(ReadFile(dayDir + name));
    std::string expected;
    for (int i = 0; i < lines; ++i) {
      expected += "child " + std::to_string(c) + " line " + std::to_string(i) + " of " +
                  std::to_string(lines) + " with some text to fill the queue\n";
    }
    EXPECT_EQ(text, expected) << name;
  }
  EXPECT_EQ(childFiles.size(), static_cast<std::size_t>(children));
  for (const std::string& name : names) {
    if (childFiles.count(name) != 0) continue;
    EXPECT_EQ(zel_test::StripLogPrefixes(ReadFile(dayDir + name)),
              "parent before fork\nparent after fork\n")
        << name;
  }
}

TEST(LoggerForkTest, ChildFlushReturnsAndItsLinesGoToItsOwnFileUnderDrop) {
  TempDir dir;
  zel_set_log_queue_limit(0, 0);
  ForkChildrenAndCheck(dir.path(), 1, 50);
}

TEST(LoggerForkTest, ChildWaitingForRoomGetsItUnderBlock) {
  TempDir dir;
  // A bound of two lines: the child's 200 lines must wait for its writer
  // again and again.
  zel_set_log_queue_limit(160, 1);
  ForkChildrenAndCheck(dir.path(), 1, 200);
}

TEST(LoggerForkTest, SiblingsForkedInOneSecondWriteFilesOfTheirOwn) {
  TempDir dir;
  zel_set_log_queue_limit(0, 0);
  // The start time in a file name has whole seconds: siblings forked within
  // one second differ by their process ids alone.
  ForkChildrenAndCheck(dir.path(), 4, 20);
}

TEST(LoggerForkTest, GrandchildWritesAFileOfItsOwnToo) {
  TempDir dir;
  StartLogging(dir.path());
  const pid_t child = fork();
  if (child == 0) {
    log_print(0, 0, "child line\n");
    zel_log_flush();
    const pid_t grandchild = fork();
    if (grandchild == 0) {
      log_print(0, 0, "grandchild line\n");
      zel_log_flush();
      _exit(0);
    }
    _exit(ExitedWith(WaitChild(grandchild), 0) ? 0 : 4);
  }
  ASSERT_GT(child, 0);
  ASSERT_TRUE(ExitedWith(WaitChild(child), 0));
  std::string dayDir;
  const std::vector<std::string> names = LogFiles(dir.path(), &dayDir);
  ASSERT_EQ(names.size(), 3u);
  const std::string childFile = FileOfChild(names, child);
  ASSERT_FALSE(childFile.empty());
  EXPECT_EQ(zel_test::StripLogPrefixes(ReadFile(dayDir + childFile)), "child line\n");
  int grandchildFiles = 0;
  for (const std::string& name : names) {
    const std::string text = zel_test::StripLogPrefixes(ReadFile(dayDir + name));
    if (text == "grandchild line\n") ++grandchildFiles;
  }
  EXPECT_EQ(grandchildFiles, 1);
}

TEST(LoggerForkTest, CrashingChildWritesItsFatalLineIntoItsOwnFile) {
#if defined(__SANITIZE_THREAD__) || defined(ZEL_TEST_UNDER_TSAN)
  // The child starts two threads where the parent had its detached drain
  // thread; ThreadSanitizer still counts the parent's threads in the child
  // and dies on the reused thread id ("dup thread with used id").
  GTEST_SKIP() << "ThreadSanitizer cannot follow a forked child that starts threads where its "
                  "parent had detached ones";
#endif
  TempDir dir;
  // A plain application: the default actions (a sanitizer's own handlers
  // would come first), and no core file for the child.
  for (int sig : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) signal(sig, SIG_DFL);
  struct rlimit noCore = {0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  zel_set_log_path(dir.path().c_str());
  // A wait far longer than the child's writer needs even on a loaded
  // machine (its thread and file are made at its first line); the default
  // 2 s was seen to run out once under AddressSanitizer on a busy machine.
  setenv("ZEL_LOG_CRASH_WAIT_MS", "30000", 1);
  ASSERT_EQ(zel_log_install_crash_handler(), 0);
  StartLogging(dir.path());
  const pid_t child = fork();
  if (child == 0) {
    for (int i = 0; i < 100; ++i) log_print(0, 0, "child line %d\n", i);
    // An address in the unmapped page at null; not null itself, so that
    // the undefined-behaviour sanitizer lets the fault happen.
    volatile std::uintptr_t address = 16;
    *reinterpret_cast<volatile int*>(address) = 1;
    _exit(98);
  }
  ASSERT_GT(child, 0);
  const int status = WaitChild(child, std::chrono::milliseconds(60000));
  ASSERT_NE(status, -1) << "the child hung";
  ASSERT_TRUE(WIFSIGNALED(status)) << "status " << status;
  EXPECT_EQ(WTERMSIG(status), SIGSEGV);
  log_print(0, 0, "parent after fork\n");
  zel_log_flush();

  std::string dayDir;
  const std::vector<std::string> names = LogFiles(dir.path(), &dayDir);
  ASSERT_EQ(names.size(), 2u);
  const std::string childFile = FileOfChild(names, child);
  ASSERT_FALSE(childFile.empty());
  // The child's queued lines, then its fatal line with its own thread id
  // (its only thread has the process id as thread id).
  std::string expected;
  for (int i = 0; i < 100; ++i) expected += "child line " + std::to_string(i) + "\n";
  expected += "zel log: fatal signal 11 (SIGSEGV)\n";
  const std::string text = ReadFile(dayDir + childFile);
  EXPECT_EQ(zel_test::StripLogPrefixes(text), expected);
  EXPECT_NE(text.find("[tid:" + std::to_string(child) + "] zel log: fatal"), std::string::npos)
      << text;
  for (const std::string& name : names) {
    if (name == childFile) continue;
    EXPECT_EQ(zel_test::StripLogPrefixes(ReadFile(dayDir + name)),
              "parent before fork\nparent after fork\n")
        << name;
  }
}

TEST(LoggerForkTest, DaemonThatClosesEveryDescriptorLogsIntoItsOwnFileOnly) {
  TempDir dir;
  const std::string victims = dir.path() + "victims/";
  ASSERT_EQ(mkdir(victims.c_str(), 0700), 0);
  const std::string base = dir.path() + "log/";
  StartLogging(base);
  const pid_t child = fork();
  if (child == 0) {
    log_print(0, 0, "daemon before closing\n");
    zel_log_flush();
    // What a daemon does: every descriptor closed, the standard ones on
    // /dev/null, then files of its own, which take the lowest numbers (the
    // numbers the log had).
    for (int fd = 0; fd < 1024; ++fd) close(fd);
    for (int fd = 0; fd < 3; ++fd) {
      if (open("/dev/null", O_RDWR) != fd) _exit(5);
    }
    for (int i = 0; i < 32; ++i) {
      const std::string path = victims + std::to_string(i);
      if (open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600) < 0) _exit(6);
    }
    for (int i = 0; i < 10; ++i) log_print(0, 0, "daemon after closing %d\n", i);
    zel_log_flush();
    _exit(0);
  }
  ASSERT_GT(child, 0);
  ASSERT_TRUE(ExitedWith(WaitChild(child), 0));
  for (const std::string& name : ListDir(victims)) {
    EXPECT_EQ(ReadFile(victims + name), "") << "the log wrote into the daemon's file " << name;
  }
  std::string dayDir;
  const std::vector<std::string> names = LogFiles(base, &dayDir);
  const std::string childFile = FileOfChild(names, child);
  ASSERT_FALSE(childFile.empty());
  std::string expected = "daemon before closing\n";
  for (int i = 0; i < 10; ++i) expected += "daemon after closing " + std::to_string(i) + "\n";
  EXPECT_EQ(zel_test::StripLogPrefixes(ReadFile(dayDir + childFile)), expected);
}

}  // namespace
