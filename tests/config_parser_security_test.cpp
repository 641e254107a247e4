// SPDX-License-Identifier: MIT

// The key-file parser against paths that are no ordinary configuration: a
// FIFO that would block it, and files too large to be one.
#include <gtest/gtest.h>
#include <sys/stat.h>
#if !defined(ZEL_TEST_ON_WINDOWS)
#include <fcntl.h>
#include <unistd.h>
#endif

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "tests/support/test_util.h"
#include "utils/config_parser.h"
#include "utils/logger.h"

namespace {

using zel::ConfigParser;
using zel_test::LoggedText;
using zel_test::TempDir;
using zel_test::WriteFile;

// The line that Init() logs for a file it cannot load.
std::string LoadFailedLine(const std::string& path) {
  return "[][/config_parser.cpp zel::ConfigParser::Init 29] Error:file[" + path + "] err\n";
}

// A valid key file of exactly `size` bytes: a group, a key, and comment
// lines (the last one cut to fit).
void WriteKeyFileOfSize(const std::string& path, std::size_t size) {
  std::string text = "[g]\nk=v\n";
  const std::string comment = "#" + std::string(1022, 'c') + "\n";
  while (text.size() + comment.size() <= size) text += comment;
  if (text.size() < size) text += "#" + std::string(size - text.size() - 2, 'c') + "\n";
  ASSERT_EQ(text.size(), size);
  WriteFile(path, text);
}

TEST(ConfigParserSecurityTest, FileOverTheBoundFailsAsAnUnreadableFile) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  const std::string path = dir.path() + "large.conf";
  WriteKeyFileOfSize(path, zel::kConfigParserMaxFileSize + 1);
  ConfigParser parser;
  EXPECT_EQ(parser.Init(path, ","), -1);
  EXPECT_EQ(parser.GetStringVal("g", "k"), "");
  EXPECT_EQ(LoggedText(), LoadFailedLine(path) + "marker\n");
}

TEST(ConfigParserSecurityTest, FileOfExactlyTheBoundIsLoaded) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  const std::string path = dir.path() + "bound.conf";
  WriteKeyFileOfSize(path, zel::kConfigParserMaxFileSize);
  ConfigParser parser;
  EXPECT_EQ(parser.Init(path, ","), 0);
  EXPECT_EQ(parser.GetStringVal("g", "k"), "v");
  EXPECT_EQ(LoggedText(), "marker\n");
}

// Init of `path` fails and logs that the file could not be loaded, and
// nothing else.
void ExpectUnreadable(const std::string& path) {
  ConfigParser parser;
  EXPECT_EQ(parser.Init(path, ","), -1);
  EXPECT_EQ(LoggedText(), LoadFailedLine(path) + "marker\n");
}

TEST(ConfigParserSecurityTest, DirectoryFailsAsAnUnreadableFile) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  const std::string path = dir.path() + "sub";
  ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
  ExpectUnreadable(path);
}

TEST(ConfigParserSecurityTest, EveryResultOfAnOrdinaryFileIsKept) {
  // The bytes now reach GLib from memory: a file with a byte order mark, a
  // list and a value with escapes give what they gave when GLib read the
  // file itself.
  zel_set_log_level(-1);
  TempDir dir;
  const std::string plain = dir.path() + "plain.conf";
  WriteFile(plain, "# comment\n[g]\nlist=a,b\\,c\nescaped=one\\ttwo\\n\n");
  ConfigParser parser;
  ASSERT_EQ(parser.Init(plain, ","), 0);
  EXPECT_EQ(parser.GetStringVals("g", "list"), (std::vector<std::string>{"a", "b,c"}));
  EXPECT_EQ(parser.GetStringVal("g", "escaped"), "one\ttwo\n");
  const std::string bom = dir.path() + "bom.conf";
  WriteFile(bom, "\xEF\xBB\xBF[g]\nk=v\n");
  EXPECT_EQ(parser.Init(bom, ","), -1);
  const std::string empty = dir.path() + "empty.conf";
  WriteFile(empty, "");
  EXPECT_EQ(parser.Init(empty, ","), 0);
}

#if !defined(ZEL_TEST_ON_WINDOWS)

TEST(ConfigParserSecurityTest, FifoFailsAtOnceAsAnUnreadableFile) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  const std::string path = dir.path() + "pipe.conf";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  ConfigParser parser;
  std::atomic<bool> done{false};
  std::atomic<int> result{1};
  std::thread init([&] {
    result.store(parser.Init(path, ","));
    done.store(true);
  });
  const bool returned = zel_test::WaitFor([&] { return done.load(); });
  if (!returned) {
    // Init() waits for a writer: be one, so that the thread can end.
    const int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK);
    if (fd >= 0) close(fd);
  }
  init.join();
  EXPECT_TRUE(returned) << "Init() blocked on the FIFO";
  EXPECT_EQ(result.load(), -1);
  EXPECT_EQ(LoggedText(), LoadFailedLine(path) + "marker\n");
}

TEST(ConfigParserSecurityTest, DeviceFailsAsAnUnreadableFile) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  ConfigParser parser;
  EXPECT_EQ(parser.Init("/dev/zero", ","), -1);
  EXPECT_EQ(LoggedText(), LoadFailedLine("/dev/zero") + "marker\n");
}

#endif  // !ZEL_TEST_ON_WINDOWS

}  // namespace
