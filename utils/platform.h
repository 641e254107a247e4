// The operating-system layer of zel_utils, and the pure text rules built on it.
//
// Internal: this header is not installed. It includes no operating-system
// header; utils/platform_posix.cpp and utils/platform_win.cpp implement the
// declarations below and CMake compiles exactly one of them. Everything else
// in the library reaches the operating system only through these functions.
//
// The second half holds the pure rules (cutting a path, the log prefix, the
// date and time texts) as inline functions of their inputs. The library and
// its tests share them, so that the Windows examples run on any machine.
#ifndef ZEL_UTILS_PLATFORM_H_
#define ZEL_UTILS_PLATFORM_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

namespace zel {
namespace platform {

// The separator that the process-path rules cut at: '\' on Windows, '/'
// elsewhere.
extern const char kPathSeparator;

// The log base used when the client set none: "c:\Windows\temp\zel\" on
// Windows, "/tmp/zel/" elsewhere.
extern const char* const kDefaultLogBase;

// Milliseconds since 1970-01-01 UTC on the system (wall) clock, truncated.
int64_t wallClockMs();

// Nanoseconds of a monotonic clock with an arbitrary origin.
int64_t monotonicNs();

// The operating-system id of the calling thread (not std::thread::id).
uint64_t currentThreadId();

// Converts `t` (seconds since 1970) to local time in `out`. Thread-safe.
// Returns false, leaving `out` zeroed, when the conversion fails.
bool localTime(std::time_t t, std::tm* out);

// Creates one directory level, as _mkdir does. Returns 0 or -1.
int makeDir(const char* path);

// True when something exists at `path` (_access with mode 0).
bool pathExists(const char* path);

// File-status tests; a failed query is a negative answer.
bool isDirectory(const char* path);
bool isRegularFile(const char* path);

// Writes the full path of the process's main executable into `buf`, at most
// `size` - 1 characters and a terminating NUL, as GetModuleFileNameA does
// (a longer path is cut). Writes nothing when the path cannot be had.
// `size` must be at least 1.
void executablePath(char* buf, std::size_t size);

// Reads the environment variable `name` into `value`. Returns false, leaving
// `value` untouched, when the variable is not set; a variable set to the
// empty text gives true and an empty `value`.
bool getEnv(const char* name, std::string* value);

// Renames the file `from` to `to`, replacing an existing file `to` on every
// platform (rename on POSIX; MoveFileExA with MOVEFILE_REPLACE_EXISTING on
// Windows, whose runtime rename refuses an existing destination). Returns 0
// on success, -1 on failure, when `from` is left where it was.
int replaceFile(const char* from, const char* to);

// True while the process is ending and the operating system has already
// ended its other threads: on Windows, during the DLL detach of process exit
// (ExitProcess, or a return from main), when the static destructors of DLLs
// run. A wait for another thread of the library (the log writer, a worker)
// would then never end. Always false on POSIX, where exit() leaves the other
// threads running while static destructors run.
bool processExiting();

// ---------------------------------------------------------------------------
// Pure rules.

// The tail of a source path from its last '/' or '\' on, the separator
// included ("/looper.cpp"); the whole path when it has none. Usable on
// __FILE__ at compile time.
constexpr const char* fileTail(const char* path) {
  const char* tail = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/' || *p == '\\') tail = p;
  }
  return tail;
}

// The directory part of an executable path: everything up to and including
// the last `sep` found at position 1 or later; the first character alone when
// there is none; empty for an empty path.
inline std::string cutDirectory(const char* path, char sep) {
  const std::size_t len = std::strlen(path);
  if (len == 0) return std::string();
  for (std::size_t i = len; i >= 1; --i) {
    if (path[i] == sep) return std::string(path, i + 1);
  }
  return std::string(path, 1);
}

// The file name of an executable path: the text after its last `sep`, or the
// whole path when there is none. The extension is kept.
inline std::string cutFileName(const char* path, char sep) {
  const char* last = std::strrchr(path, sep);
  return std::string(last != nullptr ? last + 1 : path);
}

// Writes the log line prefix "[M-D hh:mm:ss.mmm][tid:T] " for local time
// `tm`, milliseconds `ms` (0-999) and thread id text `tid` into `buf`
// (bounded, always terminated). Month and day are not zero-padded and the
// year is not printed. Returns the prefix length, or a negative value on a
// formatting error.
inline int formatLogPrefix(char* buf, std::size_t size, const std::tm& tm, long ms,
                           const char* tid) {
  return std::snprintf(buf, size, "[%d-%d %02d:%02d:%02d.%03ld][tid:%s] ", tm.tm_mon + 1,
                       tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms, tid);
}

// Writes the date directory "YYYYMMDD/" of `tm` into `buf` (bounded).
inline void formatDateDir(char* buf, std::size_t size, const std::tm& tm) {
  std::snprintf(buf, size, "%04d%02d%02d/", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
}

// Writes the start time "hhmmss" of `tm` into `buf` (bounded).
inline void formatStartTime(char* buf, std::size_t size, const std::tm& tm) {
  std::snprintf(buf, size, "%02d%02d%02d", tm.tm_hour, tm.tm_min, tm.tm_sec);
}

// Writes the per-user log directory below `appData` into `buf` (bounded,
// always terminated): `appData`, "ostrel" and "log", each followed by `sep`.
// For example D:\x with the separator '\' gives D:\x\ostrel\log\ (the last
// separator included). Returns the length the full text would have, or a
// negative value on a formatting error.
inline int formatAppDataPath(char* buf, std::size_t size, const char* appData, char sep) {
  return std::snprintf(buf, size, "%s%c%s%c%s%c", appData, sep, "ostrel", sep, "log", sep);
}

}  // namespace platform
}  // namespace zel

#endif  // ZEL_UTILS_PLATFORM_H_
