// SPDX-License-Identifier: MIT

// The log file writer: the log directory (base, day directory, creation of
// its levels), the file names, the live file and its rotation by size, by
// day and when it was removed from outside, the deletion of the rotated
// file that falls out of the kept count, and the writing of lines into the
// live file. Every operating-system call goes through utils/platform.h.
//
// Internal: this header is not installed. The Logger owns one LogFile and
// calls it on its writer thread only (and once from its own construction).
// The base directory and the current directory are process-wide, because
// Logger::SetLogPath() and Logger::GetLogPath() work without a Logger; they
// are guarded and may be used from any thread.
#ifndef ZEL_UTILS_LOG_INTERNAL_FILE_WRITER_H_
#define ZEL_UTILS_LOG_INTERNAL_FILE_WRITER_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "utils/logger.h"
#include "utils/platform.h"

namespace zel {

// Prints a diagnostic of the logging code to standard output at once.
void logConsole(const char* format, ...) ZEL_PRINTF_FORMAT(1, 2);

class LogFile {
 public:
  // The size of the path buffers; a longer path is cut.
  static constexpr int kPathSize = 256;

  LogFile();
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  // Sets the process-wide base directory: an empty `path` or the current
  // one changes nothing. Takes effect when the directory is next chosen.
  // Threads: any thread.
  static void setBase(const std::string& path);

  // The current directory (base followed by "YYYYMMDD/"), empty before one
  // was chosen. Threads: any thread.
  static std::string currentDir();

  // Around fork(): the process-wide directory texts are locked in the
  // forking thread before the fork and unlocked after it, in the parent and
  // in the child.
  static void lockForFork();
  static void unlockAfterFork();

  // In a forked child (from the fork handler, alone): the live file is the
  // parent's; the child's copy of its descriptor is closed, and the child
  // opens a file of its own at its next line, in the directory chosen
  // anew, with its own start time and with `pid` added to the process part
  // of the name ("zel.log.<process>.<pid>.<hhmmss>.txt"), so that it
  // differs from the parent's and from every sibling's.
  void afterForkInChild(int64_t pid);

  // Sets the size limit of the live file in bytes and the number of files
  // kept, for the lines written from now on. A negative size is taken as 0;
  // a count is held in 0..256 (0 and 256 both keep 256 files). Threads: any
  // thread.
  void setLimits(int maxSize, int maxCount);

  // The size limit in bytes: the live file rotates before a line once its
  // position is greater.
  int64_t maxSize() const { return mMaxFileSize.load(); }

  // Chooses the directory and creates it (updateLogDir()), then records the
  // length of its path, which every file path is built with from then on.
  // Returns 0.
  int logFileInit();

  // Returns the current directory, choosing it again when the day changed
  // (or none was chosen yet); creates the default base's day directory.
  std::string getPrefix();

  // Chooses the directory with getPrefix() and creates its missing levels.
  void updateLogDir();

  // Returns the live file to write to, rotating it first when it has grown
  // past the size limit, the day changed or it was removed from outside;
  // kNoFile when no file can be opened.
  platform::FileHandle getFile();

  // Deletes the rotated file that falls out of the kept count once the
  // rotation index has reached `index`.
  void updateLogFile(unsigned char index);

  // Writes `size` bytes of `text` to `file` (the live file or another
  // handle) and keeps the live file's position up to date. Returns the
  // bytes written, or -1 when the write failed.
  int64_t write(platform::FileHandle file, const char* text, std::size_t size);

  // Writes a run of lines, the `count` pieces of `pieces`, to `file` with
  // one gathered write, and keeps the live file's position up to date.
  // Returns the bytes written, or -1 when the write failed; then
  // `*written` holds how many bytes went out before the failure.
  int64_t writeRun(platform::FileHandle file, const platform::WriteBuffer* pieces,
                   std::size_t count, std::size_t* written);

  // The live file's position (where its next line lands) as getFile() left
  // it, when it is known exactly: the file at the path is the one open and
  // nobody else has changed its size since the last write or the open.
  // -1 otherwise; then a run holds one line and the next getFile() asks
  // the file again.
  int64_t runPosition() const { return mRunPosition; }
  // True while the directory or the live file was refused as unsafe (owned
  // by another user, writable by others, a link): lines then go nowhere,
  // and the refusal has been reported once on standard output.
  bool refused() const { return mRefused; }

 private:
  // Opens the directory that holds the day directories (a link followed
  // only when the user or the administrator owns it) and in it the day
  // directory `dayDir` (its path, without a trailing separator; made when
  // missing; a link refused), both checked. True with the open day
  // directory in `*day`; false when either is missing or unsafe, reported
  // through refuse() when `report` is set.
  bool openDayDirectory(const std::string& dayDir, bool report, platform::DirHandle* day);
  // The steps of getFile() with a live file open. Decides whether it
  // rotates: larger than the limit, a change of day, or no regular file at
  // its name any more; also records the run position (runPosition()) and
  // the file's position.
  bool rotationDue();
  // Closes the live file and renames it to the next rotation index in its
  // day directory, then deletes the file that falls out of the kept count.
  void rotate();
  // Chooses the directory again, names the live file and opens it (with its
  // day directory, both checked); kNoFile when it cannot be opened.
  platform::FileHandle openNewLiveFile();
  // Opens the live file mFileName in mDayDir and holds it against the
  // retention of other processes. kNoFile when it cannot be opened.
  platform::FileHandle openLiveFile();
  // Records a refusal of `path` and reports it once.
  void refuse(const std::string& path, platform::DirCheck check);
  // True while mFile still is the file this writer opened: a process may
  // close every descriptor (a daemon does) and open another file under the
  // same number, which must never get the log's lines.
  bool descriptorStillOurs() const;
  // Applies the retention settings when they are due (start-up, change of
  // day, new settings).
  void applyRetentionIfDue();

  // Today's date directory "YYYYMMDD/" (local time), converted at most once
  // per second of the wall clock.
  const char* todayDateDir();

  std::string mLogDir;       // current directory, ends in '/'
  std::string mStartTime;    // "hhmmss" at which the directory was chosen
  std::string mProcessName;  // executable file name, for the file names
  std::string mCurDate;      // "YYYYMMDD/" of the current directory
  std::string mBase;         // the base the current directory was built on
  bool mRefused = false;     // the directory or file was refused as unsafe
  std::string mRefusal;      // the last refusal reported
  uint64_t mDirLen = 0;      // length of mLogDir measured by logFileInit()
  std::atomic<int32_t> mMaxFileCount;
  std::atomic<int32_t> mMaxFileSize;

  platform::FileHandle mFile = platform::kNoFile;  // the live file
  platform::FileId mFileId;                        // its identity when opened
  int64_t mForkedPid = 0;                          // a forked child's process id, else 0
  char mFilePath[kPathSize] = {0};                 // its path
  std::string mFileName;                           // its name in mDayDir
  // The live file's day directory, open: the file is renamed and the
  // rotated files removed through it, never through the path.
  platform::DirHandle mDayDir = platform::kNoFile;
  unsigned char mFileIndex = 0;         // the next rotation index
  char mStartTimeBuf[kPathSize] = {0};  // where mStartTime is formatted
  // The position of the live file (its size: it is appended to), kept up
  // to date by the writes; -1 when it is not known (a new file, a failed
  // write).
  int64_t mFileOffset = -1;
  // See runPosition().
  int64_t mRunPosition = -1;

  int64_t mTodaySecond;           // the second todayDateDir() converted last
  char mTodayDateDir[kPathSize];  // its date directory
};

}  // namespace zel

#endif  // ZEL_UTILS_LOG_INTERNAL_FILE_WRITER_H_
