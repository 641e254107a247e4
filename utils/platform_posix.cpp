// POSIX (Linux) side of the operating-system layer.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "utils/platform.h"

namespace zel {
namespace platform {

const char kPathSeparator = '/';
const char* const kDefaultLogBase = "/tmp/zel/";

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

int makeDir(const char* path) { return mkdir(path, 0755) == 0 ? 0 : -1; }

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
  const char* text = std::getenv(name);
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
  return fchmod(fileno(file), st.st_mode & 07777) == 0 ? 0 : -1;
}

FileHandle standardError() { return STDERR_FILENO; }

FileHandle openAppend(const char* path) {
  // The flags and mode of fopen(path, "a").
  int fd;
  do {
    fd = open(path, O_WRONLY | O_CREAT | O_APPEND, 0666);
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

}  // namespace platform
}  // namespace zel
