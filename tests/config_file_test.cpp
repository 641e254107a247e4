// SPDX-License-Identifier: MIT

// The configuration file's functions beyond reading and writing a key: a
// null path, the functions on the configuration path (empty in this
// version) and the data path. The reader and the writer have files of their
// own (config_file_reader_test.cpp, config_file_writer_test.cpp).
#include "utils/config_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#if !defined(ZEL_TEST_ON_WINDOWS)
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#endif

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/config_file_test_util.h"
#include "tests/support/test_util.h"
#include "utils/platform.h"
#if !defined(ZEL_TEST_ON_WINDOWS)
#include "tests/support/failing_allocator.h"
#endif

namespace {

using zel_test::FopenError;
using zel_test::StderrCapture;

#if defined(ZEL_TEST_ON_WINDOWS)
// The path separator of the system these tests run on.
const char* const kSeparator = "\\";
#else
// The path separator of the system these tests run on (POSIX).
const char* const kSeparator = "/";
#endif

TEST(ConfigFileTest, NullPathReadsNullAndWritesNothing) {
  EXPECT_EQ(GetKeyStringFromFile(nullptr, "net", "port"), nullptr);
  EXPECT_EQ(GetKeyIntFromFile(nullptr, "net", "port"), 0);
  EXPECT_EQ(PutKeyStringToFile(nullptr, "net", "port", "1"), 0);
  EXPECT_EQ(PutKeyIntToFile(nullptr, "net", "port", 1), 0);
}

// ---------------------------------------------------------------------------
// The functions on the configuration path, empty in this version.

TEST(ConfigFileTest, ConfigFilePathIsEmptyHeapText) {
  char* path = GetConfigFilePath();
  ASSERT_NE(path, nullptr);
  EXPECT_STREQ(path, "");
  std::free(path);
}

TEST(ConfigFileTest, FunctionsOnTheEmptyPathFailToOpen) {
  StderrCapture capture;
  char* block = GetKeyString("net", "port");
  const std::string afterString = capture.Stop();
  ASSERT_NE(block, nullptr);
  EXPECT_STREQ(block, "");
  std::free(block);
  EXPECT_EQ(afterString, FopenError(ENOENT));

  StderrCapture intCapture;
  EXPECT_EQ(GetKeyInt("net", "port"), 0);
  EXPECT_EQ(intCapture.Stop(), FopenError(ENOENT));

  StderrCapture putCapture;
  EXPECT_EQ(PutKeyString("net", "port", "8080"), -2);
  EXPECT_EQ(PutKeyInt("net", "port", 8080), -2);
  EXPECT_EQ(putCapture.Stop(), "");
}

// ---------------------------------------------------------------------------
// The data path.

TEST(ConfigFileTest, AppDataPathIsEmptyWithoutTheVariable) {
  ASSERT_EQ(unsetenv("APPDATA"), 0);
  EXPECT_EQ(GetAppDataPath(), "");
}

TEST(ConfigFileTest, AppDataPathAppendsOstrelAndLog) {
  ASSERT_EQ(setenv("APPDATA", "D:\\x", 1), 0);
  const std::string sep = kSeparator;
  EXPECT_EQ(GetAppDataPath(), "D:\\x" + sep + "ostrel" + sep + "log" + sep);
  ASSERT_EQ(setenv("APPDATA", "/home/u/.local/share", 1), 0);
  EXPECT_EQ(GetAppDataPath(), "/home/u/.local/share" + sep + "ostrel" + sep + "log" + sep);
}

TEST(ConfigFileTest, AppDataPathIsCutAt255Characters) {
  const std::string value(300, 'a');
  ASSERT_EQ(setenv("APPDATA", value.c_str(), 1), 0);
  EXPECT_EQ(GetAppDataPath(), std::string(255, 'a'));
  const std::string shorter(240, 'a');
  ASSERT_EQ(setenv("APPDATA", shorter.c_str(), 1), 0);
  const std::string sep = kSeparator;
  EXPECT_EQ(GetAppDataPath(), (shorter + sep + "ostrel" + sep + "log" + sep).substr(0, 255));
}

TEST(ConfigFileTest, AppDataPathRuleGivesWindowsForm) {
  char buf[256];
  zel::platform::formatAppDataPath(buf, sizeof(buf), "D:\\x", '\\');
  EXPECT_STREQ(buf, "D:\\x\\ostrel\\log\\");
  zel::platform::formatAppDataPath(buf, sizeof(buf), "C:\\Users\\u\\AppData\\Roaming", '\\');
  EXPECT_STREQ(buf, "C:\\Users\\u\\AppData\\Roaming\\ostrel\\log\\");
}

}  // namespace

#if !defined(ZEL_TEST_ON_WINDOWS)

namespace {

TEST(ConfigFileTest, AppDataPathGivesTheEmptyTextWhenMemoryRunsOut) {
  if (!zel_test::AllocationFailureWorks()) {
    GTEST_SKIP() << "a memory checker replaced the operators that make allocations fail";
  }
  const std::string value(200, 'a');  // too long for a string's inner buffer
  ASSERT_EQ(setenv("APPDATA", value.c_str(), 1), 0);
  std::string result = "unset";
  bool threw = false;
  {
    zel_test::AllocationFailure failure;
    try {
      result = GetAppDataPath();
    } catch (...) {
      threw = true;
    }
  }
  EXPECT_FALSE(threw);
  EXPECT_EQ(result, "");
  EXPECT_EQ(GetAppDataPath().substr(0, 200), value);
}

}  // namespace

#endif  // !ZEL_TEST_ON_WINDOWS
