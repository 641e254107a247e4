// SPDX-License-Identifier: MIT

#include "utils/zel_string.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "tests/support/test_util.h"
#include "utils/logger.h"

namespace {

using zel_test::StripLogPrefixes;
using zel_test::TempDir;

using RecordingBackend = zel_test::LineRecorder;

using zel_test::LoggedText;

// ---------------------------------------------------------------------------
// check_brackets

TEST(ZelStringTest, CheckBracketsTable) {
  const struct {
    const char* text;
    bool balanced;
  } cases[] = {
      {"", true},         {"no brackets", true}, {"([]{})", true}, {"f(a[b]{c})d", true},
      {"([)]", false},    {")", false},          {"(", false},     {"(\")\"", true},
      {"{[()()]}", true}, {"]", false},          {"(}", false},    {"(((", false},
      {"a)b(c", false},   {"\\(", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(check_brackets(c.text), c.balanced);
  }
}

TEST(ZelStringTest, CheckBracketsAllowsAtMost4095OpenBrackets) {
  const std::string ok = std::string(4095, '(') + std::string(4095, ')');
  EXPECT_TRUE(check_brackets(ok.c_str()));
  const std::string tooDeep = std::string(4096, '(') + std::string(4096, ')');
  EXPECT_FALSE(check_brackets(tooDeep.c_str()));
  std::string mixed;
  for (int i = 0; i < 4095; ++i) mixed += "([{"[i % 3];
  for (int i = 4094; i >= 0; --i) mixed += ")]}"[i % 3];
  EXPECT_TRUE(check_brackets(mixed.c_str()));
  // The limit is on open brackets at once, not on the total.
  std::string many;
  for (int i = 0; i < 10000; ++i) many += "()";
  EXPECT_TRUE(check_brackets(many.c_str()));
}

// ---------------------------------------------------------------------------
// zel_htoi

TEST(ZelStringTest, HtoiTable) {
  const struct {
    const char* text;
    int value;
  } cases[] = {
      {"ff", 255},
      {"0xff", 255},
      {"0XFF", 255},
      {"0x", 0},
      {"", 0},
      {"12 34", 18},
      {"-1", 0},
      {"g", 16},
      {"FFFFFFFF", -1},
      {"100000000", 0},
      {"0a", 10},
      {"0g", 16},
      {"zz", 35 * 16 + 35},
      {"Zz", 35 * 16 + 35},
      {"1\xff"
       "2",
       1},
      {"0x1g", 16 + 16},
      {"7fffffff", 2147483647},
      {"80000000", -2147483647 - 1},
      {" 1", 0},
      {"0xx1", 33 * 16 + 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(zel_htoi(c.text), c.value);
  }
}

// ---------------------------------------------------------------------------
// get_brackets_value

TEST(ZelStringTest, GetBracketsValueTable) {
  zel_set_log_level(-1);
  const struct {
    std::string text;
    char open;
    char close;
    char excluded;
    int result;
    std::string value;
  } cases[] = {
      {"(a)", '(', ')', 0, 0, "a"},
      {"x()", '(', ')', 0, 0, ""},
      {"()", '(', ')', 0, -1, "unchanged"},
      {"ab)c(de", '(', ')', 0, 0, "de"},
      {"a", '(', ')', 0, -1, "unchanged"},
      {"(", '(', ')', 0, -1, "unchanged"},
      {"", '(', ')', 0, -1, "unchanged"},
      {"f(a(b)c)", '(', ')', 0, 0, "a(b)c"},
      {"(a)", '(', ')', '(', -1, "unchanged"},
      {"x(a)", '(', ')', '(', -1, "unchanged"},
      {"(a)", '(', ')', ')', -1, "unchanged"},
      {"(a)", '(', ')', 'a', 0, "a"},
      {"a(b", '(', ')', 0, -1, "unchanged"},
      {"ab)", '(', ')', 0, -1, "unchanged"},
      {"a)(", '(', ')', 0, -1, "unchanged"},
      {"(ab", '(', 'b', 0, 0, "a"},
      {"key[value]", '[', ']', 0, 0, "value"},
      {"\"quoted\"", '"', '"', 0, 0, "quoted"},
      {"xx|y", '|', '|', 0, 0, "y"},
      {"(a)b)", '(', ')', 0, 0, "a)b"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    std::string out = "unchanged";
    EXPECT_EQ(get_brackets_value(out, c.text, c.open, c.close, c.excluded), c.result);
    EXPECT_EQ(out, c.value);
  }
}

TEST(ZelStringTest, GetBracketsValueLogsEnterAndResultAtLevelThree) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  RecordingBackend backend;
  zel::Logger::GetInstance()->RegisterBackend(&backend);
  std::string out;
  ASSERT_EQ(get_brackets_value(out, "f(a(b)c)", '(', ')', 0), 0);
  const std::string expected =
      "[][/zel_string.cpp get_brackets_value 68] Debug:enter:f(a(b)c)\n"
      "[][/zel_string.cpp get_brackets_value 94] Debug:pos=2 i=7 get[)] ret:a(b)c \n";
  EXPECT_EQ(LoggedText(), expected + "marker\n");
  // Both lines are forwarded to the backends; the marker (flag 0) is not.
  const std::vector<std::string> forwarded = backend.lines();
  ASSERT_EQ(forwarded.size(), 2u);
  EXPECT_EQ(StripLogPrefixes(forwarded[0] + forwarded[1]), expected);
}

TEST(ZelStringTest, GetBracketsValueLogsOnlyEnterOnFailure) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  std::string out;
  EXPECT_EQ(get_brackets_value(out, "()", '(', ')', 0), -1);
  EXPECT_EQ(get_brackets_value(out, "", '(', ')', 0), -1);
  EXPECT_EQ(LoggedText(),
            "[][/zel_string.cpp get_brackets_value 68] Debug:enter:()\n"
            "marker\n");
}

TEST(ZelStringTest, GetBracketsValueLogsNothingBelowLevelThree) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  zel_set_log_level(2);
  std::string out;
  EXPECT_EQ(get_brackets_value(out, "(a)", '(', ')', 0), 0);
  EXPECT_EQ(out, "a");
  EXPECT_EQ(LoggedText(), "marker\n");
}

TEST(ZelStringTest, GetBracketsValueResultLineShowsClosePositionBeforeOpener) {
  TempDir dir;
  zel_set_log_path(dir.path().c_str());
  std::string out;
  ASSERT_EQ(get_brackets_value(out, "ab)c(de", '(', ')', 0), 0);
  EXPECT_EQ(LoggedText(),
            "[][/zel_string.cpp get_brackets_value 68] Debug:enter:ab)c(de\n"
            "[][/zel_string.cpp get_brackets_value 94] Debug:pos=5 i=2 get[)] ret:de \n"
            "marker\n");
}

// ---------------------------------------------------------------------------
// parse_string_kv

TEST(ZelStringTest, ParseStringKvTable) {
  const struct {
    std::string text;
    std::string separator;
    int result;
    std::string key;
    std::string value;
  } cases[] = {
      {"k=v=w", "=", 0, "k", "v=w"},
      {"=v", "=", 0, "", "v"},
      {"k=", "=", 0, "k", ""},
      {"kv", "=", 0, "kv", "kv"},
      {"abc", "::", 0, "abc", "bc"},
      {"abc", ":::", 0, "abc", "c"},
      {"a::b::c", "::", 0, "a", "b::c"},
      {" k = v ", "=", 0, " k ", " v "},
      {"=", "=", 0, "", ""},
      {"", "=", -1, "old key", "old value"},
      {"k=v", "", -1, "old key", "old value"},
      {"ab", "abc", -1, "old key", "old value"},
      {"abc", "abc", 0, "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text + " at " + c.separator);
    std::string key = "old key";
    std::string value = "old value";
    EXPECT_EQ(parse_string_kv(c.text, c.separator, key, value), c.result);
    EXPECT_EQ(key, c.key);
    EXPECT_EQ(value, c.value);
  }
}

TEST(ZelStringTest, ParseStringKvRefusesTextsOver4096Characters) {
  std::string key = "old key";
  std::string value = "old value";
  const std::string longest = "k=" + std::string(4094, 'v');
  EXPECT_EQ(parse_string_kv(longest, "=", key, value), 0);
  EXPECT_EQ(key, "k");
  EXPECT_EQ(value, std::string(4094, 'v'));
  key = "old key";
  value = "old value";
  EXPECT_EQ(parse_string_kv(longest + "v", "=", key, value), -1);
  EXPECT_EQ(key, "old key");
  EXPECT_EQ(value, "old value");
}

// ---------------------------------------------------------------------------
// split_strings

TEST(ZelStringTest, SplitStringsTable) {
  using Fields = std::vector<std::string>;
  const struct {
    std::string text;
    std::string separator;
    Fields fields;
  } cases[] = {
      {"a,b,,c", ",", {"a", "b", "c"}},
      {",a,", ",", {"a"}},
      {"a::b", "::", {"a", ":b"}},
      {"abc", "abc", {"bc"}},
      {"a", ",", {"a"}},
      {",,,", ",", {}},
      {"", ",", {}},
      {"a,b", "", {}},
      {"a::b::c", "::", {"a", ":b", ":c"}},
      {"one two  three", " ", {"one", "two", "three"}},
      {"a,b", ";", {"a,b"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text + " at " + c.separator);
    EXPECT_EQ(split_strings(c.text, c.separator), c.fields);
  }
}

}  // namespace
