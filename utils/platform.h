// SPDX-License-Identifier: MIT

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
#include <vector>

#include "utils/export.h"

namespace zel {
namespace platform {

// The separator that the process-path rules cut at: '\' on Windows, '/'
// elsewhere.
extern const char kPathSeparator;

// The log base used when the client set none: "c:\Windows\temp\zel\" on
// Windows, "/tmp/zel/" elsewhere.
extern const char* const kDefaultLogBase;

// The log base in use when the client set none: kDefaultLogBase, unless the
// test hook zel_test_hook_set_default_log_base() has put another in its
// place. Threads: any thread.
std::string defaultLogBase();

// Puts `base` in place of kDefaultLogBase for defaultLogBase(); an empty
// `base` restores it. Only the test hook calls it. Threads: any thread.
void setDefaultLogBase(const std::string& base);

// Milliseconds since 1970-01-01 UTC on the system (wall) clock, truncated,
// plus the offset that the test hook below sets (0 unless a test set one).
int64_t wallClockMs();

// Sets the offset, in ms, that wallClockMs() adds to every later reading of
// the system clock; negative moves the clock back. Only the test hook
// zel_test_hook_set_wall_clock_offset_ms() calls it. Threads: any thread.
void setWallClockOffsetMs(int64_t offsetMs);

// Nanoseconds of a monotonic clock with an arbitrary origin.
int64_t monotonicNs();

// The operating-system id of the calling thread (not std::thread::id).
uint64_t currentThreadId();

// Converts `t` (seconds since 1970) to local time in `out`. Thread-safe.
// Returns false, leaving `out` zeroed, when the conversion fails.
bool localTime(std::time_t t, std::tm* out);

// Creates one directory level, as _mkdir does; on POSIX with mode 0700
// (only the user may read the log). Returns 0 or -1.
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
// empty text gives true and an empty `value`. On POSIX a process that runs
// with more privileges than its caller (set-user-ID, set-group-ID or file
// capabilities: the kernel's AT_SECURE) reads no variable at all: every name
// gives false, so that the caller's environment steers nothing in it.
bool getEnv(const char* name, std::string* value);

// Renames the file `from` to `to`, replacing an existing file `to` on every
// platform (rename on POSIX; MoveFileExA with MOVEFILE_REPLACE_EXISTING on
// Windows, whose runtime rename refuses an existing destination). On Windows
// a destination that another process holds open (a sharing violation) is
// retried for up to about two seconds. Returns 0 on success, -1 on
// failure, when `from` is left where it was.
int replaceFile(const char* from, const char* to);

// Opens `path` as std::fopen does with `mode` ("r", "w", "a", each with an
// optional "+" and "b"), but so that child processes do not inherit the
// descriptor or handle (close-on-exec on POSIX, a non-inheritable handle on
// Windows). On Windows others may read, write, rename, delete and replace
// the file while it is open, as on POSIX. Returns null on failure (errno
// set).
// Ownership: the caller closes the stream with std::fclose.
std::FILE* fopenNoInherit(const char* path, const char* mode);

// Writes what `file` buffers and asks the operating system to put the
// file's data on the disk (fflush, then fsync or _commit). Returns 0, or -1
// when either step fails.
int syncFile(std::FILE* file);

// Gives `file` (open for writing) the permission bits of the file at
// `model` and, where the process may, its owner and group (a process of
// another user than root keeps its own user, and gets the group only where
// it is a member). Returns 0, also where there are no permission bits to
// give (Windows); -1 when `model` cannot be queried or the bits cannot be
// set. An owner or group that cannot be given is not an error.
int copyPermissions(const char* model, std::FILE* file);

// Opens the scratch copy at `path` that a writer fills before renaming it
// over the file it replaces, so that nothing another user placed at `path`
// is written through: the copy is created with mode 0600 (only the user may
// read it while it is written) when missing, a symbolic link at `path` (a
// reparse point on Windows) is never followed, and what is there is used
// only when it is a regular file of the process's effective user (on POSIX)
// with one link; only then is an old copy emptied. Returns a stream as
// fopenNoInherit(path, "w") gives (text mode on Windows, not inherited), or
// null, with nothing written to anything and nothing removed, when the copy
// cannot be opened or is refused.
// Ownership: the caller closes the stream with std::fclose.
std::FILE* openPrivateCopy(const char* path);

// How readRegularFile() ended.
enum class ReadResult {
  kOk,          // the bytes are in `*data`
  kCannotOpen,  // missing, unreadable, or the open failed
  kNotRegular,  // a FIFO, a device, a directory, a socket...
  kTooLarge,    // more than `maxSize` bytes
  kReadError,   // a read failed
};

// Reads the whole file at `path` into `*data` (replacing its content) when
// it is a regular file of at most `maxSize` bytes. The open never blocks (a
// FIFO with no writer is opened without waiting, then refused), the
// descriptor is not inherited, and the bytes read are bounded by `maxSize`
// + 1 also when the file grows while it is read.
ReadResult readRegularFile(const char* path, std::size_t maxSize, std::string* data);
// An open file of the operating system: a descriptor on POSIX, a HANDLE on
// Windows, held as an integer so that callers include no system header.
using FileHandle = std::intptr_t;

// The FileHandle of no file.
constexpr FileHandle kNoFile = -1;

// The handle of the process's standard error.
FileHandle standardError();

// Opens the file at `path` for appending, creating it when missing (as
// fopen's mode "a" does): every write lands at the file's end, also after
// another process has written to it. The log file writer's only way to open
// a file. The handle is not inherited by child processes; a symbolic link
// (a reparse point on Windows) at `path` is refused; on Windows others may
// read, write, rename and delete the file while it is open. Returns kNoFile
// on failure.
FileHandle openAppend(const char* path);

// Closes `file` (not kNoFile). Returns 0, or -1 when the system reports an
// error; the handle is gone in both cases.
int closeFile(FileHandle file);

// One piece of a gathered write.
struct WriteBuffer {
  const void* data;
  std::size_t size;
};

// Writes the `count` pieces of `buffers` to `file` in order, with as few
// system calls as the platform allows (writev on POSIX; one WriteFile of the
// joined pieces on Windows), writing the rest again after a partial write.
// On Windows each '\n' is written as "\r\n", as the C runtime writes a text
// file, so log files keep the line ends they always had there. Returns the
// number of bytes that reached the file (the sum of writtenLength() of the
// pieces), or -1 when a write failed; then `*written` (when not null) holds
// how many bytes reached the file before the failure.
int64_t writeAll(FileHandle file, const WriteBuffer* buffers, std::size_t count,
                 std::size_t* written = nullptr);

// The number of bytes that the `size` bytes at `text` take in a file written
// by writeAll(): `size` on POSIX; on Windows one more for each '\n'.
std::size_t writtenLength(const char* text, std::size_t size);

// The identity of an open file: its device and inode on POSIX, its volume
// serial number and file index on Windows. Two handles with the same
// identity reach the same file.
struct FileId {
  uint64_t device = 0;
  uint64_t node = 0;
  bool operator==(const FileId& other) const {
    return device == other.device && node == other.node;
  }
  bool operator!=(const FileId& other) const { return !(*this == other); }
};

// Fills `*id` with the identity of the open `file`. Returns false when it
// cannot be had (a handle that is no longer open). Safe in a signal handler.
bool fileIdentity(FileHandle file, FileId* id);

// The id of the calling process.
int64_t processId();

// Registers `prepare`, `parent` and `child` to run around every fork() of
// the process, as pthread_atfork does: `prepare` in the forking thread
// before the fork, `parent` in it after, `child` in the child's only
// thread. Windows has no fork: nothing is registered there. Returns false
// when they could not be registered.
bool registerForkHandlers(void (*prepare)(), void (*parent)(), void (*child)());

// Sleeps about `ms` milliseconds. Safe in a signal handler.
void pauseMs(int64_t ms);

// The size in bytes of the open `file`, or -1 when it cannot be had.
int64_t fileSize(FileHandle file);

// The position of the open `file` (as ftell gives it), or -1 when it cannot
// be had. For a file opened by openAppend() it is the end of the file as it
// stood after this handle's last write: a write from outside or a
// truncation shows only once this handle has written behind it.
int64_t filePosition(FileHandle file);

// One file-status query of `path`: true, with its size in `*size`, when a
// regular file is there (links followed); false otherwise.
bool regularFileSize(const char* path, int64_t* size);

// Renames the file `from` to `to`, as the C runtime's rename does (on
// Windows an existing `to` makes it fail). Returns 0 or -1.
int renameFile(const char* from, const char* to);

// Deletes the file at `path`. Returns 0 or -1.
int removeFile(const char* path);

// ---------------------------------------------------------------------------
// Safe log directories and files, retention, and the crash drain.

// The result of checking a log directory before files are written into it.
enum class DirCheck {
  kOk,             // usable
  kMissing,        // nothing there
  kNotDirectory,   // something else than a directory
  kLink,           // a symbolic link (or a reparse point on Windows)
  kForeignOwner,   // owned by another user (and not by the administrator)
  kWorldWritable,  // writable by other users without the sticky bit
  kForeignLink,    // a link owned by another user (and not by the administrator)
};

// Checks the directory at `path` for the log. With `followLink` a link to a
// directory is followed and the directory it names is checked (a base the
// user gave); without it a link is refused (kLink). A directory is refused
// when it is owned by neither the process's user nor the administrator
// (root), or when other users may write into it without the sticky bit.
// On Windows only the link (reparse point) test applies.
DirCheck checkDirectory(const char* path, bool followLink);

// A short English text for `check`, for the refusal report.
inline const char* dirCheckText(DirCheck check) {
  switch (check) {
    case DirCheck::kOk:
      return "usable";
    case DirCheck::kMissing:
      return "it does not exist";
    case DirCheck::kNotDirectory:
      return "it is not a directory";
    case DirCheck::kLink:
      return "it is a link";
    case DirCheck::kForeignOwner:
      return "it is owned by another user";
    case DirCheck::kWorldWritable:
      return "other users may write into it";
    case DirCheck::kForeignLink:
      return "it is a link owned by another user";
  }
  return "unknown";
}

// One entry of a directory, as listDirectory() gives it (links not followed).
struct DirEntry {
  std::string name;
  bool isDirectory = false;  // a real directory, not a link to one
  bool isFile = false;       // a regular file, not a link to one
  int64_t size = 0;          // the file's size in bytes
};

// Lists the entries of the directory `path` (without "." and ".."), in no
// particular order, without following links: a link is neither a directory
// nor a file. Returns false when the directory cannot be read.
bool listDirectory(const char* path, std::vector<DirEntry>* entries);

// Removes the empty directory `path` (never through a link). Returns 0 or -1.
int removeDirectory(const char* path);

// ---------------------------------------------------------------------------
// Directories reached through handles.
//
// The log reaches its day directory and every file in it through an open
// handle of the directory (a descriptor opened with O_DIRECTORY|O_NOFOLLOW
// on POSIX, then openat, mkdirat, renameat, unlinkat and fstatat on it), so
// that a day directory swapped for a link between a check and a use
// redirects nothing: the handle keeps naming the directory that was checked.
// On Windows the handle is the directory opened without delete sharing,
// which keeps it from being renamed, removed or replaced while it is held,
// together with its full path, which the operations below join the names to.
// A DirHandle is kNoFile or a handle that closeDirectory() closes.
using DirHandle = FileHandle;

// Opens the directory at `path` that holds the day directories and checks
// it, without writing anything. A link at `path` is followed only when it
// is owned by the process's (effective) user or by the administrator, else
// kForeignLink. The directory must be owned by that user or the
// administrator (kForeignOwner) and no other user may write into it: on
// POSIX neither group nor others may write unless the sticky bit is set
// (kWorldWritable); on Windows its access list may grant writing to nobody
// but the owner, SYSTEM and the Administrators group (kWorldWritable).
// kMissing when nothing is there. On kOk `*dir` holds the open directory;
// otherwise kNoFile.
DirCheck openBaseDirectory(const char* path, DirHandle* dir);

// Opens the directory `name` inside `parent` without following a link
// (kLink) and checks it as openBaseDirectory() does. kMissing when nothing
// is there. On kOk `*dir` holds the open directory; otherwise kNoFile.
DirCheck openDirectoryAt(DirHandle parent, const char* name, DirHandle* dir);

// Closes `dir` (kNoFile is ignored).
void closeDirectory(DirHandle dir);

// Creates the directory `name` inside `dir` (private to the user: mode
// 0700 on POSIX, an access list granting only the user, SYSTEM and the
// Administrators group on Windows). Returns 0, or -1 (also when something
// is there already).
int makeDirAt(DirHandle dir, const char* name);

// Creates one level of the log base, as makeDir() does, but private on
// every platform: mode 0700 on POSIX, on Windows an access list granting
// only the creating user, SYSTEM and the Administrators group (the default
// base lies in a folder where every user may create folders). Returns 0 or
// -1.
int makePrivateDir(const char* path);

// openAppend() for the file `name` inside `dir`: a link there is refused.
FileHandle openAppendAt(DirHandle dir, const char* name);

// True when `name` inside `dir` is a symbolic link (a reparse point on
// Windows).
bool isLinkAt(DirHandle dir, const char* name);

// regularFileSize() for the file `name` inside `dir` (links followed).
bool regularFileSizeAt(DirHandle dir, const char* name, int64_t* size);

// True when `name` inside `dir` is the open `file` itself (the same file,
// not a copy at the same name). Where the question cannot be put (Windows,
// where a file held open is never removed from under its holder) true.
bool isSameFileAt(DirHandle dir, const char* name, FileHandle file);

// renameFile() of `from` to `to`, both inside `dir`. Returns 0 or -1.
int renameAt(DirHandle dir, const char* from, const char* to);

// Marks the open `file` as held by this process for as long as the handle
// stays open, so that no other process's retention removes it: an
// open-file-description write lock (F_OFD_SETLK) on POSIX, which neither
// closing another descriptor of the file nor a forked child's exit
// releases. On Windows the live file's own open handle already keeps other
// processes from opening it without sharing (see removeUnheldFileAt());
// nothing more is done. Returns false when the lock is held by another.
bool holdFile(FileHandle file);

// Removes the file `name` inside `dir` unless a process holds it: on POSIX
// the file is locked as holdFile() does before it is unlinked (a file whose
// lock another description holds is left); on Windows it is opened without
// sharing and deleted through that handle (a file that another process has
// open is left). A link is removed as itself. Returns 0 when removed, 1
// when held, -1 on failure.
int removeUnheldFileAt(DirHandle dir, const char* name);

// listDirectory() of `dir`.
bool listDirectoryAt(DirHandle dir, std::vector<DirEntry>* entries);

// Removes the empty directory `name` inside `dir` (never through a link).
// Returns 0 or -1.
int removeDirectoryAt(DirHandle dir, const char* name);

// The offset of local time from UTC, in seconds, at `t` (seconds since 1970).
int64_t localOffsetSeconds(std::time_t t);

// A one-way wake-up from one thread (or a signal handler) to another,
// made in advance so that sending needs no allocation and no lock: a pipe on
// POSIX, an auto-reset event on Windows.
struct WakeChannel {
  FileHandle readEnd = kNoFile;
  FileHandle writeEnd = kNoFile;
  FileId readId;  // the identity of each end when it was made (POSIX)
  FileId writeId;
};

// Makes `channel` (not inherited by child processes). Returns false on
// failure.
bool makeWakeChannel(WakeChannel* channel);

// True while both ends of `channel` are still the channel made by
// makeWakeChannel(): on POSIX a process may close every descriptor (a
// daemon does after fork) and open others under the same numbers, and a
// wake-up must never be written into those. Always true on Windows. Safe in
// a signal handler.
bool wakeChannelIntact(const WakeChannel& channel);

// Closes both ends of `channel` and leaves it empty (kNoFile): in a forked
// child, whose copy of the parent's channel is shared with the parent.
void closeWakeChannel(WakeChannel* channel);

// Wakes the waiter of `channel`; does nothing once the channel is no longer
// intact (wakeChannelIntact()). Safe in a signal handler.
void wakeSend(const WakeChannel& channel);

// Waits for one wake-up on `channel`, at most `timeoutMs` milliseconds
// (negative: for ever). Returns true when woken, false on timeout or error,
// and false once the channel is no longer intact (wakeChannelIntact()).
// Safe in a signal handler.
bool wakeWait(const WakeChannel& channel, int64_t timeoutMs);

// Called by the fatal handler with the signal number (POSIX) or the
// exception code (Windows) and its name, on the faulting thread. It must do
// only what is safe in a signal handler.
using FatalHook = void (*)(uint32_t code, const char* name);

// Called by the fatal handler after `hook` ran when the process goes on all
// the same (an earlier handler took the signal and returned).
using ResumeHook = void (*)();

// True where the fatal handler reports exception codes (Windows), false
// where it reports signal numbers (POSIX).
extern const bool kFatalCodeIsException;

// Installs `hook` (and `resume`) for the faults that end the process: SIGSEGV, SIGBUS,
// SIGILL, SIGFPE and SIGABRT on POSIX (on an alternate signal stack for the
// calling thread), the unhandled-exception filter on Windows. Installing
// twice installs once. Returns false on failure.
//
// On POSIX the handler that was installed before for the signal (the
// earlier handler) keeps working as it did:
// - A fault raised by an instruction (SIGSEGV, SIGBUS, SIGILL, SIGFPE with
//   a kernel si_code) with an earlier handler: the earlier handler is called
//   first, directly, with the fault's own siginfo_t and context, under its
//   own signal mask and flags. If it jumps away, nothing more happens; if it
//   returns, the handler returns and the instruction runs again. The same
//   fault again on the same thread (same address, same instruction) has not
//   been recovered from: `hook` runs and the signal's default action ends
//   the process. An earlier handler that returns with the signal pending
//   (it raised it again to end the process) gets `hook` run before the
//   signal is delivered.
// - SIGABRT, and any signal sent with kill, raise or sigqueue, cannot be
//   undone by returning from a handler: `hook` runs first, then the earlier
//   handler (called directly with the signal's siginfo_t); when it returns
//   the process goes on, and `resume` is called.
// - Without an earlier handler (the default action): `hook` runs, then the
//   default action ends the process as it would have without the handler.
//   A signal sent to a process that ignored it stays ignored (no hook).
// On Windows `hook` runs and then the previous filter is called; when that
// continues the execution, `resume` is called.
bool installFatalHandler(FatalHook hook, ResumeHook resume);

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

// Test hook, for the library's own tests only: every later reading of the
// wall clock inside the library (due times recorded in messages, the time
// of log lines, the date of the log directory) is shifted by `offset_ms`
// milliseconds; a negative offset moves the clock back, 0 restores it. This
// lets a test step the wall clock as time synchronisation or a user would,
// without touching the system clock. Declared in this internal header only,
// which is not installed. Threads: any thread; readings taken after the call
// returns see the new offset.
extern "C" ZEL_API void zel_test_hook_set_wall_clock_offset_ms(int64_t offset_ms);

// Test hook, for the library's own tests only: the log base used when the
// client set none becomes `base` (a directory path ending in a separator)
// for directories chosen from now on; null or the empty text restores the
// built-in default. This lets a test exercise the default base without
// touching the machine's own /tmp/zel/. Threads: any thread.
extern "C" ZEL_API void zel_test_hook_set_default_log_base(const char* base);

#endif  // ZEL_UTILS_PLATFORM_H_
