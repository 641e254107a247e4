// SPDX-License-Identifier: MIT

// Typed values and lists of one key file, read through GLib's GKeyFile.
//
// A key file holds groups in square brackets and, under them, entries of a
// key, "=" and a value; a list value joins its items with the list separator
// (";" unless Init() sets another). GLib does all parsing and conversion;
// ConfigParser adds the argument checks, the defaults, a lock around every
// key-file call and the error lines it logs (level 0, through log_print,
// only when zel_log_level() is 0 or more). Nothing is ever written back to
// the file.
//
// Threads: the parser starts none. Init() must complete before the parser is
// shared; the getters and SetValuesByString() may then run on any number of
// threads at once; destruction must follow the last use.
//
// Example (client.conf holds "[net]", "port=8080", "hosts=a,b"):
//   zel::ConfigParser parser;
//   if (parser.Init("client.conf", ",") == 0) {
//     int port = 0;
//     parser.GetIntegerVal("net", "port", &port);                           // 8080
//     std::vector<std::string> hosts = parser.GetStringVals("net", "hosts");  // a, b
//   }
#ifndef ZEL_UTILS_CONFIG_PARSER_H_
#define ZEL_UTILS_CONFIG_PARSER_H_

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "utils/export.h"

#if defined(__clang__)
// GLib's name for the struct starts with an underscore and a capital letter,
// which clang reports (-Wreserved-identifier) in every user's build.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wunknown-warning-option"
#pragma clang diagnostic ignored "-Wreserved-identifier"
#endif
// GLib's key-file handle, declared here so that this header needs no GLib
// header; the library itself uses GLib's own declaration.
typedef struct _GKeyFile GKeyFile;
#if defined(__clang__)
#pragma clang diagnostic pop
#endif

namespace zel {

// The largest key file that ConfigParser::Init() reads, in bytes (16 MiB):
// a configuration is far smaller, and a larger file is refused before its
// bytes (and GLib's copy of them) take memory and time.
constexpr std::size_t kConfigParserMaxFileSize = 16u * 1024 * 1024;

// A parser of one key file, as the top of this file describes.
class ZEL_API ConfigParser {
 public:
  // Makes a parser with no key file; call Init() before any getter.
  ConfigParser();

  // Releases the loaded key file, if any. Takes no lock: no other thread may
  // be inside a getter.
  ~ConfigParser();

  ConfigParser(const ConfigParser&) = delete;
  ConfigParser& operator=(const ConfigParser&) = delete;

  // Loads the key file at `path`. A `separator` of exactly one character
  // becomes the list separator; any other length (empty, or two or more
  // characters) keeps ";". A key file loaded by an earlier Init() is released
  // first.
  // Only a regular file is read (links followed), and only up to
  // kConfigParserMaxFileSize bytes: the open never waits, so a FIFO or a
  // device at `path` fails at once instead of blocking Init() or reading
  // without end, and a larger file fails without being read.
  // Returns 0 when the file was loaded. Returns -1 when `path` is empty
  // (logs "Error:file[] err" and changes nothing) or when the file cannot be
  // loaded (missing, unreadable, not a regular file, larger than
  // kConfigParserMaxFileSize, not a valid key file, for example one that
  // starts with a UTF-8 byte order mark): it then logs "Error:file[<path>]
  // err" and leaves the parser without a key file, as if newly made. Both
  // lines are also handed to the registered log backends.
  // Threads: not thread-safe; call it before sharing the parser.
  int Init(const std::string& path, const std::string& separator);

  // Returns the root text, which no operation of this version sets: always
  // the empty text.
  const std::string GetRoot();

  // Returns the string value of `key` in `group`. Returns the empty text when
  // `group` or `key` is empty, when the group or key is missing, when the
  // value is not valid UTF-8, and before a successful Init(). Logs nothing.
  // Threads: any thread.
  std::string GetStringVal(const std::string& group, const std::string& key);

  // Returns the items of the list value of `key` in `group`, in their order.
  // Returns an empty vector when `group` or `key` is empty (no line) and on
  // any error reported by GLib (a missing group or key, an item that is not
  // valid UTF-8), after logging "Error:<GLib's message>". Threads: any thread.
  std::vector<std::string> GetStringVals(const std::string& group, const std::string& key);

  // Stores the integer value of `key` in `group` in `*value`. Returns -1,
  // leaving `*value` untouched, when `group` or `key` is empty; otherwise
  // returns 0 and stores 0 for a missing or malformed value, without a log
  // line: a stored zero and a failure are not told apart. `value` must not be
  // null. Threads: any thread.
  int GetIntegerVal(const std::string& group, const std::string& key, int* value);

  // Returns the items of the integer list value of `key` in `group`. Returns
  // an empty vector when `group` or `key` is empty (no line) and on any GLib
  // error, for example an item that is not an integer, after logging
  // "Error:<GLib's message>". Threads: any thread.
  std::vector<int> GetIntegerVals(const std::string& group, const std::string& key);

  // Stores the floating-point value of `key` in `group` in `*value`. Returns
  // -1, leaving `*value` untouched, when `group` or `key` is empty; otherwise
  // returns 0 and stores 0.0 for a missing or malformed value, after logging
  // "Error:<GLib's message>". `value` must not be null. Threads: any thread.
  int GetDoubleVal(const std::string& group, const std::string& key, double* value);

  // Returns the items of the floating-point list value of `key` in `group`.
  // Returns an empty vector when `group` or `key` is empty (no line) and on
  // any GLib error, after logging "Error:<GLib's message>". Threads: any
  // thread.
  std::vector<double> GetDoubleVals(const std::string& group, const std::string& key);

  // Returns the boolean value ("true"/"false", "1"/"0") of `key` in `group`.
  // Returns false when `group` or `key` is empty and for a missing or
  // malformed value, without a log line. Threads: any thread.
  bool GetBooleanVal(const std::string& group, const std::string& key);

  // Returns the items of the boolean list value of `key` in `group`. Returns
  // an empty vector when `group` or `key` is empty (no line) and on any GLib
  // error, after logging "Error:<GLib's message>". Threads: any thread.
  std::vector<bool> GetBooleanVals(const std::string& group, const std::string& key);

  // Sets the string value of `key` in `group` to `value` in the loaded copy
  // only; later getters see it, the file on disk does not change. Returns -1
  // and changes nothing when any argument is empty. Otherwise returns 0 and
  // logs "Error:not implement" on every call, because writing back to the
  // file is not implemented. Before a successful Init() nothing is stored.
  // Threads: any thread.
  // WARNING: a group or key name that GLib refuses (for example one holding
  // "[", "]" or "=", or a key with a leading or trailing blank) is not
  // stored, and GLib prints a critical warning on standard error; the result
  // and the log line are the same as for a stored value.
  int SetValuesByString(const std::string& group, const std::string& key, const std::string& value);

 private:
  std::string mFilePath;  // the path of the last Init() with a non-empty path
  std::string mRoot;      // never set: GetRoot() yields the empty text
  std::mutex mMutex;      // held around every key-file call of the getters and setter
  GKeyFile* mKeyFile;     // null until Init() loads a file; guarded by mMutex once shared
};

}  // namespace zel

#endif  // ZEL_UTILS_CONFIG_PARSER_H_
