// SPDX-License-Identifier: MIT

#include "utils/log/internal/retention.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <tuple>
#include <vector>

#include "utils/log/internal/file_names.h"
#include "utils/platform.h"

namespace zel {
namespace retention {

namespace {

struct Settings {
  std::mutex mutex;
  int days = 0;
  int64_t totalBytes = 0;
  bool due = false;
};

// True while settings wait to be applied: the writer tests it for every line
// without taking the lock.
std::atomic<bool> sDue{false};

Settings& settings() {
  static Settings* s = new Settings;  // never destroyed: the writer may run at exit
  return *s;
}

void report(const char* what, const std::string& path) {
  std::printf("zel log: retention removed %s %s\n", what, path.c_str());
  std::fflush(stdout);
}

// One log file found below the base.
struct Found {
  int64_t day;
  std::string startTime;
  int index;
  std::string dayName;  // the day directory's name below the base's directory
  std::string name;     // the file's name in it
  std::string path;
  int64_t size;
};

}  // namespace

void set(int days, int64_t totalBytes) {
  Settings& s = settings();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.days = days > 0 ? days : 0;
  s.totalBytes = totalBytes > 0 ? totalBytes : 0;
  s.due = true;
  sDue.store(true);
}

bool takeDue(int* days, int64_t* totalBytes) {
  if (!sDue.load(std::memory_order_acquire)) return false;
  Settings& s = settings();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (!s.due) return false;
  s.due = false;
  sDue.store(false);
  if (s.days == 0 && s.totalBytes == 0) return false;
  *days = s.days;
  *totalBytes = s.totalBytes;
  return true;
}

void lockForFork() { settings().mutex.lock(); }

void unlockAfterFork() { settings().mutex.unlock(); }

void markDue() {
  Settings& s = settings();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.due = true;
  sDue.store(true);
}

namespace {

// Removes the file `name` of the day directory `dayName` below `holder`,
// both reached through handles (the day directory opened without following
// a link), unless another process holds it. True when it was removed.
bool removeLogFile(platform::DirHandle holder, const std::string& dayName,
                   const std::string& name) {
  platform::DirHandle day = platform::kNoFile;
  if (platform::openDirectoryAt(holder, dayName.c_str(), &day) != platform::DirCheck::kOk) {
    return false;
  }
  const bool removed = platform::removeUnheldFileAt(day, name.c_str()) == 0;
  platform::closeDirectory(day);
  return removed;
}

// One pass of apply(): the directory that holds the day directories (open),
// the base's directory part (ending in a separator, or empty), the live
// file, and what the pass found and removed so far.
struct Sweep {
  platform::DirHandle holder = platform::kNoFile;
  std::string parent;
  std::string livePath;
  std::vector<Found> files;          // the log files that stay for now
  std::vector<std::string> dayDirs;  // expired, or a file was removed from it
  int removed = 0;
};

// Lists the log files of the day directory `entry` (dated `day`) into
// sweep->files; when `expired`, removes them instead (the live file and
// files another process holds stay, and count).
void scanDay(Sweep* sweep, const platform::DirEntry& entry, int64_t day, bool expired) {
  const std::string dir = sweep->parent + entry.name + "/";
  platform::DirHandle dayDir = platform::kNoFile;
  if (platform::openDirectoryAt(sweep->holder, entry.name.c_str(), &dayDir) !=
      platform::DirCheck::kOk) {
    return;
  }
  std::vector<platform::DirEntry> inside;
  const bool listed = platform::listDirectoryAt(dayDir, &inside);
  if (!listed) {
    platform::closeDirectory(dayDir);
    return;
  }
  for (const platform::DirEntry& file : inside) {
    Found found;
    if (!file.isFile || !names::parseLogFileName(file.name, &found.startTime, &found.index))
      continue;
    found.day = day;
    found.dayName = entry.name;
    found.name = file.name;
    found.path = dir + file.name;
    found.size = file.size;
    if (found.path == sweep->livePath) {
      sweep->files.push_back(found);  // counted, never removed
      continue;
    }
    if (expired) {
      if (platform::removeUnheldFileAt(dayDir, file.name.c_str()) == 0) {
        report("file", found.path);
        ++sweep->removed;
      } else {
        sweep->files.push_back(found);  // held by another process: it stays, and counts
      }
      continue;
    }
    sweep->files.push_back(found);
  }
  platform::closeDirectory(dayDir);
  if (expired) sweep->dayDirs.push_back(entry.name);
}

// Removes the oldest of sweep->files (by date, start time, rotation index)
// until they total at most `totalBytes`; never the live file.
void trimToTotal(Sweep* sweep, int64_t totalBytes) {
  std::vector<Found>& files = sweep->files;
  int64_t total = 0;
  for (const Found& f : files) total += f.size;
  std::sort(files.begin(), files.end(), [](const Found& a, const Found& b) {
    return std::tie(a.day, a.startTime, a.index, a.path) <
           std::tie(b.day, b.startTime, b.index, b.path);
  });
  for (const Found& f : files) {
    if (total <= totalBytes) break;
    if (f.path == sweep->livePath) continue;
    if (removeLogFile(sweep->holder, f.dayName, f.name)) {
      report("file", f.path);
      total -= f.size;
      ++sweep->removed;
      if (std::find(sweep->dayDirs.begin(), sweep->dayDirs.end(), f.dayName) ==
          sweep->dayDirs.end()) {
        sweep->dayDirs.push_back(f.dayName);
      }
    }
  }
}

// Removes the day directories of sweep->dayDirs that are empty now, except
// the live file's own.
void removeEmptiedDays(Sweep* sweep) {
  for (const std::string& name : sweep->dayDirs) {
    const std::string dir = sweep->parent + name + "/";
    if (sweep->livePath.compare(0, dir.size(), dir) == 0) continue;
    platform::DirHandle dayDir = platform::kNoFile;
    if (platform::openDirectoryAt(sweep->holder, name.c_str(), &dayDir) !=
        platform::DirCheck::kOk) {
      continue;
    }
    std::vector<platform::DirEntry> inside;
    const bool empty = platform::listDirectoryAt(dayDir, &inside) && inside.empty();
    platform::closeDirectory(dayDir);
    if (!empty) continue;
    if (platform::removeDirectoryAt(sweep->holder, name.c_str()) == 0) {
      report("directory", dir);
      ++sweep->removed;
    }
  }
}

}  // namespace

int apply(const std::string& base, int days, int64_t totalBytes, const std::string& livePath,
          int64_t today) {
  // The day directories are named base + "YYYYMMDD": they sit in the
  // directory part of the base and start with its last part. That directory
  // is opened and checked as the log's own writer does, and everything
  // below it is reached through handles: a day directory swapped for a link
  // is never entered, and a file that another process holds (its live file)
  // is never removed.
  const std::size_t cut = base.find_last_of("/\\");
  Sweep sweep;
  sweep.parent = cut == std::string::npos ? std::string() : base.substr(0, cut + 1);
  sweep.livePath = livePath;
  const std::string prefix = cut == std::string::npos ? base : base.substr(cut + 1);
  std::string holderPath = sweep.parent.empty() ? std::string(".") : sweep.parent;
  if (holderPath.size() > 1 && (holderPath.back() == '/' || holderPath.back() == '\\')) {
    holderPath.pop_back();
  }
  if (platform::openBaseDirectory(holderPath.c_str(), &sweep.holder) != platform::DirCheck::kOk) {
    return 0;
  }
  std::vector<platform::DirEntry> entries;
  if (!platform::listDirectoryAt(sweep.holder, &entries)) {
    platform::closeDirectory(sweep.holder);
    return 0;
  }
  for (const platform::DirEntry& entry : entries) {
    int64_t day = 0;
    // lstat: a link named like a day directory is not one of ours.
    if (!entry.isDirectory || !names::parseDayDirName(entry.name, prefix, &day)) continue;
    scanDay(&sweep, entry, day, days > 0 && today - day > days);
  }
  if (totalBytes > 0) trimToTotal(&sweep, totalBytes);
  // Day directories emptied here go too, except the live file's own.
  removeEmptiedDays(&sweep);
  platform::closeDirectory(sweep.holder);
  return sweep.removed;
}

}  // namespace retention
}  // namespace zel
