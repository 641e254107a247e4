// Behaviours that exist only on Windows: the fixed default log base, paths
// cut at '\', the per-user directory from APPDATA, rotation while Windows
// refuses to rename an open file, and the runtime's text mode. Built for
// Windows only; the platform layer's source is compiled into this test so
// that its internal functions can be checked directly.
#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/test_util.h"
#include "utils/config_file.h"
#include "utils/logger.h"
#include "utils/platform.h"
#include "utils/process_path.h"

// Internal functions of the Windows platform layer (compiled into this test).
namespace zel {
namespace platform {
namespace win {
using FileTimeFunction = void(WINAPI*)(LPFILETIME);
FileTimeFunction wallClockSource();
}  // namespace win
}  // namespace platform
}  // namespace zel

namespace {

using zel::Logger;
using zel_test::FileExists;
using zel_test::IsDirectory;
using zel_test::ListDir;
using zel_test::ReadFile;
using zel_test::StdoutCapture;
using zel_test::TempDir;
using zel_test::TodayDir;

constexpr char kDefaultBase[] = "c:\\Windows\\temp\\zel\\";

// The full path of this test program, as Windows reports it.
std::string ModulePath() {
  char buf[MAX_PATH + 1] = {0};
  const DWORD n = GetModuleFileNameA(nullptr, buf, MAX_PATH);
  EXPECT_GT(n, 0u);
  return std::string(buf, n);
}

// The bytes of `path` exactly as they are on disk (binary mode).
std::string ReadBytes(const std::string& path) {
  std::string bytes;
  FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return bytes;
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof(buf), file)) > 0) bytes.append(buf, n);
  std::fclose(file);
  return bytes;
}

// The names in `dir` that end in `suffix`.
std::vector<std::string> NamesEndingIn(const std::string& dir, const std::string& suffix) {
  std::vector<std::string> names;
  for (const std::string& name : ListDir(dir)) {
    if (name.size() > suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
      names.push_back(name);
    }
  }
  return names;
}

TEST(PlatformWinTest, SeparatorAndDefaultBase) {
  EXPECT_EQ(zel::platform::kPathSeparator, '\\');
  EXPECT_STREQ(zel::platform::kDefaultLogBase, kDefaultBase);
}

TEST(PlatformWinTest, DefaultBaseIsCreatedAndJoinedWithTheDateDirectory) {
  // This test runs alone (RUN_SERIAL), so nothing else has the base open:
  // start from a machine without it, to see the library create every level.
  TempDir::RemoveTree("c:/Windows/temp/zel");
  ASSERT_FALSE(FileExists(kDefaultBase));
  ASSERT_TRUE(IsDirectory("c:\\Windows\\temp"));

  log_print(0, 0, "default base\n");
  zel_log_flush();

  const std::string dir = std::string(kDefaultBase) + TodayDir();
  EXPECT_EQ(Logger::GetLogPath(), dir);
  char buf[512] = {0};
  EXPECT_EQ(zel_get_log_path(buf, sizeof(buf)), 0);
  EXPECT_EQ(std::string(buf), dir);
  ASSERT_TRUE(IsDirectory(dir));
  const std::vector<std::string> live = NamesEndingIn(dir, ".txt");
  ASSERT_EQ(live.size(), 1u);
  const std::string prefix = "zel.log.platform_win_test.exe.";
  EXPECT_EQ(live[0].compare(0, prefix.size(), prefix), 0) << live[0];
  EXPECT_EQ(zel_test::StripLogPrefixes(ReadFile(dir + live[0])), "default base\n");
}

TEST(PlatformWinTest, LogLinesEndInCarriageReturnLineFeedOnDisk) {
  // The live file is opened in the runtime's text mode, so each "\n" the
  // client logs is stored as "\r\n", as every Windows text file.
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  log_print(0, 0, "one\ntwo\n");
  zel_log_flush();
  const std::string logDir = Logger::GetLogPath();
  const std::vector<std::string> live = NamesEndingIn(logDir, ".txt");
  ASSERT_EQ(live.size(), 1u);
  const std::string bytes = ReadBytes(logDir + live[0]);
  EXPECT_EQ(zel_test::StripLogPrefixes(bytes), "one\r\ntwo\r\n") << bytes;
  // The size limit counts the bytes on disk.
  EXPECT_EQ(ReadFile(logDir + live[0]).size() + 2, bytes.size());
}

TEST(PlatformWinTest, RotationCountsTheCarriageReturnsOnDisk) {
  // Seven characters, fourteen bytes on disk: over a limit of 12 bytes only
  // when the "\r" that text mode adds to each "\n" is counted.
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger::GetInstance()->SetLogFileInfo(12, 10);
  Logger::GetInstance()->Log("\n\n\n\n\n\n\n");
  zel_log_flush();
  Logger::GetInstance()->Log("next\n");
  zel_log_flush();
  const std::string logDir = Logger::GetLogPath();
  const std::vector<std::string> live = NamesEndingIn(logDir, ".txt");
  ASSERT_EQ(live.size(), 1u);
  const std::string run = live[0].substr(0, live[0].size() - 3);
  EXPECT_EQ(ReadBytes(logDir + run + "0"), "\r\n\r\n\r\n\r\n\r\n\r\n\r\n");
  EXPECT_EQ(ReadBytes(logDir + live[0]), "next\r\n");
  EXPECT_EQ(ListDir(logDir).size(), 2u);
}

TEST(PlatformWinTest, WindowsRefusesToRenameAnOpenFile) {
  // The premise of the rotation test below: a file still open cannot be
  // renamed here, so a rotation that renamed before closing would fail.
  TempDir dir;
  const std::string path = dir.path() + "open.txt";
  FILE* file = std::fopen(path.c_str(), "a");
  ASSERT_NE(file, nullptr);
  EXPECT_NE(std::rename(path.c_str(), (dir.path() + "moved.txt").c_str()), 0);
  std::fclose(file);
  EXPECT_EQ(std::rename(path.c_str(), (dir.path() + "moved.txt").c_str()), 0);
}

TEST(PlatformWinTest, RotationClosesTheLiveFileBeforeRenamingIt) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  Logger::GetInstance()->SetLogFileInfo(10, 10);
  StdoutCapture out;
  Logger::GetInstance()->Log("first line\n");
  zel_log_flush();
  Logger::GetInstance()->Log("second line\n");
  zel_log_flush();
  Logger::GetInstance()->Log("third line\n");
  zel_log_flush();
  // No "rename error": each over-size file was closed, then renamed.
  EXPECT_EQ(out.Stop(), "");
  const std::string logDir = Logger::GetLogPath();
  const std::vector<std::string> live = NamesEndingIn(logDir, ".txt");
  ASSERT_EQ(live.size(), 1u);
  const std::string run = live[0].substr(0, live[0].size() - 3);
  EXPECT_EQ(ReadFile(logDir + run + "0"), "first line\n");
  EXPECT_EQ(ReadFile(logDir + run + "1"), "second line\n");
  EXPECT_EQ(ReadFile(logDir + live[0]), "third line\n");
  EXPECT_EQ(ListDir(logDir).size(), 3u);
}

TEST(PlatformWinTest, LiveLogFileHandleIsNotInheritedAndLetsOthersRenameAndDelete) {
  TempDir dir;
  const std::string path = dir.path() + "live.txt";
  const zel::platform::FileHandle file = zel::platform::openAppend(path.c_str());
  ASSERT_NE(file, zel::platform::kNoFile);
  // A child process started with handle inheritance does not get it.
  DWORD flags = 0;
  ASSERT_NE(GetHandleInformation(reinterpret_cast<HANDLE>(file), &flags), 0);
  EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0u);
  // A reader that opens it as the runtime does is no obstacle either way.
  FILE* reader = std::fopen(path.c_str(), "r");
  ASSERT_NE(reader, nullptr);
  std::fclose(reader);
  // Opened with FILE_SHARE_DELETE: another handle may rename and delete it
  // while the log holds it open.
  const std::string moved = dir.path() + "moved.txt";
  EXPECT_NE(MoveFileExA(path.c_str(), moved.c_str(), 0), 0) << GetLastError();
  EXPECT_NE(DeleteFileA(moved.c_str()), 0) << GetLastError();
  EXPECT_EQ(zel::platform::closeFile(file), 0);
}

TEST(PlatformWinTest, AppDataPathIsBuiltWithBackslashes) {
  ASSERT_EQ(_putenv_s("APPDATA", "C:\\Users\\u\\AppData\\Roaming"), 0);
  EXPECT_EQ(GetAppDataPath(), "C:\\Users\\u\\AppData\\Roaming\\ostrel\\log\\");
  ASSERT_EQ(_putenv_s("APPDATA", "D:\\x"), 0);
  EXPECT_EQ(GetAppDataPath(), "D:\\x\\ostrel\\log\\");
  // An empty value removes the variable on Windows.
  ASSERT_EQ(_putenv_s("APPDATA", ""), 0);
  EXPECT_EQ(GetAppDataPath(), "");
}

TEST(PlatformWinTest, ProcessPathsOfThisExecutable) {
  const std::string self = ModulePath();
  const std::size_t cut = self.rfind('\\');
  ASSERT_NE(cut, std::string::npos) << self;
  EXPECT_EQ(get_process_dir(), self.substr(0, cut + 1));
  EXPECT_EQ(get_self_dir(), self.substr(0, cut + 1));
  EXPECT_EQ(get_process_name(), "platform_win_test.exe");
  EXPECT_EQ(self.substr(cut + 1), "platform_win_test.exe");
}

TEST(PlatformWinTest, ExecutablePathIsCutToTheBuffer) {
  const std::string self = ModulePath();
  char buf[8];
  std::memset(buf, 'x', sizeof(buf));
  zel::platform::executablePath(buf, sizeof(buf));
  EXPECT_EQ(std::string(buf), self.substr(0, sizeof(buf) - 1));
  char whole[MAX_PATH + 1];
  zel::platform::executablePath(whole, sizeof(whole));
  EXPECT_EQ(std::string(whole), self);
}

TEST(PlatformWinTest, ClocksAndThreadIdComeFromWindows) {
  const int64_t before = static_cast<int64_t>(std::time(nullptr)) * 1000;
  const int64_t wall = zel::platform::wallClockMs();
  const int64_t after = static_cast<int64_t>(std::time(nullptr)) * 1000 + 1000;
  EXPECT_GE(wall, before);
  EXPECT_LT(wall, after);

  const int64_t first = zel::platform::monotonicNs();
  Sleep(20);
  const int64_t second = zel::platform::monotonicNs();
  EXPECT_GE(second - first, 15 * 1000 * 1000);
  EXPECT_LT(second - first, 5LL * 1000 * 1000 * 1000);

  EXPECT_EQ(zel::platform::currentThreadId(), static_cast<uint64_t>(GetCurrentThreadId()));
  uint64_t other = 0;
  DWORD otherNative = 0;
  std::thread thread([&] {
    other = zel::platform::currentThreadId();
    otherNative = GetCurrentThreadId();
  });
  thread.join();
  EXPECT_EQ(other, static_cast<uint64_t>(otherNative));
  EXPECT_NE(other, zel::platform::currentThreadId());
}

TEST(PlatformWinTest, WallClockReadsThePreciseSystemTime) {
  const HMODULE kernel = GetModuleHandleA("kernel32.dll");
  ASSERT_NE(kernel, nullptr);
  const FARPROC precise = GetProcAddress(kernel, "GetSystemTimePreciseAsFileTime");
  ASSERT_NE(precise, nullptr) << "this Windows has no precise system clock";
  EXPECT_EQ(reinterpret_cast<void*>(zel::platform::win::wallClockSource()),
            reinterpret_cast<void*>(precise));
  // The milliseconds move one at a time, not with the 1 to 16 ms tick: the
  // smallest step seen between two readings is one millisecond.
  int64_t smallestStep = INT64_MAX;
  int64_t last = zel::platform::wallClockMs();
  const int64_t start = zel::platform::monotonicNs();
  while (zel::platform::monotonicNs() - start < 200LL * 1000 * 1000 && smallestStep > 1) {
    const int64_t now = zel::platform::wallClockMs();
    if (now != last && now - last < smallestStep) smallestStep = now - last;
    last = now;
  }
  EXPECT_EQ(smallestStep, 1);
}

TEST(PlatformWinTest, FlushAndDoSyncReturnInADllDestructorAtProcessExit) {
  // Not while this process runs normally.
  EXPECT_FALSE(zel::platform::processExiting());
  // exit_probe.exe, beside this program, arms exit_probe.dll and returns
  // from main; the DLL's static destructor then calls zel_log_flush() and
  // Worker::DoSync() with the writer and worker threads gone.
  TempDir dir;
  const std::string module = ModulePath();
  const std::string probe = module.substr(0, module.rfind('\\') + 1) + "exit_probe.exe";
  const std::string marker = dir.path() + "marker.txt";
  std::string command = "\"" + probe + "\" \"" + marker + "\" \"" + dir.path() + "\"";
  STARTUPINFOA startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION child{};
  ASSERT_TRUE(CreateProcessA(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                             &startup, &child))
      << GetLastError();
  const DWORD waited = WaitForSingleObject(child.hProcess, 30000);
  if (waited != WAIT_OBJECT_0) {
    TerminateProcess(child.hProcess, 99);
    WaitForSingleObject(child.hProcess, INFINITE);
  }
  DWORD code = 0;
  GetExitCodeProcess(child.hProcess, &code);
  CloseHandle(child.hThread);
  CloseHandle(child.hProcess);
  EXPECT_EQ(waited, static_cast<DWORD>(WAIT_OBJECT_0)) << "the probe hung at exit";
  EXPECT_EQ(code, 0u);
  // The closure of the late DoSync did not run (nothing could run it), and
  // the worker was destroyed afterwards.
  EXPECT_EQ(ReadBytes(marker), "armed\nexiting\nflushed\nsynced\nstopped\n");
}

TEST(PlatformWinTest, LogLineCarriesTheWindowsThreadId) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  DWORD tid = 0;
  std::thread thread([&tid] {
    tid = GetCurrentThreadId();
    log_print(0, 0, "from a thread\n");
  });
  thread.join();
  zel_log_flush();
  const std::string text = zel_test::ReadLiveLog(Logger::GetLogPath());
  EXPECT_NE(text.find("][tid:" + std::to_string(tid) + "] from a thread\n"), std::string::npos)
      << text;
}

TEST(PlatformWinTest, LocalTimeMatchesTheRuntime) {
  const std::time_t t = 1700000000;  // 2023-11-14 22:13:20 UTC
  std::tm expected{};
  ASSERT_EQ(localtime_s(&expected, &t), 0);
  std::tm got{};
  ASSERT_TRUE(zel::platform::localTime(t, &got));
  EXPECT_EQ(got.tm_year, expected.tm_year);
  EXPECT_EQ(got.tm_yday, expected.tm_yday);
  EXPECT_EQ(got.tm_hour, expected.tm_hour);
  EXPECT_EQ(got.tm_min, expected.tm_min);
  // Every time zone is a whole number of quarter hours from UTC.
  EXPECT_EQ(got.tm_min % 15, 13);
  EXPECT_EQ(got.tm_sec, 20);
  // A time the runtime cannot convert leaves the result zeroed.
  std::tm bad{};
  bad.tm_year = 99;
  EXPECT_FALSE(zel::platform::localTime(static_cast<std::time_t>(-1), &bad));
  EXPECT_EQ(bad.tm_year, 0);
}

TEST(PlatformWinTest, DirectoryAndFileTests) {
  TempDir dir;
  const std::string sub = dir.path() + "sub";
  EXPECT_FALSE(zel::platform::pathExists(sub.c_str()));
  EXPECT_EQ(zel::platform::makeDir(sub.c_str()), 0);
  EXPECT_TRUE(zel::platform::pathExists(sub.c_str()));
  EXPECT_TRUE(zel::platform::isDirectory(sub.c_str()));
  EXPECT_FALSE(zel::platform::isRegularFile(sub.c_str()));
  EXPECT_EQ(zel::platform::makeDir(sub.c_str()), -1);
  EXPECT_EQ(zel::platform::makeDir((dir.path() + "a\\b").c_str()), -1);

  const std::string file = dir.path() + "f.txt";
  zel_test::WriteFile(file, "x");
  EXPECT_TRUE(zel::platform::isRegularFile(file.c_str()));
  EXPECT_FALSE(zel::platform::isDirectory(file.c_str()));
  // The replacing rename takes an existing destination, which the runtime's
  // rename refuses.
  const std::string other = dir.path() + "g.txt";
  zel_test::WriteFile(other, "y");
  EXPECT_NE(std::rename(file.c_str(), other.c_str()), 0);
  EXPECT_EQ(zel::platform::replaceFile(file.c_str(), other.c_str()), 0);
  EXPECT_FALSE(FileExists(file));
  EXPECT_EQ(ReadFile(other), "x");
  EXPECT_EQ(zel::platform::replaceFile(file.c_str(), other.c_str()), -1);
}

TEST(PlatformWinTest, EnvironmentValues) {
  std::string value = "untouched";
  ASSERT_EQ(_putenv_s("ZEL_PLATFORM_WIN_TEST", ""), 0);
  EXPECT_FALSE(zel::platform::getEnv("ZEL_PLATFORM_WIN_TEST", &value));
  EXPECT_EQ(value, "untouched");
  ASSERT_EQ(_putenv_s("ZEL_PLATFORM_WIN_TEST", "C:\\a b"), 0);
  EXPECT_TRUE(zel::platform::getEnv("ZEL_PLATFORM_WIN_TEST", &value));
  EXPECT_EQ(value, "C:\\a b");
}

}  // namespace

namespace {

// A file that another process holds open for a moment (a virus scanner, a
// backup, an editor) delays the replace of the configuration writer; it
// does not make it fail.
TEST(PlatformWinTest, ReplaceWaitsForAHolderThatLetsGoSoon) {
  TempDir dir;
  const std::string from = dir.path() + "client.ini.tmp";
  const std::string to = dir.path() + "client.ini";
  zel_test::WriteFile(from, "new\n");
  zel_test::WriteFile(to, "old\n");
  FILE* held = std::fopen(to.c_str(), "r");
  ASSERT_NE(held, nullptr);
  std::atomic<bool> calling{false};
  std::atomic<int> result{99};
  std::thread replacer([&] {
    calling = true;
    result = zel::platform::replaceFile(from.c_str(), to.c_str());
  });
  ASSERT_TRUE(zel_test::WaitFor([&] { return calling.load(); }));
  // The hold itself: the file stays open for 50 ms after the replace began.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  std::fclose(held);
  replacer.join();
  EXPECT_EQ(result.load(), 0);
  EXPECT_EQ(ReadFile(to), "new\n");
  EXPECT_FALSE(FileExists(from));
}

TEST(PlatformWinTest, ReplaceOfAFileHeldThroughoutFails) {
  TempDir dir;
  const std::string from = dir.path() + "client.ini.tmp";
  const std::string to = dir.path() + "client.ini";
  zel_test::WriteFile(from, "new\n");
  zel_test::WriteFile(to, "old\n");
  FILE* held = std::fopen(to.c_str(), "r");
  ASSERT_NE(held, nullptr);
  EXPECT_EQ(zel::platform::replaceFile(from.c_str(), to.c_str()), -1);
  std::fclose(held);
  EXPECT_EQ(ReadFile(to), "old\n");
  EXPECT_EQ(ReadFile(from), "new\n");
}

}  // namespace
