// Windows side of the operating-system layer.
#include <direct.h>
#include <io.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "utils/platform.h"

namespace zel {
namespace platform {

const char kPathSeparator = '\\';
const char* const kDefaultLogBase = "c:\\Windows\\temp\\zel\\";

namespace {

// Added to every wall-clock reading; set by the test hook only.
std::atomic<int64_t> gWallClockOffsetMs{0};

}  // namespace

int64_t wallClockMs() {
  // FILETIME counts 100-nanosecond ticks since 1601-01-01 UTC.
  constexpr int64_t kTicksFrom1601To1970 = 116444736000000000LL;
  FILETIME ft;
  GetSystemTimeAsFileTime(&ft);
  const int64_t ticks = (static_cast<int64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  return (ticks - kTicksFrom1601To1970) / 10000 +
         gWallClockOffsetMs.load(std::memory_order_relaxed);
}

void setWallClockOffsetMs(int64_t offsetMs) {
  gWallClockOffsetMs.store(offsetMs, std::memory_order_relaxed);
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
  // Another process that holds the destination open without sharing it for
  // deletion (an editor, a virus scanner, a backup) makes the replace fail
  // for as long as it keeps it; such holds are usually short, so the
  // replace is retried for a while before it counts as failed.
  constexpr int kAttempts = 50;
  constexpr DWORD kPauseMs = 10;
  for (int attempt = 1;; ++attempt) {
    if (MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING) != 0) return 0;
    const DWORD error = GetLastError();
    const bool held = error == ERROR_SHARING_VIOLATION || error == ERROR_LOCK_VIOLATION ||
                      error == ERROR_ACCESS_DENIED;
    if (!held || attempt == kAttempts) return -1;
    Sleep(kPauseMs);
  }
}

std::FILE* fopenNoInherit(const char* path, const char* mode) {
  // "N" is the Windows runtime's flag for a handle that child processes do
  // not inherit.
  char flags[16];
  const int n = std::snprintf(flags, sizeof(flags), "%sN", mode);
  if (n < 0 || static_cast<std::size_t>(n) >= sizeof(flags)) return nullptr;
  return std::fopen(path, flags);
}

int syncFile(std::FILE* file) {
  if (std::fflush(file) != 0) return -1;
  return _commit(_fileno(file)) == 0 ? 0 : -1;
}

int copyPermissions(const char* /*model*/, std::FILE* /*file*/) {
  // The runtime's permission bits only model the read-only attribute, and a
  // read-only file cannot be replaced in the first place: nothing to copy.
  return 0;
}

FileHandle standardError() {
  const HANDLE handle = GetStdHandle(STD_ERROR_HANDLE);
  return handle == nullptr || handle == INVALID_HANDLE_VALUE ? kNoFile
                                                             : reinterpret_cast<FileHandle>(handle);
}

FileHandle openAppend(const char* path) {
  // FILE_APPEND_DATA alone: the system puts every write at the file's end.
  // The sharing of the runtime's fopen: others may read and write.
  const HANDLE handle = CreateFileA(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  return handle == INVALID_HANDLE_VALUE ? kNoFile : reinterpret_cast<FileHandle>(handle);
}

int closeFile(FileHandle file) { return CloseHandle(reinterpret_cast<HANDLE>(file)) != 0 ? 0 : -1; }

namespace {

// Writes `size` bytes at `data`, again after a partial write; adds what
// went out to `*done`. True when all were written.
bool writeWhole(HANDLE handle, const char* data, std::size_t size, std::size_t* done) {
  while (size > 0) {
    const DWORD chunk = size > 0x40000000 ? 0x40000000 : static_cast<DWORD>(size);
    DWORD n = 0;
    if (WriteFile(handle, data, chunk, &n, nullptr) == 0 || n == 0) return false;
    data += n;
    size -= n;
    *done += n;
  }
  return true;
}

}  // namespace

int64_t writeAll(FileHandle file, const WriteBuffer* buffers, std::size_t count,
                 std::size_t* written) {
  const auto handle = reinterpret_cast<HANDLE>(file);
  std::size_t total = 0;
  for (std::size_t i = 0; i < count; ++i) total += buffers[i].size;
  std::size_t done = 0;
  bool ok;
  if (count == 1) {
    ok = writeWhole(handle, static_cast<const char*>(buffers[0].data), total, &done);
  } else {
    // Join the pieces so that they reach the file in one WriteFile.
    std::string joined;
    joined.reserve(total);
    for (std::size_t i = 0; i < count; ++i) {
      joined.append(static_cast<const char*>(buffers[i].data), buffers[i].size);
    }
    ok = writeWhole(handle, joined.data(), joined.size(), &done);
  }
  if (ok) return static_cast<int64_t>(total);
  if (written != nullptr) *written = done;
  return -1;
}

int64_t fileSize(FileHandle file) {
  LARGE_INTEGER size;
  if (GetFileSizeEx(reinterpret_cast<HANDLE>(file), &size) == 0) return -1;
  return static_cast<int64_t>(size.QuadPart);
}

int64_t filePosition(FileHandle file) {
  LARGE_INTEGER zero;
  zero.QuadPart = 0;
  LARGE_INTEGER position;
  if (SetFilePointerEx(reinterpret_cast<HANDLE>(file), zero, &position, FILE_CURRENT) == 0) {
    return -1;
  }
  return static_cast<int64_t>(position.QuadPart);
}

bool regularFileSize(const char* path, int64_t* size) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (GetFileAttributesExA(path, GetFileExInfoStandard, &data) == 0) return false;
  if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return false;
  *size = (static_cast<int64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
  return true;
}

int renameFile(const char* from, const char* to) { return std::rename(from, to) == 0 ? 0 : -1; }

int removeFile(const char* path) { return std::remove(path) == 0 ? 0 : -1; }

}  // namespace platform
}  // namespace zel
