// SPDX-License-Identifier: MIT

#include "tracer/tracer_client.h"

#include <curl/curl.h>
#if !defined(_WIN32)
#include <dlfcn.h>
#endif
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#if !defined(_WIN32)
#include <dirent.h>
#include <signal.h>
#endif
#include <zlib.h>
#if defined(_WIN32)
#include <io.h>
#include <windows.h>
#endif

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "tracer/tracer_config.h"

// Descriptor flags that only some systems have: the file target's bytes go
// to disk as they are, and its descriptor is not inherited by children.
#ifndef O_BINARY
#define O_BINARY 0
#endif
#ifndef O_CLOEXEC
#ifdef O_NOINHERIT
#define O_CLOEXEC O_NOINHERIT
#else
#define O_CLOEXEC 0
#endif
#endif

namespace zel_tracer_detail {

// Where the documents of one client go.
class Sink {
 public:
  virtual ~Sink() = default;
  // Delivers or queues one document; see TracerClient::postTrace().
  virtual bool post(const std::string& text) = 0;
  // Finishes the delivery before the client is freed.
  virtual void close() = 0;
};

}  // namespace zel_tracer_detail

namespace {

using zel_tracer_detail::Endpoint;
using zel_tracer_detail::HttpSettings;
using zel_tracer_detail::Sink;
using Clock = std::chrono::steady_clock;

// Reports a delivery problem on standard error, one line, whole.
void report(const std::string& text) {
  const std::string line = "zel_tracer: " + text + "\n";
  static_cast<void>(std::fwrite(line.data(), 1, line.size(), stderr));
  static_cast<void>(std::fflush(stderr));
}

// ---------------------------------------------------------------------------
// Documents that could not be kept: counted by reason and said in the
// application's log.

constexpr char kFile[] = "/tracer_client.cpp";

// The log functions of the library that embeds this client, found when the
// process runs: this library does not link it (it links this one), and a
// program without it still has the tracing client.
using LogPrintFunction = int (*)(int, int, const char*, ...);
using LogLevelFunction = int (*)();

struct LogFunctions {
  LogPrintFunction print = nullptr;
  LogLevelFunction level = nullptr;
};

LogFunctions findLog() {
  LogFunctions log;
#if defined(_WIN32)
  const HMODULE module = GetModuleHandleA("zel_utils.dll");
  if (module == nullptr) return log;
  log.print = reinterpret_cast<LogPrintFunction>(
      reinterpret_cast<void*>(GetProcAddress(module, "log_print")));
  log.level = reinterpret_cast<LogLevelFunction>(
      reinterpret_cast<void*>(GetProcAddress(module, "zel_log_level")));
#else
  log.print = reinterpret_cast<LogPrintFunction>(dlsym(RTLD_DEFAULT, "log_print"));
  log.level = reinterpret_cast<LogLevelFunction>(dlsym(RTLD_DEFAULT, "zel_log_level"));
#endif
  if (log.print == nullptr || log.level == nullptr) return LogFunctions{};
  return log;
}

// Counts of dropped documents by reason, for the whole process, and the
// lines that say them: at most one line per reason per second, carrying
// every drop of that reason since the previous line. A line goes to the
// log at level 0 (flag 0: never to the log backends, one of which may post
// traces itself) when the log can be found; else to standard error, except
// for reasons whose every drop standard error already says.
class DropReports {
 public:
  static DropReports& instance() {
    // Never destroyed: senders may still report while static data goes.
    static DropReports* reports = new DropReports;
    return *reports;
  }

  // Counts `count` documents dropped for `reason` and says so now when the
  // reason's last line is a second old or more. `saidOnStderr`: standard
  // error has said these drops already.
  void add(const std::string& reason, unsigned long long count, bool saidOnStderr = false) {
    if (count == 0) return;
    total_.fetch_add(count);
    std::vector<Line> lines;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      Reason& r = reasons_[reason];
      r.pending += count;
      r.saidOnStderr = saidOnStderr;
      pending_ = true;
      collectLocked(Clock::now(), lines);
    }
    say(lines);
  }

  // Says what is pending for every reason whose last line is a second old
  // or more.
  void sayDue() {
    if (!pending_.load()) return;
    std::vector<Line> lines;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      collectLocked(Clock::now(), lines);
    }
    say(lines);
  }

  // Says everything pending, waiting first until the last line of each
  // reason is a second old (at most a second).
  void sayAll() {
    if (!pending_.load()) return;
    Clock::time_point due;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      due = Clock::now();
      for (const auto& entry : reasons_) {
        if (entry.second.pending != 0) due = std::max(due, entry.second.last + kInterval);
      }
    }
    std::this_thread::sleep_until(due);
    sayDue();
  }

  unsigned long long total() const { return total_.load(); }

 private:
  struct Reason {
    unsigned long long pending = 0;
    Clock::time_point last;  // of the last line; the epoch before the first
    bool saidOnStderr = false;
  };
  struct Line {
    std::string reason;
    unsigned long long count;
    bool saidOnStderr;
  };

  static constexpr std::chrono::seconds kInterval{1};

  void collectLocked(Clock::time_point now, std::vector<Line>& lines) {
    bool left = false;
    for (auto& entry : reasons_) {
      Reason& r = entry.second;
      if (r.pending == 0) continue;
      if (r.last != Clock::time_point() && now - r.last < kInterval) {
        left = true;
        continue;
      }
      lines.push_back(Line{entry.first, r.pending, r.saidOnStderr});
      r.pending = 0;
      r.last = now;
    }
    pending_ = left;
  }

  void say(const std::vector<Line>& lines) {
    if (lines.empty()) return;
    const LogFunctions log = findLog();
    for (const Line& line : lines) {
      if (log.print != nullptr) {
        if (log.level() >= 0) {
          log.print(0, 0, "[%s][%s %s %d] Error:zel trace: %llu documents dropped (%s)\n", "",
                    kFile, "DropReports::say", __LINE__, line.count, line.reason.c_str());
        }
      } else if (!line.saidOnStderr) {
        // The log's text without its prefix.
        const std::string text = "zel trace: " + std::to_string(line.count) +
                                 " documents dropped (" + line.reason + ")\n";
        static_cast<void>(std::fwrite(text.data(), 1, text.size(), stderr));
        static_cast<void>(std::fflush(stderr));
      }
    }
  }

  std::mutex mutex_;
  std::map<std::string, Reason> reasons_;  // guarded by mutex_
  std::atomic<bool> pending_{false};       // some reason has drops not said yet
  std::atomic<unsigned long long> total_{0};
};

// ---------------------------------------------------------------------------
// file:// target.

// Serialises the appends of every file client of the process, so that
// documents written by several threads or clients keep their order.
std::mutex& appendMutex() {
  // Never destroyed: a client may still post while static data goes away.
  static std::mutex* mutex = new std::mutex;
  return *mutex;
}

// Opens the trace file `path` for appending, creating it with mode 0600
// (only this user may read what devices report), without following a link
// at its name, and keeps it only when it is a regular file of the
// effective user with one link: anything else could be another user's file
// reached through a name he planted. Returns the descriptor, or -1 with
// `refusal` set to why the file was refused (and left empty when it could
// not be opened at all, as for a missing directory).
int openTraceFile(const std::string& path, std::string& refusal) {
#if defined(_WIN32)
  // No link or junction at the name is followed: a reparse point is opened
  // itself and then refused.
  const HANDLE handle =
      CreateFileA(path.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES,
                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                  FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return -1;
  BY_HANDLE_FILE_INFORMATION info;
  if (!GetFileInformationByHandle(handle, &info)) {
    CloseHandle(handle);
    return -1;
  }
  if ((info.dwFileAttributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) != 0) {
    refusal = "not a regular file (a link, a junction or a directory)";
  } else if (info.nNumberOfLinks != 1) {
    refusal = "a file with " + std::to_string(info.nNumberOfLinks) + " links";
  }
  if (!refusal.empty()) {
    CloseHandle(handle);
    return -1;
  }
  const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_APPEND | _O_BINARY);
  if (fd < 0) CloseHandle(handle);
  return fd;
#else
  // O_NONBLOCK: a FIFO at the name must not block the post until a reader
  // comes; it is refused below (or fails here when nobody reads it).
  const int fd = ::open(path.c_str(),
                        O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
  if (fd < 0) {
    if (errno == ELOOP) refusal = "a symbolic link";
    if (errno == ENXIO) refusal = "not a regular file";
    return -1;
  }
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    ::close(fd);
    return -1;
  }
  if (!S_ISREG(st.st_mode)) {
    refusal = "not a regular file";
  } else if (st.st_uid != ::geteuid()) {
    refusal = "owned by another user (uid " + std::to_string(st.st_uid) + ")";
  } else if (st.st_nlink != 1) {
    refusal = "a file with " + std::to_string(st.st_nlink) + " links";
  }
  if (!refusal.empty()) {
    ::close(fd);
    return -1;
  }
  return fd;
#endif
}

class FileSink : public Sink {
 public:
  explicit FileSink(std::string path) : path_(std::move(path)) {}

  bool post(const std::string& text) override {
    std::string record = text;
    record.push_back('\n');
    std::lock_guard<std::mutex> lock(appendMutex());
    // Opened per document: a file moved away or removed from outside is
    // simply created again. In append mode every write lands at the end
    // of the file as it is then, so the record, written with one call,
    // stays whole even when other processes append to the same file.
    std::string refusal;
    const int fd = openTraceFile(path_, refusal);
    if (fd < 0) {
      DropReports::instance().add(refusal.empty() ? "trace file not written" : "trace file refused",
                                  1);
      if (!refusal.empty() && !refusalSaid_) {
        refusalSaid_ = true;
        report("documents not written: the trace file " + path_ + " is " + refusal +
               " (later refusals are not reported)");
      }
      return false;
    }
    std::size_t done = 0;
    bool written = true;
    while (done < record.size()) {
      // Only a full disk or a signal makes one call write less; the rest
      // then follows at once.
      const auto n = ::write(fd, record.data() + done, static_cast<unsigned>(record.size() - done));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        written = false;
        break;
      }
      done += static_cast<std::size_t>(n);
    }
    const bool ok = (::close(fd) == 0) && written;
    if (!ok) DropReports::instance().add("trace file not written", 1);
    return ok;
  }

  void close() override {}

 private:
  const std::string path_;
  bool refusalSaid_ = false;  // guarded by appendMutex()
};

// ---------------------------------------------------------------------------
// http:// and https:// targets.

// libcurl's process-wide set-up, done once before the first HTTP client and
// never undone (clients of other threads may still run at exit). Returns
// whether it succeeded.
bool curlReady() {
  static const bool ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  return ready;
}

// True when `name` can travel in a header line as it is.
bool isHeaderSafe(const std::string& name) {
  if (name.empty()) return false;
  return std::all_of(name.begin(), name.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
}

// Discards the body of the service's answer.
size_t discardBody(char* /*data*/, size_t size, size_t count, void* /*user*/) {
  return size * count;
}

// Appends `text` to `body` on one line: its line breaks and the spaces and
// tabs that follow each of them are left out. In a JSON text a raw line
// break can only stand between tokens, so the document means the same.
void appendOneLine(std::string& body, const std::string& text) {
  bool afterBreak = false;
  for (char c : text) {
    if (c == '\n' || c == '\r') {
      afterBreak = true;
      continue;
    }
    if (afterBreak && (c == ' ' || c == '\t')) continue;
    afterBreak = false;
    body.push_back(c);
  }
}

// `body` compressed in the gzip format into `out`; false when zlib fails.
bool gzipInto(const std::string& body, std::string& out) {
  z_stream stream{};
  // 15 window bits plus 16: a gzip header and trailer around the data.
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) !=
      Z_OK) {
    return false;
  }
  out.resize(deflateBound(&stream, static_cast<uLong>(body.size())) + 32);
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(body.data()));
  stream.avail_in = static_cast<uInt>(body.size());
  stream.next_out = reinterpret_cast<Bytef*>(&out[0]);
  stream.avail_out = static_cast<uInt>(out.size());
  const int result = deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return result == Z_STREAM_END;
}

// True for the libcurl errors of a TLS handshake that failed or a peer
// whose certificate was not accepted.
bool isTlsFailure(CURLcode code) {
  switch (code) {
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
      return true;
    default:
      return false;
  }
}

// True for the libcurl errors that the same request would meet again
// however often it were tried: the URL or the build cannot work.
bool isPermanent(CURLcode code) {
  switch (code) {
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
    case CURLE_NOT_BUILT_IN:
    case CURLE_BAD_FUNCTION_ARGUMENT:
    case CURLE_FUNCTION_NOT_FOUND:
    case CURLE_UNKNOWN_OPTION:
      return true;
    default:
      return false;
  }
}

// ---------------------------------------------------------------------------
// The spool: documents that cannot be delivered now, kept in files of one
// directory for a later client with the same spool directory.
//
// Files, all created 0600 in the directory, which is reached through one
// descriptor opened without following links:
//   spool-<microseconds since 1970, 20 digits>-<pid>-<n>.ndjson
//       documents waiting, one per line (each document put on one line as
//       in a batch); written whole under a temporary name "tmp-..." with
//       one write, synced, then renamed, so that a file never appears half
//       written; oldest first by name.
//   claimed-<pid>-<spool file's name>
//       a spool file a sender took (renamed) to send it; removed once its
//       documents are delivered or kept again. A claim of a process that no
//       longer runs is taken over.
//   rejected-<microseconds>-<pid>-<n>.ndjson
//       documents the service refused for good, one per line.

constexpr char kSpoolPrefix[] = "spool-";
#if !defined(_WIN32)
constexpr char kClaimedPrefix[] = "claimed-";

template <std::size_t N>
bool hasPrefix(const std::string& name, const char (&prefix)[N]) {
  return name.compare(0, N - 1, prefix) == 0;
}

// Opens the spool directory `path`, creating it (mode 0700) when missing,
// and checks it as the log's base is checked: a directory reached without
// following a link at its name, owned by the effective user, and writable
// by its group or others only with the sticky bit. Returns the descriptor,
// or -1 with `why` set.
int openSpoolDirectory(const std::string& path, std::string& why) {
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    why = std::string("cannot be created: ") + std::strerror(errno);
    return -1;
  }
  const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    why = errno == ELOOP || errno == ENOTDIR
              ? "not a directory (or a symbolic link)"
              : std::string("cannot be opened: ") + std::strerror(errno);
    return -1;
  }
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISDIR(st.st_mode)) {
    why = "not a directory";
  } else if (st.st_uid != ::geteuid()) {
    why = "owned by another user (uid " + std::to_string(st.st_uid) + ")";
  } else if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (st.st_mode & S_ISVTX) == 0) {
    why = "writable by its group or by others";
  }
  if (!why.empty()) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// Microseconds since 1970, 20 digits, for names that sort by age.
std::string stampNow() {
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                      std::chrono::system_clock::now().time_since_epoch())
                      .count();
  char buf[32];
  std::snprintf(buf, sizeof(buf), "%020lld", static_cast<long long>(us));
  return buf;
}

bool writeAll(int fd, const std::string& data) {
  std::size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}
#endif

class Spool {
 public:
  // The spool in `path`, or null (said once on standard error) when the
  // directory is refused.
  static std::unique_ptr<Spool> open(const std::string& path, long bound) {
#if defined(_WIN32)
    report("no spool: ZEL_TRACE_SPOOL_DIR " + path + " is not supported on Windows");
    static_cast<void>(bound);
    return nullptr;
#else
    std::string why;
    const int fd = openSpoolDirectory(path, why);
    if (fd < 0) {
      report("no spool: the spool directory " + path + " is " + why);
      return nullptr;
    }
    return std::unique_ptr<Spool>(new Spool(fd, static_cast<unsigned long long>(bound)));
#endif
  }

  ~Spool() {
#if !defined(_WIN32)
    ::close(dirFd_);
#endif
  }

  // Keeps `texts` in a new spool file, each on one line, making room by
  // removing the oldest spool files beyond the byte bound (counted as
  // "spool full"). False when the documents could not be kept; the caller
  // counts them.
  bool keep(const std::vector<const std::string*>& texts) {
    if (texts.empty()) return true;
    std::string data;
    for (const std::string* text : texts) {
      appendOneLine(data, *text);
      data.push_back('\n');
    }
    return writeFile(kSpoolPrefix, data, true);
  }

  // Keeps one document the service refused for good in a rejected-* file.
  bool keepRejected(const std::string& text) {
    std::string data;
    appendOneLine(data, text);
    data.push_back('\n');
    return writeFile("rejected-", data, false);
  }

  // Claims the oldest spool file not claimed by a running process, and
  // gives its documents in `texts` and its claimed name in `claimed`; a
  // torn last line (a writer that died mid-write) is skipped and counted.
  // False when there is none.
  bool claimOldest(std::vector<std::string>& texts, std::string& claimed) {
#if defined(_WIN32)
    static_cast<void>(texts);
    static_cast<void>(claimed);
    return false;
#else
    std::lock_guard<std::mutex> lock(mutex_);
    for (;;) {
      std::vector<std::string> candidates;
      for (const std::string& name : listNames()) {
        if (hasPrefix(name, kSpoolPrefix)) {
          candidates.push_back(name);
        } else if (hasPrefix(name, kClaimedPrefix)) {
          // "claimed-<pid>-<spool name>": taken over when <pid> is gone.
          const long pid = std::strtol(name.c_str() + sizeof(kClaimedPrefix) - 1, nullptr, 10);
          if (pid > 0 && ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
            candidates.push_back(name);
          }
        }
      }
      if (candidates.empty()) return false;
      // Oldest first: by the spool name, inside a claimed name too.
      std::sort(candidates.begin(), candidates.end(),
                [](const std::string& a, const std::string& b) {
                  return spoolNameOf(a) < spoolNameOf(b);
                });
      bool raced = false;
      for (const std::string& name : candidates) {
        const std::string mine =
            std::string(kClaimedPrefix) + std::to_string(::getpid()) + "-" + spoolNameOf(name);
        // A rename is atomic: of processes claiming one file, one wins.
        if (::renameat(dirFd_, name.c_str(), dirFd_, mine.c_str()) != 0) {
          raced = true;
          continue;
        }
        claimed = mine;
        readLines(mine, texts);
        return true;
      }
      if (!raced) return false;
    }
#endif
  }

  // Gives a claimed file back under its spool name, for a later sender.
  void unclaim(const std::string& claimed) {
#if !defined(_WIN32)
    ::renameat(dirFd_, claimed.c_str(), dirFd_, spoolNameOf(claimed).c_str());
#else
    static_cast<void>(claimed);
#endif
  }

  // Removes a claimed file whose documents are delivered or kept again.
  void release(const std::string& claimed) {
#if !defined(_WIN32)
    ::unlinkat(dirFd_, claimed.c_str(), 0);
#else
    static_cast<void>(claimed);
#endif
  }

 private:
#if !defined(_WIN32)
  Spool(int dirFd, unsigned long long bound) : dirFd_(dirFd), bound_(bound) {}

  // The spool file's name inside a claimed name, or the name itself.
  static std::string spoolNameOf(const std::string& name) {
    if (!hasPrefix(name, kClaimedPrefix)) return name;
    const std::size_t at = name.find(kSpoolPrefix);
    return at == std::string::npos ? name : name.substr(at);
  }

  std::vector<std::string> listNames() {
    std::vector<std::string> names;
    const int fd = ::openat(dirFd_, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return names;
    DIR* dir = ::fdopendir(fd);
    if (dir == nullptr) {
      ::close(fd);
      return names;
    }
    while (const dirent* entry = ::readdir(dir)) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(dir);
    return names;
  }

  // Reads the documents of the file `name`; a last line without its
  // newline is counted and skipped.
  void readLines(const std::string& name, std::vector<std::string>& texts) {
    const int fd = ::openat(dirFd_, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return;
    std::string data;
    char chunk[65536];
    for (;;) {
      const ssize_t n = ::read(fd, chunk, sizeof(chunk));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      data.append(chunk, static_cast<std::size_t>(n));
    }
    ::close(fd);
    std::size_t start = 0;
    while (start < data.size()) {
      const std::size_t end = data.find('\n', start);
      if (end == std::string::npos) {
        DropReports::instance().add("torn spool line", 1);
        break;
      }
      texts.push_back(data.substr(start, end - start));
      start = end + 1;
    }
  }

  // The lines of the file `name` (for counting what a removal drops).
  unsigned long long lineCount(const std::string& name) {
    std::vector<std::string> texts;
    readLines(name, texts);
    return texts.size();
  }
#endif

  // Writes `data` to a new file "<prefix><stamp>-<pid>-<n>.ndjson" through
  // a synced temporary file; with `bounded`, first removes the oldest spool
  // files until the bound holds.
  bool writeFile(const char* prefix, const std::string& data, bool bounded) {
#if defined(_WIN32)
    static_cast<void>(prefix);
    static_cast<void>(data);
    static_cast<void>(bounded);
    return false;
#else
    std::lock_guard<std::mutex> lock(mutex_);
    if (bounded && !makeRoom(data.size())) return false;
    const std::string name = prefix + stampNow() + "-" + std::to_string(::getpid()) + "-" +
                             std::to_string(sequence_++) + ".ndjson";
    const std::string temporary = "tmp-" + name;
    const int fd = ::openat(dirFd_, temporary.c_str(),
                            O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    const bool ok = writeAll(fd, data) && ::fsync(fd) == 0;
    ::close(fd);
    if (!ok || ::renameat(dirFd_, temporary.c_str(), dirFd_, name.c_str()) != 0) {
      ::unlinkat(dirFd_, temporary.c_str(), 0);
      return false;
    }
    ::fsync(dirFd_);
    return true;
#endif
  }

#if !defined(_WIN32)
  // Removes the oldest spool files until `size` more bytes fit in the
  // bound; their documents are counted as "spool full". False when `size`
  // alone exceeds the bound.
  bool makeRoom(std::size_t size) {
    if (size > bound_) return false;
    std::vector<std::pair<std::string, unsigned long long>> files;
    unsigned long long total = 0;
    for (const std::string& name : listNames()) {
      if (!hasPrefix(name, kSpoolPrefix)) continue;
      struct stat st;
      if (::fstatat(dirFd_, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
      files.emplace_back(name, static_cast<unsigned long long>(st.st_size));
      total += static_cast<unsigned long long>(st.st_size);
    }
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
      if (total + size <= bound_) break;
      const unsigned long long lines = lineCount(file.first);
      if (::unlinkat(dirFd_, file.first.c_str(), 0) == 0) {
        DropReports::instance().add("spool full", lines);
        total -= file.second;
      }
    }
    return total + size <= bound_;
  }

  const int dirFd_;
  const unsigned long long bound_;
  unsigned long long sequence_ = 0;  // guarded by mutex_
#endif
  std::mutex mutex_;
};

// The sender of every HTTP client of the process with one name, target and
// tuning: one thread, one connection, one queue, shared by the handles that
// registerClient() gives out (see acquireSender()).
class HttpSender {
 public:
  HttpSender(const std::string& url, const std::string& name, const HttpSettings& settings)
      : url_(url), shownUrl_(zel_tracer_detail::redactUrl(url)), settings_(settings) {
    if (isHeaderSafe(name)) clientHeader_ = "X-Trace-Client: " + name;
    if (!settings.spoolDir.empty()) spool_ = Spool::open(settings.spoolDir, settings.spoolBytes);
    thread_ = std::thread(&HttpSender::run, this);
  }

  ~HttpSender() {
    if (thread_.joinable()) close();
  }

  HttpSender(const HttpSender&) = delete;
  HttpSender& operator=(const HttpSender&) = delete;

  bool post(const std::string& text) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_.load(std::memory_order_relaxed)) return false;
      if (queue_.size() < settings_.queueMax &&
          text.size() <= settings_.queueBytes - queuedBytes_) {
        queue_.push_back(Entry{text, Clock::now()});
        queuedBytes_ += text.size();
        wake_.notify_one();
        return true;
      }
      // With a spool, what the queue cannot hold goes there (through a
      // second buffer of the queue's byte size that the sender writes out).
      if (spool_ && text.size() <= settings_.queueBytes - overflowBytes_) {
        overflow_.push_back(text);
        overflowBytes_ += text.size();
        wake_.notify_one();
        return true;
      }
    }
    DropReports::instance().add("queue full", 1);
    return false;
  }

  // Keeps the documents that are still queued in the spool, for the end
  // of the process (the sender thread may still deliver some of them too:
  // at least once). Threads: any thread.
  void keepAtExit() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!spool_ || keptAtExit_) return;
    keptAtExit_ = true;
    const std::size_t spooled = giveBackClaim();
    std::vector<const std::string*> texts;
    std::size_t index = 0;
    for (const Entry& entry : queue_) {
      if (index++ >= spooled) texts.push_back(&entry.text);
    }
    for (const std::string& text : overflow_) texts.push_back(&text);
    if (!spool_->keep(texts)) DropReports::instance().add("process ended", texts.size());
  }

  // Sends what is queued for at most the deregister time, then stops the
  // thread and joins it.
  void close() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      deadline_ = Clock::now() + std::chrono::milliseconds(settings_.deregisterMs);
      stopping_.store(true, std::memory_order_release);
    }
    wake_.notify_all();
    thread_.join();
  }

 private:
  // What became of one request: an answer (its status in lastStatus_), no
  // answer (to be tried again), a failure no retry mends, or the deadline
  // cutting it off.
  enum class Outcome { kAnswered, kPermanent, kRetry, kAborted };

  struct Entry {
    std::string text;
    Clock::time_point queued;
  };

  // One request body ready to go.
  struct Body {
    std::size_t count = 0;  // documents in it
    std::string bytes;      // as sent (compressed when gzip is on)
    bool compressed = false;
  };

  // A run of documents of the batch being sent: they go in one request.
  struct Piece {
    std::size_t first;
    std::size_t count;
  };

  // True when the queue holds a batch's worth: nothing is gained by
  // waiting for more. Called with mutex_ held.
  bool batchFull() const {
    return queue_.size() >= settings_.batchMax ||
           queuedBytes_ + queue_.size() - 1 >= settings_.batchBytes;
  }

  // The next batch's documents from the front of the queue: as many as
  // ZEL_TRACE_BATCH_MAX and ZEL_TRACE_BATCH_BYTES allow (the newlines
  // between them counted), always at least one. They stay queued until the
  // batch is done with. Called with mutex_ held; only this thread removes
  // documents, and adding at the back of a deque leaves references to its
  // elements valid, so the texts can be read later without the lock.
  std::vector<const std::string*> takeBatch() {
    std::vector<const std::string*> texts;
    std::size_t bytes = 0;
    for (const Entry& entry : queue_) {
      if (texts.size() == settings_.batchMax) break;
      const std::size_t add = entry.text.size() + (texts.empty() ? 0 : 1);
      if (!texts.empty() && bytes + add > settings_.batchBytes) break;
      bytes += add;
      texts.push_back(&entry.text);
    }
    return texts;
  }

  // The request body of `piece` of `texts`: one document as it is, several
  // one per line; compressed when gzip is on.
  Body bodyOf(const std::vector<const std::string*>& texts, Piece piece) const {
    Body body;
    body.count = piece.count;
    std::string plain;
    if (piece.count == 1) {
      plain = *texts[piece.first];
    } else {
      for (std::size_t i = piece.first; i < piece.first + piece.count; ++i) {
        if (i > piece.first) plain.push_back('\n');
        appendOneLine(plain, *texts[i]);
      }
    }
    body.compressed = settings_.gzip && gzipInto(plain, body.bytes);
    if (!body.compressed) body.bytes.swap(plain);
    return body;
  }

  // Drops the queue's first `count` documents, which are delivered, kept
  // again or counted; a spool file whose documents have all gone so is
  // removed. Called with mutex_ held.
  void dropFront(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      queuedBytes_ -= queue_.front().text.size();
      queue_.pop_front();
    }
    if (spooledInFront_ != 0) {
      spooledInFront_ -= std::min(count, spooledInFront_);
      if (spooledInFront_ == 0 && !currentClaim_.empty() && !keptAtExit_) {
        spool_->release(currentClaim_);
        currentClaim_.clear();
      }
    }
  }

  // Gives the spool file whose documents are at the front of the queue
  // back to the spool, for they were not all delivered, and returns how
  // many documents at the front of the queue came from it (they are kept
  // by that file: duplicates of those delivered are possible, at least
  // once). Called with mutex_ held.
  std::size_t giveBackClaim() {
    const std::size_t spooled = spooledInFront_;
    if (!currentClaim_.empty()) spool_->unclaim(currentClaim_);
    currentClaim_.clear();
    spooledInFront_ = 0;
    return spooled;
  }

  // Keeps `texts` in the spool when there is one; else, or when that
  // fails, counts them as dropped for `reason`. Called without mutex_.
  void keepOrCount(const std::vector<const std::string*>& texts, const std::string& reason) {
    if (texts.empty()) return;
    if (spool_ && spool_->keep(texts)) return;
    DropReports::instance().add(spool_ ? "spool not written" : reason, texts.size());
  }

  // Writes what the queue could not hold to the spool. Called with `lock`
  // held; writes without it.
  void writeOverflow(std::unique_lock<std::mutex>& lock) {
    if (overflow_.empty()) return;
    std::deque<std::string> taken;
    taken.swap(overflow_);
    overflowBytes_ = 0;
    lock.unlock();
    std::vector<const std::string*> texts;
    for (const std::string& text : taken) texts.push_back(&text);
    keepOrCount(texts, "queue full");
    lock.lock();
  }

  // Puts the documents of the oldest spool file in front of the queue when
  // none are there, at the start and then whenever the last file's
  // documents are done (or every few seconds, for files other processes
  // add). Called with `lock` held.
  void loadSpool(std::unique_lock<std::mutex>& lock) {
    if (!spool_ || spooledInFront_ != 0 || stopping_.load() || keptAtExit_) return;
    const Clock::time_point now = Clock::now();
    if (now < nextSpoolLook_) return;
    lock.unlock();
    std::vector<std::string> texts;
    std::string claimed;
    const bool found = spool_->claimOldest(texts, claimed);
    lock.lock();
    if (!found) {
      nextSpoolLook_ = now + kSpoolLookInterval;
      return;
    }
    if (texts.empty()) {
      spool_->release(claimed);
      return;
    }
    for (auto it = texts.rbegin(); it != texts.rend(); ++it) {
      queuedBytes_ += it->size();
      queue_.push_front(Entry{std::move(*it), Clock::time_point()});
    }
    spooledInFront_ = texts.size();
    currentClaim_ = claimed;
  }

  // What an answer of the service means for the documents of a request.
  enum class Verdict { kDelivered, kContent, kRetry, kRejected };

  // `status` for a request of `count` documents; `again`: the same request
  // was answered 500 just before. The service refusing what the documents
  // hold (400, 413, 422) is a matter of content: the request is split until
  // the document at fault stands alone. So is 500 while the service takes
  // other requests (a delivery less than a minute ago), as a database
  // answers a document it cannot insert, and 500 twice in a row to several
  // documents (splitting them costs nothing in an outage: their halves are
  // retried all the same); otherwise 500 is an outage. Outages and
  // misconfiguration (401, 403, 408, 429, 5xx) are retried, never split.
  // Any other answer (another 4xx, a redirect) rejects the request's
  // documents for good.
  Verdict verdictOf(long status, std::size_t count, bool again) const {
    if (status >= 200 && status < 300) return Verdict::kDelivered;
    if (status == 400 || status == 413 || status == 422) return Verdict::kContent;
    if (status == 500) {
      const bool othersSucceed =
          lastSuccess_ != Clock::time_point() && Clock::now() - lastSuccess_ < kEvidenceAge;
      return (othersSucceed || (count > 1 && again)) ? Verdict::kContent : Verdict::kRetry;
    }
    if (status == 401 || status == 403 || status == 408 || status == 429 || status >= 500) {
      return Verdict::kRetry;
    }
    return Verdict::kRejected;
  }

  // Counts and says the `count` documents of a request that the service
  // answered `status` to for good.
  // With a spool, they are written to a rejected-* file there instead.
  void rejectDocuments(const std::vector<const std::string*>& texts, Piece piece, long status,
                       std::unique_lock<std::mutex>& lock) {
    lock.unlock();
    std::size_t kept = 0;
    if (spool_) {
      for (std::size_t i = piece.first; i < piece.first + piece.count; ++i) {
        if (spool_->keepRejected(*texts[i])) ++kept;
      }
    }
    if (kept == piece.count) {
      report(std::to_string(piece.count) + " document(s) refused: " + shownUrl_ + " answered " +
             std::to_string(status) + " (kept in the spool's rejected files)");
    } else {
      report(std::to_string(piece.count - kept) + " document(s) dropped: " + shownUrl_ +
             " answered " + std::to_string(status));
      DropReports::instance().add("rejected: " + std::to_string(status), piece.count - kept, true);
    }
    lock.lock();
  }

  // The sender thread's state across batches: the wait before the next
  // try, and what was said or tried already.
  struct SendState {
    long backoffMs;
    bool drainTried = false;     // the immediate try after deregister() was made
    bool permanentSaid = false;  // the permanent failure has been reported
  };

  // The sender thread's transfer: one easy handle, one multi handle and the
  // header lists, by [several documents][compressed body].
  struct Transport {
    CURL* easy = nullptr;
    CURLM* multi = nullptr;
    curl_slist* headers[2][2] = {{nullptr, nullptr}, {nullptr, nullptr}};
  };

  // Makes the sender thread's transfer: one document goes as JSON, several
  // as newline-delimited JSON, and a compressed body says so (with gzip on,
  // a body that zlib failed on goes plain). A handle that cannot be made is
  // null (every try then counts as unreachable).
  void openTransport(Transport* t) {
    t->easy = curl_easy_init();
    t->multi = curl_multi_init();
    for (int several = 0; several < 2; ++several) {
      for (int compressed = 0; compressed < 2; ++compressed) {
        curl_slist*& list = t->headers[several][compressed];
        list = curl_slist_append(list, several != 0 ? "Content-Type: application/x-ndjson"
                                                    : "Content-Type: application/json");
        // Without this, libcurl waits up to a second for "100 Continue"
        // before sending a larger body.
        list = curl_slist_append(list, "Expect:");
        if (!clientHeader_.empty()) list = curl_slist_append(list, clientHeader_.c_str());
        if (compressed != 0) list = curl_slist_append(list, "Content-Encoding: gzip");
      }
    }
    CURL* easy = t->easy;
    if (easy == nullptr) return;
    curl_easy_setopt(easy, CURLOPT_URL, url_.c_str());
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, settings_.connectTimeoutMs);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, settings_.timeoutMs);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &discardBody);
    // A redirect is an answer like any other non-2xx one: the documents
    // are never sent on to wherever it points.
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorText_);
    // A privileged process does not let whoever started it route its
    // documents through a proxy of his choice: the empty proxy turns off
    // the proxy variables of the environment (http_proxy, HTTPS_PROXY,
    // ALL_PROXY, NO_PROXY).
    if (zel_tracer_detail::isPrivilegedProcess()) {
      curl_easy_setopt(easy, CURLOPT_PROXY, "");
      curl_easy_setopt(easy, CURLOPT_NOPROXY, "*");
    }
  }

  static void closeTransport(Transport* t) {
    if (t->multi != nullptr) curl_multi_cleanup(t->multi);
    if (t->easy != nullptr) curl_easy_cleanup(t->easy);
    for (auto& row : t->headers) {
      for (curl_slist* list : row) curl_slist_free_all(list);
    }
  }

  // The sender thread: waits until a batch is full or its first document
  // has waited ZEL_TRACE_BATCH_DELAY_MS, then sends it until every document
  // in it is delivered or rejected, splitting a batch whose content the
  // service refuses and backing off while the service is unreachable,
  // until close() asks it to stop and the queue is empty or the deadline
  // has passed.
  void run() {
    Transport transport;
    openTransport(&transport);
    SendState state{settings_.retryMs};
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      const Next next = waitForBatch(lock);
      if (next == Next::kStop) break;
      if (next == Next::kWait) continue;
      if (!sendBatch(transport, &state, lock)) break;
    }
    // What is left could not be sent in time: kept in the spool, or
    // counted.
    writeOverflow(lock);
    const std::size_t spooled = queue_.empty() || keptAtExit_ ? 0 : giveBackClaim();
    std::vector<const std::string*> left;
    std::size_t index = 0;
    for (const Entry& entry : queue_) {
      if (index++ >= spooled) left.push_back(&entry.text);
    }
    lock.unlock();
    if (!keptAtExit_) keepOrCount(left, "deregistration deadline passed");
    lock.lock();
    dropFront(queue_.size());
    lock.unlock();
    DropReports::instance().sayAll();
    closeTransport(&transport);
  }

  // What the sender thread does after waitForBatch().
  enum class Next { kSend, kWait, kStop };

  // Waits (with `lock` held, released meanwhile) for documents and lets the
  // batch fill, for at most the delay from its first document's post
  // (deregister() sends at once). kWait: no documents yet, wait again;
  // kStop: stopping with an empty queue or past the deadline.
  Next waitForBatch(std::unique_lock<std::mutex>& lock) {
    writeOverflow(lock);
    loadSpool(lock);
    // Idle, the thread still says the drops counted elsewhere (full
    // queues) once their second has passed, writes what overflows to the
    // spool, and looks for spool files.
    while (!wake_.wait_for(lock, std::chrono::seconds(1), [this] {
      return stopping_.load() || !queue_.empty() || !overflow_.empty();
    })) {
      lock.unlock();
      DropReports::instance().sayDue();
      lock.lock();
      loadSpool(lock);
    }
    writeOverflow(lock);
    if (queue_.empty()) return stopping_.load() ? Next::kStop : Next::kWait;
    if (stopping_.load() && Clock::now() >= deadline_) return Next::kStop;
    if (!stopping_.load() && !batchFull()) {
      const Clock::time_point sendAt =
          queue_.front().queued + std::chrono::milliseconds(settings_.batchDelayMs);
      wake_.wait_until(lock, sendAt, [this] { return stopping_.load() || batchFull(); });
    }
    return Next::kSend;
  }

  // Sends the batch at the front of the queue (`lock` held, released while
  // a piece is sent) until every document in it is delivered, rejected or
  // given up at the deadline, and takes it off the queue. False when the
  // sender thread is to stop.
  bool sendBatch(const Transport& transport, SendState* state, std::unique_lock<std::mutex>& lock) {
    const std::vector<const std::string*> texts = takeBatch();
    // The batch's pieces still to send, in order; a piece the service
    // refuses for its content is replaced by its two halves.
    std::deque<Piece> pieces{Piece{0, texts.size()}};
    bool gaveUp = false;
    bool again500 = false;  // the front piece was answered 500 last time
    while (!pieces.empty()) {
      const Piece piece = pieces.front();
      lock.unlock();
      const Body body = bodyOf(texts, piece);
      curl_slist* bodyHeaders = transport.headers[body.count > 1 ? 1 : 0][body.compressed ? 1 : 0];
      const Outcome outcome =
          (transport.easy != nullptr && transport.multi != nullptr)
              ? transfer(transport.easy, transport.multi, bodyHeaders, body.bytes)
              : Outcome::kRetry;
      lock.lock();
      if (outcome == Outcome::kAborted) {
        gaveUp = true;
        break;
      }
      if (outcome == Outcome::kPermanent) {
        const bool said = !state->permanentSaid;
        if (!state->permanentSaid) {
          report(std::to_string(piece.count) + " document(s) dropped: " + shownUrl_ + ": " +
                 curl_easy_strerror(lastError_) +
                 " (later documents that fail so are only counted)");
          state->permanentSaid = true;
        }
        pieces.pop_front();
        lock.unlock();
        DropReports::instance().add(
            std::string("transport error: ") + curl_easy_strerror(lastError_), piece.count, said);
        lock.lock();
        continue;
      }
      const Verdict verdict = outcome == Outcome::kAnswered
                                  ? verdictOf(lastStatus_, piece.count, again500)
                                  : Verdict::kRetry;
      again500 = verdict == Verdict::kRetry && outcome == Outcome::kAnswered && lastStatus_ == 500;
      if (verdict == Verdict::kDelivered) {
        pieces.pop_front();
        tlsFailureSaid_ = false;
        lastSuccess_ = Clock::now();
        state->backoffMs = settings_.retryMs;
        continue;
      }
      if (verdict == Verdict::kContent && piece.count > 1) {
        pieces.pop_front();
        const std::size_t half = piece.count / 2;
        pieces.push_front(Piece{piece.first + half, piece.count - half});
        pieces.push_front(Piece{piece.first, half});
        continue;
      }
      if (verdict == Verdict::kContent || verdict == Verdict::kRejected) {
        pieces.pop_front();
        rejectDocuments(texts, piece, lastStatus_, lock);
        state->backoffMs = settings_.retryMs;
        continue;
      }
      const Retry retry = waitBeforeRetry(state, lock);
      if (retry == Retry::kGiveUp) {
        gaveUp = true;
        break;
      }
    }
    giveUpPieces(texts, pieces, lock);
    dropFront(texts.size());
    return !(gaveUp || (stopping_.load() && Clock::now() >= deadline_));
  }

  // What sendBatch() does after waitBeforeRetry().
  enum class Retry { kAgain, kGiveUp };

  // Unreachable, or an outage: waits before trying the same piece again,
  // at least as long as the service asked (Retry-After on 429 and 503).
  // Once deregister() has been called, the next try comes at once (a wait
  // that runs then is cut short), and later waits end at the deadline.
  // kGiveUp once the deadline has passed.
  Retry waitBeforeRetry(SendState* state, std::unique_lock<std::mutex>& lock) {
    if (stopping_.load() && Clock::now() >= deadline_) return Retry::kGiveUp;
    // What overflows meanwhile goes to the spool.
    writeOverflow(lock);
    const long waitMs = std::max(state->backoffMs, retryAfterMs_);
    const auto retryAt = Clock::now() + std::chrono::milliseconds(waitMs);
    if (!stopping_.load()) {
      wake_.wait_until(lock, retryAt, [this] { return stopping_.load(); });
      if (stopping_.load()) state->drainTried = true;
    } else if (!state->drainTried && retryAfterMs_ == 0) {
      state->drainTried = true;
      return Retry::kAgain;
    } else {
      state->drainTried = true;
      wake_.wait_until(lock, std::min(retryAt, deadline_));
    }
    state->backoffMs = std::min(state->backoffMs * 2, settings_.retryMaxMs);
    if (stopping_.load() && Clock::now() >= deadline_) return Retry::kGiveUp;
    return Retry::kAgain;
  }

  // The pieces left are the documents given up at the deadline: kept in
  // the spool, or counted. `lock` held (released meanwhile).
  void giveUpPieces(const std::vector<const std::string*>& texts, const std::deque<Piece>& pieces,
                    std::unique_lock<std::mutex>& lock) {
    std::vector<const std::string*> left;
    const std::size_t spooled = pieces.empty() ? 0 : giveBackClaim();
    for (const Piece& p : pieces) {
      for (std::size_t i = p.first; i < p.first + p.count; ++i) {
        if (i >= spooled) left.push_back(texts[i]);
      }
    }
    if (!left.empty()) {
      lock.unlock();
      keepOrCount(left, "deregistration deadline passed");
      lock.lock();
    }
  }

  // Sends `body` once with `headers`. The multi interface lets the wait for
  // the service be cut off when deregister()'s deadline passes; the easy
  // handle keeps its connection open for the next request.
  Outcome transfer(CURL* easy, CURLM* multi, curl_slist* headers, const std::string& body) {
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.data());
    errorText_[0] = '\0';
    retryAfterMs_ = 0;
    if (curl_multi_add_handle(multi, easy) != CURLM_OK) return Outcome::kRetry;

    CURLcode result = CURLE_OK;
    bool done = false;
    bool aborted = false;
    for (;;) {
      int running = 0;
      if (curl_multi_perform(multi, &running) != CURLM_OK) break;
      int pending = 0;
      while (CURLMsg* msg = curl_multi_info_read(multi, &pending)) {
        if (msg->msg == CURLMSG_DONE) {
          result = msg->data.result;
          done = true;
        }
      }
      if (done || running == 0) break;
      DropReports::instance().sayDue();
      if (pastDeadline()) {
        aborted = true;
        break;
      }
      curl_multi_poll(multi, nullptr, 0, kPollMs, nullptr);
    }
    curl_multi_remove_handle(multi, easy);

    if (aborted) return Outcome::kAborted;
    if (done && isPermanent(result)) {
      lastError_ = result;
      return Outcome::kPermanent;
    }
    if (done && isTlsFailure(result) && !tlsFailureSaid_) {
      // Said once until a batch is delivered again: the documents are kept
      // and tried again, since a certificate may be renewed.
      tlsFailureSaid_ = true;
      report("TLS with " + shownUrl_ + " failed: " + curl_easy_strerror(result) +
             (errorText_[0] != '\0' ? std::string(": ") + errorText_ : std::string()) +
             " (documents are kept and tried again; said once)");
    }
    if (!done || result != CURLE_OK) return Outcome::kRetry;
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    lastStatus_ = status;
    if (status == 429 || status == 503) {
      // Retry-After, in seconds or as a date; libcurl gives seconds.
      curl_off_t seconds = 0;
      if (curl_easy_getinfo(easy, CURLINFO_RETRY_AFTER, &seconds) == CURLE_OK && seconds > 0) {
        retryAfterMs_ = static_cast<long>(std::min<curl_off_t>(seconds, kRetryAfterMaxS) * 1000);
      }
    }
    return Outcome::kAnswered;
  }

  bool pastDeadline() {
    if (!stopping_.load(std::memory_order_acquire)) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    return Clock::now() >= deadline_;
  }

  // How often a running transfer looks at the deregister deadline, ms.
  static constexpr int kPollMs = 50;
  // The longest Retry-After honoured, s.
  static constexpr curl_off_t kRetryAfterMaxS = 3600;
  // How recent a delivery must be for a 500 to one document to count as
  // that document's fault rather than an outage.
  static constexpr std::chrono::seconds kEvidenceAge{60};
  // How often an idle sender looks for spool files other processes wrote.
  static constexpr std::chrono::seconds kSpoolLookInterval{5};

  const std::string url_;
  const std::string shownUrl_;  // url_ without credentials, for messages
  const HttpSettings settings_;
  std::string clientHeader_;  // "" when the name cannot be sent

  std::mutex mutex_;
  std::condition_variable wake_;  // a document was queued, or close()
  std::deque<Entry> queue_;       // guarded by mutex_; the front batch is being sent
  std::size_t queuedBytes_ = 0;   // guarded by mutex_
  Clock::time_point deadline_;    // guarded by mutex_; set by close()
  std::atomic<bool> stopping_{false};
  std::thread thread_;
  // The sender thread's own: the last answer's status, the last error.
  long lastStatus_ = 0;
  CURLcode lastError_ = CURLE_OK;
  char errorText_[CURL_ERROR_SIZE] = {};  // libcurl's detail of the last error
  bool tlsFailureSaid_ = false;           // a TLS failure has been reported
  long retryAfterMs_ = 0;                 // the last answer's Retry-After, ms
  std::unique_ptr<Spool> spool_;          // null without a spool
  // Guarded by mutex_: what the queue could not hold, for the spool; the
  // documents of a spool file at the queue's front and that file's
  // claimed name; whether the end of the process kept the queue.
  std::deque<std::string> overflow_;
  std::size_t overflowBytes_ = 0;
  std::size_t spooledInFront_ = 0;
  std::string currentClaim_;
  bool keptAtExit_ = false;
  Clock::time_point nextSpoolLook_;  // the sender thread's own
  Clock::time_point lastSuccess_;    // of the last delivery
};

// The senders of the process by what they share: name, target and tuning.
struct SenderRegistry {
  struct Shared {
    HttpSender* sender;
    int handles;  // the clients that registerClient() gave out and that
                  // have not been deregistered
  };
  std::mutex mutex;
  std::map<std::string, Shared> senders;  // guarded by mutex
};

SenderRegistry& registry() {
  // Never destroyed: abandoned clients keep their sender to the end.
  static SenderRegistry* r = new SenderRegistry;
  return *r;
}

std::string senderKey(const std::string& url, const std::string& name, const HttpSettings& s) {
  std::string key = url + '\n' + name + '\n' + s.spoolDir + '\n' + std::to_string(s.spoolBytes);
  for (long value :
       {s.connectTimeoutMs, s.timeoutMs, s.retryMs, s.retryMaxMs, static_cast<long>(s.queueMax),
        static_cast<long>(s.queueBytes), s.deregisterMs, static_cast<long>(s.batchMax),
        static_cast<long>(s.batchBytes), s.batchDelayMs, static_cast<long>(s.gzip)}) {
    key += '\n' + std::to_string(value);
  }
  return key;
}

// At the end of the process: the senders still running keep what they
// hold in their spool.
void keepAllAtExit() {
  SenderRegistry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  for (auto& entry : r.senders) entry.second.sender->keepAtExit();
}

// A client handle of an HTTP target: posts go to the shared sender, whose
// last handle ends it.
class HttpHandle : public Sink {
 public:
  explicit HttpHandle(std::string key) : key_(std::move(key)) {}
  ~HttpHandle() override {
    if (sender_ != nullptr && !closed_) close();
  }

  // The sender of `key`, shared or started now (null when its thread
  // cannot start); counts this handle.
  bool attach(const std::string& url, const std::string& name, const HttpSettings& settings) {
    SenderRegistry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    const auto found = r.senders.find(key_);
    if (found != r.senders.end()) {
      ++found->second.handles;
      sender_ = found->second.sender;
      return true;
    }
    try {
      sender_ = new HttpSender(url, name, settings);
    } catch (const std::system_error&) {
      return false;  // the sender thread could not be started
    }
    r.senders[key_] = SenderRegistry::Shared{sender_, 1};
    if (!settings.spoolDir.empty()) {
      // Clients never deregistered keep their queue in the spool at exit.
      static const bool atExit = std::atexit(&keepAllAtExit) == 0;
      static_cast<void>(atExit);
    }
    return true;
  }

  bool post(const std::string& text) override {
    if (closed_) return false;
    return sender_->post(text);
  }

  // The documents this handle posted stay queued in the sender; the last
  // handle's close sends what is left and ends the sender.
  void close() override {
    closed_ = true;
    bool last = false;
    {
      SenderRegistry& r = registry();
      std::lock_guard<std::mutex> lock(r.mutex);
      const auto found = r.senders.find(key_);
      if (found != r.senders.end() && found->second.sender == sender_ &&
          --found->second.handles == 0) {
        r.senders.erase(found);
        last = true;
      }
    }
    if (last) {
      sender_->close();
      delete sender_;
    }
    sender_ = nullptr;
  }

 private:
  const std::string key_;
  HttpSender* sender_ = nullptr;
  bool closed_ = false;
};

}  // namespace

TracerClient* TracerClient::registerClient(const std::string& name) {
  const Endpoint endpoint =
      zel_tracer_detail::parseEndpoint(zel_tracer_detail::settingValue("ZEL_TRACE_ENDPOINT"));
  std::unique_ptr<Sink> sink;
  switch (endpoint.kind) {
    case Endpoint::Kind::kNone:
      return nullptr;
    case Endpoint::Kind::kFile:
      sink.reset(new FileSink(endpoint.location));
      break;
    case Endpoint::Kind::kHttp: {
      if (!curlReady()) return nullptr;
      const HttpSettings settings = HttpSettings::fromEnvironment();
      std::unique_ptr<HttpHandle> handle(
          new HttpHandle(senderKey(endpoint.location, name, settings)));
      if (!handle->attach(endpoint.location, name, settings)) return nullptr;
      sink.reset(handle.release());
      break;
    }
  }
  // The memory is allocated before release() runs, so a failed allocation
  // still frees the sink.
  return new TracerClient(sink.release());
}

unsigned long long TracerClient::droppedDocuments() { return DropReports::instance().total(); }

bool TracerClient::configure(const std::string& settings) {
  return zel_tracer_detail::configureSettings(settings);
}

TracerClient::TracerClient(zel_tracer_detail::Sink* sink) : sink_(sink) {}

TracerClient::~TracerClient() { delete sink_; }

bool TracerClient::postTrace(const std::string& text) { return sink_->post(text); }

void TracerClient::deregister() {
  sink_->close();
  delete this;
}
