// SPDX-License-Identifier: MIT

// Retention in a base that several processes share (the default base is
// shared by every process of the machine): a process's retention never
// removes the live file of another running process. Two processes (fork)
// log into one base; the second applies a size bound that the first's live
// file alone exceeds. Linux only: fork and open-file-description locks.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "tests/support/test_util.h"
#include "utils/logger.h"
#include "utils/platform.h"

namespace {

using zel_test::DayName;
using zel_test::ListDir;
using zel_test::ReadFile;
using zel_test::SplitLines;
using zel_test::TempDir;
using zel_test::WriteFile;

// Reads one byte from `fd`, waiting at most 30 s. False on timeout or end.
bool ReadByte(int fd) {
  struct pollfd pfd {};
  pfd.fd = fd;
  pfd.events = POLLIN;
  if (poll(&pfd, 1, 30000) != 1) return false;
  char byte = 0;
  return read(fd, &byte, 1) == 1;
}

void WriteByte(int fd) {
  const char byte = 1;
  if (write(fd, &byte, 1) != 1) _exit(3);
}

// The live files ("*.txt") of the day directory `dir`.
std::vector<std::string> LiveFiles(const std::string& dir) {
  std::vector<std::string> found;
  for (const std::string& name : ListDir(dir)) {
    if (name.size() > 4 && name.compare(name.size() - 4, 4, ".txt") == 0) {
      found.push_back(dir + name);
    }
  }
  return found;
}

TEST(LogRetentionSharedTest, AnotherProcessesRetentionLeavesTheLiveFile) {
  TempDir tmp;
  const std::string base = tmp.path() + "shared/";
  ASSERT_EQ(mkdir(base.c_str(), 0700), 0);
  // An old file that the size bound removes: it shows that the second
  // process's retention did run.
  const std::string oldDir = base + "20200101/";
  ASSERT_EQ(mkdir(oldDir.c_str(), 0700), 0);
  const std::string oldFile = oldDir + "zel.log.old.010101.1";
  WriteFile(oldFile, std::string(5000, 'o'));

  int ready[2];
  int go[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(go), 0);
  // The first process: 200 lines, then it waits, its live file open, until
  // told to write one more line and end.
  const pid_t first = fork();
  ASSERT_GE(first, 0);
  if (first == 0) {
    zel_set_log_level(-1);
    zel_set_log_path(base.c_str());
    for (int i = 0; i < 200; ++i) log_print(3, 0, "line %03d of the first process\n", i);
    zel_log_flush();
    WriteByte(ready[1]);
    if (!ReadByte(go[0])) _exit(4);
    log_print(3, 0, "after the other's retention\n");
    zel_log_flush();
    _exit(0);
  }
  ASSERT_TRUE(ReadByte(ready[0])) << "the first process did not log its lines";
  const std::vector<std::string> before = LiveFiles(base + DayName() + "/");
  ASSERT_EQ(before.size(), 1u);
  const std::string live = before[0];
  struct stat liveStat;
  ASSERT_EQ(stat(live.c_str(), &liveStat), 0);
  ASSERT_GT(liveStat.st_size, 4096);

  // The second process starts two seconds earlier by its clock, so that its
  // live file has a name of its own, and keeps the base under 4096 bytes.
  const pid_t second = fork();
  ASSERT_GE(second, 0);
  if (second == 0) {
    zel_test_hook_set_wall_clock_offset_ms(-2000);
    zel_set_log_level(-1);
    zel_set_log_path(base.c_str());
    zel_set_log_retention(0, 4096);
    log_print(3, 0, "the second process\n");
    zel_log_flush();
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(second, &status, 0), second);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_FALSE(zel_test::FileExists(oldFile)) << "the second process's retention did not run";

  struct stat after;
  EXPECT_EQ(stat(live.c_str(), &after), 0) << "the first process's live file was removed";
  WriteByte(go[1]);
  ASSERT_EQ(waitpid(first, &status, 0), first);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  const std::vector<std::string> lines = SplitLines(ReadFile(live));
  ASSERT_EQ(lines.size(), 201u) << ReadFile(live);
  EXPECT_NE(lines[0].find("line 000 of the first process"), std::string::npos);
  EXPECT_NE(lines[199].find("line 199 of the first process"), std::string::npos);
  EXPECT_NE(lines[200].find("after the other's retention"), std::string::npos);
  close(ready[0]);
  close(ready[1]);
  close(go[0]);
  close(go[1]);
}

}  // namespace
