// SPDX-License-Identifier: MIT

// The configuration file's writer: the scanning rules, golden files, long
// and NUL-holding lines, its return values, the temporary copy, and (POSIX)
// the writer under faults: a failed rename or sync, a file size limit, the
// permission bits it keeps, and the close-on-exec flag of its files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "utils/config_file.h"
#if !defined(ZEL_TEST_ON_WINDOWS)
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#endif

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/config_file_test_util.h"
#include "tests/support/test_util.h"

namespace {

using zel_test::FileExists;
using zel_test::IsDirectory;
using zel_test::kConfigDataDir;
using zel_test::ReadFile;
using zel_test::ReadValue;
using zel_test::RunningAsRoot;
using zel_test::StderrCapture;
using zel_test::TempDir;
using zel_test::WriteFile;
#if defined(ZEL_TEST_ON_WINDOWS)
using zel_test::kNoPermissionBits;
#else
using zel_test::CloseOnExec;
using zel_test::DescriptorsOf;
using zel_test::PathOfDescriptor;
#endif

// Writes `text` into "client.ini" in `dir`; the file's path.
std::string ClientIniWith(const TempDir& dir, const std::string& text) {
  const std::string path = dir.path() + "client.ini";
  WriteFile(path, text);
  return path;
}

// Creates directories below `base` until a file name directly below them
// gives a path of exactly `length` characters; returns that path.
std::string PathOfLength(const std::string& base, std::size_t length) {
  std::string dir = base;
  while (length - dir.size() > 200) {
    dir += std::string(100, 'd') + "/";
    mkdir(dir.c_str(), 0755);
  }
  return dir + std::string(length - dir.size(), 'f');
}

// ---------------------------------------------------------------------------
// The writer.

struct WriteCase {
  const char* name;
  std::string content;
  std::string section;
  std::string key;
  std::string value;
  std::string expected;
};

TEST(ConfigFileTest, WriterFollowsTheScanningRules) {
  const std::string name30(30, 'n');
  const std::vector<WriteCase> cases = {
      {"replaces the value", "[net]\nport=80\n", "net", "port", "8080", "[net]\nport=8080\n"},
      {"adds no key", "[net]\nport=80\n", "net", "host", "h", "[net]\nport=80\n"},
      {"adds no section", "[net]\nport=80\n", "web", "port", "1", "[net]\nport=80\n"},
      {"line key prefix of the requested key", "[net]\nport=80\n", "net", "portx", "1",
       "[net]\nport=1\n"},
      {"only the first match", "[s]\nk=1\nk=2\n", "s", "k", "9", "[s]\nk=9\nk=2\n"},
      {"never leaves a section once inside", "[a]\n[b]\nx=2\n", "a", "x", "9", "[a]\n[b]\nx=9\n"},
      {"second section", "[a]\nx=1\n[b]\nx=2\n", "b", "x", "9", "[a]\nx=1\n[b]\nx=9\n"},
      {"comment lines are compared like others", "[s]\n#k=1\nk=2\n", "s", "#k", "9",
       "[s]\n#k=9\nk=2\n"},
      {"newline alone counts as a header", "\nk=1\n", "any", "k", "9", "\nk=9\n"},
      {"final line without newline gets one", "[s]\nk=1", "s", "k", "9", "[s]\nk=9\n"},
      {"further equals are replaced too", "[s]\nk=a=b\n", "s", "k", "c", "[s]\nk=c\n"},
      {"empty value", "[s]\nk=1\n", "s", "k", "", "[s]\nk=\n"},
      {"section of 30 characters misses its own header", "[" + name30 + "]\nk=1\n", name30, "k",
       "9", "[" + name30 + "]\nk=1\n"},
      {"section of 30 characters matches the cut header", "[" + name30 + "\nk=1\n", name30, "k",
       "9", "[" + name30 + "\nk=9\n"},
  };
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  for (const WriteCase& c : cases) {
    SCOPED_TRACE(c.name);
    WriteFile(path, c.content);
    EXPECT_EQ(PutKeyStringToFile(path.c_str(), c.section.c_str(), c.key.c_str(), c.value.c_str()),
              0);
    EXPECT_EQ(ReadFile(path), c.expected);
    EXPECT_FALSE(FileExists(path + ".tmp"));
  }
}

struct GoldenCase {
  const char* input;
  const char* section;
  const char* key;
  const char* value;
  const char* output;
};

TEST(ConfigFileTest, WriterProducesGoldenFiles) {
  const GoldenCase cases[] = {
      {"net.ini", "net", "port", "8080", "net_port_8080.ini"},
      {"net.ini", "net", "host", "example.org", "net.ini"},
      // The empty line sets the state to inside: section a's x changes.
      {"blank_line_before_section.ini", "b", "x", "9", "blank_line_before_section_b_x_9.ini"},
      {"client.ini", "net", "port", "8080", "client_port_8080.ini"},
  };
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  for (const GoldenCase& c : cases) {
    SCOPED_TRACE(c.input + std::string(" -> ") + c.output);
    WriteFile(path, ReadFile(kConfigDataDir + c.input));
    EXPECT_EQ(PutKeyStringToFile(path.c_str(), c.section, c.key, c.value), 0);
    EXPECT_EQ(ReadFile(path), ReadFile(kConfigDataDir + c.output));
  }
}

TEST(ConfigFileTest, PutKeyIntWritesDecimalText) {
  TempDir dir;
  const std::string path = ClientIniWith(dir, ReadFile(kConfigDataDir + "net.ini"));
  EXPECT_EQ(PutKeyIntToFile(path.c_str(), "net", "port", -7), 0);
  EXPECT_EQ(ReadFile(path), ReadFile(kConfigDataDir + "net_port_minus_7.ini"));
  EXPECT_EQ(GetKeyIntFromFile(path.c_str(), "net", "port"), -7);
}

TEST(ConfigFileTest, WriterWritesLongValuesThatTheReaderCuts) {
  TempDir dir;
  const std::string value(200, 'v');
  const std::string path = ClientIniWith(dir, "[s]\nk=1\n");
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "s", "k", value.c_str()), 0);
  EXPECT_EQ(ReadFile(path), "[s]\nk=" + value + "\n");
  EXPECT_EQ(ReadValue(path, "s", "k"), value.substr(0, 31));
}

TEST(ConfigFileTest, WriterCutsAValuePastTheLineBuffer) {
  TempDir dir;
  const std::string value(2000, 'v');
  const std::string path = ClientIniWith(dir, "[s]\nk=1\nnext=2\n");
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "s", "k", value.c_str()), 0);
  // "k=" and 1021 characters fill the 1023 characters of the line; the
  // newline is cut with the rest.
  EXPECT_EQ(ReadFile(path), "[s]\nk=" + value.substr(0, 1021) + "next=2\n");
}

TEST(ConfigFileTest, WriterHandlesALongPhysicalLineAsSeveralLines) {
  TempDir dir;
  const std::string filler(1023, 'a');
  const std::string path = ClientIniWith(dir, "[s]\n" + filler + "k=1\n");
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "s", "k", "9"), 0);
  EXPECT_EQ(ReadFile(path), "[s]\n" + filler + "k=9\n");
}

TEST(ConfigFileTest, WriterCopiesEachLineUpToItsFirstNulByte) {
  TempDir dir;
  const std::string path = ClientIniWith(dir, std::string("[net]\nport\0=1\nport=80\n", 22));
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), 0);
  // The bytes from the NUL to the end of that line, newline included, are
  // not copied.
  EXPECT_EQ(ReadFile(path), "[net]\nportport=8080\n");
}

TEST(ConfigFileTest, WriterKeepsCrlfLines) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  // Writes `text` into the file, sets port=8080 in it and gives the bytes
  // then in the file.
  const auto rewritten = [&](const std::string& text) {
    WriteFile(path, text);
    EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), 0);
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  };
#if defined(ZEL_TEST_ON_WINDOWS)
  // Text mode on Windows: CRLF lines are read as plain lines (so the key is
  // found) and every line is written back with "\r\n".
  EXPECT_EQ(rewritten("[net]\r\nport=80\r\n"), "[net]\r\nport=8080\r\n");
  EXPECT_EQ(rewritten("[net]\nport=80\r\nhost=h\r\n"), "[net]\r\nport=8080\r\nhost=h\r\n");
#else
  EXPECT_EQ(rewritten("[net]\r\nport=80\r\n"), "[net]\r\nport=80\r\n");
  EXPECT_EQ(rewritten("[net]\nport=80\r\nhost=h\r\n"), "[net]\nport=8080\nhost=h\r\n");
#endif
}

TEST(ConfigFileTest, WriterReturnsMinusTwoForMissingFileAndPrintsNothing) {
  TempDir dir;
  const std::string path = dir.path() + "missing.ini";
  StderrCapture capture;
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "1"), -2);
  EXPECT_EQ(PutKeyIntToFile(path.c_str(), "net", "port", 1), -2);
  EXPECT_EQ(capture.Stop(), "");
  EXPECT_FALSE(FileExists(path));
  EXPECT_FALSE(FileExists(path + ".tmp"));
}

TEST(ConfigFileTest, WriterReturnsMinusOneWhenTheTemporaryFileIsADirectory) {
  TempDir dir;
  const std::string path = ClientIniWith(dir, "[net]\nport=80\n");
  ASSERT_EQ(mkdir((path + ".tmp").c_str(), 0755), 0);
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), -1);
  EXPECT_EQ(ReadFile(path), "[net]\nport=80\n");
  EXPECT_TRUE(IsDirectory(path + ".tmp"));
}

TEST(ConfigFileTest, WriterReturnsMinusOneInReadOnlyDirectory) {
  ZEL_SKIP_UNLESS_PERMISSIONS_REFUSE("root creates files in a read-only directory");
  TempDir dir;
  const std::string sub = dir.path() + "ro/";
  ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
  const std::string path = sub + "client.ini";
  WriteFile(path, "[net]\nport=80\n");
  ASSERT_EQ(chmod(sub.c_str(), 0555), 0);
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), -1);
  EXPECT_EQ(ReadFile(path), "[net]\nport=80\n");
  EXPECT_FALSE(FileExists(path + ".tmp"));
}

TEST(ConfigFileTest, WriterReturnsMinusOneAndRemovesTmpWhenThePathIsADirectory) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << "Windows opens no directory as a file";
#endif
  // A directory opens for reading but cannot be read: the copy is
  // incomplete, so it goes.
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), -1);
  EXPECT_TRUE(IsDirectory(path));
  EXPECT_FALSE(FileExists(path + ".tmp"));
}

#if defined(ZEL_TEST_ON_WINDOWS)
TEST(ConfigFileTest, WriterReturnsMinusOneAndLeavesTmpWhenRenameFails) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  // Windows refuses to replace a file that another handle holds open.
  WriteFile(path, "[net]\nport=80\n");
  FILE* held = std::fopen(path.c_str(), "r");
  ASSERT_NE(held, nullptr);
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), -1);
  std::fclose(held);
  EXPECT_EQ(ReadFile(path), "[net]\nport=80\n");
  EXPECT_EQ(ReadFile(path + ".tmp"), "[net]\nport=8080\n");
}
#endif

TEST(ConfigFileTest, WriterTruncatesAStaleTemporaryFile) {
  TempDir dir;
  const std::string path = ClientIniWith(dir, "[net]\nport=80\n");
  WriteFile(path + ".tmp", "stale text that is longer than the new file\n");
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), 0);
  EXPECT_EQ(ReadFile(path), "[net]\nport=8080\n");
  EXPECT_FALSE(FileExists(path + ".tmp"));
}

TEST(ConfigFileTest, WriterRefusesAPathWhoseTemporaryNameDoesNotFit) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << "needs paths of over 1000 characters, which the Windows runtime's narrow "
                  "file functions cannot create (260 at most)";
#endif
  TempDir dir;
  // "<path>.tmp" needs 1023 characters at most.
  const std::string fits = PathOfLength(dir.path(), 1019);
  const std::string tooLong = fits + "x";
  ASSERT_EQ(fits.size(), 1019u);
  WriteFile(fits, "[net]\nport=80\n");
  WriteFile(tooLong, "[net]\nport=80\n");
  ASSERT_EQ(ReadFile(tooLong), "[net]\nport=80\n");

  EXPECT_EQ(PutKeyStringToFile(tooLong.c_str(), "net", "port", "8080"), -1);
  EXPECT_EQ(ReadFile(tooLong), "[net]\nport=80\n");
  EXPECT_FALSE(FileExists(tooLong + ".tmp"));

  EXPECT_EQ(PutKeyStringToFile(fits.c_str(), "net", "port", "8080"), 0);
  EXPECT_EQ(ReadFile(fits), "[net]\nport=8080\n");
}

}  // namespace

// ---------------------------------------------------------------------------
// The writer under faults, inherited descriptors, exhausted memory (POSIX).

#if !defined(ZEL_TEST_ON_WINDOWS)

namespace {

// What the fsync() below saw, and how it answers.
struct SyncWatch {
  std::mutex mutex;
  std::vector<std::string> paths;   // the synced files, in call order
  std::vector<std::string> texts;   // their content when synced
  std::vector<std::string> models;  // the content of `model` at that moment
  std::string model;                // the file whose content is recorded
  int failWith = 0;                 // errno to fail with; 0: sync

  // Forgets the calls recorded so far and records `modelPath` from now on;
  // the calls fail with `error` (0: they sync).
  void Watch(const std::string& modelPath, int error) {
    std::lock_guard<std::mutex> lock(mutex);
    paths.clear();
    texts.clear();
    models.clear();
    model = modelPath;
    failWith = error;
  }
};
SyncWatch gSyncWatch;

}  // namespace

// Replaces the C library's fsync for the whole test executable (the
// library's calls reach it first): records each call, then syncs or fails.
extern "C" __attribute__((visibility("default"))) int fsync(int fd) {
  std::lock_guard<std::mutex> lock(gSyncWatch.mutex);
  const std::string path = PathOfDescriptor(fd);
  gSyncWatch.paths.push_back(path);
  gSyncWatch.texts.push_back(zel_test::ReadFile(path));
  gSyncWatch.models.push_back(zel_test::ReadFile(gSyncWatch.model));
  if (gSyncWatch.failWith != 0) {
    errno = gSyncWatch.failWith;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fsync, fd));
}

// errno the rename() below fails with; 0: it renames.
std::atomic<int> gRenameFailsWith{0};

// Replaces the C library's rename for the whole test executable, so that a
// test can make the final step of a write fail after a complete copy.
extern "C" __attribute__((visibility("default"))) int rename(const char* from,
                                                             const char* to) noexcept {
  const int fail = gRenameFailsWith.load();
  if (fail != 0) {
    errno = fail;
    return -1;
  }
  return static_cast<int>(syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to));
}

TEST(ConfigFileTest, WriterReturnsMinusOneAndLeavesTmpWhenRenameFails) {
  TempDir dir;
  const std::string path = ClientIniWith(dir, "[net]\nport=80\n");
  gRenameFailsWith = EXDEV;
  const int result = PutKeyStringToFile(path.c_str(), "net", "port", "8080");
  gRenameFailsWith = 0;
  EXPECT_EQ(result, -1);
  EXPECT_EQ(ReadFile(path), "[net]\nport=80\n");
  EXPECT_EQ(ReadFile(path + ".tmp"), "[net]\nport=8080\n");
}

namespace {

// A configuration file of 7,014 bytes whose only key line is the last one.
std::string LargeConfig() {
  constexpr std::size_t kSize = 7014;
  const std::string last = "port=80\n";
  std::string text = "[net]\n";
  const std::string comment = "# " + std::string(61, 'c') + "\n";
  while (text.size() + comment.size() + last.size() + 3 <= kSize) text += comment;
  text += "# " + std::string(kSize - text.size() - last.size() - 3, 'c') + "\n";
  return text + last;
}

// Lowers the soft file size limit of the process to `bytes` and ignores
// SIGXFSZ, so that writes past it fail with EFBIG, as on a full disk or
// over a quota; restores both when destroyed.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &saved_);
    rlimit limit = saved_;
    limit.rlim_cur = bytes;
    ok_ = setrlimit(RLIMIT_FSIZE, &limit) == 0;
    previous_ = std::signal(SIGXFSZ, SIG_IGN);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &saved_);
    std::signal(SIGXFSZ, previous_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  bool ok() const { return ok_; }

 private:
  rlimit saved_{};
  bool ok_ = false;
  void (*previous_)(int) = SIG_DFL;
};

TEST(ConfigFileTest, WriterLeavesTheFileUntouchedWhenWritesHitAFileSizeLimit) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  const std::string original = LargeConfig();
  ASSERT_EQ(original.size(), 7014u);
  WriteFile(path, original);
  int result = 0;
  {
    FileSizeLimit limit(4096);
    ASSERT_TRUE(limit.ok());
    result = PutKeyIntToFile(path.c_str(), "net", "port", 8080);
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(ReadFile(path), original);
  EXPECT_FALSE(FileExists(path + ".tmp"));
  // Without the limit the same write goes through.
  EXPECT_EQ(PutKeyIntToFile(path.c_str(), "net", "port", 8080), 0);
  EXPECT_EQ(ReadFile(path), original.substr(0, original.size() - 3) + "8080\n");
}

TEST(ConfigFileTest, WriterKeepsThePermissionBitsOfTheFile) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  const mode_t savedMask = umask(022);
  for (const mode_t mode : {mode_t{0600}, mode_t{0640}, mode_t{0604}, mode_t{0660}}) {
    SCOPED_TRACE(mode);
    WriteFile(path, "[net]\nport=80\n");
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    EXPECT_EQ(PutKeyIntToFile(path.c_str(), "net", "port", 8080), 0);
    EXPECT_EQ(ReadFile(path), "[net]\nport=8080\n");
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, mode);
  }
  umask(savedMask);
}

TEST(ConfigFileTest, WriterSyncsTheWholeCopyBeforeItReplacesTheFile) {
  TempDir dir;
  const std::string path = ClientIniWith(dir, "[net]\nport=80\nhost=h\n");
  gSyncWatch.Watch(path, 0);
  EXPECT_EQ(PutKeyIntToFile(path.c_str(), "net", "port", 8080), 0);
  std::lock_guard<std::mutex> lock(gSyncWatch.mutex);
  ASSERT_EQ(gSyncWatch.paths.size(), 1u);
  EXPECT_EQ(gSyncWatch.paths[0], path + ".tmp");
  EXPECT_EQ(gSyncWatch.texts[0], "[net]\nport=8080\nhost=h\n");
  EXPECT_EQ(gSyncWatch.models[0], "[net]\nport=80\nhost=h\n");  // not yet replaced
  EXPECT_EQ(ReadFile(path), "[net]\nport=8080\nhost=h\n");
}

TEST(ConfigFileTest, WriterLeavesTheFileUntouchedWhenTheSyncFails) {
  TempDir dir;
  const std::string path = ClientIniWith(dir, "[net]\nport=80\n");
  gSyncWatch.Watch(path, EIO);
  const int result = PutKeyIntToFile(path.c_str(), "net", "port", 8080);
  {
    std::lock_guard<std::mutex> lock(gSyncWatch.mutex);
    gSyncWatch.failWith = 0;
    EXPECT_EQ(gSyncWatch.paths.size(), 1u);
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(ReadFile(path), "[net]\nport=80\n");
  EXPECT_FALSE(FileExists(path + ".tmp"));
}

TEST(ConfigFileTest, WriterOpensBothFilesCloseOnExec) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  std::atomic<int> result{99};
  std::thread writer([&] { result = PutKeyIntToFile(path.c_str(), "net", "port", 8080); });
  const int pipe = open(path.c_str(), O_WRONLY);
  ASSERT_GE(pipe, 0);
  std::vector<int> inputs;
  std::vector<int> copies;
  EXPECT_TRUE(zel_test::WaitFor([&] {
    inputs = DescriptorsOf(path);
    copies = DescriptorsOf(path + ".tmp");
    return inputs.size() == 2 && copies.size() == 1;
  }));
  for (const int fd : inputs) {
    if (fd != pipe) {
      EXPECT_TRUE(CloseOnExec(fd)) << "input descriptor " << fd;
    }
  }
  for (const int fd : copies) EXPECT_TRUE(CloseOnExec(fd)) << "copy descriptor " << fd;
  const std::string text = "[net]\nport=80\n";
  EXPECT_EQ(write(pipe, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(pipe);
  writer.join();
  EXPECT_EQ(result.load(), 0);
  EXPECT_EQ(ReadFile(path), "[net]\nport=8080\n");
}

}  // namespace

#endif  // !ZEL_TEST_ON_WINDOWS
