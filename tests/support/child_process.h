// SPDX-License-Identifier: MIT

// Child processes of a test: this test program in a role of its own (a
// writer, a service, a program that crashes), started, waited for with a
// deadline and killed. On POSIX the child is a fork that runs the role; on
// Windows, which has no fork, it is this program started again with the
// role's words in ZEL_TEST_CHILD, which RunChildRoleIfAsked() turns into
// the role before main. A program with roles therefore says, at namespace
// scope:
//   const bool kRanAsChild = zel_test::RunChildRoleIfAsked(RunChildRole);
#ifndef ZEL_TESTS_SUPPORT_CHILD_PROCESS_H_
#define ZEL_TESTS_SUPPORT_CHILD_PROCESS_H_

#if defined(ZEL_TEST_ON_WINDOWS)
#include <windows.h>
#else
#include <signal.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/test_util.h"

namespace zel_test {

// Runs the child role `role` (its words); never returns.
using ChildRole = void (*)(const std::vector<std::string>& role);

#if defined(ZEL_TEST_ON_WINDOWS)
using ChildHandle = HANDLE;
const ChildHandle kNoChild = nullptr;
// The exit code TerminateProcess gives a killed child.
constexpr DWORD kKilledExitCode = 137;
#else
using ChildHandle = pid_t;
const ChildHandle kNoChild = -1;
#endif

// The environment variable that names a started child's role on Windows:
// its words joined by '|'.
constexpr char kChildRoleVariable[] = "ZEL_TEST_CHILD";

// In a child started by StartChild() on Windows, runs its role instead of
// the tests (never returns); elsewhere returns false.
inline bool RunChildRoleIfAsked(ChildRole run) {
  const char* value = std::getenv(kChildRoleVariable);
  if (value == nullptr || *value == '\0') return false;
  std::vector<std::string> role(1);
  for (const char* p = value; *p != '\0'; ++p) {
    if (*p == '|') {
      role.emplace_back();
    } else {
      role.back() += *p;
    }
  }
  run(role);
  std::_Exit(2);  // a role that returns is a defect of the test
}

#if defined(ZEL_TEST_ON_WINDOWS)
// Starts this program again in the role `role`; kNoChild on failure. With
// `nulStreams` the child's standard streams are NUL, and only NUL is
// inherited: whatever the system starts for an unhandled fault of the
// child (Wine's debugger) takes the child's streams and must not hold the
// test's output open after the test.
inline ChildHandle StartChild(ChildRole /*run*/, const std::vector<std::string>& role,
                              bool nulStreams = false) {
  std::string value;
  for (const std::string& word : role) value += (value.empty() ? "" : "|") + word;
  char path[MAX_PATH + 1] = {0};
  GetModuleFileNameA(nullptr, path, MAX_PATH);
  std::string command = std::string("\"") + path + "\"";
  STARTUPINFOA startup{};
  startup.cb = sizeof(startup);
  HANDLE nul = INVALID_HANDLE_VALUE;
  if (nulStreams) {
    for (DWORD which : {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE}) {
      const HANDLE own = GetStdHandle(which);
      if (own != nullptr && own != INVALID_HANDLE_VALUE)
        SetHandleInformation(own, HANDLE_FLAG_INHERIT, 0);
    }
    SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
    nul = CreateFileA("NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                      &inheritable, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (nul != INVALID_HANDLE_VALUE) {
      startup.dwFlags = STARTF_USESTDHANDLES;
      startup.hStdInput = nul;
      startup.hStdOutput = nul;
      startup.hStdError = nul;
    }
  }
  // The environment is the process's: one start at a time.
  static std::mutex mutex;
  std::lock_guard<std::mutex> lock(mutex);
  _putenv_s(kChildRoleVariable, value.c_str());
  PROCESS_INFORMATION child{};
  const BOOL started = CreateProcessA(nullptr, &command[0], nullptr, nullptr, nulStreams, 0,
                                      nullptr, nullptr, &startup, &child);
  _putenv_s(kChildRoleVariable, "");
  if (nul != INVALID_HANDLE_VALUE) CloseHandle(nul);
  if (!started) return kNoChild;
  CloseHandle(child.hThread);
  return child.hProcess;
}

// Waits at most `timeout` for the child to end; true, with its exit code in
// `*code`, when it did (the handle is then released).
inline bool WaitChild(ChildHandle child, std::chrono::milliseconds timeout, int* code) {
  if (WaitForSingleObject(child, static_cast<DWORD>(timeout.count())) != WAIT_OBJECT_0) {
    return false;
  }
  DWORD exitCode = 0;
  GetExitCodeProcess(child, &exitCode);
  *code = static_cast<int>(exitCode);
  CloseHandle(child);
  return true;
}

// Kills the child at once (TerminateProcess) and waits until it is gone;
// true when it ended by this kill, not before it.
inline bool KillChild(ChildHandle child) {
  TerminateProcess(child, kKilledExitCode);
  WaitForSingleObject(child, INFINITE);
  DWORD code = 0;
  GetExitCodeProcess(child, &code);
  CloseHandle(child);
  return code == kKilledExitCode;
}
#else
// Forks a child that runs the role `role` with `run`; kNoChild on failure.
// (`nulStreams` matters on Windows only: a forked child's fault starts
// nothing that could hold the test's streams.)
inline ChildHandle StartChild(ChildRole run, const std::vector<std::string>& role,
                              bool /*nulStreams*/ = false) {
  const pid_t child = fork();
  if (child == 0) {
    run(role);
    _exit(2);  // a role that returns is a defect of the test
  }
  return child < 0 ? kNoChild : child;
}

// Waits at most `timeout` for the child to end; true, with its exit status
// (128 + the signal for a child ended by a signal) in `*code`, when it did.
inline bool WaitChild(ChildHandle child, std::chrono::milliseconds timeout, int* code) {
  int status = 0;
  const bool ended = WaitFor([&] { return waitpid(child, &status, WNOHANG) == child; }, timeout);
  if (!ended) return false;
  *code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return true;
}

// Kills the child at once (SIGKILL) and reaps it; true when it ended by
// this kill, not before it.
inline bool KillChild(ChildHandle child) {
  kill(child, SIGKILL);
  int status = 0;
  if (waitpid(child, &status, 0) != child) return false;
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}
#endif

// A zero-filled `T` in memory shared between the test and its children: on
// POSIX an anonymous shared mapping that a forked child inherits at the same
// address, on Windows a named mapping that the child opens. role() is the
// word that tells a child where it is; Open() in the child gives the `T`
// back (null when it cannot).
template <typename T>
class SharedWithChild {
 public:
  SharedWithChild() {
#if defined(ZEL_TEST_ON_WINDOWS)
    static std::atomic<int> serial{0};
    name_ =
        "zel_test_shared_" + std::to_string(GetCurrentProcessId()) + "_" + std::to_string(serial++);
    mapping_ = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(T),
                                  name_.c_str());
    if (mapping_ != nullptr) {
      value_ = static_cast<T*>(MapViewOfFile(mapping_, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(T)));
    }
#else
    void* address =
        mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (address != MAP_FAILED) value_ = static_cast<T*>(address);
#endif
  }
  ~SharedWithChild() {
#if defined(ZEL_TEST_ON_WINDOWS)
    if (value_ != nullptr) UnmapViewOfFile(value_);
    if (mapping_ != nullptr) CloseHandle(mapping_);
#else
    if (value_ != nullptr) munmap(value_, sizeof(T));
#endif
  }
  SharedWithChild(const SharedWithChild&) = delete;
  SharedWithChild& operator=(const SharedWithChild&) = delete;

  T* get() const { return value_; }

  std::string role() const {
#if defined(ZEL_TEST_ON_WINDOWS)
    return name_;
#else
    return std::to_string(reinterpret_cast<std::uintptr_t>(value_));
#endif
  }

  static T* Open(const std::string& role) {
#if defined(ZEL_TEST_ON_WINDOWS)
    const HANDLE mapping = OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, role.c_str());
    if (mapping == nullptr) return nullptr;
    return static_cast<T*>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(T)));
#else
    return reinterpret_cast<T*>(static_cast<std::uintptr_t>(std::stoull(role)));
#endif
  }

 private:
  T* value_ = nullptr;
#if defined(ZEL_TEST_ON_WINDOWS)
  HANDLE mapping_ = nullptr;
  std::string name_;
#endif
};

}  // namespace zel_test

#endif  // ZEL_TESTS_SUPPORT_CHILD_PROCESS_H_
