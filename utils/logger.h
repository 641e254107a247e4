// SPDX-License-Identifier: MIT

// The process-wide log: the plain log functions, the Logger singleton that
// writes lines on its own thread, and the log files it writes into.
//
// log_print() formats one line, "[M-D hh:mm:ss.mmm][tid:T] " followed by the
// caller's text, on the caller's stack and hands it to the Logger, which
// copies it into its queue and returns at once. The Logger's writer thread
// (the thread of the Looper it owns) writes the lines in the order they were
// posted, several lines per system call when several are queued, every
// queued line handed to the operating system before the writer sleeps, into
//
//   <base><YYYYMMDD>/zel.log.<process name>.<hhmmss>.txt      (the live file)
//   <base><YYYYMMDD>/zel.log.<process name>.<hhmmss>.<0-255>  (rotated files)
//
// where <base> is the directory given to zel_set_log_path() or
// Logger::SetLogPath() (used as given: no separator is added), by default
// "c:\Windows\temp\zel\" on Windows and "/tmp/zel/" elsewhere, and <hhmmss>
// is the local time at which the day's directory was chosen. A file that has
// grown past the size limit, a change of day and a live file removed from
// outside each rotate the file; the file that falls out of the kept count is
// deleted. The size limit splits a run of lines exactly where writing them
// one by one would rotate; a change of day and a change of the file from
// outside are noticed before the next run. Diagnostics of the logging code
// itself go to standard output.
//
// Each posting thread has a queue of its own (no lock); the queues are
// bounded together (Logger::SetQueueLimit(), by default 64 MiB, counting a
// line's text or, for a line formatted on the writer thread, its format and
// arguments), and lines are dropped, counted and reported in the file when
// they are full. Lines are written in the order of their posts wherever one
// post happens before another (the same thread, a lock, an atomic, a join).
//
// Threads: the writer thread is started by the first log_print() (or
// Logger::GetInstance()) and runs for the rest of the process; the Logger is
// never destroyed. Every function here may be called from any thread.
//
// Example:
//   zel_set_log_path("/var/log/client/");  // before the first line
//   if (zel_log_level() >= 3)
//     log_print(3, 0, "[%s][%s %s %d] Debug:device %s attached\n", "", "/main.cpp",
//               "main", __LINE__, name);
//   zel_log_flush();  // before exit: queued lines are otherwise lost
#ifndef ZEL_UTILS_LOGGER_H_
#define ZEL_UTILS_LOGGER_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "utils/export.h"
#include "utils/looper.h"

#if defined(__MINGW_PRINTF_FORMAT)
// MinGW-w64: the C99 printf family that the library formats with, as its
// runtime headers name it (GCC's plain "printf" means Microsoft's formats).
#define ZEL_PRINTF_FORMAT(fmt, args) __attribute__((format(__MINGW_PRINTF_FORMAT, fmt, args)))
#elif defined(__GNUC__)
#define ZEL_PRINTF_FORMAT(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define ZEL_PRINTF_FORMAT(fmt, args)
#endif

extern "C" {

// Formats one log line and queues it for writing; returns 0 in every case.
// The line is the prefix "[M-D hh:mm:ss.mmm][tid:T] " (local month, day and
// time, milliseconds of the system clock, the operating-system thread id)
// followed by `format` applied to the arguments; no newline is added. The
// whole line is cut at 4094 characters without notice. `level` is carried
// along but not tested: the caller compares zel_log_level() first. A
// non-zero `flag` also hands the line to every registered LogBackend. The
// first call creates the Logger; when it cannot be created the line is
// dropped. While the writer thread cannot be started the line is dropped
// and counted (zel_log_dropped()), and the next line tries to start it
// again. When the queue is full (Logger::SetQueueLimit()) the line is
// dropped and counted under the default kDrop policy; under kBlock the call
// waits until the writer has made room. Threads: any thread; lines of one
// thread are written in call order.
ZEL_API int log_print(int level, int flag, const char* format, ...) ZEL_PRINTF_FORMAT(3, 4);

// Returns the process-wide log level (initially 3), sign-extended. A message
// of level L is produced only when zel_log_level() >= L: 0 errors, 1 the
// message-loop warning, 3 debug, 4 the message loop's exit notice.
ZEL_API int zel_log_level(void);

// Sets the process-wide log level; -1 silences every message of the library.
ZEL_API void zel_set_log_level(char level);

// Sets the log base directory, as Logger::SetLogPath() does; an empty `path`
// changes nothing. `path` must not be null. It takes effect when the Logger
// chooses its directory, that is at the first line or at a change of day:
// set it before the first line is logged. Threads: any thread.
ZEL_API void zel_set_log_path(const char* path);

// Copies the current log directory (base followed by "YYYYMMDD/") into
// `buffer` with strncpy, at most `size` - 1 characters; no terminating NUL
// is added beyond what strncpy writes, so pass a zero-filled buffer. Returns
// 0 when copied; -1, leaving `buffer` untouched, while no directory is known
// yet (before the first line), or when `buffer` is null or `size` is below 1.
ZEL_API int zel_get_log_path(char* buffer, int size);

// Blocks until every line queued before the call has been written and
// flushed. Returns at once when no line was ever logged. Call it before the
// process exits. From the writer thread itself (a LogBackend) it returns at
// once. While the process is ending on Windows and the writer thread is
// gone (from a DLL's static destructor at process exit) it returns at once;
// lines still queued then are lost. Threads: any thread.
ZEL_API void zel_log_flush(void);

// Bounds the text of the lines queued for the writer, as
// zel::Logger::SetQueueLimit() does: `bytes` is the bound (0: no bound) and
// a non-zero `block` makes a caller wait for room (kBlock) where 0 drops the
// line (kDrop). Does not create the Logger. Threads: any thread.
ZEL_API void zel_set_log_queue_limit(size_t bytes, int block);

// Returns the number of lines dropped since the process started (0 when
// none was, or before the first line): lines dropped because the queue was
// full, and lines lost because there was no memory to queue them or no
// writer thread. Each is also noticed in the file, in its place among the
// lines: "zel log: <N> lines dropped (queue full)", "zel log: <N> lines lost
// (out of memory)", "zel log: <N> lines lost (no writer thread)". Also
// counted, without a notice (there is no file to put one in): the lines
// that reach a log directory or file refused as unsafe. Once every notice
// is written (zel_log_flush()), the notices' counts and those refused lines
// add up to this number. Not counted: a line lost to a failed write, which
// is reported on standard output instead. Threads: any thread.
ZEL_API uint64_t zel_log_dropped(void);

// Installs the crash drain, as zel::Logger::InstallCrashHandler() does (see
// there); creates the Logger when it does not exist yet. Returns 0 when
// installed (or already installed), -1 when it could not be. Threads: any.
ZEL_API int zel_log_install_crash_handler(void);

// Sets the retention of log files across runs, as
// zel::Logger::SetRetention() does (see there): `days` <= 0 keeps day
// directories of any age, `total_bytes` <= 0 sets no total size, both
// switch retention off (the default). Threads: any thread.
ZEL_API void zel_set_log_retention(int days, long long total_bytes);

}  // extern "C"

namespace zel {

class LevelledBackend;

// What happens to a line posted while the queue holds as much text as its
// bound allows (Logger::SetQueueLimit()).
enum class QueueFullPolicy {
  // The caller waits until the writer has written enough queued lines to
  // make room; nothing is lost.
  kBlock,
  // The line is dropped at once and counted (zel_log_dropped()); once the
  // writer reaches that point of the queue it writes the line
  // "<prefix>zel log: <N> lines dropped (queue full)" into the log file.
  kDrop,
};

// A receiver of log lines besides the file. Register it with
// Logger::RegisterBackend(); it then sees every line logged with a non-zero
// flag (forward), on the writer thread, before the line is written. The
// backends see only lines that have a file to go to: when no log file can be
// opened (its directory cannot be made, for one), the line is handed to no
// backend either, and "fp is null" is reported on standard output instead.
class ZEL_API LogBackend {
 public:
  virtual ~LogBackend();

  // Receives one complete line, prefix and newlines included. Called on the
  // writer thread; must not call Logger::RegisterBackend() (it would wait for
  // itself) nor block for long (it holds up every other line).
  virtual void Log(const std::string& line) = 0;
};

// One line on its way to the writer thread.
struct LogInfo {
  std::string message;  // the complete line
  int32_t level;        // the caller's level; carried, not used by the writer
  bool forward;         // also hand the line to the registered backends
};

// The process-wide Logger, as the top of this file describes.
class ZEL_API Logger : public LogBackend {
 public:
  // Returns the Logger, creating it on first use: it chooses and creates the
  // log directory and starts the writer thread. Never returns null; throws
  // std::bad_alloc when it cannot be allocated (the next call tries again).
  // Threads: any thread.
  static Logger* GetInstance();

  // Same as Log(line, 3, false).
  void Log(const std::string& line) override;

  // Queues `line` (already complete: no prefix or newline is added) for
  // writing and returns at once. `level` is carried along, not tested.
  // `forward` also hands the line to every registered backend. Threads: any
  // thread; one thread's lines are written in posting order.
  virtual void Log(const std::string& line, int level, bool forward);

  // Appends `backend` to the receivers of forwarded lines. A
  // LevelledBackend (utils/log_levelled_backend.h) is recognised here and
  // handed each line's level as well. There is no removal and duplicates
  // are not detected. `backend` stays owned by the
  // caller and must outlive the process's logging. Threads: any thread but
  // the writer thread.
  void RegisterBackend(LogBackend* backend);

  // Sets the size limit of the live file (bytes; a file rotates before a
  // line once it is larger) and the number of files kept (the live file
  // included) for the lines written from now on. Sizes are compared as
  // 64-bit values, so a file grown past 2 GiB still rotates. Ranges: a
  // negative `maxSize` is taken as 0 (every non-empty file rotates before
  // the next line); `maxCount` is held in 0 to 256, since the rotated files
  // are numbered 0-255: a count above 256 keeps 256 files, a negative one
  // is taken as 0. A count of 1 removes every rotated file at once; 0 (like
  // 256) removes nothing until the rotation index wraps. Defaults: 5,242,880
  // bytes and 10 files. Threads: any thread.
  void SetLogFileInfo(int maxSize, int maxCount);

  // Sets the log base directory: an empty `path` or the current one changes
  // nothing. Used exactly as given, so end it with a separator. It takes
  // effect when the directory is next chosen (the first line, or a change
  // of day). Returns 0 in every case. Threads: any thread.
  static int SetLogPath(const std::string& path);

  // Returns the current log directory (base followed by "YYYYMMDD/"), or the
  // empty text before the Logger has chosen one. Threads: any thread.
  static std::string GetLogPath();

  // Blocks until every line queued before the call (by any thread) has
  // been written and flushed; returns at once when called on the writer thread, and while
  // the process is ending on Windows with the writer thread gone.
  void Flush();

  // Bounds the queues of all threads together: the lines posted and not
  // yet written may take at most `bytes` bytes (0: no bound), counting a
  // line's text, or for a line the writer formats its time, format and
  // arguments. A line that would exceed it is
  // handled by `policy`: kBlock makes the caller wait for room (a line
  // longer than the bound waits for an empty queue; the writer thread
  // itself, a backend that logs, never waits and may exceed the bound);
  // kDrop drops and counts it and never blocks. While a bound is set, the
  // number of queued lines is capped too (1,048,576, drop notices
  // included), so that lines of little or no text cannot take memory
  // without limit: a line beyond the cap is handled as one beyond the
  // bound. Default: 64 MiB (67,108,864 bytes) and kDrop. Takes effect for
  // the next line; callers waiting for room look at the new bound and
  // policy at once (under kDrop their lines are dropped and counted).
  // Process-wide: may be called before the Logger exists and does not
  // create it. Threads: any thread.
  static void SetQueueLimit(std::size_t bytes, QueueFullPolicy policy);

  // Installs the crash drain, once per process (opt-in). When the process
  // then dies of SIGSEGV, SIGBUS, SIGILL, SIGFPE or SIGABRT (on Windows: an
  // unhandled exception), the lines still queued are written first, at most
  // ZEL_LOG_CRASH_WAIT_MS milliseconds (environment, read here; 0 to 600000,
  // more is 600000, default 2000; not read in a set-user-ID, set-group-ID or file-capability
  // process on POSIX, which waits the default) are waited for that, and
  // then one line of its own is
  // written to the live file: "<prefix>zel log: fatal signal <N> (<name>)"
  // (on Windows "fatal exception 0x<code> (<name>)"). The process then ends
  // as it would have without the drain (exit status, core dump). Handlers
  // installed before are chained, not replaced: an earlier handler of a
  // fault raised by an instruction is called first and may recover (then
  // nothing is written); for SIGABRT and signals sent with kill or raise
  // the lines are written first, then the earlier handler is called. A
  // second thread's fault while draining waits for the first one's drain;
  // a writer that does not finish in time is given up. The drain never
  // waits for a lock the faulting thread holds. See
  // docs/logging-crash-fork.md. Creates the Logger when needed and starts one
  // thread that waits for a fault. On POSIX the handler runs on an
  // alternate signal stack on the calling thread (call it from the main
  // thread, early). Returns 0, or -1 when it could not be installed.
  // WARNING: a handler installed later for these signals replaces this one
  // unless it chains. Threads: any thread.
  static int InstallCrashHandler();

  // Sets the retention of log files across runs (opt-in; by default files
  // of earlier runs and earlier days stay for ever). When set, at the next
  // line, at start-up and after each change of day, the writer removes
  // below the base directory the day directories dated more than `days`
  // days ago (`days` <= 0: no age limit) and then the oldest log files (by
  // date, start time, rotation index) until the library's log files total
  // at most `totalBytes` bytes (<= 0: no size limit). It touches only its
  // own day directories and file names, never follows or removes a link,
  // never removes the live file, leaves directories holding other files,
  // and reports each removal on standard output. Threads: any thread.
  static void SetRetention(int days, std::int64_t totalBytes);

  // The number of exceptions that registered backends have thrown (each is
  // caught on the writer thread, the first reported on standard output;
  // the line is still written). Threads: any thread.
  uint64_t BackendFailures() const;

 private:
  Logger();
  ~Logger() override;
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // Chooses and creates the directory, then starts the writer (a thread
  // that cannot be created is tried again by the next line). Returns 0.
  int init();

  // Queues the line `text` of `size` bytes for the writer thread; the common
  // part of Log() and log_print().
  void postLine(const char* text, std::size_t size, int level, bool forward);

  // Writes one line on the writer thread, as a run of its own.
  void writeLog(LogInfo* info);
  // Writes the line `text` of `size` bytes (terminated after them), logged
  // at `level`; what writeLog() does, without a LogInfo.
  void writeLine(const char* text, std::size_t size, int level, bool forward);

  // Log-file operations of the log file writer, kept under the names the
  // library has always exported; not used by the library itself.
  // The effective directory, recomputed when the day changed.
  std::string getPrefix();
  // Computes the directory with getPrefix() and creates its missing levels.
  void UpdateLogDir();
  // The file to write to (an operating-system handle), rotating first when
  // needed; -1 when no file can be opened.
  std::intptr_t getFile();
  // getFile(), or standard error while init() runs.
  std::intptr_t getLogFp();
  // Same as the directory part of init(); returns 0.
  int logFileInit();
  // Deletes the rotated file that falls out of the kept count once the
  // rotation index has reached `index`.
  void updateLogFile(unsigned char index);

  // The Logger's parts (utils/log/internal/): the log file writer, the
  // registered backends and the line queue with its writer thread.
  struct Parts;
  std::unique_ptr<Parts> mParts;

  static std::atomic<Logger*> sLogger;
  static std::mutex sMutex;  // serialises creation

  // Flushes the Logger only if it exists, without creating it.
  friend void ::zel_log_flush(void);
  // Posts its line without a text object of its own.
  friend int ::log_print(int level, int flag, const char* format, ...);
};

}  // namespace zel

#endif  // ZEL_UTILS_LOGGER_H_
