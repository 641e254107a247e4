// SPDX-License-Identifier: MIT

// The one home of the log's file names: the day directories (the base
// followed by "YYYYMMDD") and, inside them, the live file
// "zel.log.<process>.<hhmmss>.txt" and the rotated files
// "zel.log.<process>.<hhmmss>.<0-255>". The file writer builds them for
// the live file, rotation and the deletion of the file that falls out of
// the kept count; retention parses them. Internal: this header is not
// installed.
#ifndef ZEL_UTILS_LOG_INTERNAL_FILE_NAMES_H_
#define ZEL_UTILS_LOG_INTERNAL_FILE_NAMES_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace zel {
namespace names {

// Writes into `buf` (`size` bytes, zero-filled by the caller) the first
// `dirLen` characters of `dir` followed by the file name "zel.log.<name>.
// <start>.<suffix>" (suffix "txt" for the live file, the rotation index for
// a rotated one); everything is cut to fit and the result is terminated.
void buildPath(char* buf, std::size_t size, const std::string& dir, uint64_t dirLen,
               const std::string& name, const std::string& start, const char* suffix);

// The file name part of `path` (after its last '/' or '\').
const char* fileNameOf(const char* path);

// The number of days since 1970-01-01 of the calendar date y-m-d.
int64_t daysFromCivil(int64_t y, unsigned m, unsigned d);

// True when `name` is `prefix` followed by a date "YYYYMMDD" of the
// calendar; `*day` gets its daysFromCivil().
bool parseDayDirName(const std::string& name, const std::string& prefix, int64_t* day);

// True when `name` is one of the library's log file names; `*startTime` gets
// its six-digit start time and `*index` its rotation index (256 for the
// live ".txt" file, the newest of its run).
bool parseLogFileName(const std::string& name, std::string* startTime, int* index);

}  // namespace names
}  // namespace zel

#endif  // ZEL_UTILS_LOG_INTERNAL_FILE_NAMES_H_
