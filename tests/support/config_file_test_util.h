// SPDX-License-Identifier: MIT

// Helpers the configuration file's tests share (tests/config_file_*_test.cpp):
// the golden files, a value read back, the texts perror prints, the lack of
// permission bits on Windows, and (POSIX) the descriptors a call holds open.
#ifndef ZEL_TESTS_SUPPORT_CONFIG_FILE_TEST_UTIL_H_
#define ZEL_TESTS_SUPPORT_CONFIG_FILE_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <unistd.h>
#if !defined(ZEL_TEST_ON_WINDOWS)
#include <fcntl.h>
#endif

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/test_util.h"
#include "utils/config_file.h"

namespace zel_test {

// The golden input and output files of the configuration file's tests.
inline const std::string kConfigDataDir = std::string(ZEL_TEST_DATA_DIR) + "config_file/";

// Reads `key` of `section` from `path` and releases the block; fails the
// test when the block is null or holds more than 31 characters.
inline std::string ReadValue(const std::string& path, const char* section, const char* key) {
  char* block = GetKeyStringFromFile(path.c_str(), section, key);
  EXPECT_NE(block, nullptr);
  if (block == nullptr) return "<null>";
  const std::string value(block, strnlen(block, 32));
  EXPECT_EQ(block[31], '\0');
  std::free(block);
  return value;
}

// What perror("fopen") prints for the error number `error`.
inline std::string FopenError(int error) {
  return std::string("fopen: ") + std::strerror(error) + "\n";
}

#if defined(ZEL_TEST_ON_WINDOWS)
// Windows has no POSIX permission bits: chmod only sets the read-only
// attribute, which neither stops reading a file nor creating files in a
// directory.
constexpr char kNoPermissionBits[] = "Windows has no POSIX permission bits to take away";
inline bool RunningAsRoot() { return false; }
#else
inline bool RunningAsRoot() { return geteuid() == 0; }

// The path that descriptor `fd` of this process names.
inline std::string PathOfDescriptor(int fd) {
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  char target[4096];
  const ssize_t n = readlink(link.c_str(), target, sizeof(target) - 1);
  return n > 0 ? std::string(target, static_cast<std::size_t>(n)) : std::string();
}

// The descriptors of this process that name `path`.
inline std::vector<int> DescriptorsOf(const std::string& path) {
  std::vector<int> fds;
  for (const std::string& name : zel_test::ListDir("/proc/self/fd")) {
    const int fd = std::atoi(name.c_str());
    if (PathOfDescriptor(fd) == path) fds.push_back(fd);
  }
  return fds;
}

// Whether descriptor `fd` is closed when the process executes a program.
inline bool CloseOnExec(int fd) {
  const int flags = fcntl(fd, F_GETFD);
  return flags >= 0 && (flags & FD_CLOEXEC) != 0;
}

#endif

}  // namespace zel_test

// Skips the test unless taking permission bits away refuses access: not on
// Windows, which has none, nor for root, which `rootReason` says is not
// refused.
#if defined(ZEL_TEST_ON_WINDOWS)
#define ZEL_SKIP_UNLESS_PERMISSIONS_REFUSE(rootReason) GTEST_SKIP() << zel_test::kNoPermissionBits
#else
#define ZEL_SKIP_UNLESS_PERMISSIONS_REFUSE(rootReason)         \
  do {                                                         \
    if (zel_test::RunningAsRoot()) GTEST_SKIP() << rootReason; \
  } while (false)
#endif

#endif  // ZEL_TESTS_SUPPORT_CONFIG_FILE_TEST_UTIL_H_
