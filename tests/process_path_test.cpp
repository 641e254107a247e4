// SPDX-License-Identifier: MIT

#include "utils/process_path.h"

#include <gtest/gtest.h>
#if defined(ZEL_TEST_ON_WINDOWS)
#include <windows.h>
#else
#include <unistd.h>
#endif

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/test_util.h"
#include "utils/platform.h"
#if !defined(ZEL_TEST_ON_WINDOWS)
#include "tests/support/failing_allocator.h"
#endif

namespace {

using zel::platform::cutDirectory;
using zel::platform::cutFileName;

struct PathCase {
  const char* path;
  char separator;
  const char* directory;
  const char* name;
};

TEST(ProcessPathTest, CuttingRules) {
  const PathCase cases[] = {
      {"C:\\apps\\client.exe", '\\', "C:\\apps\\", "client.exe"},
      {"C:\\client.exe", '\\', "C:\\", "client.exe"},
      {"\\\\server\\share\\bin\\tool.v2.exe", '\\', "\\\\server\\share\\bin\\", "tool.v2.exe"},
      // No separator: the first character is the directory, the whole path
      // the name.
      {"client.exe", '\\', "c", "client.exe"},
      // A separator at position 0 only is not found by the directory rule.
      {"\\client.exe", '\\', "\\", "client.exe"},
      {"C:\\apps\\", '\\', "C:\\apps\\", ""},
      {"", '\\', "", ""},
      {"/usr/bin/client", '/', "/usr/bin/", "client"},
      {"/client", '/', "/", "client"},
      // The other platform's separator is an ordinary character.
      {"C:\\apps\\client.exe", '/', "C", "C:\\apps\\client.exe"},
  };
  for (const PathCase& c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(cutDirectory(c.path, c.separator), c.directory);
    EXPECT_EQ(cutFileName(c.path, c.separator), c.name);
  }
}

TEST(ProcessPathTest, LongPathKeepsItsWholeDirectory) {
  // A 600-character path: the directory function reads up to 1023
  // characters, so the directory comes back whole.
  std::string path = "C:\\";
  while (path.size() < 580) path += "dir\\";
  const std::string dir = path;
  path += std::string(600 - path.size() - 4, 'n') + ".exe";
  ASSERT_EQ(path.size(), 600u);
  EXPECT_EQ(cutDirectory(path.c_str(), '\\'), dir);
  // The name function sees the first 511 characters only: here that is
  // inside the directory, so the name is the cut last directory level.
  const std::string seen = path.substr(0, 511);
  EXPECT_EQ(cutFileName(seen.c_str(), '\\'), seen.substr(seen.rfind('\\') + 1));
}

// The full path of this test executable as the system reports it, and the
// separator it is cut at.
#if defined(ZEL_TEST_ON_WINDOWS)
std::string SelfPath() {
  char buf[4096] = {0};
  EXPECT_GT(GetModuleFileNameA(nullptr, buf, sizeof(buf) - 1), 0u);
  return buf;
}
constexpr char kSeparator = '\\';
constexpr char kSelfName[] = "process_path_test.exe";
#else
std::string SelfPath() {
  char buf[4096] = {0};
  EXPECT_GT(readlink("/proc/self/exe", buf, sizeof(buf) - 1), 0);
  return buf;
}
constexpr char kSeparator = '/';
constexpr char kSelfName[] = "process_path_test";
#endif

TEST(ProcessPathTest, ProcessDirIsTheDirectoryOfThisExecutable) {
  const std::string self = SelfPath();
  EXPECT_EQ(get_process_dir(), self.substr(0, self.rfind(kSeparator) + 1));
}

// The three tests above and below also run on copies of this program in
// directories of over 500 characters (LongDirectoryPathCutsAtEachLimit): each
// function sees at most its own number of characters of the path.
TEST(ProcessPathTest, SelfDirIsTheDirectoryOfThisExecutable) {
  // The directory of the first 259 characters, cut at 255.
  const std::string seen = SelfPath().substr(0, 259);
  EXPECT_EQ(get_self_dir(), seen.substr(0, seen.rfind(kSeparator) + 1).substr(0, 255));
}

TEST(ProcessPathTest, ProcessNameIsTheFileNameOfThisExecutable) {
  const std::string self = SelfPath();
  if (self.size() <= 511) {
    EXPECT_EQ(get_process_name(), kSelfName);
  } else {
    // What follows the last separator among the first 511 characters.
    const std::string seen = self.substr(0, 511);
    EXPECT_EQ(get_process_name(), seen.substr(seen.rfind(kSeparator) + 1));
  }
}

#if !defined(ZEL_TEST_ON_WINDOWS)
// Makes the directories below `dir` (which ends in a separator) whose
// separators stand at the character indexes `slashes` of the path, in
// increasing order; the deepest one, or the empty text when one cannot be
// made or has no room for a name.
std::string MakeDirectoriesWithSeparatorsAt(std::string dir, const std::vector<size_t>& slashes) {
  for (const size_t at : slashes) {
    if (at <= dir.size()) return std::string();
    dir += std::string(at - dir.size(), 'd') + "/";
    if (mkdir(dir.c_str(), 0755) != 0) return std::string();
  }
  return dir;
}

// Runs the three tests of this program's own path on copies of it placed
// where each limit decides, within the 1023 characters of
// get_process_dir(): a separator at index 258, the last character that
// get_self_dir() reads (its directory of 259 characters then cut at 255),
// or at 259, the first that it does not (the directory ends at the
// separator at 250); a separator at index 510, the last character that
// get_process_name() reads (the empty name), or at 511, the first that it
// does not (the name is the 5 characters after the separator at 505).
TEST(ProcessPathTest, LongDirectoryPathCutsAtEachLimit) {
  zel_test::TempDir temp;
  ASSERT_FALSE(temp.path().empty());
  ASSERT_LT(temp.path().size(), 239u) << temp.path();
  const std::vector<std::vector<size_t>> layouts = {{239, 250, 258, 505, 510},
                                                    {240, 250, 259, 505, 511}};
  for (const std::vector<size_t>& layout : layouts) {
    const std::string dir = MakeDirectoriesWithSeparatorsAt(temp.path(), layout);
    ASSERT_FALSE(dir.empty());
    SCOPED_TRACE(dir);
    const std::string copy = dir + kSelfName;
    {
      std::ifstream in(SelfPath(), std::ios::binary);
      std::ofstream out(copy, std::ios::binary);
      out << in.rdbuf();
      ASSERT_TRUE(out.good());
    }
    ASSERT_EQ(chmod(copy.c_str(), 0755), 0);
    ASSERT_LT(copy.size(), 1023u);
    const std::string output = temp.path() + "output.txt";
    const std::string command =
        "'" + copy + "' --gtest_filter='ProcessPathTest.*OfThisExecutable' > '" + output + "' 2>&1";
    const int status = std::system(command.c_str());
    const std::string printed = zel_test::ReadFile(output);
    EXPECT_EQ(status, 0) << printed;
    EXPECT_NE(printed.find("[  PASSED  ] 3 tests."), std::string::npos) << printed;
  }
}
#endif

}  // namespace

#if !defined(ZEL_TEST_ON_WINDOWS)
namespace {

// The test executable's path is longer than a string's inner buffer, so
// each function needs memory for its result.
TEST(ProcessPathTest, EachFunctionGivesTheEmptyTextWhenMemoryRunsOut) {
  if (!zel_test::AllocationFailureWorks()) {
    GTEST_SKIP() << "a memory checker replaced the operators that make allocations fail";
  }
  ASSERT_GT(get_process_dir().size(), 15u);
  struct Call {
    const char* name;
    std::string (*function)();
  };
  const Call calls[] = {{"get_self_dir", &get_self_dir},
                        {"get_process_dir", &get_process_dir},
                        {"get_process_name", &get_process_name}};
  for (const Call& call : calls) {
    SCOPED_TRACE(call.name);
    const std::string normal = call.function();
    std::string result = "unset";
    bool threw = false;
    {
      zel_test::AllocationFailure failure;
      try {
        result = call.function();
      } catch (...) {
        threw = true;
      }
    }
    EXPECT_FALSE(threw);
    // A result that fits a string's inner buffer needs no memory.
    EXPECT_EQ(result, normal.size() > 15 ? std::string() : normal);
  }
}

}  // namespace
#endif
