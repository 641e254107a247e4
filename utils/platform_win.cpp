// SPDX-License-Identifier: MIT

// Windows side of the operating-system layer.
#include <direct.h>
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <windows.h>
// After windows.h, which they need.
#include <aclapi.h>
#include <sddl.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "utils/platform.h"

namespace zel {
namespace platform {

const char kPathSeparator = '\\';
const char* const kDefaultLogBase = "c:\\Windows\\temp\\zel\\";
const bool kFatalCodeIsException = true;

namespace {

// Added to every wall-clock reading; set by the test hook only.
std::atomic<int64_t> gWallClockOffsetMs{0};

}  // namespace

namespace win {

using FileTimeFunction = void(WINAPI*)(LPFILETIME);

// The clock that wallClockMs() reads: GetSystemTimePreciseAsFileTime (Windows
// 8 and later, under a microsecond) when kernel32 has it, otherwise
// GetSystemTimeAsFileTime, which moves only with the 1 to 16 ms tick.
// Looked up once.
FileTimeFunction wallClockSource() {
  static const FileTimeFunction source = [] {
    const HMODULE kernel = GetModuleHandleA("kernel32.dll");
    FARPROC precise =
        kernel != nullptr ? GetProcAddress(kernel, "GetSystemTimePreciseAsFileTime") : nullptr;
    if (precise == nullptr) return &GetSystemTimeAsFileTime;
    FileTimeFunction function;
    static_assert(sizeof(function) == sizeof(precise), "function pointer sizes");
    std::memcpy(&function, &precise, sizeof(function));
    return function;
  }();
  return source;
}

}  // namespace win

int64_t wallClockMs() {
  // FILETIME counts 100-nanosecond ticks since 1601-01-01 UTC.
  constexpr int64_t kTicksFrom1601To1970 = 116444736000000000LL;
  FILETIME ft;
  win::wallClockSource()(&ft);
  const int64_t ticks = (static_cast<int64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  return (ticks - kTicksFrom1601To1970) / 10000 +
         gWallClockOffsetMs.load(std::memory_order_relaxed);
}

void setWallClockOffsetMs(int64_t offsetMs) {
  gWallClockOffsetMs.store(offsetMs, std::memory_order_relaxed);
}

bool processExiting() {
  // ntdll's RtlDllShutdownInProgress is true from the moment ExitProcess has
  // ended the other threads and the DLLs are being detached.
  using ShutdownQuery = BOOLEAN(WINAPI*)();
  static const ShutdownQuery query = [] {
    const HMODULE ntdll = GetModuleHandleA("ntdll.dll");
    FARPROC address =
        ntdll != nullptr ? GetProcAddress(ntdll, "RtlDllShutdownInProgress") : nullptr;
    ShutdownQuery function = nullptr;
    if (address != nullptr) std::memcpy(&function, &address, sizeof(function));
    return function;
  }();
  return query != nullptr && query() != FALSE;
}

int64_t monotonicNs() {
  static const int64_t frequency = [] {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return static_cast<int64_t>(f.QuadPart);
  }();
  LARGE_INTEGER counter;
  QueryPerformanceCounter(&counter);
  const int64_t c = static_cast<int64_t>(counter.QuadPart);
  // Split to keep c * 1e9 from overflowing.
  return (c / frequency) * 1000000000LL + (c % frequency) * 1000000000LL / frequency;
}

uint64_t currentThreadId() { return static_cast<uint64_t>(GetCurrentThreadId()); }

bool localTime(std::time_t t, std::tm* out) {
  if (localtime_s(out, &t) == 0) return true;
  *out = std::tm{};
  return false;
}

int makeDir(const char* path) { return _mkdir(path) == 0 ? 0 : -1; }

bool pathExists(const char* path) { return _access(path, 0) == 0; }

bool isDirectory(const char* path) {
  struct _stat st;
  return _stat(path, &st) == 0 && (st.st_mode & _S_IFMT) == _S_IFDIR;
}

bool isRegularFile(const char* path) {
  struct _stat st;
  return _stat(path, &st) == 0 && (st.st_mode & _S_IFMT) == _S_IFREG;
}

void executablePath(char* buf, std::size_t size) {
  if (size == 0) return;
  const DWORD n = GetModuleFileNameA(nullptr, buf, static_cast<DWORD>(size));
  // Windows XP leaves a cut path unterminated; later versions terminate it.
  buf[n < size ? n : size - 1] = '\0';
}

bool getEnv(const char* name, std::string* value) {
  // getenv: msvcrt.dll, the runtime MinGW-w64 links against, has no
  // _dupenv_s. The value is copied at once, before anything can change the
  // environment.
  const char* text = std::getenv(name);
  if (text == nullptr) return false;
  *value = text;
  return true;
}

int replaceFile(const char* from, const char* to) {
  // A reader that holds `to` open makes the replacement fail while it reads
  // (a sharing violation, or access denied where the reader shares delete
  // access but the file system does not replace open files). Readers of a
  // configuration file hold it briefly, so the move is tried again, for
  // about two seconds at most, before it counts as failed.
  constexpr int kAttempts = 200;
  constexpr DWORD kPauseMs = 10;
  for (int attempt = 1;; ++attempt) {
    if (MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING) != 0) return 0;
    const DWORD error = GetLastError();
    const bool held = error == ERROR_SHARING_VIOLATION || error == ERROR_LOCK_VIOLATION ||
                      error == ERROR_ACCESS_DENIED;
    if (!held || attempt == kAttempts) return -1;
    Sleep(kPauseMs);
  }
}

std::FILE* fopenNoInherit(const char* path, const char* mode) {
  // The runtime's fopen shares no delete access, so a reader would fail with
  // a sharing violation whenever another handle with delete access is open
  // on the file, as MoveFileExA's is for a moment while it puts a new copy
  // of a configuration file in place, and a reader would keep a replacement
  // from happening. The file is opened here with every sharing mode and a
  // non-inheritable handle, then given to the runtime.
  const bool binary = std::strchr(mode, 'b') != nullptr;
  const bool plus = std::strchr(mode, '+') != nullptr;
  DWORD access = 0;
  DWORD disposition = 0;
  int flags = binary ? _O_BINARY : _O_TEXT;
  switch (mode[0]) {
    case 'r':
      access = GENERIC_READ | (plus ? GENERIC_WRITE : 0);
      disposition = OPEN_EXISTING;
      flags |= plus ? _O_RDWR : _O_RDONLY;
      break;
    case 'w':
      access = GENERIC_WRITE | (plus ? GENERIC_READ : 0);
      disposition = CREATE_ALWAYS;
      flags |= plus ? _O_RDWR : _O_WRONLY;
      break;
    case 'a':
      access = GENERIC_WRITE | (plus ? GENERIC_READ : 0);
      disposition = OPEN_ALWAYS;
      flags |= (plus ? _O_RDWR : _O_WRONLY) | _O_APPEND;
      break;
    default:
      errno = EINVAL;
      return nullptr;
  }
  const HANDLE handle =
      CreateFileA(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                  disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    switch (GetLastError()) {
      case ERROR_FILE_NOT_FOUND:
      case ERROR_PATH_NOT_FOUND:
      case ERROR_INVALID_NAME:
        errno = ENOENT;
        break;
      case ERROR_TOO_MANY_OPEN_FILES:
        errno = EMFILE;
        break;
      case ERROR_DISK_FULL:
      case ERROR_HANDLE_DISK_FULL:
        errno = ENOSPC;
        break;
      case ERROR_NOT_ENOUGH_MEMORY:
      case ERROR_OUTOFMEMORY:
        errno = ENOMEM;
        break;
      default:  // access denied, sharing and lock violations, ...
        errno = EACCES;
        break;
    }
    return nullptr;
  }
  const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(handle), flags);
  if (fd == -1) {
    CloseHandle(handle);
    return nullptr;
  }
  std::FILE* file = _fdopen(fd, mode);
  if (file == nullptr) _close(fd);  // closes the handle too
  return file;
}

int syncFile(std::FILE* file) {
  if (std::fflush(file) != 0) return -1;
  return _commit(_fileno(file)) == 0 ? 0 : -1;
}

int copyPermissions(const char* /*model*/, std::FILE* /*file*/) {
  // The runtime's permission bits only model the read-only attribute, and a
  // read-only file cannot be replaced in the first place: nothing to copy.
  return 0;
}

std::FILE* openPrivateCopy(const char* path) {
  // Opened as itself when it is a reparse point (a symbolic link or a
  // junction), which is then refused, as is a file with other names (a
  // hard link). Created when missing, emptied only once it has passed the
  // checks. Others may read, write, rename and delete it, as
  // fopenNoInherit() allows; the handle is not inherited.
  const HANDLE handle =
      CreateFileA(path, GENERIC_WRITE | FILE_READ_ATTRIBUTES,
                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                  FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    errno = EACCES;
    return nullptr;
  }
  BY_HANDLE_FILE_INFORMATION info;
  const bool ours =
      GetFileInformationByHandle(handle, &info) != 0 &&
      (info.dwFileAttributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) == 0 &&
      info.nNumberOfLinks == 1 && GetFileType(handle) == FILE_TYPE_DISK;
  if (!ours || SetEndOfFile(handle) == 0) {
    CloseHandle(handle);
    errno = EACCES;
    return nullptr;
  }
  const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_WRONLY | _O_TEXT);
  if (fd == -1) {
    CloseHandle(handle);
    return nullptr;
  }
  std::FILE* file = _fdopen(fd, "w");
  if (file == nullptr) _close(fd);  // closes the handle too
  return file;
}

ReadResult readRegularFile(const char* path, std::size_t maxSize, std::string* data) {
  const HANDLE handle =
      CreateFileA(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                  nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return ReadResult::kCannotOpen;
  BY_HANDLE_FILE_INFORMATION info;
  if (GetFileType(handle) != FILE_TYPE_DISK || GetFileInformationByHandle(handle, &info) == 0 ||
      (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    CloseHandle(handle);
    return ReadResult::kNotRegular;
  }
  const uint64_t size =
      (static_cast<uint64_t>(info.nFileSizeHigh) << 32) | static_cast<uint64_t>(info.nFileSizeLow);
  if (size > maxSize) {
    CloseHandle(handle);
    return ReadResult::kTooLarge;
  }
  data->clear();
  ReadResult result = ReadResult::kOk;
  try {
    data->reserve(static_cast<std::size_t>(size));
    char chunk[65536];
    for (;;) {
      DWORD n = 0;
      if (ReadFile(handle, chunk, sizeof(chunk), &n, nullptr) == 0) {
        result = ReadResult::kReadError;
        break;
      }
      if (n == 0) break;
      if (n > maxSize - data->size()) {
        // The file grew past the bound while it was read.
        result = ReadResult::kTooLarge;
        break;
      }
      data->append(chunk, n);
    }
  } catch (...) {
    result = ReadResult::kReadError;
  }
  CloseHandle(handle);
  if (result != ReadResult::kOk) data->clear();
  return result;
}

FileHandle standardError() {
  const HANDLE handle = GetStdHandle(STD_ERROR_HANDLE);
  return handle == nullptr || handle == INVALID_HANDLE_VALUE ? kNoFile
                                                             : reinterpret_cast<FileHandle>(handle);
}

FileHandle openAppend(const char* path) {
  // FILE_APPEND_DATA alone: the system puts every write at the file's end.
  // Others may read, write, and also rename or delete the file while it is
  // open (FILE_SHARE_DELETE), so that a reader does not make a rotation
  // fail. The handle is not inherited (no security attributes). A reparse
  // point (a link) is opened as itself and refused.
  const HANDLE handle =
      CreateFileA(path, FILE_APPEND_DATA | FILE_READ_ATTRIBUTES,
                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                  FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return kNoFile;
  BY_HANDLE_FILE_INFORMATION info;
  if (GetFileInformationByHandle(handle, &info) == 0 ||
      (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    CloseHandle(handle);
    return kNoFile;
  }
  return reinterpret_cast<FileHandle>(handle);
}

int closeFile(FileHandle file) { return CloseHandle(reinterpret_cast<HANDLE>(file)) != 0 ? 0 : -1; }

namespace {

// Writes `size` bytes at `data`, again after a partial write; adds what
// went out to `*done`. True when all were written.
bool writeWhole(HANDLE handle, const char* data, std::size_t size, std::size_t* done) {
  while (size > 0) {
    const DWORD chunk = size > 0x40000000 ? 0x40000000 : static_cast<DWORD>(size);
    DWORD n = 0;
    if (WriteFile(handle, data, chunk, &n, nullptr) == 0 || n == 0) return false;
    data += n;
    size -= n;
    *done += n;
  }
  return true;
}

}  // namespace

int64_t writeAll(FileHandle file, const WriteBuffer* buffers, std::size_t count,
                 std::size_t* written) {
  const auto handle = reinterpret_cast<HANDLE>(file);
  // Join the pieces, each '\n' as "\r\n" (text mode), so that they reach
  // the file in one WriteFile.
  std::size_t total = 0;
  for (std::size_t i = 0; i < count; ++i) {
    total += writtenLength(static_cast<const char*>(buffers[i].data), buffers[i].size);
  }
  std::string joined;
  joined.reserve(total);
  for (std::size_t i = 0; i < count; ++i) {
    const char* data = static_cast<const char*>(buffers[i].data);
    for (std::size_t k = 0; k < buffers[i].size; ++k) {
      if (data[k] == '\n') joined.push_back('\r');
      joined.push_back(data[k]);
    }
  }
  std::size_t done = 0;
  if (writeWhole(handle, joined.data(), joined.size(), &done)) return static_cast<int64_t>(total);
  if (written != nullptr) *written = done;
  return -1;
}

std::size_t writtenLength(const char* text, std::size_t size) {
  std::size_t length = size;
  for (std::size_t k = 0; k < size; ++k) {
    if (text[k] == '\n') ++length;
  }
  return length;
}

bool fileIdentity(FileHandle file, FileId* id) {
  BY_HANDLE_FILE_INFORMATION info;
  if (file == kNoFile || !GetFileInformationByHandle(reinterpret_cast<HANDLE>(file), &info)) {
    return false;
  }
  id->device = info.dwVolumeSerialNumber;
  id->node = (static_cast<uint64_t>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
  return true;
}

int64_t processId() { return static_cast<int64_t>(GetCurrentProcessId()); }

// Windows has no fork.
bool registerForkHandlers(void (*)(), void (*)(), void (*)()) { return true; }

void pauseMs(int64_t ms) { Sleep(static_cast<DWORD>(ms)); }

int64_t fileSize(FileHandle file) {
  LARGE_INTEGER size;
  if (GetFileSizeEx(reinterpret_cast<HANDLE>(file), &size) == 0) return -1;
  return static_cast<int64_t>(size.QuadPart);
}

int64_t filePosition(FileHandle file) {
  LARGE_INTEGER zero;
  zero.QuadPart = 0;
  LARGE_INTEGER position;
  if (SetFilePointerEx(reinterpret_cast<HANDLE>(file), zero, &position, FILE_CURRENT) == 0) {
    return -1;
  }
  return static_cast<int64_t>(position.QuadPart);
}

bool regularFileSize(const char* path, int64_t* size) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (GetFileAttributesExA(path, GetFileExInfoStandard, &data) == 0) return false;
  if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return false;
  *size = (static_cast<int64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
  return true;
}

int renameFile(const char* from, const char* to) { return std::rename(from, to) == 0 ? 0 : -1; }

int removeFile(const char* path) { return std::remove(path) == 0 ? 0 : -1; }

namespace win {

// The rule for a log directory's owner `owner` and (with `acl`) its access
// list `dacl`: the owner must be the process's user, SYSTEM or the
// Administrators group (kForeignOwner), and no access-allowed entry that
// applies to the directory itself may give anyone else a right to put,
// rename or remove something in it or to change who may (kWorldWritable);
// a null list grants everything to everyone. Reading for everyone is fine.
DirCheck checkOwnerAndAcl(PSID owner, PACL dacl, bool acl);

// The security descriptor of a private directory: full control for the
// process's user, SYSTEM and the Administrators group, inherited by what
// is created inside, nothing inherited from above. Null when it cannot be
// made; the caller frees it with LocalFree.
PSECURITY_DESCRIPTOR privateDescriptor();

}  // namespace win

namespace {

// The security identifier of the process's user, from its token; empty
// when it cannot be had.
std::vector<unsigned char> currentUserSid() {
  std::vector<unsigned char> sid;
  HANDLE token = nullptr;
  if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) == 0) return sid;
  DWORD size = 0;
  GetTokenInformation(token, TokenUser, nullptr, 0, &size);
  std::vector<unsigned char> buffer(size);
  if (size != 0 && GetTokenInformation(token, TokenUser, buffer.data(), size, &size) != 0) {
    const PSID user = reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid;
    const DWORD length = GetLengthSid(user);
    const auto* bytes = static_cast<const unsigned char*>(user);
    sid.assign(bytes, bytes + length);
  }
  CloseHandle(token);
  return sid;
}

// The process's user, SYSTEM and the Administrators group: the only ones
// who may own a log directory or write into it (as the user and root on
// POSIX).
bool isTrusted(PSID sid, const std::vector<unsigned char>& user) {
  if (sid == nullptr || IsValidSid(sid) == 0) return false;
  if (!user.empty() && EqualSid(sid, const_cast<unsigned char*>(user.data())) != 0) return true;
  return IsWellKnownSid(sid, WinLocalSystemSid) != 0 ||
         IsWellKnownSid(sid, WinBuiltinAdministratorsSid) != 0;
}

// Rights that let their holder put, rename or remove something in a
// directory, or change who may.
constexpr DWORD kDirectoryWriteRights = FILE_ADD_FILE | FILE_ADD_SUBDIRECTORY | FILE_DELETE_CHILD |
                                        DELETE | WRITE_DAC | WRITE_OWNER | GENERIC_WRITE |
                                        GENERIC_ALL;

}  // namespace

namespace win {

DirCheck checkOwnerAndAcl(PSID owner, PACL dacl, bool acl) {
  const std::vector<unsigned char> user = currentUserSid();
  if (!isTrusted(owner, user)) return DirCheck::kForeignOwner;
  if (!acl) return DirCheck::kOk;
  if (dacl == nullptr) return DirCheck::kWorldWritable;  // no list: everyone may do everything
  for (DWORD i = 0; i < dacl->AceCount; ++i) {
    void* entry = nullptr;
    if (GetAce(dacl, i, &entry) == 0) continue;
    const auto* header = static_cast<ACE_HEADER*>(entry);
    // An entry only for what is created inside (CREATOR OWNER among them)
    // grants nothing on the directory itself.
    if (header->AceType != ACCESS_ALLOWED_ACE_TYPE || (header->AceFlags & INHERIT_ONLY_ACE) != 0) {
      continue;
    }
    const auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
    if ((allowed->Mask & kDirectoryWriteRights) == 0) continue;
    PSID sid = const_cast<DWORD*>(&allowed->SidStart);
    if (!isTrusted(sid, user) && EqualSid(sid, owner) == 0) return DirCheck::kWorldWritable;
  }
  return DirCheck::kOk;
}

PSECURITY_DESCRIPTOR privateDescriptor() {
  std::vector<unsigned char> user = currentUserSid();
  if (user.empty()) return nullptr;
  char* text = nullptr;
  if (ConvertSidToStringSidA(user.data(), &text) == 0) return nullptr;
  const std::string sddl =
      std::string("D:P(A;OICI;FA;;;") + text + ")(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";
  LocalFree(text);
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (ConvertStringSecurityDescriptorToSecurityDescriptorA(sddl.c_str(), SDDL_REVISION_1,
                                                           &descriptor, nullptr) == 0) {
    return nullptr;
  }
  return descriptor;
}

}  // namespace win

namespace {

// The owner of the object open as `handle`, and (with `acl`) whether its
// access list grants writing to anyone but the trusted ones.
DirCheck checkSecurity(HANDLE handle, bool acl) {
  PSID owner = nullptr;
  PACL dacl = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const SECURITY_INFORMATION what =
      OWNER_SECURITY_INFORMATION | (acl ? DACL_SECURITY_INFORMATION : 0);
  if (GetSecurityInfo(handle, SE_FILE_OBJECT, what, &owner, nullptr, acl ? &dacl : nullptr, nullptr,
                      &descriptor) != ERROR_SUCCESS) {
    return DirCheck::kForeignOwner;  // who owns it cannot be told: not ours
  }
  const DirCheck check = win::checkOwnerAndAcl(owner, dacl, acl);
  LocalFree(descriptor);
  return check;
}

// A directory open as a handle, and its full path (without a trailing
// separator) that the operations below join names to. The handle shares
// reading and writing but not deletion: while it is held the directory
// cannot be renamed, removed or replaced by a link, so its path keeps
// naming the directory that was checked.
struct OpenDirectory {
  HANDLE handle;
  std::string path;
};

OpenDirectory* asDirectory(DirHandle dir) { return reinterpret_cast<OpenDirectory*>(dir); }

std::string joinName(DirHandle dir, const char* name) {
  return asDirectory(dir)->path + "\\" + name;
}

HANDLE openDirectoryHandle(const char* path, bool followLink) {
  return CreateFileA(path, FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | READ_CONTROL,
                     FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                     FILE_FLAG_BACKUP_SEMANTICS | (followLink ? 0 : FILE_FLAG_OPEN_REPARSE_POINT),
                     nullptr);
}

DirCheck openFailure() {
  const DWORD error = GetLastError();
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? DirCheck::kMissing
                                                                        : DirCheck::kNotDirectory;
}

// Checks the directory open as `handle` (not a link) and hands it out as a
// DirHandle; closes it when refused.
DirCheck adoptDirectory(HANDLE handle, const std::string& path, DirHandle* dir) {
  BY_HANDLE_FILE_INFORMATION info;
  DirCheck check = DirCheck::kOk;
  if (GetFileInformationByHandle(handle, &info) == 0 ||
      (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    check = DirCheck::kNotDirectory;
  } else {
    check = checkSecurity(handle, true);
  }
  if (check != DirCheck::kOk) {
    CloseHandle(handle);
    return check;
  }
  std::string trimmed = path;
  while (trimmed.size() > 1 && (trimmed.back() == '\\' || trimmed.back() == '/')) {
    trimmed.pop_back();
  }
  *dir = reinterpret_cast<DirHandle>(new OpenDirectory{handle, trimmed});
  return DirCheck::kOk;
}

}  // namespace

DirCheck checkDirectory(const char* path, bool followLink) {
  // A reparse point (a symbolic link or a junction) is refused unless it is
  // the base the user gave; the directory must be owned by the user, SYSTEM
  // or the Administrators and writable by no one else.
  DirHandle dir = kNoFile;
  const DirCheck check =
      followLink ? openBaseDirectory(path, &dir) : openDirectoryAt(kNoFile, path, &dir);
  closeDirectory(dir);
  return check;
}

DirCheck openBaseDirectory(const char* path, DirHandle* dir) {
  *dir = kNoFile;
  HANDLE handle = openDirectoryHandle(path, false);
  if (handle == INVALID_HANDLE_VALUE) return openFailure();
  BY_HANDLE_FILE_INFORMATION info;
  if (GetFileInformationByHandle(handle, &info) != 0 &&
      (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    // A link or junction: followed only when its owner is trusted, so that
    // one that another user made where he may (the default base lies in a
    // folder where every user may create folders) leads nowhere.
    const DirCheck owner = checkSecurity(handle, false);
    CloseHandle(handle);
    if (owner != DirCheck::kOk) return DirCheck::kForeignLink;
    handle = openDirectoryHandle(path, true);
    if (handle == INVALID_HANDLE_VALUE) return openFailure();
  }
  return adoptDirectory(handle, path, dir);
}

DirCheck openDirectoryAt(DirHandle parent, const char* name, DirHandle* dir) {
  *dir = kNoFile;
  const std::string path = parent == kNoFile ? std::string(name) : joinName(parent, name);
  const HANDLE handle = openDirectoryHandle(path.c_str(), false);
  if (handle == INVALID_HANDLE_VALUE) return openFailure();
  // The handle tells on Windows. Wine opens a host's symbolic link as its
  // target even so, and shows the link only in the attributes of its name:
  // those are asked too, after the open, so that the name held is the one
  // checked.
  BY_HANDLE_FILE_INFORMATION info;
  const DWORD named = GetFileAttributesA(path.c_str());
  if ((GetFileInformationByHandle(handle, &info) != 0 &&
       (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) ||
      (named != INVALID_FILE_ATTRIBUTES && (named & FILE_ATTRIBUTE_REPARSE_POINT) != 0)) {
    CloseHandle(handle);
    return DirCheck::kLink;
  }
  return adoptDirectory(handle, path, dir);
}

void closeDirectory(DirHandle dir) {
  if (dir == kNoFile) return;
  OpenDirectory* open = asDirectory(dir);
  CloseHandle(open->handle);
  delete open;
}

int makePrivateDir(const char* path) {
  PSECURITY_DESCRIPTOR descriptor = win::privateDescriptor();
  if (descriptor == nullptr) return -1;
  SECURITY_ATTRIBUTES attributes{};
  attributes.nLength = sizeof(attributes);
  attributes.lpSecurityDescriptor = descriptor;
  attributes.bInheritHandle = FALSE;
  const BOOL made = CreateDirectoryA(path, &attributes);
  LocalFree(descriptor);
  return made != 0 ? 0 : -1;
}

int makeDirAt(DirHandle dir, const char* name) {
  return makePrivateDir(joinName(dir, name).c_str());
}

FileHandle openAppendAt(DirHandle dir, const char* name) {
  return openAppend(joinName(dir, name).c_str());
}

bool isLinkAt(DirHandle dir, const char* name) {
  const DWORD attributes = GetFileAttributesA(joinName(dir, name).c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

bool regularFileSizeAt(DirHandle dir, const char* name, int64_t* size) {
  return regularFileSize(joinName(dir, name).c_str(), size);
}

bool isSameFileAt(DirHandle /*dir*/, const char* /*name*/, FileHandle /*file*/) {
  // Another process's retention opens a file without sharing before it
  // removes it: a file held open here is never removed from under us.
  return true;
}

int renameAt(DirHandle dir, const char* from, const char* to) {
  return renameFile(joinName(dir, from).c_str(), joinName(dir, to).c_str());
}

bool holdFile(FileHandle /*file*/) { return true; }

int removeUnheldFileAt(DirHandle dir, const char* name) {
  // Opened without sharing: a file that any process has open (another
  // process's live file) gives a sharing violation and is left. The file
  // is then deleted through this very handle, so nothing can take its
  // place between the look and the removal.
  const std::string path = joinName(dir, name);
  const HANDLE handle = CreateFileA(path.c_str(), DELETE, 0, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return GetLastError() == ERROR_SHARING_VIOLATION ? 1 : -1;
  FILE_DISPOSITION_INFO disposition{};
  disposition.DeleteFile = TRUE;
  const BOOL removed =
      SetFileInformationByHandle(handle, FileDispositionInfo, &disposition, sizeof(disposition));
  CloseHandle(handle);
  return removed != 0 ? 0 : -1;
}

bool listDirectoryAt(DirHandle dir, std::vector<DirEntry>* entries) {
  return listDirectory(asDirectory(dir)->path.c_str(), entries);
}

int removeDirectoryAt(DirHandle dir, const char* name) {
  return removeDirectory(joinName(dir, name).c_str());
}

bool listDirectory(const char* path, std::vector<DirEntry>* entries) {
  std::string pattern = path;
  if (!pattern.empty() && pattern.back() != '/' && pattern.back() != '\\') pattern += '\\';
  pattern += '*';
  WIN32_FIND_DATAA data;
  const HANDLE find = FindFirstFileA(pattern.c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) return GetLastError() == ERROR_FILE_NOT_FOUND;
  do {
    if (std::strcmp(data.cFileName, ".") == 0 || std::strcmp(data.cFileName, "..") == 0) continue;
    DirEntry entry;
    entry.name = data.cFileName;
    const bool link = (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    const bool directory = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    entry.isDirectory = directory && !link;
    entry.isFile = !directory && !link;
    entry.size = (static_cast<int64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
    entries->push_back(std::move(entry));
  } while (FindNextFileA(find, &data) != 0);
  FindClose(find);
  return true;
}

int removeDirectory(const char* path) {
  // RemoveDirectoryA removes a directory junction or link itself, never
  // what it points to; the callers pass real directories only.
  return RemoveDirectoryA(path) != 0 ? 0 : -1;
}

int64_t localOffsetSeconds(std::time_t t) {
  std::tm local{};
  std::tm utc{};
  if (localtime_s(&local, &t) != 0 || gmtime_s(&utc, &t) != 0) return 0;
  // The difference of the two broken-down times, read both as UTC.
  return static_cast<int64_t>(_mkgmtime(&local) - _mkgmtime(&utc));
}

bool makeWakeChannel(WakeChannel* channel) {
  // One auto-reset event: set by the sender, consumed by the waiter.
  const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  if (event == nullptr) return false;
  channel->readEnd = reinterpret_cast<FileHandle>(event);
  channel->writeEnd = channel->readEnd;
  return true;
}

// Windows has no fork: a channel's handles stay the library's own.
bool wakeChannelIntact(const WakeChannel& channel) {
  return channel.readEnd != kNoFile && channel.writeEnd != kNoFile;
}

void closeWakeChannel(WakeChannel* channel) {
  if (channel->readEnd != kNoFile) CloseHandle(reinterpret_cast<HANDLE>(channel->readEnd));
  if (channel->writeEnd != kNoFile && channel->writeEnd != channel->readEnd) {
    CloseHandle(reinterpret_cast<HANDLE>(channel->writeEnd));
  }
  *channel = WakeChannel();
}

void wakeSend(const WakeChannel& channel) { SetEvent(reinterpret_cast<HANDLE>(channel.writeEnd)); }

bool wakeWait(const WakeChannel& channel, int64_t timeoutMs) {
  DWORD wait = INFINITE;
  if (timeoutMs >= 0) wait = timeoutMs >= 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<DWORD>(timeoutMs);
  return WaitForSingleObject(reinterpret_cast<HANDLE>(channel.readEnd), wait) == WAIT_OBJECT_0;
}

namespace {

FatalHook sFatalHook = nullptr;
ResumeHook sResumeHook = nullptr;
LPTOP_LEVEL_EXCEPTION_FILTER sPreviousFilter = nullptr;

const char* exceptionName(DWORD code) {
  switch (code) {
    case EXCEPTION_ACCESS_VIOLATION:
      return "EXCEPTION_ACCESS_VIOLATION";
    case EXCEPTION_ARRAY_BOUNDS_EXCEEDED:
      return "EXCEPTION_ARRAY_BOUNDS_EXCEEDED";
    case EXCEPTION_DATATYPE_MISALIGNMENT:
      return "EXCEPTION_DATATYPE_MISALIGNMENT";
    case EXCEPTION_FLT_DIVIDE_BY_ZERO:
      return "EXCEPTION_FLT_DIVIDE_BY_ZERO";
    case EXCEPTION_ILLEGAL_INSTRUCTION:
      return "EXCEPTION_ILLEGAL_INSTRUCTION";
    case EXCEPTION_IN_PAGE_ERROR:
      return "EXCEPTION_IN_PAGE_ERROR";
    case EXCEPTION_INT_DIVIDE_BY_ZERO:
      return "EXCEPTION_INT_DIVIDE_BY_ZERO";
    case EXCEPTION_PRIV_INSTRUCTION:
      return "EXCEPTION_PRIV_INSTRUCTION";
    case EXCEPTION_STACK_OVERFLOW:
      return "EXCEPTION_STACK_OVERFLOW";
    default:
      return "exception";
  }
}

LONG WINAPI onUnhandledException(EXCEPTION_POINTERS* pointers) {
  const DWORD code = pointers != nullptr && pointers->ExceptionRecord != nullptr
                         ? pointers->ExceptionRecord->ExceptionCode
                         : 0;
  sFatalHook(static_cast<uint32_t>(code), exceptionName(code));
  // Hand on to the filter that was there before; without one the system
  // ends the process as it would have.
  if (sPreviousFilter != nullptr) {
    const LONG result = sPreviousFilter(pointers);
    if (result == EXCEPTION_CONTINUE_EXECUTION) sResumeHook();
    return result;
  }
  return EXCEPTION_CONTINUE_SEARCH;
}

}  // namespace

bool installFatalHandler(FatalHook hook, ResumeHook resume) {
  if (sFatalHook != nullptr) return true;
  sResumeHook = resume;
  sFatalHook = hook;
  sPreviousFilter = SetUnhandledExceptionFilter(onUnhandledException);
  return true;
}

}  // namespace platform
}  // namespace zel
