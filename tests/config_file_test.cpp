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

#include "tests/support/test_util.h"
#include "utils/platform.h"
#if !defined(ZEL_TEST_ON_WINDOWS)
#include "tests/support/failing_allocator.h"
#endif

namespace {

using zel_test::FileExists;
using zel_test::IsDirectory;
using zel_test::ReadFile;
using zel_test::StderrCapture;
using zel_test::TempDir;
using zel_test::WriteFile;

const std::string kDataDir = std::string(ZEL_TEST_DATA_DIR) + "config_file/";

// Reads `key` of `section` from `path` and releases the block; fails the
// test when the block is null or holds more than 31 characters.
std::string ReadValue(const std::string& path, const char* section, const char* key) {
  char* block = GetKeyStringFromFile(path.c_str(), section, key);
  EXPECT_NE(block, nullptr);
  if (block == nullptr) return "<null>";
  const std::string value(block, strnlen(block, 32));
  EXPECT_EQ(block[31], '\0');
  std::free(block);
  return value;
}

// What perror("fopen") prints for the error number `error`.
std::string FopenError(int error) { return std::string("fopen: ") + std::strerror(error) + "\n"; }

// Creates directories below `base` until a file name directly below them
// gives a path of exactly `length` characters; returns that path.
std::string PathOfLength(const std::string& base, std::size_t length) {
  std::string dir = base;
  while (length - dir.size() > 200) {
    dir += std::string(100, 'd') + "/";
    mkdir(dir.c_str(), 0755);
  }
  return dir + std::string(length - dir.size(), 'f');
}

#if defined(ZEL_TEST_ON_WINDOWS)
// Windows has no POSIX permission bits: chmod only sets the read-only
// attribute, which neither stops reading a file nor creating files in a
// directory.
constexpr char kNoPermissionBits[] = "Windows has no POSIX permission bits to take away";
bool RunningAsRoot() { return false; }

// The path separator of the system these tests run on.
const char* const kSeparator = "\\";
#else
bool RunningAsRoot() { return geteuid() == 0; }

// The path separator of the system these tests run on (POSIX).
const char* const kSeparator = "/";
#endif

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
  const std::string path = kDataDir + "client.ini";
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
  StderrCapture capture;
  char* block = GetKeyStringFromFile(path.c_str(), "net", "port");
  const std::string printed = capture.Stop();
  ASSERT_NE(block, nullptr);
  EXPECT_STREQ(block, "");
  std::free(block);
#if defined(ZEL_TEST_ON_WINDOWS)
  // Windows reports a path through a file as not found.
  EXPECT_EQ(printed, FopenError(ENOENT));
#else
  EXPECT_EQ(printed, FopenError(ENOTDIR));
#endif
}

TEST(ConfigFileTest, ReaderPrintsFopenErrorForUnreadableFile) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kNoPermissionBits;
#endif
  if (RunningAsRoot()) GTEST_SKIP() << "root reads a file without read permission";
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  WriteFile(path, "[net]\nport=80\n");
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  StderrCapture capture;
  char* block = GetKeyStringFromFile(path.c_str(), "net", "port");
  const std::string printed = capture.Stop();
  ASSERT_NE(block, nullptr);
  EXPECT_STREQ(block, "");
  std::free(block);
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

// ---------------------------------------------------------------------------
// The writer.

struct WriteCase {
  const char* name;
  std::string content;
  std::string section;
  std::string key;
  std::string value;
  std::string expected;
};

TEST(ConfigFileTest, WriterFollowsTheScanningRules) {
  const std::string name30(30, 'n');
  const std::vector<WriteCase> cases = {
      {"replaces the value", "[net]\nport=80\n", "net", "port", "8080", "[net]\nport=8080\n"},
      {"adds no key", "[net]\nport=80\n", "net", "host", "h", "[net]\nport=80\n"},
      {"adds no section", "[net]\nport=80\n", "web", "port", "1", "[net]\nport=80\n"},
      {"line key prefix of the requested key", "[net]\nport=80\n", "net", "portx", "1",
       "[net]\nport=1\n"},
      {"only the first match", "[s]\nk=1\nk=2\n", "s", "k", "9", "[s]\nk=9\nk=2\n"},
      {"never leaves a section once inside", "[a]\n[b]\nx=2\n", "a", "x", "9", "[a]\n[b]\nx=9\n"},
      {"second section", "[a]\nx=1\n[b]\nx=2\n", "b", "x", "9", "[a]\nx=1\n[b]\nx=9\n"},
      {"comment lines are compared like others", "[s]\n#k=1\nk=2\n", "s", "#k", "9",
       "[s]\n#k=9\nk=2\n"},
      {"newline alone counts as a header", "\nk=1\n", "any", "k", "9", "\nk=9\n"},
      {"final line without newline gets one", "[s]\nk=1", "s", "k", "9", "[s]\nk=9\n"},
      {"further equals are replaced too", "[s]\nk=a=b\n", "s", "k", "c", "[s]\nk=c\n"},
      {"empty value", "[s]\nk=1\n", "s", "k", "", "[s]\nk=\n"},
      {"section of 30 characters misses its own header", "[" + name30 + "]\nk=1\n", name30, "k",
       "9", "[" + name30 + "]\nk=1\n"},
      {"section of 30 characters matches the cut header", "[" + name30 + "\nk=1\n", name30, "k",
       "9", "[" + name30 + "\nk=9\n"},
  };
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  for (const WriteCase& c : cases) {
    SCOPED_TRACE(c.name);
    WriteFile(path, c.content);
    EXPECT_EQ(PutKeyStringToFile(path.c_str(), c.section.c_str(), c.key.c_str(), c.value.c_str()),
              0);
    EXPECT_EQ(ReadFile(path), c.expected);
    EXPECT_FALSE(FileExists(path + ".tmp"));
  }
}

struct GoldenCase {
  const char* input;
  const char* section;
  const char* key;
  const char* value;
  const char* output;
};

TEST(ConfigFileTest, WriterProducesGoldenFiles) {
  const GoldenCase cases[] = {
      {"net.ini", "net", "port", "8080", "net_port_8080.ini"},
      {"net.ini", "net", "host", "example.org", "net.ini"},
      // The empty line sets the state to inside: section a's x changes.
      {"blank_line_before_section.ini", "b", "x", "9", "blank_line_before_section_b_x_9.ini"},
      {"client.ini", "net", "port", "8080", "client_port_8080.ini"},
  };
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  for (const GoldenCase& c : cases) {
    SCOPED_TRACE(c.input + std::string(" -> ") + c.output);
    WriteFile(path, ReadFile(kDataDir + c.input));
    EXPECT_EQ(PutKeyStringToFile(path.c_str(), c.section, c.key, c.value), 0);
    EXPECT_EQ(ReadFile(path), ReadFile(kDataDir + c.output));
  }
}

TEST(ConfigFileTest, PutKeyIntWritesDecimalText) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  WriteFile(path, ReadFile(kDataDir + "net.ini"));
  EXPECT_EQ(PutKeyIntToFile(path.c_str(), "net", "port", -7), 0);
  EXPECT_EQ(ReadFile(path), ReadFile(kDataDir + "net_port_minus_7.ini"));
  EXPECT_EQ(GetKeyIntFromFile(path.c_str(), "net", "port"), -7);
}

TEST(ConfigFileTest, WriterWritesLongValuesThatTheReaderCuts) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  const std::string value(200, 'v');
  WriteFile(path, "[s]\nk=1\n");
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "s", "k", value.c_str()), 0);
  EXPECT_EQ(ReadFile(path), "[s]\nk=" + value + "\n");
  EXPECT_EQ(ReadValue(path, "s", "k"), value.substr(0, 31));
}

TEST(ConfigFileTest, WriterCutsAValuePastTheLineBuffer) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  const std::string value(2000, 'v');
  WriteFile(path, "[s]\nk=1\nnext=2\n");
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "s", "k", value.c_str()), 0);
  // "k=" and 1021 characters fill the 1023 characters of the line; the
  // newline is cut with the rest.
  EXPECT_EQ(ReadFile(path), "[s]\nk=" + value.substr(0, 1021) + "next=2\n");
}

TEST(ConfigFileTest, WriterHandlesALongPhysicalLineAsSeveralLines) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  const std::string filler(1023, 'a');
  WriteFile(path, "[s]\n" + filler + "k=1\n");
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "s", "k", "9"), 0);
  EXPECT_EQ(ReadFile(path), "[s]\n" + filler + "k=9\n");
}

TEST(ConfigFileTest, WriterCopiesEachLineUpToItsFirstNulByte) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  WriteFile(path, std::string("[net]\nport\0=1\nport=80\n", 22));
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), 0);
  // The bytes from the NUL to the end of that line, newline included, are
  // not copied.
  EXPECT_EQ(ReadFile(path), "[net]\nportport=8080\n");
}

TEST(ConfigFileTest, WriterKeepsCrlfLines) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
#if defined(ZEL_TEST_ON_WINDOWS)
  // Text mode on Windows: CRLF lines are read as plain lines (so the key is
  // found) and every line is written back with "\r\n".
  const auto bytes = [](const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  };
  WriteFile(path, "[net]\r\nport=80\r\n");
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), 0);
  EXPECT_EQ(bytes(path), "[net]\r\nport=8080\r\n");
  WriteFile(path, "[net]\nport=80\r\nhost=h\r\n");
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), 0);
  EXPECT_EQ(bytes(path), "[net]\r\nport=8080\r\nhost=h\r\n");
  return;
#endif
  WriteFile(path, "[net]\r\nport=80\r\n");
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), 0);
  EXPECT_EQ(ReadFile(path), "[net]\r\nport=80\r\n");
  WriteFile(path, "[net]\nport=80\r\nhost=h\r\n");
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), 0);
  EXPECT_EQ(ReadFile(path), "[net]\nport=8080\nhost=h\r\n");
}

TEST(ConfigFileTest, WriterReturnsMinusTwoForMissingFileAndPrintsNothing) {
  TempDir dir;
  const std::string path = dir.path() + "missing.ini";
  StderrCapture capture;
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "1"), -2);
  EXPECT_EQ(PutKeyIntToFile(path.c_str(), "net", "port", 1), -2);
  EXPECT_EQ(capture.Stop(), "");
  EXPECT_FALSE(FileExists(path));
  EXPECT_FALSE(FileExists(path + ".tmp"));
}

TEST(ConfigFileTest, WriterReturnsMinusOneWhenTheTemporaryFileIsADirectory) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  WriteFile(path, "[net]\nport=80\n");
  ASSERT_EQ(mkdir((path + ".tmp").c_str(), 0755), 0);
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), -1);
  EXPECT_EQ(ReadFile(path), "[net]\nport=80\n");
  EXPECT_TRUE(IsDirectory(path + ".tmp"));
}

TEST(ConfigFileTest, WriterReturnsMinusOneInReadOnlyDirectory) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << kNoPermissionBits;
#endif
  if (RunningAsRoot()) GTEST_SKIP() << "root creates files in a read-only directory";
  TempDir dir;
  const std::string sub = dir.path() + "ro/";
  ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
  const std::string path = sub + "client.ini";
  WriteFile(path, "[net]\nport=80\n");
  ASSERT_EQ(chmod(sub.c_str(), 0555), 0);
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), -1);
  EXPECT_EQ(ReadFile(path), "[net]\nport=80\n");
  EXPECT_FALSE(FileExists(path + ".tmp"));
}

TEST(ConfigFileTest, WriterReturnsMinusOneAndRemovesTmpWhenThePathIsADirectory) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << "Windows opens no directory as a file";
#endif
  // A directory opens for reading but cannot be read: the copy is
  // incomplete, so it goes.
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), -1);
  EXPECT_TRUE(IsDirectory(path));
  EXPECT_FALSE(FileExists(path + ".tmp"));
}

#if defined(ZEL_TEST_ON_WINDOWS)
TEST(ConfigFileTest, WriterReturnsMinusOneAndLeavesTmpWhenRenameFails) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  // Windows refuses to replace a file that another handle holds open.
  WriteFile(path, "[net]\nport=80\n");
  FILE* held = std::fopen(path.c_str(), "r");
  ASSERT_NE(held, nullptr);
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), -1);
  std::fclose(held);
  EXPECT_EQ(ReadFile(path), "[net]\nport=80\n");
  EXPECT_EQ(ReadFile(path + ".tmp"), "[net]\nport=8080\n");
}
#endif

TEST(ConfigFileTest, WriterTruncatesAStaleTemporaryFile) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  WriteFile(path, "[net]\nport=80\n");
  WriteFile(path + ".tmp", "stale text that is longer than the new file\n");
  EXPECT_EQ(PutKeyStringToFile(path.c_str(), "net", "port", "8080"), 0);
  EXPECT_EQ(ReadFile(path), "[net]\nport=8080\n");
  EXPECT_FALSE(FileExists(path + ".tmp"));
}

TEST(ConfigFileTest, WriterRefusesAPathWhoseTemporaryNameDoesNotFit) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << "needs paths of over 1000 characters, which the Windows runtime's narrow "
                  "file functions cannot create (260 at most)";
#endif
  TempDir dir;
  // "<path>.tmp" needs 1023 characters at most.
  const std::string fits = PathOfLength(dir.path(), 1019);
  const std::string tooLong = fits + "x";
  ASSERT_EQ(fits.size(), 1019u);
  WriteFile(fits, "[net]\nport=80\n");
  WriteFile(tooLong, "[net]\nport=80\n");
  ASSERT_EQ(ReadFile(tooLong), "[net]\nport=80\n");

  EXPECT_EQ(PutKeyStringToFile(tooLong.c_str(), "net", "port", "8080"), -1);
  EXPECT_EQ(ReadFile(tooLong), "[net]\nport=80\n");
  EXPECT_FALSE(FileExists(tooLong + ".tmp"));

  EXPECT_EQ(PutKeyStringToFile(fits.c_str(), "net", "port", "8080"), 0);
  EXPECT_EQ(ReadFile(fits), "[net]\nport=8080\n");
}

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

// ---------------------------------------------------------------------------
// The writer under faults, inherited descriptors, exhausted memory (POSIX).

#if !defined(ZEL_TEST_ON_WINDOWS)

namespace {

// What the fsync() below saw, and how it answers.
struct SyncWatch {
  std::mutex mutex;
  std::vector<std::string> paths;   // the synced files, in call order
  std::vector<std::string> texts;   // their content when synced
  std::vector<std::string> models;  // the content of `model` at that moment
  std::string model;                // the file whose content is recorded
  int failWith = 0;                 // errno to fail with; 0: sync
};
SyncWatch gSyncWatch;

// The path that descriptor `fd` of this process names.
std::string PathOfDescriptor(int fd) {
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  char target[4096];
  const ssize_t n = readlink(link.c_str(), target, sizeof(target) - 1);
  return n > 0 ? std::string(target, static_cast<std::size_t>(n)) : std::string();
}

}  // namespace

// Replaces the C library's fsync for the whole test executable (the
// library's calls reach it first): records each call, then syncs or fails.
extern "C" __attribute__((visibility("default"))) int fsync(int fd) {
  std::lock_guard<std::mutex> lock(gSyncWatch.mutex);
  const std::string path = PathOfDescriptor(fd);
  gSyncWatch.paths.push_back(path);
  gSyncWatch.texts.push_back(zel_test::ReadFile(path));
  gSyncWatch.models.push_back(zel_test::ReadFile(gSyncWatch.model));
  if (gSyncWatch.failWith != 0) {
    errno = gSyncWatch.failWith;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fsync, fd));
}

// errno the rename() below fails with; 0: it renames.
std::atomic<int> gRenameFailsWith{0};

// Replaces the C library's rename for the whole test executable, so that a
// test can make the final step of a write fail after a complete copy.
extern "C" __attribute__((visibility("default"))) int rename(const char* from,
                                                             const char* to) noexcept {
  const int fail = gRenameFailsWith.load();
  if (fail != 0) {
    errno = fail;
    return -1;
  }
  return static_cast<int>(syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to));
}

TEST(ConfigFileTest, WriterReturnsMinusOneAndLeavesTmpWhenRenameFails) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  WriteFile(path, "[net]\nport=80\n");
  gRenameFailsWith = EXDEV;
  const int result = PutKeyStringToFile(path.c_str(), "net", "port", "8080");
  gRenameFailsWith = 0;
  EXPECT_EQ(result, -1);
  EXPECT_EQ(ReadFile(path), "[net]\nport=80\n");
  EXPECT_EQ(ReadFile(path + ".tmp"), "[net]\nport=8080\n");
}

namespace {

// A configuration file of 7,014 bytes whose only key line is the last one.
std::string LargeConfig() {
  constexpr std::size_t kSize = 7014;
  const std::string last = "port=80\n";
  std::string text = "[net]\n";
  const std::string comment = "# " + std::string(61, 'c') + "\n";
  while (text.size() + comment.size() + last.size() + 3 <= kSize) text += comment;
  text += "# " + std::string(kSize - text.size() - last.size() - 3, 'c') + "\n";
  return text + last;
}

// Lowers the soft file size limit of the process to `bytes` and ignores
// SIGXFSZ, so that writes past it fail with EFBIG, as on a full disk or
// over a quota; restores both when destroyed.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &saved_);
    rlimit limit = saved_;
    limit.rlim_cur = bytes;
    ok_ = setrlimit(RLIMIT_FSIZE, &limit) == 0;
    previous_ = std::signal(SIGXFSZ, SIG_IGN);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &saved_);
    std::signal(SIGXFSZ, previous_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  bool ok() const { return ok_; }

 private:
  rlimit saved_{};
  bool ok_ = false;
  void (*previous_)(int) = SIG_DFL;
};

TEST(ConfigFileTest, WriterLeavesTheFileUntouchedWhenWritesHitAFileSizeLimit) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  const std::string original = LargeConfig();
  ASSERT_EQ(original.size(), 7014u);
  WriteFile(path, original);
  int result = 0;
  {
    FileSizeLimit limit(4096);
    ASSERT_TRUE(limit.ok());
    result = PutKeyIntToFile(path.c_str(), "net", "port", 8080);
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(ReadFile(path), original);
  EXPECT_FALSE(FileExists(path + ".tmp"));
  // Without the limit the same write goes through.
  EXPECT_EQ(PutKeyIntToFile(path.c_str(), "net", "port", 8080), 0);
  EXPECT_EQ(ReadFile(path), original.substr(0, original.size() - 3) + "8080\n");
}

TEST(ConfigFileTest, WriterKeepsThePermissionBitsOfTheFile) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  const mode_t savedMask = umask(022);
  for (const mode_t mode : {mode_t{0600}, mode_t{0640}, mode_t{0604}, mode_t{0660}}) {
    SCOPED_TRACE(mode);
    WriteFile(path, "[net]\nport=80\n");
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    EXPECT_EQ(PutKeyIntToFile(path.c_str(), "net", "port", 8080), 0);
    EXPECT_EQ(ReadFile(path), "[net]\nport=8080\n");
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, mode);
  }
  umask(savedMask);
}

TEST(ConfigFileTest, WriterSyncsTheWholeCopyBeforeItReplacesTheFile) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  WriteFile(path, "[net]\nport=80\nhost=h\n");
  {
    std::lock_guard<std::mutex> lock(gSyncWatch.mutex);
    gSyncWatch.paths.clear();
    gSyncWatch.texts.clear();
    gSyncWatch.models.clear();
    gSyncWatch.model = path;
  }
  EXPECT_EQ(PutKeyIntToFile(path.c_str(), "net", "port", 8080), 0);
  std::lock_guard<std::mutex> lock(gSyncWatch.mutex);
  ASSERT_EQ(gSyncWatch.paths.size(), 1u);
  EXPECT_EQ(gSyncWatch.paths[0], path + ".tmp");
  EXPECT_EQ(gSyncWatch.texts[0], "[net]\nport=8080\nhost=h\n");
  EXPECT_EQ(gSyncWatch.models[0], "[net]\nport=80\nhost=h\n");  // not yet replaced
  EXPECT_EQ(ReadFile(path), "[net]\nport=8080\nhost=h\n");
}

TEST(ConfigFileTest, WriterLeavesTheFileUntouchedWhenTheSyncFails) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  WriteFile(path, "[net]\nport=80\n");
  {
    std::lock_guard<std::mutex> lock(gSyncWatch.mutex);
    gSyncWatch.paths.clear();
    gSyncWatch.texts.clear();
    gSyncWatch.models.clear();
    gSyncWatch.model = path;
    gSyncWatch.failWith = EIO;
  }
  const int result = PutKeyIntToFile(path.c_str(), "net", "port", 8080);
  {
    std::lock_guard<std::mutex> lock(gSyncWatch.mutex);
    gSyncWatch.failWith = 0;
    EXPECT_EQ(gSyncWatch.paths.size(), 1u);
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(ReadFile(path), "[net]\nport=80\n");
  EXPECT_FALSE(FileExists(path + ".tmp"));
}

// The descriptors of this process that name `path`.
std::vector<int> DescriptorsOf(const std::string& path) {
  std::vector<int> fds;
  for (const std::string& name : zel_test::ListDir("/proc/self/fd")) {
    const int fd = std::atoi(name.c_str());
    if (PathOfDescriptor(fd) == path) fds.push_back(fd);
  }
  return fds;
}

// Whether descriptor `fd` is closed when the process executes a program.
bool CloseOnExec(int fd) {
  const int flags = fcntl(fd, F_GETFD);
  return flags >= 0 && (flags & FD_CLOEXEC) != 0;
}

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

TEST(ConfigFileTest, WriterOpensBothFilesCloseOnExec) {
  TempDir dir;
  const std::string path = dir.path() + "client.ini";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  std::atomic<int> result{99};
  std::thread writer([&] { result = PutKeyIntToFile(path.c_str(), "net", "port", 8080); });
  const int pipe = open(path.c_str(), O_WRONLY);
  ASSERT_GE(pipe, 0);
  std::vector<int> inputs;
  std::vector<int> copies;
  EXPECT_TRUE(zel_test::WaitFor([&] {
    inputs = DescriptorsOf(path);
    copies = DescriptorsOf(path + ".tmp");
    return inputs.size() == 2 && copies.size() == 1;
  }));
  for (const int fd : inputs) {
    if (fd != pipe) {
      EXPECT_TRUE(CloseOnExec(fd)) << "input descriptor " << fd;
    }
  }
  for (const int fd : copies) EXPECT_TRUE(CloseOnExec(fd)) << "copy descriptor " << fd;
  const std::string text = "[net]\nport=80\n";
  EXPECT_EQ(write(pipe, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(pipe);
  writer.join();
  EXPECT_EQ(result.load(), 0);
  EXPECT_EQ(ReadFile(path), "[net]\nport=8080\n");
}

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
