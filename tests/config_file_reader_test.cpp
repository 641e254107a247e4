// SPDX-License-Identifier: MIT

// The configuration file's reader: the scanning rules, golden files, values
// cut at 31 characters, long and NUL-holding lines, the errors it prints,
// and (POSIX) the close-on-exec flag of the file it opens.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "utils/config_file.h"
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

namespace {

// The helpers of tests/support/config_file_test_util.h and test_util.h.
using namespace zel_test;  // NOLINT(build/namespaces)

// Reads "net"/"port" of `path`, which cannot be opened: the reader gives
// the empty text (not null). Returns what it printed on standard error.
std::string PrintedWhenUnreadable(const std::string& path) {
  StderrCapture capture;
  char* block = GetKeyStringFromFile(path.c_str(), "net", "port");
  const std::string printed = capture.Stop();
  EXPECT_NE(block, nullptr);
  if (block != nullptr) {
    EXPECT_STREQ(block, "");
  }
  std::free(block);
  return printed;
}

// ---------------------------------------------------------------------------
// The reader.

struct ReadCase {
  const char* name;
  std::string content;
  std::string section;
  std::string key;
  std::string expected;
};

TEST(ConfigFileTest, ReaderFollowsTheScanningRules) {
  const std::string name30(30, 'n');
  const std::string name29(29, 'n');
  const std::vector<ReadCase> cases = {
      {"key", "[net]\nport=80\n", "net", "port", "80"},
      {"line key is a prefix of the requested key", "[net]\nport=80\n", "net", "portx", "80"},
      {"requested key is a prefix of the line key", "[net]\nport=80\n", "net", "por", ""},
      {"missing section", "[net]\nport=80\n", "web", "port", ""},
      {"second section", "[a]\nx=1\n[b]\nx=2\n", "b", "x", "2"},
      {"first section", "[a]\nx=1\n[b]\nx=2\n", "a", "x", "1"},
      {"never leaves a section once inside", "[a]\n[b]\nx=2\n", "a", "x", "2"},
      {"key line before any header", "x=1\n[a]\nx=2\n", "a", "x", "2"},
      {"hash and slash comments", "[s]\n#x=1\n//x=2\nx=3\n", "s", "x", "3"},
      {"newline alone is not a header", "\nx=1\n[b]\nx=2\n", "b", "x", "2"},
      {"semicolon is ordinary text", "[s]\n;x=1\n", "s", ";x", "1"},
      {"semicolon line does not answer the bare key", "[s]\n;x=1\n", "s", "x", ""},
      {"final line without newline loses its last character", "[s]\nx=12", "s", "x", "1"},
      {"final line of key and equals alone", "[s]\nx=", "s", "x", ""},
      {"empty value", "[s]\nx=\n", "s", "x", ""},
      {"further equals stay in the value", "[s]\nk=a=b\n", "s", "k", "a=b"},
      {"line key time answers timeout", "[s]\ntime=5\n", "s", "timeout", "5"},
      {"line key timeout does not answer time", "[s]\ntimeout=5\n", "s", "time", ""},
      {"empty line key answers any key", "[s]\n=5\n", "s", "anything", "5"},
      {"blanks around equals: bare key", "[s]\ntime = 5\n", "s", "time", ""},
      {"blanks around equals: key with blank", "[s]\ntime = 5\n", "s", "time ", " 5"},
      {"blanks around equals: longer key", "[s]\ntime = 5\n", "s", "time x", " 5"},
      {"header followed by a blank", "[net] \nport=80\n", "net", "port", ""},
      {"line that starts the header pattern", "[ne\nport=80\n", "net", "port", "80"},
      {"opening bracket alone", "[\nk=v\n", "anything", "k", "v"},
      {"section of 29 characters", "[" + name29 + "]\nk=v\n", name29, "k", "v"},
      {"section of 30 characters misses its own header", "[" + name30 + "]\nk=v\n", name30, "k",
       ""},
      {"section of 30 characters matches the cut header", "[" + name30 + "\nk=v\n", name30, "k",
       "v"},
  };
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  for (const ReadCase& c : cases) {
    SCOPED_TRACE(c.name);
    WriteFile(path, c.content);
    EXPECT_EQ(ReadValue(path, c.section.c_str(), c.key.c_str()), c.expected);
  }
}

TEST(ConfigFileTest, ReaderReadsGoldenFile) {
  const std::string path = kConfigDataDir + "client.ini";
  EXPECT_EQ(ReadValue(path, "net", "host"), "example.org");
  EXPECT_EQ(ReadValue(path, "net", "timeout"), "30");
  EXPECT_EQ(GetKeyIntFromFile(path.c_str(), "net", "port"), 80);
  // Inside [net] for good: the first line of [log] with a matching key is
  // found only after net's lines.
  EXPECT_EQ(ReadValue(path, "log", "path"), "/var/log/client/");
  EXPECT_EQ(ReadValue(path, "net", "level"), "3");
}

TEST(ConfigFileTest, ValuesOfThirtyTwoCharactersOrMoreAreCutToThirtyOne) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  for (const std::size_t length : {31u, 32u, 200u}) {
    SCOPED_TRACE(length);
    std::string value;
    for (std::size_t i = 0; i < length; ++i) value += static_cast<char>('a' + i % 26);
    WriteFile(path, "[s]\nk=" + value + "\n");
    EXPECT_EQ(ReadValue(path, "s", "k"), value.substr(0, 31));
  }
}

TEST(ConfigFileTest, ReaderHandlesALongPhysicalLineAsSeveralLines) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  // 1023 characters fill the buffer: what follows on the same physical line
  // arrives as a line of its own.
  WriteFile(path, "[s]\n" + std::string(1023, 'a') + "k=v\n");
  EXPECT_EQ(ReadValue(path, "s", "k"), "v");
  WriteFile(path, "[other]\n" + std::string(1023, 'x') + "[t]\nk=w\n");
  EXPECT_EQ(ReadValue(path, "t", "k"), "w");
  // A line of 1023 characters, newline included, is read whole: its key is
  // the long text before "=".
  WriteFile(path, "[s]\n" + std::string(1019, 'a') + "k=v\n");
  EXPECT_EQ(ReadValue(path, "s", "k"), "");
  // Cut right after the "k": the piece "=v" has an empty key, which answers
  // any key.
  WriteFile(path, "[s]\n" + std::string(1022, 'a') + "k=v\n");
  EXPECT_EQ(ReadValue(path, "s", "other"), "v");
}

TEST(ConfigFileTest, GetKeyIntConvertsWithAtoi) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  const struct {
    const char* content;
    int expected;
  } cases[] = {
      {"[net]\nport=80\n", 80}, {"[net]\nport= 42abc\n", 42}, {"[net]\nport=-7\n", -7},
      {"[net]\nport=abc\n", 0}, {"[net]\nport=\n", 0},        {"[net]\nother=5\n", 0},
      {"[net]\nportx=9\n", 0},  {"[net]\nport=+12\n", 12},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.content);
    WriteFile(path, c.content);
    EXPECT_EQ(GetKeyIntFromFile(path.c_str(), "net", "port"), c.expected);
  }
}

TEST(ConfigFileTest, ReaderPrintsFopenErrorForMissingFile) {
  TempDir dir;
  const std::string path = dir.path() + "missing.ini";
  StderrCapture capture;
  char* block = GetKeyStringFromFile(path.c_str(), "net", "port");
  const int number = GetKeyIntFromFile(path.c_str(), "net", "port");
  const std::string printed = capture.Stop();
  ASSERT_NE(block, nullptr);
  EXPECT_STREQ(block, "");
  std::free(block);
  EXPECT_EQ(number, 0);
  EXPECT_EQ(printed, FopenError(ENOENT) + FopenError(ENOENT));
}

TEST(ConfigFileTest, ReaderPrintsFopenErrorWhenAPathComponentIsAFile) {
  // Holds for every user, root included.
  TempDir dir;
  WriteFile(dir.path() + "plain", "[net]\nport=80\n");
  const std::string path = dir.path() + "plain/client.ini";
  const std::string printed = PrintedWhenUnreadable(path);
#if defined(ZEL_TEST_ON_WINDOWS)
  // Windows reports a path through a file as not found.
  EXPECT_EQ(printed, FopenError(ENOENT));
#else
  EXPECT_EQ(printed, FopenError(ENOTDIR));
#endif
}

TEST(ConfigFileTest, ReaderPrintsFopenErrorForUnreadableFile) {
  ZEL_SKIP_UNLESS_PERMISSIONS_REFUSE("root reads a file without read permission");
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  WriteFile(path, "[net]\nport=80\n");
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  const std::string printed = PrintedWhenUnreadable(path);
  EXPECT_EQ(printed, FopenError(EACCES));
}

TEST(ConfigFileTest, DirectoryAsFileReadsNothing) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
  EXPECT_EQ(ReadValue(path, "net", "port"), "");
  EXPECT_EQ(GetKeyIntFromFile(path.c_str(), "net", "port"), 0);
}

TEST(ConfigFileTest, ReaderReadsEachLineUpToItsFirstNulByte) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  // "port" and the NUL: no "=" before the NUL, so not a key line.
  WriteFile(path, std::string("[net]\nport\0=1\nport=80\n", 22));
  EXPECT_EQ(ReadValue(path, "net", "port"), "80");
  // A header behind a leading NUL is an empty line and is skipped.
  WriteFile(path, std::string("\0[net]\nport=80\n", 15));
  EXPECT_EQ(ReadValue(path, "net", "port"), "");
  // The line ends at the NUL, and its last character before it is taken
  // off as if it were the newline.
  WriteFile(path, std::string("[net]\nport=42\0"
                              "0\n",
                              16));
  EXPECT_EQ(ReadValue(path, "net", "port"), "4");
}

TEST(ConfigFileTest, ReaderKeepsCarriageReturnsOfCrlfLines) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
#if defined(ZEL_TEST_ON_WINDOWS)
  // The file is read in the runtime's text mode: on Windows "\r\n" comes
  // in as "\n", so CRLF lines read like any other.
  WriteFile(path, "[net]\r\nport=80\r\n");
  EXPECT_EQ(ReadValue(path, "net", "port"), "80");
  WriteFile(path, "[net]\nport=80\r\n");
  EXPECT_EQ(ReadValue(path, "net", "port"), "80");
  EXPECT_EQ(GetKeyIntFromFile(path.c_str(), "net", "port"), 80);
  return;
#endif
  // The header line less its last character is "[net]\r": no match.
  WriteFile(path, "[net]\r\nport=80\r\n");
  EXPECT_EQ(ReadValue(path, "net", "port"), "");
  // Only the newline is taken off the value.
  WriteFile(path, "[net]\nport=80\r\n");
  EXPECT_EQ(ReadValue(path, "net", "port"), "80\r");
  EXPECT_EQ(GetKeyIntFromFile(path.c_str(), "net", "port"), 80);
}

}  // namespace

#if !defined(ZEL_TEST_ON_WINDOWS)

namespace {

// The configuration file is a named pipe, so that a call keeps its files
// open until the test writes the file's text into the pipe.
TEST(ConfigFileTest, ReaderOpensTheFileCloseOnExec) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  std::string value;
  std::thread reader([&] {
    char* block = GetKeyStringFromFile(path.c_str(), "net", "port");
    if (block != nullptr) value = block;
    std::free(block);
  });
  const int pipe = open(path.c_str(), O_WRONLY);  // once the reader has opened it
  ASSERT_GE(pipe, 0);
  std::vector<int> fds;
  EXPECT_TRUE(zel_test::WaitFor([&] {
    fds = DescriptorsOf(path);
    // This test's own end of the pipe names the same path.
    return fds.size() == 2;
  }));
  int readerEnds = 0;
  for (const int fd : fds) {
    if (fd == pipe) continue;
    ++readerEnds;
    EXPECT_TRUE(CloseOnExec(fd)) << "descriptor " << fd;
  }
  EXPECT_EQ(readerEnds, 1);
  const std::string text = "[net]\nport=80\n";
  EXPECT_EQ(write(pipe, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(pipe);
  reader.join();
  EXPECT_EQ(value, "80");
}

}  // namespace

#endif  // !ZEL_TEST_ON_WINDOWS
