// POSIX (Linux) side of the operating-system layer.
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "utils/platform.h"

namespace zel {
namespace platform {

const char kPathSeparator = '/';
const char* const kDefaultLogBase = "/tmp/zel/";

int64_t wallClockMs() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool processExiting() { return false; }

int64_t monotonicNs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

uint64_t currentThreadId() { return static_cast<uint64_t>(syscall(SYS_gettid)); }

bool localTime(std::time_t t, std::tm* out) {
  if (localtime_r(&t, out) != nullptr) return true;
  *out = std::tm{};
  return false;
}

int makeDir(const char* path) { return mkdir(path, 0755) == 0 ? 0 : -1; }

bool pathExists(const char* path) { return access(path, F_OK) == 0; }

bool isDirectory(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool isRegularFile(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

void executablePath(char* buf, std::size_t size) {
  if (size == 0) return;
  // readlink neither terminates nor reports a cut; read into a larger buffer
  // so that a long path is cut to size - 1 characters like on Windows.
  char full[4096];
  const ssize_t n = readlink("/proc/self/exe", full, sizeof(full));
  if (n <= 0) return;
  const std::size_t len =
      static_cast<std::size_t>(n) < size - 1 ? static_cast<std::size_t>(n) : size - 1;
  std::memcpy(buf, full, len);
  buf[len] = '\0';
}

bool getEnv(const char* name, std::string* value) {
  const char* text = std::getenv(name);
  if (text == nullptr) return false;
  *value = text;
  return true;
}

int replaceFile(const char* from, const char* to) {
  // POSIX rename replaces an existing destination atomically.
  return std::rename(from, to) == 0 ? 0 : -1;
}

}  // namespace platform
}  // namespace zel
