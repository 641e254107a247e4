// SPDX-License-Identifier: MIT

#include "utils/log/internal/file_writer.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <mutex>

#include "utils/log/internal/crash_drain.h"
#include "utils/log/internal/file_names.h"
#include "utils/log/internal/retention.h"
#include "utils/process_path.h"

namespace zel {

namespace {

constexpr int kPrefixLine = 158;
constexpr int kRenameErrorLine = 516;
constexpr int32_t kDefaultMaxFileSize = 0x500000;
constexpr int32_t kDefaultMaxFileCount = 10;
constexpr int32_t kMaxFileCount = 256;

// The base directory chosen by the client and the effective directory. The
// client's threads write and read them while the writer thread reads and
// writes them, so they are guarded; they are never destroyed because the
// writer thread may still use them while the process exits.
struct DirectoryTexts {
  std::mutex mutex;
  std::string fixedDirPrefix;  // mFixedDirPrefix: as given to SetLogPath
  std::string dirPrefix;       // mDirPrefix: base followed by "YYYYMMDD/"
};

DirectoryTexts& directoryTexts() {
  static DirectoryTexts* texts = new DirectoryTexts;
  return *texts;
}

}  // namespace

void logConsole(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vprintf(format, args);
  va_end(args);
  std::fflush(stdout);
}

LogFile::LogFile()
    : mMaxFileCount(kDefaultMaxFileCount),
      mMaxFileSize(kDefaultMaxFileSize),
      mTodaySecond(std::numeric_limits<int64_t>::min()),
      mTodayDateDir{0} {}

void LogFile::setBase(const std::string& path) {
  DirectoryTexts& texts = directoryTexts();
  std::lock_guard<std::mutex> lock(texts.mutex);
  if (!path.empty() && path != texts.fixedDirPrefix) texts.fixedDirPrefix = path;
}

std::string LogFile::currentDir() {
  DirectoryTexts& texts = directoryTexts();
  std::lock_guard<std::mutex> lock(texts.mutex);
  return texts.dirPrefix;
}

void LogFile::setLimits(int maxSize, int maxCount) {
  // The rotation index has 8 bits: 256 names exist, so no more than 256
  // files can be kept; a larger count would wrap to a smaller one.
  mMaxFileSize.store(maxSize < 0 ? 0 : maxSize);
  mMaxFileCount.store(maxCount < 0 ? 0 : maxCount > kMaxFileCount ? kMaxFileCount : maxCount);
}

void LogFile::lockForFork() { directoryTexts().mutex.lock(); }

void LogFile::unlockAfterFork() { directoryTexts().mutex.unlock(); }

void LogFile::afterForkInChild(int64_t pid) {
  if (mFile != platform::kNoFile) platform::closeFile(mFile);
  mFile = platform::kNoFile;
  mFileId = platform::FileId();
  mFileOffset = -1;
  mRunPosition = -1;
  mFileIndex = 0;
  mForkedPid = pid;
  // The directory, the start time and the name are chosen again.
  mCurDate.clear();
}

bool LogFile::descriptorStillOurs() const {
  platform::FileId id;
  return platform::fileIdentity(mFile, &id) && id == mFileId;
}

int LogFile::logFileInit() {
  updateLogDir();
  mDirLen = mLogDir.size();
  return 0;
}

const char* LogFile::todayDateDir() {
  const int64_t second = platform::wallClockMs() / 1000;
  // Without the C library's local time: the writer must not wait for its
  // time-zone lock, which a thread that faulted may hold for good while
  // the crash drain waits for the writer. The offset from UTC is the one
  // the threads that log saw last.
  if (second != mTodaySecond) {
    std::tm tm{};
    int year = 0;
    crash::localDate(second, &year, &tm.tm_mon, &tm.tm_mday);
    tm.tm_year = year - 1900;
    tm.tm_mon -= 1;
    platform::formatDateDir(mTodayDateDir, sizeof(mTodayDateDir), tm);
    mTodaySecond = second;
  }
  return mTodayDateDir;
}

std::string LogFile::getPrefix() {
  const std::string processName = get_process_name();
  std::tm tm{};
  const int64_t now = platform::wallClockMs() / 1000;
  if (platform::localTime(static_cast<std::time_t>(now), &tm)) crash::noteLocalTime(now, tm);
  char date[kPathSize];
  platform::formatDateDir(date, sizeof(date), tm);

  DirectoryTexts& texts = directoryTexts();
  std::unique_lock<std::mutex> lock(texts.mutex);
  if (mCurDate == date && !texts.dirPrefix.empty()) return texts.dirPrefix;

  mCurDate = date;
  retention::markDue();  // start-up or a change of day
  platform::formatStartTime(mStartTimeBuf, sizeof(mStartTimeBuf), tm);
  mStartTime = mStartTimeBuf;
  mProcessName = mForkedPid != 0 ? processName + "." + std::to_string(mForkedPid) : processName;
  const std::string defaultBase = platform::defaultLogBase();
  mBase = texts.fixedDirPrefix.empty() ? defaultBase : texts.fixedDirPrefix;
  if (texts.fixedDirPrefix.empty()) {
    texts.dirPrefix = defaultBase + date;
    std::string dir = texts.dirPrefix;
    lock.unlock();
    // The levels and the day directory are made by updateLogDir(), the day
    // directory only inside a base directory that passed its checks.
    return dir;
  }
  texts.dirPrefix = texts.fixedDirPrefix + date;
  std::string dir = texts.dirPrefix;
  lock.unlock();
  logConsole("%s %d: prefix[%s]\n", "zel::Logger::getPrefix", kPrefixLine, dir.c_str());
  return dir;
}

void LogFile::updateLogDir() {
  const std::string dir = getPrefix();
  // Make each missing level of the base, shortest first, private to the
  // user; the day directory itself (the last level) is made inside the
  // checked base directory by openDayDirectory(). A '\' is put back as '/'.
  if (!dir.empty() && dir.size() <= kPathSize - 1) {
    char buf[kPathSize] = {0};
    std::memcpy(buf, dir.data(), dir.size());
    std::size_t len = dir.size();
    while (len > 1 && (buf[len - 1] == '/' || buf[len - 1] == '\\')) --len;
    std::size_t last = len;
    while (last > 0 && buf[last - 1] != '/' && buf[last - 1] != '\\') --last;
    for (std::size_t i = 1; i < last; ++i) {
      if (buf[i] != '/' && buf[i] != '\\') continue;
      buf[i] = '\0';
      if (!platform::isDirectory(buf) && !platform::pathExists(buf) &&
          platform::makePrivateDir(buf) == -1) {
        logConsole("mkdir error,[%s]\n", buf);
        break;
      }
      buf[i] = '/';
    }
  }
  mLogDir = dir;
  if (!dir.empty() && dir.size() <= kPathSize - 1) {
    std::string dayDir = dir;
    while (dayDir.size() > 1 && (dayDir.back() == '/' || dayDir.back() == '\\')) dayDir.pop_back();
    platform::DirHandle day = platform::kNoFile;
    if (openDayDirectory(dayDir, false, &day)) platform::closeDirectory(day);
  }
}

platform::FileHandle LogFile::getFile() {
  if (mFile != platform::kNoFile && !descriptorStillOurs()) {
    // Closed from outside, its number maybe reused: not ours to close. The
    // live file is opened again at its path.
    crash::setLiveFile(platform::kNoFile);
    mFile = platform::kNoFile;
    mFileOffset = -1;
    mRunPosition = -1;
  }
  if (mFile != platform::kNoFile) {
    if (!rotationDue()) {
      applyRetentionIfDue();
      return mFile;
    }
    rotate();
  }
  return openNewLiveFile();
}

bool LogFile::rotationDue() {
  // One file-status query answers both whether a regular file is still at
  // the name and how large it is. The live file's position is the size
  // that counts; it is kept in mFileOffset as the lines are written. When
  // the file at the name has that same size nobody else has written to it
  // since, and the kept position holds; otherwise (a write from outside,
  // a replaced or truncated file) the open file is asked. A missing file
  // rotates whatever the size. The name is looked up in the day directory
  // that was checked when the file was opened, through its handle.
  int64_t pathSize = 0;
  const bool regular = platform::regularFileSizeAt(mDayDir, mFileName.c_str(), &pathSize);
  int64_t position = mFileOffset;
  mRunPosition = regular && position >= 0 && pathSize == position ? position : -1;
  if (regular && (position < 0 || pathSize != position)) {
    position = platform::filePosition(mFile);
    mFileOffset = position;
  }
  // Positions are 64-bit: a file grown past 2 GiB from outside still
  // compares as larger than the limit.
  return (regular && position > mMaxFileSize.load()) || mCurDate != todayDateDir() || !regular;
}

void LogFile::rotate() {
  // log.txt -> log.<index>; the counter steps on even when the rename
  // fails, and the file that falls out of the kept set is deleted. Both
  // happen in the live file's own day directory.
  crash::setLiveFile(platform::kNoFile);
  platform::closeFile(mFile);
  char rotated[kPathSize] = {0};
  names::buildPath(rotated, kPathSize, mLogDir, mDirLen, mProcessName, mStartTime,
                   std::to_string(static_cast<unsigned>(mFileIndex)).c_str());
  if (platform::renameAt(mDayDir, mFileName.c_str(), names::fileNameOf(rotated)) != 0) {
    logConsole("%s %d,rename error\n", "zel::Logger::getFile", kRenameErrorLine);
  }
  mFile = platform::kNoFile;
  ++mFileIndex;
  updateLogFile(mFileIndex);
}

platform::FileHandle LogFile::openNewLiveFile() {
  // A day change rotated before updateLogDir(), so the old file was
  // renamed in the old day's directory and the new one opens in the new.
  updateLogDir();
  std::memset(mFilePath, 0, sizeof(mFilePath));
  names::buildPath(mFilePath, kPathSize, mLogDir, mDirLen, mProcessName, mStartTime, "txt");
  mFileName = names::fileNameOf(mFilePath);
  platform::closeDirectory(mDayDir);
  mDayDir = platform::kNoFile;
  std::string dayDir(mFilePath, static_cast<std::size_t>(names::fileNameOf(mFilePath) - mFilePath));
  while (!dayDir.empty() && (dayDir.back() == '/' || dayDir.back() == '\\')) dayDir.pop_back();
  if (!openDayDirectory(dayDir, true, &mDayDir)) {
    mFileOffset = -1;
    mRunPosition = -1;
    return platform::kNoFile;
  }
  mFile = openLiveFile();
  // Its identity, for descriptorStillOurs(); a file that cannot tell it is
  // not used.
  if (mFile != platform::kNoFile && !platform::fileIdentity(mFile, &mFileId)) {
    platform::closeFile(mFile);
    mFile = platform::kNoFile;
  }
  if (mFile == platform::kNoFile && platform::isLinkAt(mDayDir, mFileName.c_str())) {
    mFileOffset = -1;
    mRunPosition = -1;
    refuse(mFilePath, platform::DirCheck::kLink);
    return mFile;
  }
  // The first line lands at the end of what the file holds already. Several
  // lines make a run only in a regular file of known size at the name:
  // anything else (a FIFO, a device) takes one line per run, so that the
  // next line finds it and rotates it away, as it would line by line.
  mFileOffset = mFile != platform::kNoFile ? platform::fileSize(mFile) : -1;
  int64_t pathSize = -1;
  mRunPosition = mFileOffset >= 0 &&
                         platform::regularFileSizeAt(mDayDir, mFileName.c_str(), &pathSize) &&
                         pathSize == mFileOffset
                     ? mFileOffset
                     : -1;
  mRefused = false;
  crash::setLiveFile(mFile);
  if (mFile != platform::kNoFile) applyRetentionIfDue();
  return mFile;
}

platform::FileHandle LogFile::openLiveFile() {
  // The live file is held (an open-file-description lock) for as long as
  // it is open, so that the retention of another process sharing the base
  // leaves it. That retention locks a file before it removes it: a file
  // opened here while it was doing so is no longer at the name once the
  // lock is ours, and is opened anew. A lock that stays refused belongs to
  // another live process writing to a file of the same name; the file is
  // held all the same.
  for (int attempt = 0; attempt < 3; ++attempt) {
    const platform::FileHandle file = platform::openAppendAt(mDayDir, mFileName.c_str());
    if (file == platform::kNoFile) return file;
    platform::holdFile(file);
    if (platform::isSameFileAt(mDayDir, mFileName.c_str(), file)) return file;
    platform::closeFile(file);
  }
  return platform::kNoFile;
}

bool LogFile::openDayDirectory(const std::string& dayDir, bool report, platform::DirHandle* day) {
  // The directory that holds the day directories may be reached through a
  // link the user (or the administrator) made; the day directory itself must
  // be a real directory, opened without following a link, and every later
  // use goes through its handle.
  *day = platform::kNoFile;
  const std::size_t cut = dayDir.find_last_of("/\\");
  std::string holder = cut == std::string::npos ? std::string(".") : dayDir.substr(0, cut + 1);
  const std::string dayName = cut == std::string::npos ? dayDir : dayDir.substr(cut + 1);
  if (holder.size() > 1) holder.pop_back();  // "/a/b/" -> "/a/b"; "/" stays
  platform::DirHandle base = platform::kNoFile;
  platform::DirCheck check = platform::openBaseDirectory(holder.c_str(), &base);
  if (check != platform::DirCheck::kOk) {
    if (report && check != platform::DirCheck::kMissing) refuse(holder, check);
    return false;
  }
  check = platform::openDirectoryAt(base, dayName.c_str(), day);
  if (check == platform::DirCheck::kMissing && platform::makeDirAt(base, dayName.c_str()) == 0) {
    check = platform::openDirectoryAt(base, dayName.c_str(), day);
  }
  platform::closeDirectory(base);
  if (check != platform::DirCheck::kOk) {
    if (report && check != platform::DirCheck::kMissing) refuse(dayDir, check);
    return false;
  }
  return true;
}

void LogFile::refuse(const std::string& path, platform::DirCheck check) {
  mRefused = true;
  std::string text = path + ": " + platform::dirCheckText(check);
  if (text == mRefusal) return;  // reported once
  mRefusal = text;
  logConsole("zel log: refusing to write the log into %s; lines are dropped\n", text.c_str());
}

void LogFile::applyRetentionIfDue() {
  int days = 0;
  int64_t totalBytes = 0;
  if (!retention::takeDue(&days, &totalBytes)) return;
  if (mCurDate.size() < 8) return;
  const int64_t today = names::daysFromCivil(
      std::stoi(mCurDate.substr(0, 4)), static_cast<unsigned>(std::stoi(mCurDate.substr(4, 2))),
      static_cast<unsigned>(std::stoi(mCurDate.substr(6, 2))));
  retention::apply(mBase, days, totalBytes, mFilePath, today);
}

void LogFile::updateLogFile(unsigned char index) {
  const unsigned char old =
      static_cast<unsigned char>(index - static_cast<unsigned char>(mMaxFileCount.load()));
  if (mDirLen > kPathSize) return;
  char path[kPathSize] = {0};
  names::buildPath(path, kPathSize, mLogDir, mDirLen, mProcessName, mStartTime,
                   std::to_string(static_cast<unsigned>(old)).c_str());
  int64_t size = 0;
  // A file that another process holds (the live file of a process of the
  // same name started in the same second) is left.
  if (mDayDir != platform::kNoFile &&
      platform::regularFileSizeAt(mDayDir, names::fileNameOf(path), &size) &&
      platform::removeUnheldFileAt(mDayDir, names::fileNameOf(path)) == -1) {
    logConsole("delete file: %s failed\n", path);
  }
}

int64_t LogFile::write(platform::FileHandle file, const char* text, std::size_t size) {
  const platform::WriteBuffer piece{text, size};
  std::size_t written = 0;
  return writeRun(file, &piece, 1, &written);
}

int64_t LogFile::writeRun(platform::FileHandle file, const platform::WriteBuffer* pieces,
                          std::size_t count, std::size_t* written) {
  const int64_t result = platform::writeAll(file, pieces, count, written);
  if (file == mFile) {
    if (result < 0) {
      mFileOffset = -1;
    } else if (mFileOffset >= 0) {
      mFileOffset += result;
    }
    mRunPosition = -1;
  }
  return result;
}

}  // namespace zel
