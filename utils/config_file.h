// SPDX-License-Identifier: MIT

// Single values of an INI-style configuration file, and the per-user data
// path.
//
// The file holds header lines with a section name in square brackets and,
// under them, one key and value per line joined by "=". The reader returns a
// value as a small heap text; the writer replaces the value of an existing
// key by copying the file into "<path>.tmp" and renaming that over the file.
// Every call opens, scans and closes the file itself: there is no cache, no
// lock and no state between calls, and nothing is logged. Files are opened
// so that child processes do not inherit them (close-on-exec on POSIX, a
// non-inheritable handle on Windows). No exception leaves these functions.
//
// The scanning rules are deliberately loose, and callers rely on them:
// - A file is read line by line through a 1024-byte buffer, so a physical
//   line longer than 1023 characters is handled as several lines.
// - The header pattern is "[section]" formatted into 32 bytes: a section name
//   of 30 characters or more loses its closing bracket and never matches its
//   own header line.
// - A header line is a line whose text, less its last character (normally the
//   newline), is the header pattern or a prefix of it: "[net" or a line made
//   of "[" alone match the section "net"; "[net] " (trailing blank) does not.
// - A key line matches when the text before its first "=" (blanks kept) is
//   the requested key or a prefix of it: "time=5" answers "time" and
//   "timeout"; "=5" answers any key.
// - Once a header line has matched, the scan stays inside the section to the
//   end of the file, also past later headers of other sections.
// - Files are opened in the runtime's text mode. On POSIX systems that mode
//   does not translate line ends: a carriage return before the newline is an
//   ordinary character, so "[net]\r\n" is not a header line of "net" and a
//   value read from "port=80\r\n" keeps its "\r".
//
// In this version GetConfigFilePath() yields the empty path, so the four
// functions without a `path` argument (GetKeyString, GetKeyInt,
// PutKeyString, PutKeyInt) always fail to open the file. The functions with
// a `path` argument apply the same rules to a file of the caller's choice;
// each of the four calls its path-taking twin with GetConfigFilePath().
//
// Threads: any thread. Two writers of one file at a time share the same
// ".tmp" name and can destroy each other's copy; a reader during a write sees
// the old or the new file. Callers serialise writes themselves.
//
// Example:
//   char* port = GetKeyStringFromFile("/etc/client.ini", "net", "port");
//   if (port != nullptr) {
//     printf("port: %s\n", port);  // "" when not found
//     free(port);
//   }
//   int rc = PutKeyIntToFile("/etc/client.ini", "net", "port", 8080);  // 0
#ifndef ZEL_UTILS_CONFIG_FILE_H_
#define ZEL_UTILS_CONFIG_FILE_H_

#include <string>

#include "utils/export.h"

// These functions keep C linkage (unadorned export names) although
// GetAppDataPath returns std::string; they are meant for C++ callers.
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#elif defined(_MSC_VER)
#pragma warning(push)
#pragma warning(disable : 4190)
#endif

extern "C" {

// Returns the per-user log directory below the environment variable
// "APPDATA": its value, "ostrel" and "log", each followed by the path
// separator ('\' on Windows, '/' elsewhere), so APPDATA=D:\x gives
// D:\x\ostrel\log\ on Windows. The text is cut at 255 characters. Returns the
// empty text when "APPDATA" is not set, and on POSIX in a process that runs
// with more privileges than its caller (set-user-ID, set-group-ID, file
// capabilities), which reads no environment variable. Nothing is created
// on disk.
ZEL_API std::string GetAppDataPath();

// Returns a heap copy of the configuration file's path, which is the empty
// text in this version: no location is composed. Returns null when the copy
// cannot be allocated. Ownership: the caller releases the result with free().
ZEL_API char* GetConfigFilePath();

// Reads the value of `key` in `section` of the file at `path`. Comment lines
// (starting with "//" or "#") and lines shorter than 2 characters are
// skipped; ";" is ordinary text. The first key line that matches inside the
// section (see the rules above) gives the value: the text after its first
// "=", less the line's last character (the newline, or the last character of
// the value on a final line without one). A value of 32 characters or more is
// cut to its first 31; a final line of the key and "=" alone gives the empty
// value.
// Results: a 32-byte heap block holding the value, zero-filled behind it; an
// empty block when the key is not found; when the file cannot be opened, an
// empty block after perror("fopen") wrote "fopen: " and the reason to
// standard error. Null when `path` is null or the block cannot be allocated.
// `section` and `key` must not be null. A file whose lines hold NUL bytes is
// read up to the first NUL of each line.
// Ownership: the caller releases the result with free().
ZEL_API char* GetKeyStringFromFile(const char* path, const char* section, const char* key);

// Returns the value that GetKeyStringFromFile() reads, converted with atoi
// (leading blanks skipped, optional sign, decimal digits up to the first
// other character). Returns 0 when the value is absent, empty or not a
// number: absent and zero are not told apart.
ZEL_API int GetKeyIntFromFile(const char* path, const char* section, const char* key);

// Replaces the value of `key` in `section` of the file at `path` with
// `value`. The file is copied line by line into "<path>.tmp", which is then
// renamed over `path`, replacing it. Only the first key line that matches
// inside the section is changed: everything after its "=" becomes `value`
// and a newline, cut when the line would pass 1023 characters. No comment or
// short-line rule applies here, so a "#" or "//" line is compared like any
// other, and an empty line (a newline alone) always counts as a header line:
// a blank line before the wanted section lets the first matching key line
// after it be replaced, even in another section. A missing key or section is
// not added: the file is rewritten unchanged.
// The file is never replaced by a damaged copy: every write to the copy,
// its flush and its close are checked, and the copy is synced to the disk
// and given the file's permission bits (on POSIX also its owner and group,
// where the process may give them) before it replaces the file. On
// Windows a file that another process holds open is retried for about two
// seconds. Both files are opened so that child processes do not inherit them.
// Nothing another local user places at "<path>.tmp" is written through: the
// copy is created with mode 0600, so that no other user can read it while
// it is written (a 0600 file is never readable by others, not even for a
// moment), a symbolic link there (a reparse point on Windows) is never
// followed, and an existing "<path>.tmp" is used (and emptied) only when it
// is a regular file of the process's effective user (POSIX) with one link.
// A `value` holding a carriage return or a line feed is refused: it would
// end the line and inject lines (a section, a key) of its own.
// Results: 0 on success, also when nothing was replaced, and when `path` is
// null (nothing is written). -2 when the file cannot be opened for reading
// (nothing is printed). -1, with nothing written and the file untouched,
// when `value` holds "\r" or "\n", or when "<path>.tmp" is a symbolic link,
// a hard link (more than one link), not a regular file or (POSIX) owned by
// another user: that name is then left as it was. -1 also when "<path>.tmp"
// does not fit in 1023 characters
// or cannot be created, when reading the file or writing, syncing or closing
// the copy fails (a full disk, a quota, a size limit), or when the permission
// bits cannot be given: the file is then left as it was and the ".tmp" file
// is removed. -1 also when the final rename fails: the file is left as it
// was and the complete ".tmp" copy stays beside it. `section`, `key` and
// `value` must not be null.
// WARNING: each line is copied up to its first NUL byte; the rest of such a
// line, its newline included, is dropped from the rewritten file.
ZEL_API int PutKeyStringToFile(const char* path, const char* section, const char* key,
                               const char* value);

// Formats `value` in decimal ("-7") and writes it with PutKeyStringToFile();
// returns that function's result (the checks of "<path>.tmp" included).
ZEL_API int PutKeyIntToFile(const char* path, const char* section, const char* key, int value);

// GetKeyStringFromFile() on GetConfigFilePath(). Returns null when the path
// cannot be allocated. In this version the path is empty, so it prints the
// "fopen" error and returns an empty block. Ownership: the caller releases
// the result with free().
ZEL_API char* GetKeyString(const char* section, const char* key);

// GetKeyIntFromFile() on GetConfigFilePath(); 0 when the path cannot be
// allocated. In this version it prints the "fopen" error and returns 0.
ZEL_API int GetKeyInt(const char* section, const char* key);

// PutKeyStringToFile() on GetConfigFilePath(); 0 (nothing written) when the
// path cannot be allocated. In this version it returns -2, whatever the
// value (also one holding a line end: the path is empty, so the file
// cannot be opened, which is told first).
ZEL_API int PutKeyString(const char* section, const char* key, const char* value);

// PutKeyIntToFile() on GetConfigFilePath(). In this version it returns -2.
ZEL_API int PutKeyInt(const char* section, const char* key, int value);

}  // extern "C"

#if defined(__clang__)
#pragma clang diagnostic pop
#elif defined(_MSC_VER)
#pragma warning(pop)
#endif

#endif  // ZEL_UTILS_CONFIG_FILE_H_
