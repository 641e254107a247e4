// SPDX-License-Identifier: MIT

// Log directories against another local user: a base directory that the
// group may write into is refused unless sticky, a day directory swapped for
// a link while lines are written redirects none of them, and a link that
// another user planted at the default base is not followed. Refused lines
// are counted as dropped. POSIX owners, modes and links: Linux only.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <functional>
#include <string>
#include <thread>

#include "tests/support/test_util.h"
#include "utils/logger.h"
#include "utils/platform.h"

namespace {

using zel_test::AllText;
using zel_test::CountFiles;
using zel_test::CountOccurrences;
using zel_test::DayName;
using zel_test::ListDir;
using zel_test::ReadFile;
using zel_test::StdoutCapture;
using zel_test::TempDir;

void LogLine(const char* text) {
  log_print(3, 0, "%s\n", text);
  zel_log_flush();
}

// Logs the lines `first` and `second` and returns what the log printed.
std::string PrintedForTwoLines(const char* first, const char* second) {
  StdoutCapture out;
  LogLine(first);
  LogLine(second);
  return out.Stop();
}

// Runs `action` in a child process as the user nobody (the attacker) and
// returns whether it succeeded there. Needs root.
bool AsNobody(const std::function<bool()>& action) {
  const passwd* nobody = getpwnam("nobody");
  if (nobody == nullptr) return false;
  const uid_t uid = nobody->pw_uid;
  const gid_t gid = nobody->pw_gid;
  const pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0) _exit(2);
    _exit(action() ? 0 : 1);
  }
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Puts the default base back when a test ends.
struct DefaultBaseHook {
  explicit DefaultBaseHook(const std::string& base) {
    zel_test_hook_set_default_log_base(base.c_str());
  }
  ~DefaultBaseHook() { zel_test_hook_set_default_log_base(nullptr); }
};

TEST(LogDirectorySecurityTest, GroupWritableBaseIsRefusedUnlessSticky) {
  TempDir tmp;
  const std::string base = tmp.path() + "group/";
  ASSERT_EQ(mkdir(base.c_str(), 0700), 0);
  ASSERT_EQ(chmod(base.c_str(), 0770), 0);
  zel_set_log_level(-1);
  zel_set_log_path(base.c_str());
  const uint64_t droppedBefore = zel_log_dropped();
  std::string printed = PrintedForTwoLines("first", "second");
  EXPECT_EQ(CountOccurrences(printed, "zel log: refusing"), 1) << printed;
  EXPECT_NE(printed.find(tmp.path() + "group: other users may write into it"), std::string::npos)
      << printed;
  EXPECT_EQ(CountFiles(base), 0);
  EXPECT_EQ(zel_log_dropped() - droppedBefore, 2u);

  // With the sticky bit nobody may rename or remove what is not his: the
  // same directory is used.
  ASSERT_EQ(chmod(base.c_str(), 01770), 0);
  StdoutCapture again;
  LogLine("third");
  printed = again.Stop();
  EXPECT_EQ(printed.find("refusing"), std::string::npos) << printed;
  EXPECT_NE(AllText(base).find("third"), std::string::npos);
  EXPECT_EQ(zel_log_dropped() - droppedBefore, 2u);
}

TEST(LogDirectorySecurityTest, DaySwappedForALinkWhileLinesAreWrittenRedirectsNothing) {
  TempDir tmp;
  const std::string base = tmp.path() + "base/";
  const std::string outside = tmp.path() + "outside";
  ASSERT_EQ(mkdir(base.c_str(), 0700), 0);
  ASSERT_EQ(mkdir(outside.c_str(), 0700), 0);
  zel_set_log_level(-1);
  zel_set_log_path(base.c_str());
  // A small size limit: the live file rotates and is opened again often,
  // each time through the day directory's name.
  zel::Logger::GetInstance()->SetLogFileInfo(256, 0);
  StdoutCapture out;
  LogLine("before the swaps");
  const std::string day = base + DayName();
  ASSERT_TRUE(zel_test::IsDirectory(day));

  std::atomic<bool> done{false};
  std::atomic<int> swaps{0};
  // The attack: the day directory is moved aside, a link to a directory
  // outside the base takes its name, then the real one is put back. When
  // the log makes a new day directory in the gap, the moved one stays
  // aside (still inside the base) and the next round starts from the new.
  std::thread swapper([&] {
    for (int round = 0; round < 100000 && swaps.load() < 10000; ++round) {
      const std::string aside = base + "aside" + std::to_string(round);
      if (std::rename(day.c_str(), aside.c_str()) != 0) continue;
      if (symlink(outside.c_str(), day.c_str()) == 0) {
        swaps.fetch_add(1);
        unlink(day.c_str());
      }
      std::rename(aside.c_str(), day.c_str());
    }
    done.store(true);
  });
  int lines = 0;
  while (!done.load()) {
    log_print(3, 0, "line %d of the secret log\n", lines++);
    if (lines % 16 == 0) zel_log_flush();
  }
  swapper.join();
  zel_log_flush();
  out.Stop();
  EXPECT_EQ(swaps.load(), 10000);
  EXPECT_GT(lines, 0);
  EXPECT_EQ(CountFiles(outside), 0) << "a line was written through the link";
  EXPECT_NE(AllText(base).find("of the secret log"), std::string::npos);
}

TEST(LogDirectorySecurityTest, LinkPlantedAtTheDefaultBaseByAnotherUserIsNotFollowed) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root: the victim is root, the attacker nobody";
  const passwd* nobody = getpwnam("nobody");
  ASSERT_NE(nobody, nullptr);
  // The default base's folder, as /tmp is, but without the sticky bit: in a
  // sticky folder the kernel itself (fs.protected_symlinks) already refuses
  // to follow a link of another user, which would hide the library's check.
  TempDir tmp;
  ASSERT_EQ(chmod(tmp.path().c_str(), 0755), 0);
  const std::string shared = tmp.path() + "shared";
  const std::string target = tmp.path() + "etc";  // a directory of root's, as /etc
  ASSERT_EQ(mkdir(shared.c_str(), 0700), 0);
  ASSERT_EQ(chmod(shared.c_str(), 0777), 0);
  ASSERT_EQ(mkdir(target.c_str(), 0755), 0);
  const std::string link = shared + "/zel";
  ASSERT_TRUE(AsNobody([&] { return symlink(target.c_str(), link.c_str()) == 0; }));
  struct stat st;
  ASSERT_EQ(lstat(link.c_str(), &st), 0);
  ASSERT_TRUE(S_ISLNK(st.st_mode));
  ASSERT_EQ(st.st_uid, nobody->pw_uid);

  DefaultBaseHook hook(link + "/");
  zel_set_log_level(-1);
  const uint64_t droppedBefore = zel_log_dropped();
  std::string printed = PrintedForTwoLines("first secret", "second secret");
  EXPECT_EQ(CountOccurrences(printed, "zel log: refusing"), 1) << printed;
  EXPECT_NE(printed.find(link + ": it is a link owned by another user"), std::string::npos)
      << printed;
  EXPECT_EQ(CountFiles(target), 0) << "the log followed the planted link";
  EXPECT_EQ(zel_log_dropped() - droppedBefore, 2u);

  // The same link made by root itself is followed.
  ASSERT_EQ(unlink(link.c_str()), 0);
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  StdoutCapture again;
  LogLine("third");
  printed = again.Stop();
  EXPECT_EQ(printed.find("refusing"), std::string::npos) << printed;
  EXPECT_NE(AllText(target).find("third"), std::string::npos);
}

}  // namespace
