// Windows side of the operating-system layer.
#include <direct.h>
#include <io.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <windows.h>

#include <cstdlib>
#include <cstring>

#include "utils/platform.h"

namespace zel {
namespace platform {

const char kPathSeparator = '\\';
const char* const kDefaultLogBase = "c:\\Windows\\temp\\zel\\";

namespace win {

using FileTimeFunction = void(WINAPI*)(LPFILETIME);

// The clock that wallClockMs() reads: GetSystemTimePreciseAsFileTime (Windows
// 8 and later, under a microsecond) when kernel32 has it, otherwise
// GetSystemTimeAsFileTime, which moves only with the 1 to 16 ms tick.
// Looked up once.
FileTimeFunction wallClockSource() {
  static const FileTimeFunction source = [] {
    const HMODULE kernel = GetModuleHandleA("kernel32.dll");
    FARPROC precise =
        kernel != nullptr ? GetProcAddress(kernel, "GetSystemTimePreciseAsFileTime") : nullptr;
    if (precise == nullptr) return &GetSystemTimeAsFileTime;
    FileTimeFunction function;
    static_assert(sizeof(function) == sizeof(precise), "function pointer sizes");
    std::memcpy(&function, &precise, sizeof(function));
    return function;
  }();
  return source;
}

}  // namespace win

int64_t wallClockMs() {
  // FILETIME counts 100-nanosecond ticks since 1601-01-01 UTC.
  constexpr int64_t kTicksFrom1601To1970 = 116444736000000000LL;
  FILETIME ft;
  win::wallClockSource()(&ft);
  const int64_t ticks = (static_cast<int64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  return (ticks - kTicksFrom1601To1970) / 10000;
}

bool processExiting() {
  // ntdll's RtlDllShutdownInProgress is true from the moment ExitProcess has
  // ended the other threads and the DLLs are being detached.
  using ShutdownQuery = BOOLEAN(WINAPI*)();
  static const ShutdownQuery query = [] {
    const HMODULE ntdll = GetModuleHandleA("ntdll.dll");
    FARPROC address =
        ntdll != nullptr ? GetProcAddress(ntdll, "RtlDllShutdownInProgress") : nullptr;
    ShutdownQuery function = nullptr;
    if (address != nullptr) std::memcpy(&function, &address, sizeof(function));
    return function;
  }();
  return query != nullptr && query() != FALSE;
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
  // A reader that holds `to` open (the runtime's fopen shares no delete
  // access) makes the replacement fail with a sharing violation while it
  // reads. Readers of a configuration file hold it briefly, so the move is
  // tried again, for about two seconds at most, before it counts as failed.
  constexpr int kAttempts = 200;
  constexpr DWORD kPauseMs = 10;
  for (int attempt = 1;; ++attempt) {
    if (MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING) != 0) return 0;
    const DWORD error = GetLastError();
    const bool held = error == ERROR_SHARING_VIOLATION || error == ERROR_ACCESS_DENIED ||
                      error == ERROR_LOCK_VIOLATION;
    if (!held || attempt == kAttempts) return -1;
    Sleep(kPauseMs);
  }
}

}  // namespace platform
}  // namespace zel
