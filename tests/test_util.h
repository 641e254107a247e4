// Helpers shared by the unit tests: a temporary directory, waiting for a
// condition with a deadline, reading files and capturing standard output.
#ifndef ZEL_TESTS_TEST_UTIL_H_
#define ZEL_TESTS_TEST_UTIL_H_

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "utils/logger.h"

namespace zel_test {

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
    const char* base = std::getenv("TMPDIR");
    std::string tmpl =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/zel_test_XXXXXX";
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

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

inline void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
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

// Sends everything written to standard output (file descriptor 1, by any
// thread) into a temporary file until Stop() or destruction.
class StdoutCapture {
 public:
  StdoutCapture() {
    std::fflush(stdout);
    saved_ = dup(1);
    std::string tmpl = dir_.path() + "stdout";
    const int fd = open(tmpl.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    file_ = tmpl;
    dup2(fd, 1);
    close(fd);
  }
  ~StdoutCapture() { Stop(); }
  StdoutCapture(const StdoutCapture&) = delete;
  StdoutCapture& operator=(const StdoutCapture&) = delete;

  // Restores standard output and returns what was captured.
  std::string Stop() {
    if (saved_ >= 0) {
      std::fflush(stdout);
      dup2(saved_, 1);
      close(saved_);
      saved_ = -1;
      text_ = ReadFile(file_);
    }
    return text_;
  }

  // What has been captured so far (standard output is flushed first).
  std::string Peek() const {
    std::fflush(stdout);
    return ReadFile(file_);
  }

 private:
  TempDir dir_;
  std::string file_;
  std::string text_;
  int saved_ = -1;
};

// Sends everything written to standard error (file descriptor 2, by any
// thread) into a temporary file until Stop() or destruction.
class StderrCapture {
 public:
  StderrCapture() {
    std::fflush(stderr);
    saved_ = dup(2);
    file_ = dir_.path() + "stderr";
    const int fd = open(file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, 2);
    close(fd);
  }
  ~StderrCapture() { Stop(); }
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // Restores standard error and returns what was captured.
  std::string Stop() {
    if (saved_ >= 0) {
      std::fflush(stderr);
      dup2(saved_, 2);
      close(saved_);
      saved_ = -1;
      text_ = ReadFile(file_);
    }
    return text_;
  }

 private:
  TempDir dir_;
  std::string file_;
  std::string text_;
  int saved_ = -1;
};

// The text of the live log file ("*.txt") in the log directory `dir`, or the
// empty text when there is none.
inline std::string ReadLiveLog(const std::string& dir) {
  std::string text;
  for (const std::string& name : ListDir(dir)) {
    if (name.size() > 4 && name.compare(name.size() - 4, 4, ".txt") == 0) {
      text += ReadFile(dir + name);
    }
  }
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

// Logs a marker line, waits until everything is written and returns the
// text of the live log file, prefixes removed. The marker proves that the
// log works, so a text of the marker alone means that nothing else was
// logged.
inline std::string LoggedText() {
  log_print(0, 0, "marker\n");
  zel_log_flush();
  return StripLogPrefixes(ReadLiveLog(zel::Logger::GetLogPath()));
}

}  // namespace zel_test

#endif  // ZEL_TESTS_TEST_UTIL_H_
