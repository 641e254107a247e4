// SPDX-License-Identifier: MIT

// Inputs at and past their limits: log texts around the 4094-character line
// limit and far beyond it, log base paths of 255, 256 and 4,000 characters,
// and section and key names holding brackets, "=", newlines and binary
// bytes, for the INI functions and for ConfigParser.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/test_util.h"
#include "utils/config_file.h"
#include "utils/config_parser.h"
#include "utils/logger.h"

namespace {

using zel_test::CountOccurrences;
using zel_test::LineRecorder;
using zel_test::ListDir;
using zel_test::ReadFile;
using zel_test::ReadLiveLog;
using zel_test::StdoutCapture;
using zel_test::TempDir;

// ---------------------------------------------------------------------------
// log_print texts of 0, 4093, 4094, 4095 and 100,000 characters: the line is
// the prefix followed by the text, cut so that the line has at most 4094
// characters. The recorder sees the line as it was queued; the file holds
// the same bytes.

void CheckTextOfLength(std::size_t length) {
  TempDir dir;
  zel_set_log_level(-1);
  zel_set_log_path(dir.path().c_str());
  static LineRecorder recorder;  // must outlive the process's logging
  zel::Logger::GetInstance()->RegisterBackend(&recorder);
  std::string text(length, 'x');
  for (std::size_t i = 0; i < length; ++i) text[i] = static_cast<char>('a' + i % 26);
  EXPECT_EQ(log_print(0, 1, "%s", text.c_str()), 0);
  zel_log_flush();
  const std::vector<std::string> lines = recorder.lines();
  ASSERT_EQ(lines.size(), 1u);
  const std::string& line = lines[0];
  const std::size_t prefix = line.find("] ") + 2;
  ASSERT_NE(prefix, std::string::npos + 2);
  EXPECT_EQ(zel_test::StripLogPrefixes(line.substr(0, prefix)), "");
  const std::size_t kept = std::min(length, 4094 - prefix);
  EXPECT_EQ(line.size(), prefix + kept);
  EXPECT_EQ(line.compare(prefix, std::string::npos, text, 0, kept), 0);
  EXPECT_EQ(ReadLiveLog(zel::Logger::GetLogPath()), line);
}

TEST(LimitsTest, LogTextOfZeroCharacters) { CheckTextOfLength(0); }
TEST(LimitsTest, LogTextOf4093Characters) { CheckTextOfLength(4093); }
TEST(LimitsTest, LogTextOf4094Characters) { CheckTextOfLength(4094); }
TEST(LimitsTest, LogTextOf4095Characters) { CheckTextOfLength(4095); }
TEST(LimitsTest, LogTextOf100000Characters) { CheckTextOfLength(100000); }

// ---------------------------------------------------------------------------
// Log base paths of 255, 256 and 4,000 characters. The directory with its
// date is then longer than the 255 characters the writer's path buffers
// hold: the writer does not make it, and the file path it builds is the
// directory's first 255 characters, with no room left for the file name.
// When those name a directory (bases of 255 and 256 characters: the base
// itself) no file can be opened: "fp is null" for each line, the lines are
// dropped. When they end inside a name (the 4,000-character base here),
// the lines go to a file of that cut name (where the cut falls depends on
// the temporary directory's name). Either way logging goes on and
// the directory is reported back whole.

// Makes the directories of a path of exactly `length` characters (ending
// in '/') under `root` and returns it.
std::string MakeLongBase(const std::string& root, std::size_t length) {
  std::string path = root;
  while (path.size() < length) {
    const std::size_t room = length - path.size();  // includes the final '/'
    std::size_t segment = std::min<std::size_t>(room - 1, 200);
    if (room - 1 - segment == 1) --segment;  // never leave room for "/" alone
    if (segment == 0) segment = 1;
    path += std::string(segment, 'd') + "/";
    mkdir(path.c_str(), 0755);
  }
  return path;
}

void CheckLongBase(std::size_t length) {
  TempDir root;
  const std::string base = MakeLongBase(root.path(), length);
  ASSERT_EQ(base.size(), length);
  ASSERT_TRUE(zel_test::IsDirectory(base));
  zel_set_log_level(-1);
  zel_set_log_path(base.c_str());
  StdoutCapture out;
  EXPECT_EQ(log_print(0, 0, "one\n"), 0);
  EXPECT_EQ(log_print(0, 0, "two\n"), 0);
  zel_log_flush();
  const std::string text = out.Stop();
  const std::string dir = zel::Logger::GetLogPath();
  EXPECT_EQ(dir.size(), length + 9);  // base and "YYYYMMDD/"
  EXPECT_EQ(dir.compare(0, length, base), 0);
  std::vector<char> buffer(length + 16, '\0');
  EXPECT_EQ(zel_get_log_path(buffer.data(), static_cast<int>(buffer.size())), 0);
  EXPECT_EQ(std::string(buffer.data()), dir);
  EXPECT_FALSE(zel_test::FileExists(dir));
  const std::string cut = dir.substr(0, 255);
  // With 255 or 256 characters the cut is the base itself.
  if (length <= 256) {
    EXPECT_EQ(cut + (length == 256 ? "/" : ""), base);
  }
  if (zel_test::IsDirectory(cut)) {
    EXPECT_EQ(CountOccurrences(text, "zel::Logger::writeLog 296: fp is null \n"), 2);
    EXPECT_TRUE(ListDir(base).empty());
  } else {
    EXPECT_EQ(CountOccurrences(text, "fp is null"), 0);
    const std::string written = zel_test::StripLogPrefixes(ReadFile(cut));
    EXPECT_EQ(written, "one\ntwo\n");
  }
}

TEST(LimitsTest, LogBaseOf255Characters) { CheckLongBase(255); }
TEST(LimitsTest, LogBaseOf256Characters) { CheckLongBase(256); }
TEST(LimitsTest, LogBaseOf4000Characters) {
#if defined(ZEL_TEST_ON_WINDOWS)
  GTEST_SKIP() << "needs a directory path of 4000 characters, which the Windows runtime's "
                  "narrow file functions cannot create (260 at most)";
#endif
  CheckLongBase(4000);
}

// ---------------------------------------------------------------------------
// Section and key names with brackets, "=", newlines and binary bytes in
// the INI functions: the header line is "[<section>]" compared as written,
// the key is what comes before the first "=" of a line, and a line read
// never holds a newline in its middle.

class IniNamesTest : public ::testing::Test {
 protected:
  std::string Read(const char* section, const char* key) {
    char* value = GetKeyStringFromFile(path_.c_str(), section, key);
    EXPECT_NE(value, nullptr);
    std::string text = value != nullptr ? value : "";
    std::free(value);
    return text;
  }
  // Puts `value` as `key` of `section` and expects the file to read
  // `expected` afterwards.
  void ExpectPutGives(const char* section, const char* key, const char* value,
                      const std::string& expected) {
    EXPECT_EQ(PutKeyStringToFile(path_.c_str(), section, key, value), 0);
    EXPECT_EQ(ReadFile(path_), expected);
  }
  TempDir dir_;
  const std::string path_ = dir_.path() + "client.ini";
};

TEST_F(IniNamesTest, SectionWithBracketsAndEquals) {
  zel_test::WriteFile(path_, "[x]]\nk=no\n[a]b=c]\nk=yes\n");
  EXPECT_EQ(Read("a]b=c", "k"), "yes");
  ExpectPutGives("a]b=c", "k", "new", "[x]]\nk=no\n[a]b=c]\nk=new\n");
}

TEST_F(IniNamesTest, KeyWithEqualsMatchesTheTextBeforeTheFirstEquals) {
  zel_test::WriteFile(path_, "[s]\nk=x=5\n");
  // The line's key "k" is a prefix of the requested "k=x".
  EXPECT_EQ(Read("s", "k=x"), "x=5");
  EXPECT_EQ(Read("s", "k"), "x=5");
  ExpectPutGives("s", "k=x", "v", "[s]\nk=v\n");
}

TEST_F(IniNamesTest, KeyWithBrackets) {
  zel_test::WriteFile(path_, "[s]\n[k]=1\n");
  EXPECT_EQ(Read("s", "[k]"), "1");
  EXPECT_EQ(Read("s", "k"), "");
}

TEST_F(IniNamesTest, NewlineInSectionNameMatchesTheFirstLineOfItsHeader) {
  // The pattern "[a\nb]" is compared over the length of the line read less
  // its newline: the line "[a" matches.
  zel_test::WriteFile(path_, "[a\nk=1\n");
  EXPECT_EQ(Read("a\nb", "k"), "1");
  zel_test::WriteFile(path_, "[b]\nk=1\n");
  EXPECT_EQ(Read("a\nb", "k"), "");
}

TEST_F(IniNamesTest, NewlineInKeyNameIsComparedUpToTheLineKey) {
  zel_test::WriteFile(path_, "[s]\nk=1\n");
  EXPECT_EQ(Read("s", "k\nz"), "1");
  EXPECT_EQ(Read("s", "\nk"), "");
}

TEST_F(IniNamesTest, BinaryBytesInNamesRoundTrip) {
  std::string section;
  std::string key;
  for (int c = 1; c < 256; ++c) {
    if (c == '\n' || c == '=' || c == '[' || c == ']') continue;
#if defined(ZEL_TEST_ON_WINDOWS)
    // The files are read in text mode, where Ctrl-Z ends the file on Windows.
    if (c == 0x1a) continue;
#endif
    (c % 2 == 0 ? section : key) += static_cast<char>(c);
  }
  section.resize(29);  // the header pattern holds 29 characters of a name
  zel_test::WriteFile(path_, "[" + section + "]\n" + key + "=old\n");
  EXPECT_EQ(Read(section.c_str(), key.c_str()), "old");
  EXPECT_EQ(PutKeyStringToFile(path_.c_str(), section.c_str(), key.c_str(), "\x01\x7f\xff"), 0);
  EXPECT_EQ(Read(section.c_str(), key.c_str()), "\x01\x7f\xff");
  EXPECT_EQ(ReadFile(path_), "[" + section + "]\n" + key + "=\x01\x7f\xff\n");
}

// ---------------------------------------------------------------------------
// The same names in ConfigParser. GLib's key-file format allows "=" in a
// group name; names that match no group or key are not found, and the
// getters give their defaults.

class ParserNamesTest : public ::testing::Test {
 protected:
  void Load(const std::string& content) {
    zel_test::WriteFile(path_, content);
    zel_set_log_level(-1);
    ASSERT_EQ(parser_.Init(path_, ","), 0);
  }
  TempDir dir_;
  const std::string path_ = dir_.path() + "client.conf";
  zel::ConfigParser parser_;
};

TEST_F(ParserNamesTest, GroupWithEquals) {
  Load("[a=b]\nk=v\nn=7\n");
  EXPECT_EQ(parser_.GetStringVal("a=b", "k"), "v");
  int n = 0;
  EXPECT_EQ(parser_.GetIntegerVal("a=b", "n", &n), 0);
  EXPECT_EQ(n, 7);
}

TEST_F(ParserNamesTest, OddNamesAreNotFoundAndGiveDefaults) {
  Load("[g]\nk=v\nn=7\nb=true\nd=1.5\nl=x,y\n");
  std::string binary;
  for (int c = 1; c < 256; ++c) binary += static_cast<char>(c);
  const std::vector<std::string> odd = {"g]", "[g]", "g\n", "k=v", "k\n", "=", "]", binary};
  for (const std::string& name : odd) {
    SCOPED_TRACE(name);
    for (int asGroup = 0; asGroup < 2; ++asGroup) {
      const std::string group = asGroup != 0 ? name : "g";
      const std::string key = asGroup != 0 ? "k" : name;
      EXPECT_EQ(parser_.GetStringVal(group, key), "");
      int n = 5;
      EXPECT_EQ(parser_.GetIntegerVal(group, key, &n), 0);
      EXPECT_EQ(n, 0);
      double d = 5;
      EXPECT_EQ(parser_.GetDoubleVal(group, key, &d), 0);
      EXPECT_EQ(d, 0.0);
      EXPECT_FALSE(parser_.GetBooleanVal(group, key));
      EXPECT_TRUE(parser_.GetStringVals(group, key).empty());
      EXPECT_TRUE(parser_.GetIntegerVals(group, key).empty());
    }
  }
  // The well-formed names still read after all of that.
  EXPECT_EQ(parser_.GetStringVal("g", "k"), "v");
  EXPECT_EQ(parser_.GetStringVals("g", "l"), (std::vector<std::string>{"x", "y"}));
}

TEST_F(ParserNamesTest, SetWithOddNamesStoresNothingAndKeepsTheRest) {
  Load("[g]\nk=v\n");
  zel_test::StderrCapture err;  // GLib's critical warnings for refused names
  for (const std::string& name : {std::string("g]"), std::string("k=v"), std::string("a\nb")}) {
    EXPECT_EQ(parser_.SetValuesByString(name, name, "x"), 0);
    EXPECT_EQ(parser_.GetStringVal(name, name), "");
  }
  err.Stop();
  EXPECT_EQ(parser_.GetStringVal("g", "k"), "v");
}

}  // namespace
