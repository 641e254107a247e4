// SPDX-License-Identifier: MIT

// Helpers shared by the unit tests: a temporary directory, waiting for a
// condition with a deadline, reading files and capturing standard output.
#ifndef ZEL_TESTS_SUPPORT_TEST_UTIL_H_
#define ZEL_TESTS_SUPPORT_TEST_UTIL_H_

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#if defined(ZEL_TEST_ON_WINDOWS)
#include <direct.h>
#include <io.h>
#include <windows.h>
#else
#include <sys/syscall.h>
#include <sys/wait.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "utils/logger.h"

#if defined(ZEL_TEST_ON_WINDOWS)
// The few POSIX calls the tests use that the Windows runtime lacks, built on
// its own equivalents. lstat looks through links (MakeSymbolicLink and
// IsReparsePoint below are the tests' way to links), and the environment
// knows no variable set to the empty text.
inline char* mkdtemp(char* tmpl) {
  if (_mktemp_s(tmpl, std::strlen(tmpl) + 1) != 0) return nullptr;
  return _mkdir(tmpl) == 0 ? tmpl : nullptr;
}
inline int lstat(const char* path, struct stat* st) { return stat(path, st); }
inline int mkdir(const char* path, int /*mode*/) { return _mkdir(path); }
inline std::tm* localtime_r(const std::time_t* t, std::tm* out) {
  return localtime_s(out, t) == 0 ? out : nullptr;
}
inline int setenv(const char* name, const char* value, int overwrite) {
  if (overwrite == 0 && std::getenv(name) != nullptr) return 0;
  return _putenv_s(name, value) == 0 ? 0 : -1;
}
inline int unsetenv(const char* name) { return _putenv_s(name, "") == 0 ? 0 : -1; }
#endif

namespace zel_test {

// The operating-system id of the calling thread, as the log prefix shows it.
inline long long OsThreadId() {
#if defined(ZEL_TEST_ON_WINDOWS)
  return static_cast<long long>(GetCurrentThreadId());
#else
  return static_cast<long long>(syscall(SYS_gettid));
#endif
}

// The directory for temporary files: $TMPDIR, else (on Windows) %TEMP%,
// else /tmp. On Windows its '\' separators are given as '/', which Windows
// accepts as well: the log directory rules print every separator of a path
// they create as '/', and the expected texts are built from this path.
inline std::string TempBase() {
  const char* base = std::getenv("TMPDIR");
#if defined(ZEL_TEST_ON_WINDOWS)
  if (base == nullptr || *base == '\0') base = std::getenv("TEMP");
  std::string path = base != nullptr && *base != '\0' ? base : "C:/Windows/Temp";
  std::replace(path.begin(), path.end(), '\\', '/');
  return path;
#else
  return base != nullptr && *base != '\0' ? base : "/tmp";
#endif
}

// The names in directory `path` (without "." and ".."), sorted.
inline std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return names;
  while (dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

// A fresh directory under $TMPDIR (or /tmp), removed with its contents when
// the object goes out of scope. path() ends in '/'.
class TempDir {
 public:
  TempDir() {
    std::string tmpl = TempBase() + "/zel_test_XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) != nullptr) path_ = std::string(buf.data()) + "/";
  }
  ~TempDir() {
    if (!path_.empty()) RemoveTree(path_);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }

  // Removes `path` and everything below it; restores write permission on
  // the way so that read-only directories go too.
  static void RemoveTree(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return;
    if (S_ISDIR(st.st_mode)) {
      chmod(path.c_str(), 0755);
      for (const std::string& name : ListDir(path)) RemoveTree(path + "/" + name);
      rmdir(path.c_str());
    } else {
      unlink(path.c_str());
    }
  }

 private:
  std::string path_;
};

// Polls `condition` until it holds or `timeout` has passed; returns whether
// it held. For results produced on another thread.
inline bool WaitFor(const std::function<bool()>& condition,
                    std::chrono::milliseconds timeout = std::chrono::milliseconds(10000)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

inline bool FileExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

inline bool IsDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

#if defined(ZEL_TEST_ON_WINDOWS)
// True when `path` is a reparse point (a symbolic link or a junction).
inline bool IsReparsePoint(const std::string& path) {
  const DWORD attributes = GetFileAttributesA(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

// Wine's own function for the host path of a Windows path; null elsewhere.
inline std::string HostPath(const std::string& path) {
  using Convert = char*(CDECL*)(const wchar_t*);
  const auto convert = reinterpret_cast<Convert>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleA("kernel32"), "wine_get_unix_file_name")));
  if (convert == nullptr) return std::string();
  const std::wstring wide(path.begin(), path.end());
  char* host = convert(wide.c_str());
  if (host == nullptr) return std::string();
  std::string result = host;
  HeapFree(GetProcessHeap(), 0, host);
  return result;
}
#endif

// Makes `link` a symbolic link to `target` (a directory when `directory`);
// true when `link` then is one. On Windows CreateSymbolicLinkA needs the
// privilege or developer mode; Wine makes links there that its own file
// system does not resolve, so under Wine the host's ln makes a host link,
// which Wine shows as a reparse point (Wine starts host programs too) when
// it is a link to a directory.
inline bool MakeSymbolicLink(const std::string& target, const std::string& link, bool directory) {
#if defined(ZEL_TEST_ON_WINDOWS)
  constexpr DWORD kUnprivileged = 0x2;  // SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE
  std::string winTarget = target;
  std::string winLink = link;
  while (winLink.size() > 1 && (winLink.back() == '/' || winLink.back() == '\\'))
    winLink.pop_back();
  while (winTarget.size() > 1 && (winTarget.back() == '/' || winTarget.back() == '\\')) {
    winTarget.pop_back();
  }
  std::replace(winTarget.begin(), winTarget.end(), '/', '\\');
  std::replace(winLink.begin(), winLink.end(), '/', '\\');
  if (CreateSymbolicLinkA(winLink.c_str(), winTarget.c_str(),
                          (directory ? SYMBOLIC_LINK_FLAG_DIRECTORY : 0) | kUnprivileged) != 0) {
    if (IsReparsePoint(winLink)) return true;
    if (directory) {
      RemoveDirectoryA(winLink.c_str());
    } else {
      DeleteFileA(winLink.c_str());
    }
  }
  // Under Wine: the host path of the link's directory (the link itself does
  // not exist yet), and of the target. Wine (8.0) shows a host link to a
  // directory as a reparse point but a host link to a file as a plain file:
  // no file link can be made that it shows as one.
  if (!directory) return false;
  const std::size_t cut = winLink.find_last_of('\\');
  if (cut == std::string::npos) return false;
  const std::string hostDir = HostPath(winLink.substr(0, cut));
  const std::string hostTarget = HostPath(winTarget);
  if (hostDir.empty() || hostTarget.empty()) return false;
  const std::string hostLink = hostDir + "/" + winLink.substr(cut + 1);
  std::string command = "Z:\\bin\\ln -s \"" + hostTarget + "\" \"" + hostLink + "\"";
  STARTUPINFOA startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION child{};
  if (CreateProcessA(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                     &child) == 0) {
    return false;
  }
  CloseHandle(child.hThread);
  CloseHandle(child.hProcess);
  // The host program's end is not reported through its handle: wait for
  // the link to be there.
  return WaitFor([&winLink] { return IsReparsePoint(winLink); });
#else
  (void)directory;
  return symlink(target.c_str(), link.c_str()) == 0;
#endif
}

// The text of the file `path`. On Windows the file is read in text mode, as
// the library writes its files (fopen "a"/"w"): the "\r\n" line ends on disk
// read back as "\n", so the same expected texts hold on every platform.
inline std::string ReadFile(const std::string& path) {
#if defined(ZEL_TEST_ON_WINDOWS)
  std::ifstream in(path);
#else
  std::ifstream in(path, std::ios::binary);
#endif
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

inline void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

// A gate that threads wait at while it is closed.
class Latch {
 public:
  explicit Latch(bool open = false) : open_(open) {}
  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    cond_.wait(lock, [this] { return open_; });
  }
  void Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    cond_.notify_all();
  }
  void Close() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = false;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  bool open_;
};

// Runs `body(t)` on `count` threads, t from 0 to count - 1, started
// together: each waits until all have started, so that their calls
// overlap. Returns when all have ended.
inline void RunTogether(int count, const std::function<void(int)>& body) {
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  threads.reserve(static_cast<std::size_t>(count));
  for (int t = 0; t < count; ++t) {
    threads.emplace_back([&, t] {
      ready.fetch_add(1);
      while (ready.load() < count) std::this_thread::yield();
      body(t);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// The paths of the files below `dir`, depth first in name order, links not
// followed (a link counts as a file); with `regularOnly`, only the regular
// files.
inline std::vector<std::string> FilesBelow(const std::string& dir, bool regularOnly = false) {
  std::vector<std::string> files;
  for (const std::string& name : ListDir(dir)) {
    struct stat st;
    const std::string path = dir + "/" + name;
    if (lstat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      const std::vector<std::string> below = FilesBelow(path, regularOnly);
      files.insert(files.end(), below.begin(), below.end());
    } else if (!regularOnly || S_ISREG(st.st_mode)) {
      files.push_back(path);
    }
  }
  return files;
}

// How many files are below `dir` (links not followed, so a link counts).
inline int CountFiles(const std::string& dir) { return static_cast<int>(FilesBelow(dir).size()); }

// The text of every regular file below `dir`, joined.
inline std::string AllText(const std::string& dir) {
  std::string text;
  for (const std::string& path : FilesBelow(dir, true)) text += ReadFile(path);
  return text;
}

// Splits `text` after each '\n'; a last line without one is kept as it is.
inline std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size() - 1;
    lines.push_back(text.substr(start, end - start + 1));
    start = end + 1;
  }
  return lines;
}

// Counts the non-overlapping occurrences of `needle` in `haystack`.
inline int CountOccurrences(const std::string& haystack, const std::string& needle) {
  int count = 0;
  for (std::size_t pos = haystack.find(needle); pos != std::string::npos;
       pos = haystack.find(needle, pos + needle.size())) {
    ++count;
  }
  return count;
}

// The captures take the bytes exactly as the program wrote them: on
// Windows the capture file is opened in binary mode, so that the stream
// redirected into it does not turn "\n" into "\r\n".
#if defined(ZEL_TEST_ON_WINDOWS)
constexpr int kCaptureBinary = O_BINARY;
#else
constexpr int kCaptureBinary = 0;
#endif

// Sends everything written to one standard stream (its file descriptor, by
// any thread) into a temporary file until Stop() or destruction.
class StreamCapture {
 public:
  StreamCapture(const StreamCapture&) = delete;
  StreamCapture& operator=(const StreamCapture&) = delete;
  ~StreamCapture() { Stop(); }

  // Restores the stream and returns what was captured.
  std::string Stop() {
    if (saved_ >= 0) {
      std::fflush(stream_);
      dup2(saved_, fd_);
      close(saved_);
      saved_ = -1;
      text_ = ReadFile(file_);
    }
    return text_;
  }

  // What has been captured so far (the stream is flushed first).
  std::string Peek() const {
    std::fflush(stream_);
    return ReadFile(file_);
  }

 protected:
  // Captures descriptor `fd`, which `stream` writes to, into a file `name`.
  StreamCapture(int fd, std::FILE* stream, const char* name) : fd_(fd), stream_(stream) {
    std::fflush(stream_);
    saved_ = dup(fd_);
    file_ = dir_.path() + name;
    const int out = open(file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | kCaptureBinary, 0644);
    dup2(out, fd_);
    close(out);
  }

 private:
  TempDir dir_;
  int fd_;
  std::FILE* stream_;
  std::string file_;
  std::string text_;
  int saved_ = -1;
};

// Captures standard output (file descriptor 1).
class StdoutCapture : public StreamCapture {
 public:
  StdoutCapture() : StreamCapture(1, stdout, "stdout") {}
};

// Captures standard error (file descriptor 2).
class StderrCapture : public StreamCapture {
 public:
  StderrCapture() : StreamCapture(2, stderr, "stderr") {}
};

// The name "YYYYMMDD" of the log's day directory for the local date
// `daysAgo` days before today.
inline std::string DayName(int daysAgo = 0) {
  const std::time_t t = std::time(nullptr) - static_cast<std::time_t>(daysAgo) * 86400;
  std::tm tm{};
  localtime_r(&t, &tm);
  char buf[48];
  std::snprintf(buf, sizeof(buf), "%04d%02d%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
  return buf;
}

// Today's day directory, "YYYYMMDD/".
inline std::string TodayDir() { return DayName(0) + "/"; }

// The paths of the live log files ("*.txt") in the log directory `dir`
// (ending in '/'), sorted.
inline std::vector<std::string> LiveFiles(const std::string& dir) {
  std::vector<std::string> live;
  for (const std::string& name : ListDir(dir)) {
    if (name.size() > 4 && name.compare(name.size() - 4, 4, ".txt") == 0)
      live.push_back(dir + name);
  }
  return live;
}

// The path of the live file in the log directory `dir`, or the empty text
// when there is none.
inline std::string LivePath(const std::string& dir) {
  const std::vector<std::string> live = LiveFiles(dir);
  return live.empty() ? std::string() : live.front();
}

// The live file of the first day directory below the log base `base` that
// holds one, or the empty text when none does.
inline std::string LiveFileBelow(const std::string& base) {
  for (const std::string& day : ListDir(base)) {
    const std::string live = LivePath(base + day + "/");
    if (!live.empty()) return live;
  }
  return std::string();
}

// The text of the live log file ("*.txt") in the log directory `dir`, or the
// empty text when there is none.
inline std::string ReadLiveLog(const std::string& dir) {
  std::string text;
  for (const std::string& path : LiveFiles(dir)) text += ReadFile(path);
  return text;
}

// `text` without the "[M-D hh:mm:ss.mmm][tid:N] " prefixes of its log lines.
inline std::string StripLogPrefixes(const std::string& text) {
  static const std::regex prefix(R"(\[\d+-\d+ \d\d:\d\d:\d\d\.\d\d\d\]\[tid:\d+\] )");
  return std::regex_replace(text, prefix, "");
}

// A log backend that keeps every line handed to it. Register it with
// zel::Logger::RegisterBackend() and keep it alive until the process ends.
class LineRecorder : public zel::LogBackend {
 public:
  void Log(const std::string& line) override {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(line);
  }
  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// Starts the Logger below `base` with every level written, logs `text` at
// `level` and waits until it is written.
inline void StartLogBelow(const std::string& base, int level, const char* text) {
  zel_set_log_level(-1);
  zel_set_log_path(base.c_str());
  log_print(level, 0, "%s", text);
  zel_log_flush();
}

// Logs a marker line, waits until everything is written and returns the
// text of the live log file, prefixes removed. The marker proves that the
// log works, so a text of the marker alone means that nothing else was
// logged.
inline std::string LoggedText() {
  log_print(0, 0, "marker\n");
  zel_log_flush();
  return StripLogPrefixes(ReadLiveLog(zel::Logger::GetLogPath()));
}

#if !defined(ZEL_TEST_ON_WINDOWS)
// The environment variable that hands a child run of a test its log base.
constexpr char kChildBaseVariable[] = "ZEL_TEST_CHILD_BASE";

// Runs this test executable again with only `test` selected, under faketime
// starting at `start` (local time in UTC), with the child's log base in
// kChildBaseVariable. Returns the child's exit status; 127 when faketime
// could not be run (the faketime package is missing).
inline int RunSelfUnderFaketime(const std::string& start, const std::string& test,
                                const std::string& base) {
  char self[4096] = {0};
  if (readlink("/proc/self/exe", self, sizeof(self) - 1) <= 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    setenv(kChildBaseVariable, base.c_str(), 1);
    setenv("TZ", "UTC", 1);
    // The wall clock is moved; waits on the monotonic clock stay real.
    setenv("FAKETIME_DONT_FAKE_MONOTONIC", "1", 1);
    // The preloaded faketime library comes before the sanitizer runtimes.
    const char* asan = std::getenv("ASAN_OPTIONS");
    const std::string asanOptions =
        std::string(asan != nullptr ? asan : "") + ":verify_asan_link_order=0";
    setenv("ASAN_OPTIONS", asanOptions.c_str(), 1);
    const std::string filter = "--gtest_filter=" + test;
    execlp("faketime", "faketime", "-f", ("@" + start).c_str(), self, filter.c_str(),
           static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
#endif

}  // namespace zel_test

#endif  // ZEL_TESTS_SUPPORT_TEST_UTIL_H_
