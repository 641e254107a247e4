// SPDX-License-Identifier: MIT

// POSIX (Linux) side of the operating-system layer.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/platform.h"

namespace zel {
namespace platform {

const char kPathSeparator = '/';
const char* const kDefaultLogBase = "/tmp/zel/";
const bool kFatalCodeIsException = false;

namespace {

// Added to every wall-clock reading; set by the test hook only.
std::atomic<int64_t> gWallClockOffsetMs{0};

}  // namespace

int64_t wallClockMs() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000 +
         gWallClockOffsetMs.load(std::memory_order_relaxed);
}

void setWallClockOffsetMs(int64_t offsetMs) {
  gWallClockOffsetMs.store(offsetMs, std::memory_order_relaxed);
}

bool processExiting() { return false; }

int64_t monotonicNs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

uint64_t currentThreadId() { return static_cast<uint64_t>(syscall(SYS_gettid)); }

bool localTime(std::time_t t, std::tm* out) {
  if (localtime_r(&t, out) != nullptr) return true;
  *out = std::tm{};
  return false;
}

int makeDir(const char* path) { return mkdir(path, 0700) == 0 ? 0 : -1; }

bool pathExists(const char* path) { return access(path, F_OK) == 0; }

bool isDirectory(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool isRegularFile(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

void executablePath(char* buf, std::size_t size) {
  if (size == 0) return;
  // readlink neither terminates nor reports a cut; read into a larger buffer
  // so that a long path is cut to size - 1 characters like on Windows.
  char full[4096];
  const ssize_t n = readlink("/proc/self/exe", full, sizeof(full));
  if (n <= 0) return;
  const std::size_t len =
      static_cast<std::size_t>(n) < size - 1 ? static_cast<std::size_t>(n) : size - 1;
  std::memcpy(buf, full, len);
  buf[len] = '\0';
}

bool getEnv(const char* name, std::string* value) {
  // secure_getenv gives null in a process that the kernel marks AT_SECURE
  // (set-user-ID, set-group-ID, file capabilities): there the environment
  // is its caller's, and none of it is read.
  const char* text = secure_getenv(name);
  if (text == nullptr) return false;
  *value = text;
  return true;
}

int replaceFile(const char* from, const char* to) {
  // POSIX rename replaces an existing destination atomically.
  return std::rename(from, to) == 0 ? 0 : -1;
}

std::FILE* fopenNoInherit(const char* path, const char* mode) {
  // "e" is the C library's flag for O_CLOEXEC.
  char flags[16];
  const int n = std::snprintf(flags, sizeof(flags), "%se", mode);
  if (n < 0 || static_cast<std::size_t>(n) >= sizeof(flags)) return nullptr;
  return std::fopen(path, flags);
}

int syncFile(std::FILE* file) {
  if (std::fflush(file) != 0) return -1;
  return fsync(fileno(file)) == 0 ? 0 : -1;
}

int copyPermissions(const char* model, std::FILE* file) {
  struct stat st;
  if (stat(model, &st) != 0) return -1;
  const int fd = fileno(file);
  // Owner first: a change of owner clears the set-user-ID and set-group-ID
  // bits, which the mode then gives back. Only root may give the copy
  // another owner; another user may still give it a group it belongs to.
  if (fchown(fd, st.st_uid, st.st_gid) != 0 && fchown(fd, static_cast<uid_t>(-1), st.st_gid) != 0) {
    // Neither could be given: the copy keeps the process's user and group.
  }
  return fchmod(fd, st.st_mode & 07777) == 0 ? 0 : -1;
}

std::FILE* openPrivateCopy(const char* path) {
  // No O_TRUNC: a hard link planted at `path` would be emptied before it
  // could be checked. O_NOFOLLOW refuses a symbolic link (ELOOP).
  int fd;
  do {
    fd = open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return nullptr;
  struct stat st;
  const bool ours =
      fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == geteuid() && st.st_nlink == 1;
  if (!ours || ftruncate(fd, 0) != 0) {
    if (!ours) errno = EPERM;
    const int saved = errno;
    close(fd);
    errno = saved;
    return nullptr;
  }
  std::FILE* file = fdopen(fd, "w");
  if (file == nullptr) {
    const int saved = errno;
    close(fd);
    errno = saved;
  }
  return file;
}

ReadResult readRegularFile(const char* path, std::size_t maxSize, std::string* data) {
  // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a
  // writer, for ever if none comes. It changes nothing for a regular file.
  int fd;
  do {
    fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return ReadResult::kCannotOpen;
  struct stat st;
  if (fstat(fd, &st) != 0) {
    close(fd);
    return ReadResult::kCannotOpen;
  }
  if (!S_ISREG(st.st_mode)) {
    close(fd);
    return ReadResult::kNotRegular;
  }
  if (st.st_size < 0 || static_cast<uint64_t>(st.st_size) > maxSize) {
    close(fd);
    return ReadResult::kTooLarge;
  }
  data->clear();
  ReadResult result = ReadResult::kOk;
  try {
    data->reserve(static_cast<std::size_t>(st.st_size));
    char chunk[65536];
    for (;;) {
      const ssize_t n = read(fd, chunk, sizeof(chunk));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        result = ReadResult::kReadError;
        break;
      }
      if (n == 0) break;
      if (static_cast<std::size_t>(n) > maxSize - data->size()) {
        // The file grew past the bound while it was read.
        result = ReadResult::kTooLarge;
        break;
      }
      data->append(chunk, static_cast<std::size_t>(n));
    }
  } catch (...) {
    result = ReadResult::kReadError;
  }
  close(fd);
  if (result != ReadResult::kOk) data->clear();
  return result;
}

FileHandle standardError() { return STDERR_FILENO; }

FileHandle openAppend(const char* path) {
  // The flags and mode of fopen(path, "a"), not inherited by a child, and
  // never through a symbolic link planted at the path.
  int fd;
  do {
    fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0666);
  } while (fd < 0 && errno == EINTR);
  return fd < 0 ? kNoFile : static_cast<FileHandle>(fd);
}

int closeFile(FileHandle file) { return close(static_cast<int>(file)) == 0 ? 0 : -1; }

int64_t writeAll(FileHandle file, const WriteBuffer* buffers, std::size_t count,
                 std::size_t* written) {
  constexpr std::size_t kMaxPieces = IOV_MAX < 1024 ? IOV_MAX : 1024;
  struct iovec pieces[kMaxPieces];
  int64_t total = 0;
  std::size_t next = 0;  // the first piece not yet handed over
  std::size_t skip = 0;  // bytes of buffers[next] already written
  while (next < count) {
    std::size_t n = 0;
    for (std::size_t i = next; i < count && n < kMaxPieces; ++i) {
      const std::size_t offset = i == next ? skip : 0;
      if (buffers[i].size == offset) continue;
      pieces[n].iov_base = const_cast<char*>(static_cast<const char*>(buffers[i].data) + offset);
      pieces[n].iov_len = buffers[i].size - offset;
      ++n;
    }
    if (n == 0) break;
    const ssize_t done = writev(static_cast<int>(file), pieces, static_cast<int>(n));
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) {
      if (written != nullptr) *written = static_cast<std::size_t>(total);
      return -1;
    }
    total += done;
    // Step over what was written, piece by piece.
    auto left = static_cast<std::size_t>(done);
    while (next < count && left >= buffers[next].size - skip) {
      left -= buffers[next].size - skip;
      skip = 0;
      ++next;
    }
    skip += left;
  }
  return total;
}

std::size_t writtenLength(const char* /*text*/, std::size_t size) { return size; }

bool fileIdentity(FileHandle file, FileId* id) {
  struct stat st;
  if (file == kNoFile || fstat(static_cast<int>(file), &st) != 0) return false;
  id->device = static_cast<uint64_t>(st.st_dev);
  id->node = static_cast<uint64_t>(st.st_ino);
  return true;
}

int64_t processId() { return static_cast<int64_t>(getpid()); }

bool registerForkHandlers(void (*prepare)(), void (*parent)(), void (*child)()) {
  return pthread_atfork(prepare, parent, child) == 0;
}

void pauseMs(int64_t ms) {
  struct timespec ts;
  ts.tv_sec = static_cast<time_t>(ms / 1000);
  ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000;
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

int64_t fileSize(FileHandle file) {
  struct stat st;
  if (fstat(static_cast<int>(file), &st) != 0) return -1;
  return static_cast<int64_t>(st.st_size);
}

int64_t filePosition(FileHandle file) {
  const off_t position = lseek(static_cast<int>(file), 0, SEEK_CUR);
  return position < 0 ? -1 : static_cast<int64_t>(position);
}

bool regularFileSize(const char* path, int64_t* size) {
  struct stat st;
  if (stat(path, &st) != 0 || !S_ISREG(st.st_mode)) return false;
  *size = static_cast<int64_t>(st.st_size);
  return true;
}

int renameFile(const char* from, const char* to) { return std::rename(from, to) == 0 ? 0 : -1; }

int removeFile(const char* path) { return std::remove(path) == 0 ? 0 : -1; }

DirCheck checkDirectory(const char* path, bool followLink) {
  struct stat st;
  if ((followLink ? stat(path, &st) : lstat(path, &st)) != 0) {
    return errno == ENOENT || errno == ENOTDIR ? DirCheck::kMissing : DirCheck::kNotDirectory;
  }
  if (S_ISLNK(st.st_mode)) return DirCheck::kLink;
  if (!S_ISDIR(st.st_mode)) return DirCheck::kNotDirectory;
  if (st.st_uid != geteuid() && st.st_uid != 0) return DirCheck::kForeignOwner;
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (st.st_mode & S_ISVTX) == 0) {
    return DirCheck::kWorldWritable;
  }
  return DirCheck::kOk;
}

bool listDirectory(const char* path, std::vector<DirEntry>* entries) {
  DIR* dir = opendir(path);
  if (dir == nullptr) return false;
  const int dirFd = dirfd(dir);
  while (struct dirent* entry = readdir(dir)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    DirEntry out;
    out.name = entry->d_name;
    struct stat st;
    if (fstatat(dirFd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
      out.isDirectory = S_ISDIR(st.st_mode);
      out.isFile = S_ISREG(st.st_mode);
      out.size = static_cast<int64_t>(st.st_size);
    }
    entries->push_back(std::move(out));
  }
  closedir(dir);
  return true;
}

int removeDirectory(const char* path) { return rmdir(path) == 0 ? 0 : -1; }

namespace {

// The checks that a log directory must pass, on its open descriptor: owned
// by the effective user or root, and writable by nobody else unless the
// sticky bit keeps others from renaming or removing what is in it.
DirCheck checkOpenDirectory(int fd) {
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISDIR(st.st_mode)) return DirCheck::kNotDirectory;
  if (st.st_uid != geteuid() && st.st_uid != 0) return DirCheck::kForeignOwner;
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (st.st_mode & S_ISVTX) == 0) {
    return DirCheck::kWorldWritable;
  }
  return DirCheck::kOk;
}

int openNoIntr(int dir, const char* name, int flags, mode_t mode = 0) {
  int fd;
  do {
    fd = openat(dir, name, flags, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// An exclusive open-file-description lock on the whole of `fd`, without
// waiting.
bool lockWhole(int fd) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0;
  lock.l_len = 0;
  return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

}  // namespace

DirCheck openBaseDirectory(const char* path, DirHandle* dir) {
  *dir = kNoFile;
  int fd = openNoIntr(AT_FDCWD, path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    struct stat link;
    if (lstat(path, &link) != 0) {
      return errno == ENOENT || errno == ENOTDIR ? DirCheck::kMissing : DirCheck::kNotDirectory;
    }
    if (!S_ISLNK(link.st_mode)) return DirCheck::kNotDirectory;
    // A link: followed only when its owner is the user or root. A link
    // that another user planted (the default base lies in /tmp, where
    // anyone may) would otherwise send the log wherever he chose.
    if (link.st_uid != geteuid() && link.st_uid != 0) return DirCheck::kForeignLink;
    fd = openNoIntr(AT_FDCWD, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
      return errno == ENOENT || errno == ENOTDIR ? DirCheck::kMissing : DirCheck::kNotDirectory;
    }
    // The link may have been replaced between the look and the open: the
    // link found there now must still be one the user may follow.
    if (lstat(path, &link) != 0 ||
        (S_ISLNK(link.st_mode) && link.st_uid != geteuid() && link.st_uid != 0)) {
      close(fd);
      return DirCheck::kForeignLink;
    }
  }
  const DirCheck check = checkOpenDirectory(fd);
  if (check != DirCheck::kOk) {
    close(fd);
    return check;
  }
  *dir = fd;
  return DirCheck::kOk;
}

DirCheck openDirectoryAt(DirHandle parent, const char* name, DirHandle* dir) {
  *dir = kNoFile;
  const int fd =
      openNoIntr(static_cast<int>(parent), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    struct stat st;
    if (fstatat(static_cast<int>(parent), name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
      return S_ISLNK(st.st_mode) ? DirCheck::kLink : DirCheck::kNotDirectory;
    }
    return errno == ENOENT || errno == ENOTDIR ? DirCheck::kMissing : DirCheck::kNotDirectory;
  }
  const DirCheck check = checkOpenDirectory(fd);
  if (check != DirCheck::kOk) {
    close(fd);
    return check;
  }
  *dir = fd;
  return DirCheck::kOk;
}

void closeDirectory(DirHandle dir) {
  if (dir != kNoFile) close(static_cast<int>(dir));
}

int makeDirAt(DirHandle dir, const char* name) {
  return mkdirat(static_cast<int>(dir), name, 0700) == 0 ? 0 : -1;
}

int makePrivateDir(const char* path) { return mkdir(path, 0700) == 0 ? 0 : -1; }

FileHandle openAppendAt(DirHandle dir, const char* name) {
  const int fd = openNoIntr(static_cast<int>(dir), name,
                            O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0666);
  return fd < 0 ? kNoFile : static_cast<FileHandle>(fd);
}

bool isLinkAt(DirHandle dir, const char* name) {
  struct stat st;
  return fstatat(static_cast<int>(dir), name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
}

bool regularFileSizeAt(DirHandle dir, const char* name, int64_t* size) {
  struct stat st;
  if (fstatat(static_cast<int>(dir), name, &st, 0) != 0 || !S_ISREG(st.st_mode)) return false;
  *size = static_cast<int64_t>(st.st_size);
  return true;
}

bool isSameFileAt(DirHandle dir, const char* name, FileHandle file) {
  struct stat atName;
  struct stat open;
  return fstatat(static_cast<int>(dir), name, &atName, AT_SYMLINK_NOFOLLOW) == 0 &&
         fstat(static_cast<int>(file), &open) == 0 && atName.st_dev == open.st_dev &&
         atName.st_ino == open.st_ino;
}

int renameAt(DirHandle dir, const char* from, const char* to) {
  return renameat(static_cast<int>(dir), from, static_cast<int>(dir), to) == 0 ? 0 : -1;
}

bool holdFile(FileHandle file) { return lockWhole(static_cast<int>(file)); }

int removeUnheldFileAt(DirHandle dir, const char* name) {
  const int parent = static_cast<int>(dir);
  // The lock is taken on a description of our own: it fails while any
  // other description (another process's live file) holds one, and while
  // it is ours a process opening the name to write to it finds it held and
  // looks again (see the log's live file). O_NONBLOCK: a FIFO put at the
  // name must not stall the retention.
  int fd = openNoIntr(parent, name, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd >= 0) {
    if (!lockWhole(fd)) {
      const bool held = errno == EAGAIN || errno == EACCES;
      close(fd);
      return held ? 1 : -1;
    }
  } else if (errno == EACCES || errno == EROFS || errno == ETXTBSY) {
    // Not writable by us: ask whether anyone holds it through a read-only
    // description instead.
    fd = openNoIntr(parent, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd >= 0) {
      struct flock lock {};
      lock.l_type = F_WRLCK;
      lock.l_whence = SEEK_SET;
      if (fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK) {
        close(fd);
        return 1;
      }
    }
  }
  // A link (ELOOP) or a file that cannot be opened at all is removed as
  // itself: no process can hold it as its live file through us.
  const int result = unlinkat(parent, name, 0) == 0 ? 0 : -1;
  if (fd >= 0) close(fd);
  return result;
}

bool listDirectoryAt(DirHandle dir, std::vector<DirEntry>* entries) {
  // fdopendir takes the descriptor over: it gets a copy of its own, read
  // from the start.
  const int copy = openNoIntr(static_cast<int>(dir), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (copy < 0) return false;
  DIR* stream = fdopendir(copy);
  if (stream == nullptr) {
    close(copy);
    return false;
  }
  while (struct dirent* entry = readdir(stream)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    DirEntry out;
    out.name = entry->d_name;
    struct stat st;
    if (fstatat(copy, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
      out.isDirectory = S_ISDIR(st.st_mode);
      out.isFile = S_ISREG(st.st_mode);
      out.size = static_cast<int64_t>(st.st_size);
    }
    entries->push_back(std::move(out));
  }
  closedir(stream);
  return true;
}

int removeDirectoryAt(DirHandle dir, const char* name) {
  return unlinkat(static_cast<int>(dir), name, AT_REMOVEDIR) == 0 ? 0 : -1;
}

int64_t localOffsetSeconds(std::time_t t) {
  std::tm tm{};
  if (localtime_r(&t, &tm) == nullptr) return 0;
  return static_cast<int64_t>(tm.tm_gmtoff);
}

bool makeWakeChannel(WakeChannel* channel) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  channel->readEnd = fds[0];
  channel->writeEnd = fds[1];
  fileIdentity(fds[0], &channel->readId);
  fileIdentity(fds[1], &channel->writeId);
  return true;
}

bool wakeChannelIntact(const WakeChannel& channel) {
  FileId read;
  FileId write;
  return channel.readEnd != kNoFile && channel.writeEnd != kNoFile &&
         fileIdentity(channel.readEnd, &read) && read == channel.readId &&
         fileIdentity(channel.writeEnd, &write) && write == channel.writeId;
}

void closeWakeChannel(WakeChannel* channel) {
  if (channel->readEnd != kNoFile) close(static_cast<int>(channel->readEnd));
  if (channel->writeEnd != kNoFile) close(static_cast<int>(channel->writeEnd));
  *channel = WakeChannel();
}

void wakeSend(const WakeChannel& channel) {
  // Never into a descriptor that took over the channel's number.
  FileId id;
  if (!fileIdentity(channel.writeEnd, &id) || id != channel.writeId) return;
  const char byte = 1;
  ssize_t n;
  do {
    n = write(static_cast<int>(channel.writeEnd), &byte, 1);
  } while (n < 0 && errno == EINTR);
}

bool wakeWait(const WakeChannel& channel, int64_t timeoutMs) {
  const int64_t deadline = monotonicNs() + timeoutMs * 1000000;
  for (;;) {
    int wait = -1;
    if (timeoutMs >= 0) {
      const int64_t left = (deadline - monotonicNs()) / 1000000;
      wait = left <= 0 ? 0 : static_cast<int>(left > 3600000 ? 3600000 : left);
    }
    struct pollfd pfd;
    pfd.fd = static_cast<int>(channel.readEnd);
    pfd.events = POLLIN;
    pfd.revents = 0;
    const int ready = poll(&pfd, 1, wait);
    if (ready < 0 && errno != EINTR) return false;
    if (ready > 0) {
      // Never from a descriptor that took over the channel's number: the
      // channel was closed from outside, and waiting on it is over.
      FileId id;
      if (!fileIdentity(channel.readEnd, &id) || id != channel.readId) return false;
      char byte;
      const ssize_t n = read(pfd.fd, &byte, 1);
      if (n == 1) return true;
      if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) return false;
    }
    if (timeoutMs >= 0 && monotonicNs() >= deadline) return false;
  }
}

namespace {

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
constexpr int kFatalSignalCount = sizeof(kFatalSignals) / sizeof(kFatalSignals[0]);

FatalHook sFatalHook = nullptr;
ResumeHook sResumeHook = nullptr;
struct sigaction sPreviousActions[kFatalSignalCount];

const char* signalName(int sig) {
  switch (sig) {
    case SIGSEGV:
      return "SIGSEGV";
    case SIGBUS:
      return "SIGBUS";
    case SIGILL:
      return "SIGILL";
    case SIGFPE:
      return "SIGFPE";
    case SIGABRT:
      return "SIGABRT";
    default:
      return "signal";
  }
}

int fatalIndex(int sig) {
  for (int i = 0; i < kFatalSignalCount; ++i) {
    if (kFatalSignals[i] == sig) return i;
  }
  return -1;
}

// The instruction that faulted, from the interrupted context; 0 where the
// architecture is not known here (then the address alone tells faults apart).
uintptr_t faultingInstruction(void* context) {
  if (context == nullptr) return 0;
  const auto* uc = static_cast<const ucontext_t*>(context);
#if defined(__x86_64__)
  return static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_RIP]);
#elif defined(__i386__)
  return static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_EIP]);
#elif defined(__aarch64__)
  return static_cast<uintptr_t>(uc->uc_mcontext.pc);
#elif defined(__arm__)
  return static_cast<uintptr_t>(uc->uc_mcontext.arm_pc);
#else
  (void)uc;
  return 0;
#endif
}

// The last fault each thread handed to an earlier handler, so that the same
// fault coming back (the handler returned without curing it) is recognised
// as not recovered. A fixed table: nothing is allocated in the handler. A
// thread finds its slot by its id; when every slot is taken, slots are
// shared by id, and a fault can then be handed to the earlier handler once
// more before it is recognised.
struct FaultRecord {
  std::atomic<uint64_t> thread{0};
  std::atomic<uintptr_t> address{0};
  std::atomic<uintptr_t> instruction{0};
  std::atomic<int> signal{0};
};
constexpr int kFaultRecords = 64;
FaultRecord sFaultRecords[kFaultRecords];

FaultRecord& faultRecordOf(uint64_t thread) {
  for (FaultRecord& record : sFaultRecords) {
    if (record.thread.load() == thread) return record;
  }
  for (FaultRecord& record : sFaultRecords) {
    uint64_t expected = 0;
    if (record.thread.compare_exchange_strong(expected, thread)) return record;
    if (expected == thread) return record;
  }
  FaultRecord& shared = sFaultRecords[thread % kFaultRecords];
  shared.thread.store(thread);
  return shared;
}

// True when this thread's previous fault was this same one (same signal,
// address and instruction); records it otherwise.
bool sameFaultAgain(int sig, const siginfo_t* info, void* context) {
  FaultRecord& record = faultRecordOf(currentThreadId());
  const auto address = reinterpret_cast<uintptr_t>(info->si_addr);
  const uintptr_t instruction = faultingInstruction(context);
  if (record.signal.load() == sig && record.address.load() == address &&
      record.instruction.load() == instruction) {
    return true;
  }
  record.signal.store(sig);
  record.address.store(address);
  record.instruction.store(instruction);
  return false;
}

bool isHandler(const struct sigaction& action) {
  if ((action.sa_flags & SA_SIGINFO) != 0) return action.sa_sigaction != nullptr;
  return action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
}

// Calls the earlier handler of `sig` as the kernel would have: with the
// signal's own siginfo_t and context, the signal mask extended by its
// sa_mask (and by `sig` itself unless SA_NODEFER), and SA_RESETHAND taking
// it out after this one call. Our mask is put back when it returns; when it
// jumps away (siglongjmp) it restores the mask it saved itself.
void callEarlierHandler(int sig, siginfo_t* info, void* context, int index) {
  const struct sigaction action = sPreviousActions[index];
  // SA_RESETHAND and SA_NODEFER are unsigned constants in glibc; sa_flags
  // is an int.
  const auto flags = static_cast<unsigned>(action.sa_flags);
  if ((flags & static_cast<unsigned>(SA_RESETHAND)) != 0) {
    sPreviousActions[index].sa_handler = SIG_DFL;
    sPreviousActions[index].sa_flags &= ~SA_SIGINFO;
  }
  sigset_t ours;
  pthread_sigmask(SIG_BLOCK, nullptr, &ours);
  sigset_t mask = ours;
  for (int s = 1; s < NSIG; ++s) {
    if (sigismember(&action.sa_mask, s) == 1) sigaddset(&mask, s);
  }
  if ((flags & static_cast<unsigned>(SA_NODEFER)) != 0) {
    sigdelset(&mask, sig);
  } else {
    sigaddset(&mask, sig);
  }
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  if ((action.sa_flags & SA_SIGINFO) != 0) {
    action.sa_sigaction(sig, info, context);
  } else {
    action.sa_handler(sig);
  }
  pthread_sigmask(SIG_SETMASK, &ours, nullptr);
}

bool signalPending(int sig) {
  sigset_t pending;
  return sigpending(&pending) == 0 && sigismember(&pending, sig) == 1;
}

// Ends the process by the default action of `sig`: the signal is blocked
// while this handler runs, so it is delivered (and ends the process, with a
// core dump where the default does that) as soon as the handler returns.
void endByDefaultAction(int sig) {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  sigaction(sig, &action, nullptr);
  raise(sig);
}

void onFatalSignal(int sig, siginfo_t* info, void* context) {
  const int savedErrno = errno;
  const int index = fatalIndex(sig);
  const struct sigaction& earlier = sPreviousActions[index];
  // si_code > 0 is the kernel's report of a fault of an instruction; kill,
  // raise, tgkill and sigqueue give SI_USER, SI_TKILL or SI_QUEUE (0 or
  // below). SIGABRT comes from abort(), which never continues.
  const bool fromInstruction = info != nullptr && info->si_code > 0 && sig != SIGABRT;
  if (fromInstruction && isHandler(earlier)) {
    // The earlier handler may cure the fault (a guard page it maps, a
    // probe it jumps out of): it comes first, and the log stays out of the
    // way unless the fault turns out to be fatal. Draining first would
    // report a fault that is not one; raising the signal again for it would
    // hand it SI_TKILL instead of the fault's own code and address.
    if (!sameFaultAgain(sig, info, context)) {
      callEarlierHandler(sig, info, context, index);
      // It returned. With the signal pending it raised it to end the
      // process (after resetting the action, the usual way to chain): the
      // drain runs before that happens. Otherwise the instruction runs
      // again: cured, or the same fault comes back here.
      if (signalPending(sig)) sFatalHook(static_cast<uint32_t>(sig), signalName(sig));
      errno = savedErrno;
      return;
    }
    // The same fault again: the earlier handler did not cure it, and
    // calling it again would loop for ever. The process ends here.
    sFatalHook(static_cast<uint32_t>(sig), signalName(sig));
    endByDefaultAction(sig);
    errno = savedErrno;
    return;
  }
  if (!fromInstruction && (earlier.sa_flags & SA_SIGINFO) == 0 && earlier.sa_handler == SIG_IGN) {
    // A signal sent to a process that ignored it: nothing happens, as
    // without this handler.
    errno = savedErrno;
    return;
  }
  // Abort and sent signals cannot be undone by returning from a handler,
  // and without an earlier handler the default action ends the process:
  // the lines are written first.
  sFatalHook(static_cast<uint32_t>(sig), signalName(sig));
  if (isHandler(earlier)) {
    callEarlierHandler(sig, info, context, index);
    sResumeHook();
    errno = savedErrno;
    return;
  }
  // The default action (or a fault the process ignored, which the kernel
  // ends by default anyway).
  sigaction(sig, &earlier, nullptr);
  errno = savedErrno;
  raise(sig);
}

}  // namespace

bool installFatalHandler(FatalHook hook, ResumeHook resume) {
  if (sFatalHook != nullptr) return true;
  sResumeHook = resume;
  // The handler runs on an alternate stack, so that it runs after a stack
  // overflow of this thread too. The stack is never freed: the handler may
  // run until the process ends.
  constexpr std::size_t kAltStackSize = 64 * 1024;
  static void* altStack = std::malloc(kAltStackSize);
  if (altStack != nullptr) {
    stack_t stack{};
    stack.ss_sp = altStack;
    stack.ss_size = kAltStackSize;
    sigaltstack(&stack, nullptr);
  }
  sFatalHook = hook;
  struct sigaction action {};
  action.sa_sigaction = onFatalSignal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (int i = 0; i < kFatalSignalCount; ++i) {
    if (sigaction(kFatalSignals[i], &action, &sPreviousActions[i]) != 0) return false;
  }
  return true;
}

}  // namespace platform
}  // namespace zel
