// Windows side of the operating-system layer.
#include <direct.h>
#include <io.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <windows.h>

#include <cstdlib>

#include "utils/platform.h"

namespace zel {
namespace platform {

const char kPathSeparator = '\\';
const char* const kDefaultLogBase = "c:\\Windows\\temp\\zel\\";

int64_t wallClockMs() {
  // FILETIME counts 100-nanosecond ticks since 1601-01-01 UTC.
  constexpr int64_t kTicksFrom1601To1970 = 116444736000000000LL;
  FILETIME ft;
  GetSystemTimeAsFileTime(&ft);
  const int64_t ticks = (static_cast<int64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  return (ticks - kTicksFrom1601To1970) / 10000;
}

int64_t monotonicNs() {
  static const int64_t frequency = [] {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return static_cast<int64_t>(f.QuadPart);
  }();
  LARGE_INTEGER counter;
  QueryPerformanceCounter(&counter);
  const int64_t c = static_cast<int64_t>(counter.QuadPart);
  // Split to keep c * 1e9 from overflowing.
  return (c / frequency) * 1000000000LL + (c % frequency) * 1000000000LL / frequency;
}

uint64_t currentThreadId() { return static_cast<uint64_t>(GetCurrentThreadId()); }

bool localTime(std::time_t t, std::tm* out) {
  if (localtime_s(out, &t) == 0) return true;
  *out = std::tm{};
  return false;
}

int makeDir(const char* path) { return _mkdir(path) == 0 ? 0 : -1; }

bool pathExists(const char* path) { return _access(path, 0) == 0; }

bool isDirectory(const char* path) {
  struct _stat st;
  return _stat(path, &st) == 0 && (st.st_mode & _S_IFMT) == _S_IFDIR;
}

bool isRegularFile(const char* path) {
  struct _stat st;
  return _stat(path, &st) == 0 && (st.st_mode & _S_IFMT) == _S_IFREG;
}

void executablePath(char* buf, std::size_t size) {
  if (size == 0) return;
  const DWORD n = GetModuleFileNameA(nullptr, buf, static_cast<DWORD>(size));
  // Windows XP leaves a cut path unterminated; later versions terminate it.
  buf[n < size ? n : size - 1] = '\0';
}

bool getEnv(const char* name, std::string* value) {
  // getenv: msvcrt.dll, the runtime MinGW-w64 links against, has no
  // _dupenv_s. The value is copied at once, before anything can change the
  // environment.
  const char* text = std::getenv(name);
  if (text == nullptr) return false;
  *value = text;
  return true;
}

int replaceFile(const char* from, const char* to) {
  return MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING) != 0 ? 0 : -1;
}

}  // namespace platform
}  // namespace zel
