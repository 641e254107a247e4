// SPDX-License-Identifier: MIT

// Behaviours that exist only on Windows: the fixed default log base, paths
// cut at '\', the per-user directory from APPDATA, rotation while Windows
// refuses to rename an open file, and the runtime's text mode. Built for
// Windows only; the platform layer's source is compiled into this test so
// that its internal functions can be checked directly.
#include <gtest/gtest.h>
#include <windows.h>
// After windows.h, which they need.
#include <aclapi.h>
#include <sddl.h>

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
DirCheck checkOwnerAndAcl(PSID owner, PACL dacl, bool acl);
PSECURITY_DESCRIPTOR privateDescriptor();
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

// ---------------------------------------------------------------------------
// Log directories against another user: owners and access lists.

// The string form of the process's user's security identifier.
std::string UserSidText() {
  HANDLE token = nullptr;
  if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) == 0) return std::string();
  DWORD size = 0;
  GetTokenInformation(token, TokenUser, nullptr, 0, &size);
  std::vector<unsigned char> buffer(size);
  std::string text;
  if (size != 0 && GetTokenInformation(token, TokenUser, buffer.data(), size, &size) != 0) {
    char* sid = nullptr;
    if (ConvertSidToStringSidA(reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid, &sid) != 0) {
      text = sid;
      LocalFree(sid);
    }
  }
  CloseHandle(token);
  return text;
}

// Makes the directory `path` with the access list of the SDDL text `sddl`.
bool MakeDirWithAcl(const std::string& path, const std::string& sddl) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (ConvertStringSecurityDescriptorToSecurityDescriptorA(sddl.c_str(), SDDL_REVISION_1,
                                                           &descriptor, nullptr) == 0) {
    return false;
  }
  SECURITY_ATTRIBUTES attributes{};
  attributes.nLength = sizeof(attributes);
  attributes.lpSecurityDescriptor = descriptor;
  const bool made = CreateDirectoryA(path.c_str(), &attributes) != 0;
  LocalFree(descriptor);
  return made;
}

// The access list of `path` as SDDL text (the "D:" part), empty on failure.
std::string AclText(const std::string& path) {
  PACL dacl = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (GetNamedSecurityInfoA(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                            nullptr, &dacl, nullptr, &descriptor) != ERROR_SUCCESS) {
    return std::string();
  }
  char* text = nullptr;
  std::string result;
  if (ConvertSecurityDescriptorToStringSecurityDescriptorA(
          descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr) != 0) {
    result = text;
    LocalFree(text);
  }
  LocalFree(descriptor);
  return result;
}

// The directory rule applied to the owner and access list of the security
// descriptor written as the SDDL text `sddl`.
zel::platform::DirCheck RuleFor(const std::string& sddl) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (ConvertStringSecurityDescriptorToSecurityDescriptorA(sddl.c_str(), SDDL_REVISION_1,
                                                           &descriptor, nullptr) == 0) {
    ADD_FAILURE() << "bad SDDL " << sddl;
    return zel::platform::DirCheck::kNotDirectory;
  }
  PSID owner = nullptr;
  BOOL ownerDefaulted = FALSE;
  PACL dacl = nullptr;
  BOOL present = FALSE;
  BOOL daclDefaulted = FALSE;
  GetSecurityDescriptorOwner(descriptor, &owner, &ownerDefaulted);
  GetSecurityDescriptorDacl(descriptor, &present, &dacl, &daclDefaulted);
  const zel::platform::DirCheck check =
      zel::platform::win::checkOwnerAndAcl(owner, present ? dacl : nullptr, true);
  LocalFree(descriptor);
  return check;
}

TEST(PlatformWinTest, DirectoryRuleRefusesOwnersAndWritersOtherThanTheTrustedOnes) {
  using zel::platform::DirCheck;
  const std::string user = UserSidText();
  ASSERT_FALSE(user.empty());
  const std::string mine = "(A;OICI;FA;;;" + user + ")";
  // Owned by the user, SYSTEM or the Administrators, private: used.
  EXPECT_EQ(RuleFor("O:" + user + "D:P" + mine + "(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)"),
            DirCheck::kOk);
  EXPECT_EQ(RuleFor("O:SYD:P" + mine), DirCheck::kOk);
  EXPECT_EQ(RuleFor("O:BAD:P" + mine), DirCheck::kOk);
  // Owned by someone else (Guests, another account): refused.
  EXPECT_EQ(RuleFor("O:BGD:P" + mine), DirCheck::kForeignOwner);
  EXPECT_EQ(RuleFor("O:S-1-5-21-1-2-3-1001D:P" + mine), DirCheck::kForeignOwner);
  // Everyone, Users or Authenticated Users may add files or folders, delete
  // children or change the list: refused.
  EXPECT_EQ(RuleFor("O:" + user + "D:P" + mine + "(A;OICI;FA;;;WD)"), DirCheck::kWorldWritable);
  EXPECT_EQ(RuleFor("O:" + user + "D:P" + mine + "(A;;0x2;;;BU)"), DirCheck::kWorldWritable);
  EXPECT_EQ(RuleFor("O:" + user + "D:P" + mine + "(A;;0x4;;;AU)"), DirCheck::kWorldWritable);
  EXPECT_EQ(RuleFor("O:" + user + "D:P" + mine + "(A;;0x40;;;BU)"), DirCheck::kWorldWritable);
  EXPECT_EQ(RuleFor("O:" + user + "D:P" + mine + "(A;;WD;;;BU)"), DirCheck::kWorldWritable);
  EXPECT_EQ(RuleFor("O:" + user + "D:P" + mine + "(A;;GW;;;WD)"), DirCheck::kWorldWritable);
  // No access list at all (a null DACL): everyone may do everything.
  PSID system = nullptr;
  ASSERT_NE(ConvertStringSidToSidA("S-1-5-18", &system), 0);
  EXPECT_EQ(zel::platform::win::checkOwnerAndAcl(system, nullptr, true), DirCheck::kWorldWritable);
  LocalFree(system);
  // Reading and listing for everyone, and entries only for what is created
  // inside (CREATOR OWNER), are no reason to refuse.
  EXPECT_EQ(RuleFor("O:" + user + "D:P" + mine + "(A;OICI;FR;;;WD)"), DirCheck::kOk);
  EXPECT_EQ(RuleFor("O:" + user + "D:P" + mine + "(A;OICIIO;FA;;;CO)"), DirCheck::kOk);
  // A deny entry takes nothing away from the check of the allow entries.
  EXPECT_EQ(RuleFor("O:" + user + "D:P(D;;FA;;;WD)" + mine + "(A;;FA;;;WD)"),
            DirCheck::kWorldWritable);
}

TEST(PlatformWinTest, PrivateDirectoriesAreMadeForTheUserSystemAndAdministratorsOnly) {
  PSECURITY_DESCRIPTOR descriptor = zel::platform::win::privateDescriptor();
  ASSERT_NE(descriptor, nullptr);
  char* text = nullptr;
  ASSERT_NE(ConvertSecurityDescriptorToStringSecurityDescriptorA(
                descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr),
            0);
  const std::string sddl = text;
  LocalFree(text);
  LocalFree(descriptor);
  EXPECT_EQ(sddl, "D:P(A;OICI;FA;;;" + UserSidText() + ")(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)");
}

TEST(PlatformWinTest, DirectoryThatEveryoneMayWriteIntoIsRefused) {
  TempDir dir;
  const std::string user = UserSidText();
  ASSERT_FALSE(user.empty());
  const std::string open = dir.path() + "open";
  ASSERT_TRUE(MakeDirWithAcl(open, "D:P(A;OICI;FA;;;" + user + ")(A;OICI;0x116;;;WD)"));
  if (AclText(open).find(";WD)") == std::string::npos) {
    GTEST_SKIP() << "the file system does not keep the access list given (Wine derives it from "
                    "the POSIX mode bits): "
                 << AclText(open)
                 << "; the rule itself is checked by "
                    "DirectoryRuleRefusesOwnersAndWritersOtherThanTheTrustedOnes";
  }
  zel::platform::DirHandle handle = zel::platform::kNoFile;
  EXPECT_EQ(zel::platform::openBaseDirectory(open.c_str(), &handle),
            zel::platform::DirCheck::kWorldWritable)
      << AclText(open);
  EXPECT_EQ(handle, zel::platform::kNoFile);
  EXPECT_EQ(zel::platform::checkDirectory(open.c_str(), true),
            zel::platform::DirCheck::kWorldWritable);

  // Reading and listing for everyone is no reason to refuse.
  const std::string readable = dir.path() + "readable";
  ASSERT_TRUE(MakeDirWithAcl(readable, "D:P(A;OICI;FA;;;" + user + ")(A;OICI;FR;;;WD)"));
  EXPECT_EQ(zel::platform::openBaseDirectory(readable.c_str(), &handle),
            zel::platform::DirCheck::kOk)
      << AclText(readable);
  zel::platform::closeDirectory(handle);

  // The log refuses the first as its base, once, and counts the lines.
  const uint64_t droppedBefore = zel_log_dropped();
  StdoutCapture out;
  zel_set_log_path((open + "\\").c_str());
  log_print(0, 0, "first\n");
  log_print(0, 0, "second\n");
  zel_log_flush();
  const std::string printed = out.Stop();
  EXPECT_EQ(zel_test::CountOccurrences(printed, "zel log: refusing"), 1) << printed;
  EXPECT_NE(printed.find("other users may write into it"), std::string::npos) << printed;
  EXPECT_EQ(zel_log_dropped() - droppedBefore, 2u);
  EXPECT_TRUE(ListDir(open).empty());
}

TEST(PlatformWinTest, DirectoryOwnedByAnotherUserIsRefused) {
  TempDir dir;
  const std::string other = dir.path() + "other";
  ASSERT_TRUE(zel::platform::makePrivateDir(other.c_str()) == 0);
  // Guests as the owner: giving a directory away needs the restore
  // privilege on Windows; an administrator's test run has it.
  PSID guests = nullptr;
  ASSERT_NE(ConvertStringSidToSidA("S-1-5-32-546", &guests), 0);
  const DWORD set =
      SetNamedSecurityInfoA(const_cast<char*>(other.c_str()), SE_FILE_OBJECT,
                            OWNER_SECURITY_INFORMATION, guests, nullptr, nullptr, nullptr);
  LocalFree(guests);
  if (set != ERROR_SUCCESS) {
    GTEST_SKIP() << "cannot give a directory to another owner here (error " << set
                 << "): needs the restore privilege";
  }
  PSID owner = nullptr;
  PSECURITY_DESCRIPTOR kept = nullptr;
  ASSERT_EQ(GetNamedSecurityInfoA(other.c_str(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner,
                                  nullptr, nullptr, nullptr, &kept),
            static_cast<DWORD>(ERROR_SUCCESS));
  const bool ownerKept = IsWellKnownSid(owner, WinBuiltinGuestsSid) != 0;
  LocalFree(kept);
  if (!ownerKept) {
    GTEST_SKIP() << "the file system does not keep the owner given (Wine gives every file the "
                    "prefix's user); the rule itself is checked by "
                    "DirectoryRuleRefusesOwnersAndWritersOtherThanTheTrustedOnes";
  }
  zel::platform::DirHandle handle = zel::platform::kNoFile;
  EXPECT_EQ(zel::platform::openBaseDirectory(other.c_str(), &handle),
            zel::platform::DirCheck::kForeignOwner);
  EXPECT_EQ(handle, zel::platform::kNoFile);
}

TEST(PlatformWinTest, DefaultBaseIsMadeForTheUserSystemAndAdministratorsOnly) {
  TempDir dir;
  const std::string base = dir.path() + "zel";
  zel_test_hook_set_default_log_base((base + "\\").c_str());
  log_print(0, 0, "private\n");
  zel_log_flush();
  zel_test_hook_set_default_log_base(nullptr);
  ASSERT_TRUE(IsDirectory(base));
  const std::string user = UserSidText();
  const std::string acl = AclText(base);
  zel::platform::DirHandle handle = zel::platform::kNoFile;
  EXPECT_EQ(zel::platform::openBaseDirectory(base.c_str(), &handle), zel::platform::DirCheck::kOk);
  zel::platform::closeDirectory(handle);
  const std::string today = base + "\\" + TodayDir();
  const std::vector<std::string> live = NamesEndingIn(today, ".txt");
  ASSERT_EQ(live.size(), 1u);
  EXPECT_NE(ReadFile(today + live[0]).find("private"), std::string::npos);
  if (acl.compare(0, 3, "D:P") != 0) {
    GTEST_SKIP() << "the file system does not keep the access list given (Wine derives it from "
                    "the POSIX mode bits): "
                 << acl
                 << "; the descriptor itself is checked by "
                    "PrivateDirectoriesAreMadeForTheUserSystemAndAdministratorsOnly";
  }
  // Protected (nothing inherited from the folder above), and full control
  // for exactly the three, inherited by what is made inside.
  EXPECT_EQ(acl.compare(0, 3, "D:P"), 0) << acl;
  EXPECT_NE(acl.find("(A;OICI;FA;;;" + user + ")"), std::string::npos) << acl;
  EXPECT_NE(acl.find("(A;OICI;FA;;;SY)"), std::string::npos) << acl;
  EXPECT_NE(acl.find("(A;OICI;FA;;;BA)"), std::string::npos) << acl;
  EXPECT_EQ(zel_test::CountOccurrences(acl, "(A;"), 3) << acl;
}

TEST(PlatformWinTest, RetentionLeavesAFileThatAnotherHandleHolds) {
  TempDir dir;
  zel::platform::DirHandle handle = zel::platform::kNoFile;
  ASSERT_EQ(zel::platform::openBaseDirectory(dir.path().c_str(), &handle),
            zel::platform::DirCheck::kOk);
  const std::string path = dir.path() + "zel.log.other.120000.txt";
  zel_test::WriteFile(path, "another process's live file\n");
  // Held as the log holds its live file: others may read, write, rename
  // and delete it.
  const HANDLE live = CreateFileA(path.c_str(), FILE_APPEND_DATA,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(live, INVALID_HANDLE_VALUE);
  EXPECT_EQ(zel::platform::removeUnheldFileAt(handle, "zel.log.other.120000.txt"), 1);
  EXPECT_TRUE(FileExists(path));
  CloseHandle(live);
  EXPECT_EQ(zel::platform::removeUnheldFileAt(handle, "zel.log.other.120000.txt"), 0);
  EXPECT_FALSE(FileExists(path));
  zel::platform::closeDirectory(handle);
}

}  // namespace
