// SPDX-License-Identifier: MIT

// The log and the configuration files under faults from outside: the log
// directory removed or made read-only, the live file removed, renamed or
// replaced by a directory, a rotation target taken by a directory, writes
// failing (file size limit, full file system), and a configuration file read
// while other processes replace it. Each test shows that logging goes on and
// that only the lines the failure itself hits are lost.
//
// On Windows the same tests run where Windows has the fault; a test whose
// fault needs a POSIX means says which and skips. The child processes
// (configuration writers, the tracing service) are this program started
// again with ZEL_FAULT_CHILD naming the child's role, since Windows has no
// fork.
#if !defined(ZEL_TEST_ON_WINDOWS)
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#endif
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/http_server.h"
#include "tests/support/test_util.h"
#include "tracer/tracer_client.h"
#include "utils/config_file.h"
#include "utils/logger.h"

namespace {

using zel_test::ChildHandle;
using zel_test::CountOccurrences;
using zel_test::FileExists;
using zel_test::FreePort;
using zel_test::IsDirectory;
using zel_test::KillChild;
using zel_test::kNoChild;
using zel_test::ListDir;
using zel_test::LivePath;
using zel_test::ReadFile;
using zel_test::ReadLiveLog;
using zel_test::StdoutCapture;
using zel_test::TempDir;
using zel_test::TestHttpServer;
using zel_test::WaitChild;
using zel_test::WaitFor;

#if defined(ZEL_TEST_ON_WINDOWS)
// The live file may be renamed while the log holds it (it is opened with
// FILE_SHARE_DELETE), but under Wine, as on Windows file systems without
// POSIX delete semantics, a removed file that is still open keeps its name,
// delete-pending, until its last handle is closed: the name is not free
// for a new file, and the directory that holds it cannot be removed.
#define ZEL_SKIP_WITHOUT_UNLINK_OF_OPEN_FILES()                                  \
  GTEST_SKIP() << "needs POSIX unlink, which frees the name of a file another "  \
                  "handle holds open at once; under Wine the removed live file " \
                  "keeps its name, delete-pending, until the log closes it"
#else
#define ZEL_SKIP_WITHOUT_UNLINK_OF_OPEN_FILES() \
  do {                                          \
  } while (false)
#endif

// Starts the log in `base` with one line and returns the log directory.
std::string StartLog(const std::string& base) {
  zel_set_log_level(-1);
  zel_set_log_path(base.c_str());
  log_print(0, 0, "first\n");
  zel_log_flush();
  return zel::Logger::GetLogPath();
}

// StartLog with the file limits `sizeLimit` and `count` set before the
// first line.
std::string StartLogWithLimits(const std::string& base, int sizeLimit, int count) {
  zel_set_log_level(-1);
  zel_set_log_path(base.c_str());
  zel::Logger::GetInstance()->SetLogFileInfo(sizeLimit, count);
  return StartLog(base);
}

// Logs `count` lines "<stem> <i> " followed by 40 times `fill`; the lines.
std::vector<std::string> LogNumbered(const std::string& stem, int count, char fill) {
  std::vector<std::string> lines;
  for (int i = 0; i < count; ++i) {
    lines.push_back(stem + " " + std::to_string(i) + " " + std::string(40, fill) + "\n");
    log_print(0, 0, "%s", lines.back().c_str());
  }
  return lines;
}

// Removes the file `path` and makes a directory in its place.
void ReplaceByDirectory(const std::string& path) {
  ASSERT_EQ(std::remove(path.c_str()), 0);
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
}

// Every file of the log directory `dir`, concatenated.
std::string AllLogText(const std::string& dir) {
  std::string text;
  for (const std::string& name : ListDir(dir)) {
    if (!IsDirectory(dir + name)) text += ReadFile(dir + name);
  }
  return text;
}

TEST(FaultTest, RemovedDirectoryIsMadeAgain) {
  ZEL_SKIP_WITHOUT_UNLINK_OF_OPEN_FILES();
  TempDir base;
  const std::string dir = StartLog(base.path());
  StdoutCapture out;
  TempDir::RemoveTree(dir);
  ASSERT_FALSE(FileExists(dir));
  log_print(0, 0, "after removal\n");
  log_print(0, 0, "second after removal\n");
  zel_log_flush();
  EXPECT_TRUE(IsDirectory(dir));
  const std::string text = ReadLiveLog(dir);
  EXPECT_EQ(CountOccurrences(text, "] after removal\n"), 1);
  EXPECT_EQ(CountOccurrences(text, "] second after removal\n"), 1);
  // The vanished live file made the writer rotate; its rename failed.
  EXPECT_NE(out.Stop().find("zel::Logger::getFile 516,rename error\n"), std::string::npos);
}

TEST(FaultTest, ReadOnlyDirectoryLosesLinesUntilWritableAgain) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << "needs POSIX permission bits (chmod 0555) and the unlink of the open live "
                  "file; Windows keeps neither";
#else
  if (geteuid() == 0) GTEST_SKIP() << "running as root: permissions do not stop root's writes";
  TempDir base;
  const std::string dir = StartLog(base.path());
  const std::string live = LivePath(dir);
  ASSERT_FALSE(live.empty());
  StdoutCapture out;
  // Read-only and the live file gone: no new file can be made.
  ASSERT_EQ(std::remove(live.c_str()), 0);
  ASSERT_EQ(chmod(dir.c_str(), 0555), 0);
  log_print(0, 0, "while read-only\n");
  zel_log_flush();
  ASSERT_EQ(chmod(dir.c_str(), 0755), 0);
  log_print(0, 0, "writable again\n");
  zel_log_flush();
  const std::string text = AllLogText(dir);
  EXPECT_EQ(CountOccurrences(text, "] while read-only\n"), 0);
  EXPECT_EQ(CountOccurrences(text, "] writable again\n"), 1);
  EXPECT_NE(out.Stop().find("zel::Logger::writeLog 296: fp is null \n"), std::string::npos);
#endif
}

TEST(FaultTest, RemovedLiveFileIsStartedAgain) {
  ZEL_SKIP_WITHOUT_UNLINK_OF_OPEN_FILES();
  TempDir base;
  const std::string dir = StartLog(base.path());
  const std::string live = LivePath(dir);
  ASSERT_EQ(std::remove(live.c_str()), 0);
  log_print(0, 0, "after the file went\n");
  zel_log_flush();
  EXPECT_EQ(LivePath(dir), live);
  EXPECT_EQ(CountOccurrences(ReadFile(live), "] after the file went\n"), 1);
}

TEST(FaultTest, RenamedLiveFileKeepsItsLinesAndANewOneStarts) {
  TempDir base;
  const std::string dir = StartLog(base.path());
  const std::string live = LivePath(dir);
  const std::string moved = dir + "moved-away";
  ASSERT_EQ(std::rename(live.c_str(), moved.c_str()), 0);
  log_print(0, 0, "after the rename\n");
  zel_log_flush();
  EXPECT_EQ(CountOccurrences(ReadFile(moved), "] first\n"), 1);
  EXPECT_EQ(CountOccurrences(ReadFile(live), "] after the rename\n"), 1);
  EXPECT_EQ(CountOccurrences(ReadFile(moved), "] after the rename\n"), 0);
}

TEST(FaultTest, LiveFileReplacedByADirectory) {
  ZEL_SKIP_WITHOUT_UNLINK_OF_OPEN_FILES();
  TempDir base;
  const std::string dir = StartLog(base.path());
  const std::string live = LivePath(dir);
  ASSERT_NO_FATAL_FAILURE(ReplaceByDirectory(live));
  log_print(0, 0, "after the directory\n");
  log_print(0, 0, "and one more\n");
  zel_log_flush();
  // Not a regular file: the writer rotates, which renames the directory to
  // the first rotated name, and opens a new live file.
  EXPECT_TRUE(IsDirectory(live.substr(0, live.size() - 3) + "0"));
  const std::string text = ReadFile(live);
  EXPECT_EQ(CountOccurrences(text, "] after the directory\n"), 1);
  EXPECT_EQ(CountOccurrences(text, "] and one more\n"), 1);
}

TEST(FaultTest, RotationTargetTakenByADirectoryLosesNoLine) {
  TempDir base;
  const std::string dir = StartLogWithLimits(base.path(), 100, 10);
  const std::string live = LivePath(dir);
  const std::string stem = live.substr(0, live.size() - 3);
  ASSERT_EQ(mkdir((stem + "0").c_str(), 0755), 0);
  StdoutCapture out;
  const std::vector<std::string> lines = LogNumbered("line", 20, 'x');
  zel_log_flush();
  const std::string stdoutText = out.Stop();
  // The first rotation hits the directory: "rename error", the counter steps
  // on, and the over-size file is reopened and rotated to the next index.
  EXPECT_NE(stdoutText.find("zel::Logger::getFile 516,rename error\n"), std::string::npos);
  EXPECT_TRUE(IsDirectory(stem + "0"));
  EXPECT_TRUE(FileExists(stem + "1"));
  const std::string text = AllLogText(dir);
  for (const std::string& line : lines) EXPECT_EQ(CountOccurrences(text, "] " + line), 1) << line;
}

TEST(FaultTest, FileSizeLimitLosesOnlyTheFailedLines) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << "needs a POSIX file size limit (setrlimit RLIMIT_FSIZE); Windows has none";
#else
  TempDir base;
  const std::string dir = StartLog(base.path());
  zel::Logger::GetInstance()->SetLogFileInfo(1 << 20, 10);
  struct rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  signal(SIGXFSZ, SIG_IGN);
  StdoutCapture out;
  const off_t before = static_cast<off_t>(ReadFile(LivePath(dir)).size());
  struct rlimit small = saved;
  small.rlim_cur = static_cast<rlim_t>(before + 200);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  log_print(0, 0, "fits %s\n", std::string(50, 'a').c_str());
  log_print(0, 0, "too big %s\n", std::string(300, 'b').c_str());
  log_print(0, 0, "too big again %s\n", std::string(300, 'c').c_str());
  zel_log_flush();
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &saved), 0);
  log_print(0, 0, "after the limit\n");
  zel_log_flush();
  const std::string stdoutText = out.Stop();
  const std::string text = ReadFile(LivePath(dir));
  EXPECT_EQ(CountOccurrences(text, "] fits "), 1);
  EXPECT_EQ(CountOccurrences(text, "] after the limit\n"), 1);
  // The first line past the limit is cut at it (the kernel writes what
  // fits), the next one fails whole; both are reported and lost, and the
  // writer goes on once the limit is lifted.
  EXPECT_EQ(CountOccurrences(text, "] too big " + std::string(300, 'b') + "\n"), 0);
  EXPECT_EQ(CountOccurrences(text, "] too big again "), 0);
  // What fits of the cut line stays in the file, without its newline: the
  // line after the limit follows it directly.
  const std::size_t limit = static_cast<std::size_t>(before) + 200;
  ASSERT_GT(text.size(), limit);
  EXPECT_EQ(text.compare(limit, 1, "["), 0);
  EXPECT_EQ(text.compare(limit - 3, 3, "bbb"), 0);
  EXPECT_GE(CountOccurrences(stdoutText, "zel log write error,ret[-1] \n"), 1);
#endif
}

TEST(FaultTest, FullFileSystemLosesLinesUntilThereIsRoom) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << "needs a small POSIX file system to fill (mount of a tmpfs); Windows "
                  "mounts none for a test";
#else
  if (geteuid() != 0) GTEST_SKIP() << "needs root to mount a small tmpfs";
  TempDir base;
  if (mount("tmpfs", base.path().c_str(), "tmpfs", 0, "size=64k") != 0) {
    GTEST_SKIP() << "cannot mount a tmpfs here (" << std::strerror(errno) << ")";
  }
  struct Unmount {
    std::string path;
    ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
  } unmount{base.path()};
  const std::string dir = StartLog(base.path());
  zel::Logger::GetInstance()->SetLogFileInfo(1 << 20, 10);
  // Fill the file system with a file of our own.
  const std::string filler = base.path() + "filler";
  {
    FILE* f = std::fopen(filler.c_str(), "w");
    ASSERT_NE(f, nullptr);
    const std::string block(4096, 'f');
    while (std::fwrite(block.data(), 1, block.size(), f) == block.size() && std::fflush(f) == 0) {
    }
    std::fclose(f);
  }
  StdoutCapture out;
  for (int i = 0; i < 20; ++i) log_print(0, 0, "full %d %s\n", i, std::string(400, 'z').c_str());
  zel_log_flush();
  EXPECT_NE(out.Peek().find("zel log write error,ret["), std::string::npos);
  ASSERT_EQ(std::remove(filler.c_str()), 0);
  log_print(0, 0, "room again\n");
  zel_log_flush();
  EXPECT_EQ(CountOccurrences(ReadFile(LivePath(dir)), "] room again\n"), 1);
#endif
}

// ---------------------------------------------------------------------------
// Child processes: configuration writers and the tracing service.

constexpr int kWritesEach = 50;

// Writes the values v<writer * kWritesEach + 1> to v<(writer + 1) *
// kWritesEach> in turn to "net"/"port" of the file at `path`; exits 0, or 3
// when a write failed.
[[noreturn]] void RunConfigWriter(const std::string& path, int writer) {
  for (int i = 0; i < kWritesEach; ++i) {
    char value[16];
    std::snprintf(value, sizeof(value), "v%04d", writer * kWritesEach + i + 1);
    if (PutKeyStringToFile(path.c_str(), "net", "port", value) != 0) _exit(3);
  }
  _exit(0);
}

[[noreturn]] void RunTraceService(uint16_t port, const std::string& record);

constexpr int kWriters = 4;

// Starts kWriters writers (RunConfigWriter) on the file at `path`, one
// after another, each in a process of its own; exits 0 when every one
// ended with 0 within 50 s, 5 otherwise.
[[noreturn]] void RunConfigWriterChain(const std::string& path);

#if defined(ZEL_TEST_ON_WINDOWS)
// A viewer of the log in a process of its own: opens `path` for reading as
// the C runtime's fopen does (sharing read and write, not delete), signals
// the event "<events>.held", and keeps the file open until the event
// "<events>.release" is signalled; exits 0, or 4 when it could not open
// the file or the events.
[[noreturn]] void RunHolder(const std::string& path, const std::string& events) {
  const HANDLE held = OpenEventA(EVENT_MODIFY_STATE, FALSE, (events + ".held").c_str());
  const HANDLE release = OpenEventA(SYNCHRONIZE, FALSE, (events + ".release").c_str());
  const HANDLE file = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (held == nullptr || release == nullptr || file == INVALID_HANDLE_VALUE) _exit(4);
  SetEvent(held);
  WaitForSingleObject(release, INFINITE);
  CloseHandle(file);
  _exit(0);
}
#endif

// Runs the child role `role` ({"writer", path, number} or {"service", port,
// record file}); never returns.
[[noreturn]] void RunChildRole(const std::vector<std::string>& role) {
  if (role.size() == 3 && role[0] == "writer") RunConfigWriter(role[1], std::stoi(role[2]));
  if (role.size() == 2 && role[0] == "chain") RunConfigWriterChain(role[1]);
#if defined(ZEL_TEST_ON_WINDOWS)
  if (role.size() == 3 && role[0] == "holder") RunHolder(role[1], role[2]);
#endif
  if (role.size() == 3 && role[0] == "service") {
    RunTraceService(static_cast<uint16_t>(std::stoi(role[1])), role[2]);
  }
  _exit(2);
}

// Starts this program again, or forks, in the child role `role`.
ChildHandle StartChild(const std::vector<std::string>& role) {
  return zel_test::StartChild(RunChildRole, role);
}

// In a child started on Windows, runs its role instead of the tests.
const bool kRanAsChild = zel_test::RunChildRoleIfAsked(RunChildRole);

void RunConfigWriterChain(const std::string& path) {
  for (int w = 0; w < kWriters; ++w) {
    const ChildHandle writer = StartChild({"writer", path, std::to_string(w)});
    int code = -1;
    if (writer == kNoChild) _exit(5);
    if (!WaitChild(writer, std::chrono::milliseconds(50000), &code)) {
      KillChild(writer);
      _exit(5);
    }
    if (code != 0) _exit(5);
  }
  _exit(0);
}

// A reader loops over GetKeyStringFromFile while child processes, one after
// another, replace the file with PutKeyStringToFile: every read sees a whole
// old or whole new file, so the value is always one that was written.
// The writers are started by a process of their own (the chain), forked
// while this one has a single thread: a fork while another thread
// allocates can leave the child waiting for ever on the ThreadSanitizer
// runtime's allocator lock.
TEST(FaultTest, ConfigReadWhileOtherProcessesWriteSeesWholeFiles) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  // Long sections in front make each replacement take a while.
  std::string content;
  for (int s = 0; s < 200; ++s) {
    content += "[pad" + std::to_string(s) + "]\n";
    for (int k = 0; k < 5; ++k)
      content += "k" + std::to_string(k) + "=" + std::string(60, 'p') + "\n";
  }
  content += "[net]\nport=v0000\n";
  zel_test::WriteFile(path, content);
  zel_set_log_level(-1);

  const ChildHandle chain = StartChild({"chain", path});
  ASSERT_NE(chain, kNoChild);
  int reads = 0;
  bool whole = true;
  std::string torn;
  int code = -1;
  bool ended = false;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(100);
  while (!ended && std::chrono::steady_clock::now() < deadline) {
    char* value = GetKeyStringFromFile(path.c_str(), "net", "port");
    const std::string text = value != nullptr ? value : "(none)";
    std::free(value);
    if (text.size() != 5u || text[0] != 'v') {
      whole = false;
      torn = text;
    }
    ++reads;
    ended = WaitChild(chain, std::chrono::milliseconds(0), &code);
  }
  if (!ended) KillChild(chain);
  EXPECT_TRUE(whole) << "torn read: \"" << torn << "\"";
  ASSERT_TRUE(ended) << "the writers did not finish within 100 s";
  ASSERT_EQ(code, 0) << "a writer failed or did not finish within 50 s";
  EXPECT_GT(reads, 0);
  char* last = GetKeyStringFromFile(path.c_str(), "net", "port");
  EXPECT_STREQ(last, "v0200");
  std::free(last);
}

#if defined(ZEL_TEST_ON_WINDOWS)
// Another process holds the live file open without sharing delete access
// (a viewer that opened it with the C runtime's fopen): the rotation's
// rename fails for as long as it does, and says so; the lines go on into
// the live file, none lost, and rotation resumes once the viewer lets go.
TEST(FaultTest, LiveFileHeldWithoutDeleteSharingByAnotherProcessLosesNoLine) {
  TempDir base;
  const std::string dir = StartLogWithLimits(base.path(), 64, 100);
  const std::string live = LivePath(dir);
  ASSERT_FALSE(live.empty());
  const std::string events = "zel_fault_holder_" + std::to_string(GetCurrentProcessId());
  const HANDLE held = CreateEventA(nullptr, TRUE, FALSE, (events + ".held").c_str());
  const HANDLE release = CreateEventA(nullptr, TRUE, FALSE, (events + ".release").c_str());
  ASSERT_NE(held, nullptr);
  ASSERT_NE(release, nullptr);
  const ChildHandle holder = StartChild({"holder", live, events});
  ASSERT_NE(holder, kNoChild);
  ASSERT_EQ(WaitForSingleObject(held, 60000), WAIT_OBJECT_0) << "the viewer did not open the file";

  StdoutCapture out;
  const std::vector<std::string> whileHeld = LogNumbered("while held", 5, 'h');
  zel_log_flush();
  const std::string heldText = ReadFile(live);
  SetEvent(release);
  int code = -1;
  const bool ended = WaitChild(holder, std::chrono::milliseconds(60000), &code);
  if (!ended) KillChild(holder);
  CloseHandle(held);
  CloseHandle(release);
  ASSERT_TRUE(ended);
  EXPECT_EQ(code, 0);
  // Every line over the limit tried to rotate; each rename failed, and the
  // lines went on into the live file.
  const std::string stdoutWhileHeld = out.Stop();
  EXPECT_GE(CountOccurrences(stdoutWhileHeld, "zel::Logger::getFile 516,rename error\n"), 4)
      << stdoutWhileHeld;
  for (const std::string& line : whileHeld) {
    EXPECT_EQ(CountOccurrences(heldText, "] " + line), 1) << line;
  }

  // Let go: the next line rotates the over-size file away.
  log_print(0, 0, "after release\n");
  zel_log_flush();
  EXPECT_EQ(CountOccurrences(ReadFile(live), "] after release\n"), 1);
  EXPECT_EQ(CountOccurrences(ReadFile(live), "] while held"), 0);
  const std::string text = AllLogText(dir);
  for (const std::string& line : whileHeld)
    EXPECT_EQ(CountOccurrences(text, "] " + line), 1) << line;
  EXPECT_EQ(CountOccurrences(text, "] first\n"), 1);
}
#endif

// ---------------------------------------------------------------------------
// The tracing service killed and restarted while documents are posted.

// A minimal tracing service for a process of its own: listens on 127.0.0.1
// at `port`, reads HTTP requests one connection at a time (keep-alive
// honoured), appends each body and a newline to `record` and answers 200.
// Runs until it is killed.
[[noreturn]] void RunTraceService(uint16_t port, const std::string& record) {
  const int out = open(record.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  // Serves on this thread: a child forked from a process with threads
  // starts none of its own.
  TestHttpServer service(TestHttpServer::Mode::kRefuse, port);
  if (!service.bound()) _exit(5);
  service.OnRequest([out](const TestHttpServer::Request& request) {
    const std::string body = request.body + "\n";
    if (write(out, body.data(), static_cast<unsigned>(body.size())) < 0) _exit(6);
  });
  service.ServeForever();
  _exit(5);
}

// The numbers of the documents "doc-<n>" recorded so far, in order.
std::vector<int> RecordedDocuments(const std::string& record) {
  std::vector<int> numbers;
  for (const std::string& line : zel_test::SplitLines(ReadFile(record))) {
    if (line.compare(0, 4, "doc-") == 0) numbers.push_back(std::atoi(line.c_str() + 4));
  }
  return numbers;
}

// Waits until `record` holds at least `count` documents (when `count` >= 0)
// or holds the document number `last`.
bool WaitForRecorded(const std::string& record, int count, std::chrono::seconds timeout,
                     int last = -1) {
  return WaitFor(
      [&] {
        const std::vector<int> numbers = RecordedDocuments(record);
        if (count >= 0) return static_cast<int>(numbers.size()) >= count;
        return std::find(numbers.begin(), numbers.end(), last) != numbers.end();
      },
      timeout);
}

TEST(FaultTest, TraceServiceKilledAndRestartedLosesNoDocument) {
  TempDir dir;
  const std::string record = dir.path() + "received";
  const uint16_t port = FreePort();
  ASSERT_NE(port, 0);
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/trace";
  const std::pair<const char*, const char*> settings[] = {
      {"ZEL_TRACE_ENDPOINT", url.c_str()}, {"ZEL_TRACE_RETRY_MS", "20"},
      {"ZEL_TRACE_RETRY_MAX_MS", "200"},   {"ZEL_TRACE_CONNECT_TIMEOUT_MS", "1000"},
      {"ZEL_TRACE_TIMEOUT_MS", "2000"},    {"ZEL_TRACE_DEREGISTER_MS", "20000"}};
  for (const auto& setting : settings) setenv(setting.first, setting.second, 1);
  // One document per request: a request whose answer a kill cut off then
  // brings back one document, as the check below allows.
  setenv("ZEL_TRACE_BATCH_MAX", "1", 1);

  auto startService = [&] { return StartChild({"service", std::to_string(port), record}); };
  // Started before the client's thread exists; the service is
  // single-threaded.
  ChildHandle service = startService();
  ASSERT_NE(service, kNoChild);
  TracerClient* client = TracerClient::registerClient("faultTest");
  ASSERT_NE(client, nullptr);

  constexpr int kDocuments = 300;
  constexpr int kRestarts = 3;
  int posted = 0;
  for (int restart = 0; restart < kRestarts; ++restart) {
    // Post while the service runs, until it has taken some documents.
    const int target = (restart + 1) * kDocuments / (kRestarts + 1);
    for (; posted < target; ++posted) {
      ASSERT_TRUE(client->postTrace("doc-" + std::to_string(posted)));
    }
    ASSERT_TRUE(WaitForRecorded(record, target / 2, std::chrono::seconds(30)));
    // Kill it in the middle of the traffic and post while it is down.
    KillChild(service);
    for (int i = 0; i < 20; ++i, ++posted) {
      ASSERT_TRUE(client->postTrace("doc-" + std::to_string(posted)));
    }
    service = startService();
    ASSERT_NE(service, kNoChild);
  }
  for (; posted < kDocuments; ++posted) {
    ASSERT_TRUE(client->postTrace("doc-" + std::to_string(posted)));
  }
  // Everything arrives once the service is back: in posting order, each at
  // least once (a document whose answer was lost in a kill comes again).
  const bool all = WaitForRecorded(record, -1, std::chrono::seconds(60), kDocuments - 1);
  client->deregister();
  KillChild(service);
  ASSERT_TRUE(all) << "not every document arrived within 60 s";
  int expected = 0;
  for (int n : RecordedDocuments(record)) {
    if (n == expected) {
      ++expected;
    } else {
      EXPECT_TRUE(n == expected - 1)
          << "document " << n << " where " << expected << " was expected";
    }
  }
  EXPECT_EQ(expected, kDocuments);
}

}  // namespace
