// SPDX-License-Identifier: MIT

// The INI writer against a second local user: names planted at the copy's
// path, a copy readable by others while it is written, and values that
// would inject lines of their own.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#if !defined(ZEL_TEST_ON_WINDOWS)
#include <fcntl.h>
#include <grp.h>
#include <sys/wait.h>
#endif

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "tests/support/test_util.h"
#include "utils/config_file.h"

namespace {

using zel_test::FileExists;
using zel_test::ReadFile;
using zel_test::TempDir;
using zel_test::WriteFile;

const char kConfig[] = "[app]\nname=old\n[net]\nhost=good\n";

// The value of `key` in `section` of `path`, as the reader gives it.
std::string ValueOf(const std::string& path, const char* section, const char* key) {
  char* value = GetKeyStringFromFile(path.c_str(), section, key);
  if (value == nullptr) return "<null>";
  std::string text = value;
  std::free(value);
  return text;
}

TEST(ConfigFileSecurityTest, ValueWithLineFeedIsRefusedAndInjectsNoSection) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  WriteFile(path, kConfig);
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "app", "name", "x\n[net]\nhost=evil"), -1);
  EXPECT_EQ(ReadFile(path), kConfig);
  EXPECT_EQ(ValueOf(path, "net", "host"), "good");
  EXPECT_FALSE(FileExists(path + ".tmp"));
}

TEST(ConfigFileSecurityTest, ValueWithCarriageReturnIsRefused) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  WriteFile(path, kConfig);
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "app", "name", "x\r[net]\rhost=evil"), -1);
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "app", "name", "trailing\r"), -1);
  EXPECT_EQ(ReadFile(path), kConfig);
  EXPECT_FALSE(FileExists(path + ".tmp"));
  // A value without line ends is still written.
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "app", "name", "new"), 0);
  EXPECT_EQ(ValueOf(path, "app", "name"), "new");
}

TEST(ConfigFileSecurityTest, PlainWritersStillGiveMinusTwoForAValueWithLineEnds) {
  // Their path is empty in this version: the file cannot be opened, which
  // they report first, as for any other value.
  EXPECT_EQ(PutKeyString("app", "name", "x\n[net]\nhost=evil"), -2);
  EXPECT_EQ(PutKeyInt("app", "name", 5), -2);
}

TEST(ConfigFileSecurityTest, OldCopyOfTheWriterIsEmptiedAndReplacesTheFile) {
  // What the checks let through: a left-over copy of the writer's own,
  // whose old text goes.
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  WriteFile(path, kConfig);
  WriteFile(path + ".tmp", std::string(5000, 'x') + "\n");
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "app", "name", "new"), 0);
  EXPECT_EQ(ReadFile(path), "[app]\nname=new\n[net]\nhost=good\n");
  EXPECT_FALSE(FileExists(path + ".tmp"));
}

#if !defined(ZEL_TEST_ON_WINDOWS)

constexpr uid_t kNobody = 65534;
constexpr gid_t kNogroup = 65534;

// Runs `attack` as the user nobody (65534) in a child process when the test
// runs as root; returns whether it ran and succeeded.
bool AsNobody(const std::function<bool()>& attack) {
  const pid_t child = fork();
  if (child < 0) return false;
  if (child == 0) {
    if (setgroups(0, nullptr) != 0 || setresgid(kNogroup, kNogroup, kNogroup) != 0 ||
        setresuid(kNobody, kNobody, kNobody) != 0) {
      _exit(2);
    }
    _exit(attack() ? 0 : 1);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

struct stat StatOf(const std::string& path) {
  struct stat st {};
  lstat(path.c_str(), &st);
  return st;
}

TEST(ConfigFileSecurityTest, LinkPlantedByAnotherUserAtTheCopyIsNotWrittenThrough) {
  if (geteuid() != 0) GTEST_SKIP() << "the victim is root and the attacker nobody: run as root";
  TempDir dir;
  // A directory that nobody may write into, without the sticky bit (where
  // the kernel's protection of links would not stop the attack).
  ASSERT_EQ(chmod(dir.path().c_str(), 0777), 0);
  const std::string path = dir.path() + "client.ini";
  const std::string victim = dir.path() + "victim";
  WriteFile(path, kConfig);
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);
  WriteFile(victim, "root's own file\n");
  ASSERT_EQ(chmod(victim.c_str(), 0600), 0);
  const std::string tmp = path + ".tmp";
  ASSERT_TRUE(AsNobody([&] { return symlink(victim.c_str(), tmp.c_str()) == 0; }));
  ASSERT_EQ(StatOf(tmp).st_uid, kNobody);

  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "app", "name", "new"), -1);

  // The link's target keeps its text and mode, the file is still the file,
  // and the planted name is left alone.
  EXPECT_EQ(ReadFile(victim), "root's own file\n");
  EXPECT_EQ(StatOf(victim).st_mode & 07777, 0600u);
  EXPECT_TRUE(S_ISREG(StatOf(path).st_mode));
  EXPECT_EQ(ReadFile(path), kConfig);
  EXPECT_TRUE(S_ISLNK(StatOf(tmp).st_mode));
}

TEST(ConfigFileSecurityTest, LinkAtTheCopyIsRefusedAlsoWhenItsTargetIsMissing) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  const std::string target = dir.path() + "created-through-the-link";
  WriteFile(path, kConfig);
  ASSERT_EQ(symlink(target.c_str(), (path + ".tmp").c_str()), 0);
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "app", "name", "new"), -1);
  EXPECT_FALSE(FileExists(target));
  EXPECT_EQ(ReadFile(path), kConfig);
  EXPECT_TRUE(S_ISREG(StatOf(path).st_mode));
}

TEST(ConfigFileSecurityTest, HardLinkOfAnotherUserAtTheCopyIsNotWrittenThrough) {
  if (geteuid() != 0) GTEST_SKIP() << "the victim is root and the attacker nobody: run as root";
  TempDir dir;
  ASSERT_EQ(chmod(dir.path().c_str(), 0777), 0);
  const std::string path = dir.path() + "client.ini";
  WriteFile(path, std::string(kConfig) + "[secret]\ntoken=s3cr3t\n");
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  const std::string tmp = path + ".tmp";
  const std::string keep = dir.path() + "attackers-name";
  // The attacker keeps a second name of the file he plants: today's writer
  // would fill it with the configuration and install it as the file.
  ASSERT_TRUE(AsNobody([&] {
    const int fd = open(keep.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
    if (fd < 0) return false;
    close(fd);
    return link(keep.c_str(), tmp.c_str()) == 0;
  }));

  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "app", "name", "new"), -1);

  EXPECT_EQ(ReadFile(keep), "");
  EXPECT_EQ(StatOf(path).st_uid, 0u);
  EXPECT_EQ(StatOf(path).st_nlink, 1u);
  EXPECT_EQ(ReadFile(path), std::string(kConfig) + "[secret]\ntoken=s3cr3t\n");
}

TEST(ConfigFileSecurityTest, HardLinkOfOwnFileAtTheCopyIsNotEmptiedNorInstalled) {
  // A second name of a file of the writer's own user (made here by the
  // test; another user could make one where the kernel's protection of
  // hard links is off): it is neither emptied nor written.
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  const std::string other = dir.path() + "precious";
  WriteFile(path, kConfig);
  WriteFile(other, "precious text\n");
  ASSERT_EQ(link(other.c_str(), (path + ".tmp").c_str()), 0);
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "app", "name", "new"), -1);
  EXPECT_EQ(ReadFile(other), "precious text\n");
  EXPECT_EQ(StatOf(other).st_nlink, 2u);
  EXPECT_EQ(ReadFile(path), kConfig);
  EXPECT_EQ(StatOf(path).st_nlink, 1u);
}

TEST(ConfigFileSecurityTest, FileOfAnotherUserAtTheCopyIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "the victim is root and the attacker nobody: run as root";
  TempDir dir;
  ASSERT_EQ(chmod(dir.path().c_str(), 0777), 0);
  const std::string path = dir.path() + "client.ini";
  WriteFile(path, kConfig);
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  const std::string tmp = path + ".tmp";
  // A plain file of nobody's, writable by all, at the copy's name: were it
  // used, nobody would own the new configuration file.
  ASSERT_TRUE(AsNobody([&] {
    const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
    if (fd < 0) return false;
    fchmod(fd, 0666);
    return close(fd) == 0;
  }));
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "app", "name", "new"), -1);
  EXPECT_EQ(ReadFile(path), kConfig);
  EXPECT_EQ(StatOf(path).st_uid, 0u);
  EXPECT_EQ(StatOf(tmp).st_uid, kNobody);
  EXPECT_EQ(ReadFile(tmp), "");
}

TEST(ConfigFileSecurityTest, CopyKeepsTheOwnerGroupAndModeOfTheFile) {
  if (geteuid() != 0) GTEST_SKIP() << "only root may give the copy another owner";
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  WriteFile(path, kConfig);
  ASSERT_EQ(chown(path.c_str(), kNobody, kNogroup), 0);
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "app", "name", "new"), 0);
  const struct stat st = StatOf(path);
  EXPECT_EQ(st.st_uid, kNobody);
  EXPECT_EQ(st.st_gid, kNogroup);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  EXPECT_EQ(ValueOf(path, "app", "name"), "new");
}

TEST(ConfigFileSecurityTest, CopyOfAPrivateFileIsNeverReadableByOthersWhileWritten) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  // A large file, so that the copy stays a while: about 16 MB of comment
  // lines after the section.
  std::string text = "[secret]\ntoken=s3cr3t\n";
  const std::string filler = "# " + std::string(1000, 'f') + "\n";
  while (text.size() < 16u * 1024 * 1024) text += filler;
  WriteFile(path, text);
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  // The usual mask, under which a file created for writing is readable by
  // all unless its creator says otherwise.
  const mode_t oldMask = umask(022);

  const std::string tmp = path + ".tmp";
  std::atomic<bool> stop{false};
  std::atomic<long> seen{0};        // stats of the copy with data in it
  std::atomic<unsigned> widest{0};  // the union of the permission bits seen
  std::thread watcher([&] {
    while (!stop.load()) {
      struct stat st;
      if (stat(tmp.c_str(), &st) == 0 && st.st_size > 0) {
        seen.fetch_add(1);
        widest.fetch_or(static_cast<unsigned>(st.st_mode & 07777));
      }
    }
  });
  // Writes until the watcher has seen the copy being written a good number
  // of times (a deadline bounds the wait on a loaded machine).
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  int writes = 0;
  bool allWritten = true;
  while (seen.load() < 20 && std::chrono::steady_clock::now() < deadline) {
    allWritten = allWritten && PutKeyStringToFile(path.c_str(), "secret", "token",
                                                  writes % 2 == 0 ? "even" : "odd") == 0;
    ++writes;
  }
  stop.store(true);
  watcher.join();
  umask(oldMask);
  EXPECT_TRUE(allWritten);
  ASSERT_GT(seen.load(), 0) << "the watcher never saw the copy in " << writes << " writes";
  EXPECT_EQ(widest.load() & 077u, 0u)
      << "mode bits seen on the copy: " << std::oct << widest.load();
  EXPECT_EQ(StatOf(path).st_mode & 07777, 0600u);
}

#endif  // !ZEL_TEST_ON_WINDOWS

}  // namespace
