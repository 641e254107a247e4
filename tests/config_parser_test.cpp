// SPDX-License-Identifier: MIT

#include "utils/config_parser.h"

#if !defined(ZEL_TEST_ON_WINDOWS)
#include <dlfcn.h>
#endif
#include <glib.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/test_util.h"
#include "utils/logger.h"

namespace {

using zel::ConfigParser;
using zel_test::ReadFile;
using zel_test::StderrCapture;
using zel_test::StripLogPrefixes;
using zel_test::TempDir;
using zel_test::WriteFile;

const std::string kDataDir = std::string(ZEL_TEST_DATA_DIR) + "config_parser/";
const std::string kSample = kDataDir + "sample.conf";

using RecordingBackend = zel_test::LineRecorder;

using zel_test::LoggedText;

// The message of the error that GLib reports for `call` on the key file at
// `path`; empty when it reports none.
std::string GLibMessage(const std::string& path,
                        const std::function<void(GKeyFile*, GError**)>& call) {
  GKeyFile* keyFile = g_key_file_new();
  std::string message;
  if (g_key_file_load_from_file(keyFile, path.c_str(), G_KEY_FILE_NONE, nullptr)) {
    GError* error = nullptr;
    call(keyFile, &error);
    if (error != nullptr) {
      message = error->message;
      g_error_free(error);
    }
  }
  g_key_file_free(keyFile);
  return message;
}

// GLib's message for reading the string list `key` of `group` in `path`.
std::string StringListMessage(const std::string& path, const char* group, const char* key) {
  return GLibMessage(path, [&](GKeyFile* keyFile, GError** error) {
    gsize length = 0;
    g_strfreev(g_key_file_get_string_list(keyFile, group, key, &length, error));
  });
}

// GLib's message for reading the number `key` of `group` in `path`.
std::string DoubleMessage(const std::string& path, const char* group, const char* key) {
  return GLibMessage(path, [&](GKeyFile* keyFile, GError** error) {
    g_key_file_get_double(keyFile, group, key, error);
  });
}

// The error line of a getter, prefix removed.
std::string GetterLine(const std::string& function, int line, const std::string& message) {
  return "[][/config_parser.cpp zel::ConfigParser::" + function + " " + std::to_string(line) +
         "] Error:" + message + " \n\n";
}

// Each test logs below a temporary directory of its own, where it also
// writes the files it reads.
class ConfigParserTest : public ::testing::Test {
 protected:
  void SetUp() override { zel_set_log_path(dir.path().c_str()); }

  // Writes `text` into the file `name` in the test's directory; its path.
  std::string FileWith(const std::string& name, const std::string& text) const {
    const std::string path = dir.path() + name;
    WriteFile(path, text);
    return path;
  }

  TempDir dir;
};

// Checks that GLib has a message (`message`) and that the getter `function`
// logged its error line with it at `line`, and nothing else.
void ExpectGetterErrorLogged(const std::string& function, int line, const std::string& message) {
  ASSERT_FALSE(message.empty());
  EXPECT_EQ(LoggedText(), GetterLine(function, line, message) + "marker\n");
}

// Reads the integer `key` of `group` into a variable that holds `before`:
// the getter returns 0 and stores 0.
void ExpectIntegerReadAsZero(ConfigParser& parser, const char* group, const char* key, int before) {
  int value = before;
  EXPECT_EQ(parser.GetIntegerVal(group, key, &value), 0);
  EXPECT_EQ(value, 0);
}

// ---------------------------------------------------------------------------
// Init

TEST_F(ConfigParserTest, InitWithEmptyPathFailsWithLineThirteen) {
  RecordingBackend backend;
  zel::Logger::GetInstance()->RegisterBackend(&backend);
  ConfigParser parser;
  EXPECT_EQ(parser.Init("", ","), -1);
  const std::string expected =
      "[][/config_parser.cpp zel::ConfigParser::Init 13] Error:file[] err\n";
  EXPECT_EQ(LoggedText(), expected + "marker\n");
  // Flag 1: the line is forwarded too.
  const std::vector<std::string> forwarded = backend.lines();
  ASSERT_EQ(forwarded.size(), 1u);
  EXPECT_EQ(StripLogPrefixes(forwarded[0]), expected);
  // No key file: the getters give their defaults.
  ExpectIntegerReadAsZero(parser, "device", "id", 5);
}

TEST_F(ConfigParserTest, InitWithMissingFileFailsWithLineTwentyNine) {
  RecordingBackend backend;
  zel::Logger::GetInstance()->RegisterBackend(&backend);
  const std::string path = dir.path() + "missing.conf";
  ConfigParser parser;
  EXPECT_EQ(parser.Init(path, ","), -1);
  const std::string expected =
      "[][/config_parser.cpp zel::ConfigParser::Init 29] Error:file[" + path + "] err\n";
  EXPECT_EQ(LoggedText(), expected + "marker\n");
  const std::vector<std::string> forwarded = backend.lines();
  ASSERT_EQ(forwarded.size(), 1u);
  EXPECT_EQ(StripLogPrefixes(forwarded[0]), expected);
}

TEST_F(ConfigParserTest, InitLoadsFileWithoutLogging) {
  ConfigParser parser;
  EXPECT_EQ(parser.Init(kSample, ""), 0);
  EXPECT_EQ(parser.GetStringVal("device", "name"), "usb disk");
  EXPECT_EQ(LoggedText(), "marker\n");
}

TEST_F(ConfigParserTest, OnlyASeparatorOfOneCharacterChangesTheListSeparator) {
  zel_set_log_level(-1);
  const std::string path = kDataDir + "separators.conf";
  const struct {
    const char* separator;
    std::vector<std::string> commaList;
    std::vector<std::string> semicolonList;
  } cases[] = {
      {",", {"a", "b"}, {"a;b"}},
      {",;", {"a,b"}, {"a", "b"}},
      {"", {"a,b"}, {"a", "b"}},
      {";", {"a,b"}, {"a", "b"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("separator \"") + c.separator + "\"");
    ConfigParser parser;
    ASSERT_EQ(parser.Init(path, c.separator), 0);
    EXPECT_EQ(parser.GetStringVals("g", "k"), c.commaList);
    EXPECT_EQ(parser.GetStringVals("g", "semi"), c.semicolonList);
  }
}

TEST_F(ConfigParserTest, SecondInitReplacesTheKeyFile) {
  zel_set_log_level(-1);
  WriteFile(dir.path() + "first.conf", "[g]\nk=first\nonly=1\n");
  WriteFile(dir.path() + "second.conf", "[g]\nk=second\n");
  ConfigParser parser;
  ASSERT_EQ(parser.Init(dir.path() + "first.conf", ""), 0);
  ASSERT_EQ(parser.Init(dir.path() + "second.conf", ""), 0);
  EXPECT_EQ(parser.GetStringVal("g", "k"), "second");
  EXPECT_EQ(parser.GetStringVal("g", "only"), "");
}

TEST_F(ConfigParserTest, FailedInitAfterALoadLeavesNoKeyFile) {
  zel_set_log_level(-1);
  ConfigParser parser;
  ASSERT_EQ(parser.Init(kSample, ""), 0);
  ASSERT_EQ(parser.GetStringVal("device", "name"), "usb disk");
  EXPECT_EQ(parser.Init(dir.path() + "missing.conf", ""), -1);
  EXPECT_EQ(parser.GetStringVal("device", "name"), "");
  EXPECT_TRUE(parser.GetStringVals("device", "aliases").empty());
  EXPECT_FALSE(parser.GetBooleanVal("device", "enabled"));
  double ratio = 1.0;
  EXPECT_EQ(parser.GetDoubleVal("device", "ratio", &ratio), 0);
  EXPECT_EQ(ratio, 0.0);
}

TEST_F(ConfigParserTest, GettersBeforeInitGiveDefaultsSilently) {
  ConfigParser parser;
  StderrCapture capture;
  ExpectIntegerReadAsZero(parser, "device", "id", 5);
  EXPECT_EQ(parser.GetStringVal("device", "name"), "");
  EXPECT_TRUE(parser.GetIntegerVals("device", "ports").empty());
  EXPECT_FALSE(parser.GetBooleanVal("device", "enabled"));
  EXPECT_EQ(capture.Stop(), "");
  EXPECT_EQ(LoggedText(), "marker\n");
}

TEST_F(ConfigParserTest, InitFailsOnFileWithByteOrderMark) {
  const std::string path = FileWith("bom.conf", "\xEF\xBB\xBF[g]\nk=v\n");
  ConfigParser parser;
  EXPECT_EQ(parser.Init(path, ""), -1);
  EXPECT_EQ(parser.GetStringVal("g", "k"), "");
  EXPECT_EQ(LoggedText(), "[][/config_parser.cpp zel::ConfigParser::Init 29] Error:file[" + path +
                              "] err\n" + "marker\n");
}

TEST_F(ConfigParserTest, EmptyFileLoadsAndReportsMissingGroup) {
  const std::string path = FileWith("empty.conf", "");
  ConfigParser parser;
  ASSERT_EQ(parser.Init(path, ""), 0);
  EXPECT_EQ(parser.GetStringVal("g", "k"), "");
  const std::vector<std::string> items = parser.GetStringVals("g", "k");
  EXPECT_TRUE(items.empty());
  ExpectGetterErrorLogged("GetStringVals", 151, StringListMessage(path, "g", "k"));
}

TEST_F(ConfigParserTest, InvalidUtf8ValueReadsAsEmpty) {
  const std::string path = FileWith("latin1.conf", "[g]\nk=caf\xE9\nlist=a;caf\xE9\nok=fine\n");
  ConfigParser parser;
  ASSERT_EQ(parser.Init(path, ""), 0);
  EXPECT_EQ(parser.GetStringVal("g", "k"), "");
  EXPECT_EQ(parser.GetStringVal("g", "ok"), "fine");
  EXPECT_TRUE(parser.GetStringVals("g", "list").empty());
  // GetStringVal clears its error silently; the list getter logs it.
  ExpectGetterErrorLogged("GetStringVals", 151, StringListMessage(path, "g", "list"));
}

TEST_F(ConfigParserTest, MissingGroupGivesDefaults) {
  ConfigParser parser;
  ASSERT_EQ(parser.Init(kSample, ""), 0);
  ExpectIntegerReadAsZero(parser, "nogroup", "id", 5);
  EXPECT_FALSE(parser.GetBooleanVal("nogroup", "enabled"));
  EXPECT_EQ(parser.GetStringVal("nogroup", "name"), "");
  double ratio = 1.0;
  EXPECT_EQ(parser.GetDoubleVal("nogroup", "ratio", &ratio), 0);
  EXPECT_EQ(ratio, 0.0);
  ExpectGetterErrorLogged("GetDoubleVal", 105, DoubleMessage(kSample, "nogroup", "ratio"));
}

// ---------------------------------------------------------------------------
// Typed getters

TEST_F(ConfigParserTest, GettersReadTypedValuesOfGoldenFile) {
  ConfigParser parser;
  ASSERT_EQ(parser.Init(kSample, ""), 0);
  EXPECT_EQ(parser.GetStringVal("device", "name"), "usb disk");
  int id = 0;
  EXPECT_EQ(parser.GetIntegerVal("device", "id", &id), 0);
  EXPECT_EQ(id, 42);
  double ratio = 0.0;
  EXPECT_EQ(parser.GetDoubleVal("device", "ratio", &ratio), 0);
  EXPECT_EQ(ratio, 0.75);
  EXPECT_TRUE(parser.GetBooleanVal("device", "enabled"));
  EXPECT_EQ(parser.GetStringVals("device", "aliases"),
            (std::vector<std::string>{"disk", "stick", "drive"}));
  EXPECT_EQ(parser.GetIntegerVals("device", "ports"), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(parser.GetDoubleVals("device", "limits"), (std::vector<double>{0.5, 1.5, -2.0}));
  EXPECT_EQ(parser.GetBooleanVals("device", "flags"), (std::vector<bool>{true, false, true}));
  EXPECT_EQ(LoggedText(), "marker\n");
}

TEST_F(ConfigParserTest, EmptyGroupOrKeyGivesDefaultsWithoutTouchingOutput) {
  ConfigParser parser;
  ASSERT_EQ(parser.Init(kSample, ""), 0);
  const struct {
    const char* group;
    const char* key;
  } cases[] = {{"", "id"}, {"device", ""}, {"", ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.group) + "/" + c.key);
    int id = 5;
    EXPECT_EQ(parser.GetIntegerVal(c.group, c.key, &id), -1);
    EXPECT_EQ(id, 5);
    double ratio = 2.5;
    EXPECT_EQ(parser.GetDoubleVal(c.group, c.key, &ratio), -1);
    EXPECT_EQ(ratio, 2.5);
    EXPECT_EQ(parser.GetStringVal(c.group, c.key), "");
    EXPECT_FALSE(parser.GetBooleanVal(c.group, c.key));
    EXPECT_TRUE(parser.GetStringVals(c.group, c.key).empty());
    EXPECT_TRUE(parser.GetIntegerVals(c.group, c.key).empty());
    EXPECT_TRUE(parser.GetDoubleVals(c.group, c.key).empty());
    EXPECT_TRUE(parser.GetBooleanVals(c.group, c.key).empty());
  }
  EXPECT_EQ(LoggedText(), "marker\n");
}

TEST_F(ConfigParserTest, IntegerMissingKeyStoresZeroWithoutLine) {
  ConfigParser parser;
  ASSERT_EQ(parser.Init(kSample, ""), 0);
  ExpectIntegerReadAsZero(parser, "device", "missing", 42);
  ExpectIntegerReadAsZero(parser, "bad", "number", 42);
  EXPECT_EQ(LoggedText(), "marker\n");
}

TEST_F(ConfigParserTest, DoubleThatIsNotANumberLogsLine105) {
  RecordingBackend backend;
  zel::Logger::GetInstance()->RegisterBackend(&backend);
  ConfigParser parser;
  ASSERT_EQ(parser.Init(kSample, ""), 0);
  double value = 9.5;
  EXPECT_EQ(parser.GetDoubleVal("bad", "number", &value), 0);
  EXPECT_EQ(value, 0.0);
  ExpectGetterErrorLogged("GetDoubleVal", 105, DoubleMessage(kSample, "bad", "number"));
  // Flag 0: not forwarded.
  EXPECT_TRUE(backend.lines().empty());
}

TEST_F(ConfigParserTest, BooleanAndStringMissingKeyGiveDefaultsWithoutLine) {
  ConfigParser parser;
  ASSERT_EQ(parser.Init(kSample, ""), 0);
  EXPECT_FALSE(parser.GetBooleanVal("device", "missing"));
  EXPECT_FALSE(parser.GetBooleanVal("device", "name"));
  EXPECT_EQ(parser.GetStringVal("device", "missing"), "");
  EXPECT_EQ(LoggedText(), "marker\n");
}

TEST_F(ConfigParserTest, ListGetterErrorsLogTheirLines) {
  ConfigParser parser;
  ASSERT_EQ(parser.Init(kSample, ""), 0);
  std::string expected;

  EXPECT_TRUE(parser.GetIntegerVals("bad", "numbers").empty());
  expected +=
      GetterLine("GetIntegerVals", 175, GLibMessage(kSample, [](GKeyFile* keyFile, GError** error) {
                   gsize length = 0;
                   g_free(g_key_file_get_integer_list(keyFile, "bad", "numbers", &length, error));
                 }));
  EXPECT_TRUE(parser.GetDoubleVals("bad", "numbers").empty());
  expected +=
      GetterLine("GetDoubleVals", 200, GLibMessage(kSample, [](GKeyFile* keyFile, GError** error) {
                   gsize length = 0;
                   g_free(g_key_file_get_double_list(keyFile, "bad", "numbers", &length, error));
                 }));
  EXPECT_TRUE(parser.GetBooleanVals("device", "aliases").empty());
  expected += GetterLine(
      "GetBooleanVals", 126, GLibMessage(kSample, [](GKeyFile* keyFile, GError** error) {
        gsize length = 0;
        g_free(g_key_file_get_boolean_list(keyFile, "device", "aliases", &length, error));
      }));
  EXPECT_TRUE(parser.GetStringVals("device", "missing").empty());
  expected += GetterLine("GetStringVals", 151, StringListMessage(kSample, "device", "missing"));
  EXPECT_EQ(LoggedText(), expected + "marker\n");
}

// ---------------------------------------------------------------------------
// SetValuesByString and GetRoot

TEST_F(ConfigParserTest, SetValuesByStringChangesTheCopyAndLogsNotImplement) {
  const std::string path = FileWith("client.conf", ReadFile(kSample));
  ConfigParser parser;
  ASSERT_EQ(parser.Init(path, ""), 0);
  EXPECT_EQ(parser.SetValuesByString("g", "k", "v"), 0);
  EXPECT_EQ(parser.GetStringVal("g", "k"), "v");
  EXPECT_EQ(parser.SetValuesByString("device", "name", "camera"), 0);
  EXPECT_EQ(parser.GetStringVal("device", "name"), "camera");
  EXPECT_EQ(ReadFile(path), ReadFile(kSample));
  const std::string line =
      "[][/config_parser.cpp zel::ConfigParser::SetValuesByString 224] Error:not implement\n";
  EXPECT_EQ(LoggedText(), line + line + "marker\n");
}

TEST_F(ConfigParserTest, SetValuesByStringRefusesEmptyArguments) {
  ConfigParser parser;
  ASSERT_EQ(parser.Init(kSample, ""), 0);
  EXPECT_EQ(parser.SetValuesByString("device", "name", ""), -1);
  EXPECT_EQ(parser.SetValuesByString("device", "", "v"), -1);
  EXPECT_EQ(parser.SetValuesByString("", "name", "v"), -1);
  EXPECT_EQ(parser.GetStringVal("device", "name"), "usb disk");
  EXPECT_EQ(LoggedText(), "marker\n");
}

TEST_F(ConfigParserTest, GetRootIsAlwaysEmpty) {
  zel_set_log_level(-1);
  ConfigParser parser;
  EXPECT_EQ(parser.GetRoot(), "");
  ASSERT_EQ(parser.Init(kSample, ""), 0);
  EXPECT_EQ(parser.GetRoot(), "");
}

TEST_F(ConfigParserTest, LevelMinusOneSilencesEveryLine) {
  zel_set_log_level(-1);
  ConfigParser parser;
  EXPECT_EQ(parser.Init("", ""), -1);
  EXPECT_EQ(parser.Init(dir.path() + "missing.conf", ""), -1);
  ASSERT_EQ(parser.Init(kSample, ""), 0);
  double value = 1.0;
  EXPECT_EQ(parser.GetDoubleVal("bad", "number", &value), 0);
  EXPECT_TRUE(parser.GetIntegerVals("bad", "numbers").empty());
  EXPECT_TRUE(parser.GetDoubleVals("bad", "numbers").empty());
  EXPECT_TRUE(parser.GetBooleanVals("device", "aliases").empty());
  EXPECT_TRUE(parser.GetStringVals("device", "missing").empty());
  EXPECT_EQ(parser.SetValuesByString("g", "k", "v"), 0);
  EXPECT_EQ(LoggedText(), "marker\n");
}

TEST_F(ConfigParserTest, LevelZeroStillLogsErrors) {
  zel_set_log_level(0);
  ConfigParser parser;
  EXPECT_EQ(parser.Init("", ""), -1);
  EXPECT_EQ(LoggedText(),
            "[][/config_parser.cpp zel::ConfigParser::Init 13] Error:file[] err\nmarker\n");
}

// ---------------------------------------------------------------------------
// Threads

// How many of the keys "<prefix><t>_<n>" of `group`, for each thread t
// below `threads` and each n below `perThread`, do not hold n: the writes
// lost.
int LostKeys(ConfigParser& parser, const std::string& group, const std::string& prefix, int threads,
             int perThread) {
  int lost = 0;
  for (int t = 0; t < threads; ++t) {
    for (int n = 0; n < perThread; ++n) {
      const std::string key = prefix + std::to_string(t) + "_" + std::to_string(n);
      if (parser.GetStringVal(group, key) != std::to_string(n)) ++lost;
    }
  }
  return lost;
}

TEST_F(ConfigParserTest, EightThreadsShareOneParser) {
  ConfigParser parser;
  ASSERT_EQ(parser.Init(kSample, ""), 0);
  constexpr int kThreads = 8;
  constexpr int kRounds = 200;
  std::atomic<int> failures{0};
  // Started together, so that the calls overlap.
  zel_test::RunTogether(kThreads, [&](int t) {
    for (int r = 0; r < kRounds; ++r) {
      int id = 0;
      double ratio = 0.0;
      double bad = 1.0;
      if (parser.GetIntegerVal("device", "id", &id) != 0 || id != 42) ++failures;
      if (parser.GetDoubleVal("device", "ratio", &ratio) != 0 || ratio != 0.75) ++failures;
      if (parser.GetDoubleVal("bad", "number", &bad) != 0 || bad != 0.0) ++failures;
      if (parser.GetStringVal("device", "name") != "usb disk") ++failures;
      if (!parser.GetBooleanVal("device", "enabled")) ++failures;
      if (parser.GetStringVals("device", "aliases").size() != 3) ++failures;
      if (parser.GetIntegerVals("device", "ports") != std::vector<int>{1, 2, 3}) ++failures;
      if (parser.GetDoubleVals("device", "limits").size() != 3) ++failures;
      if (parser.GetBooleanVals("device", "flags").size() != 3) ++failures;
      // A new key each round: GLib's tables for the group grow while the
      // other threads read and write them, which only the parser's lock
      // keeps apart.
      const std::string own = "thread" + std::to_string(t) + "_" + std::to_string(r);
      if (parser.SetValuesByString("own", own, std::to_string(r)) != 0) ++failures;
      if (parser.GetStringVal("own", own) != std::to_string(r)) ++failures;
    }
  });
  EXPECT_EQ(failures.load(), 0);
  // No write was lost: every key of every thread holds its value.
  EXPECT_EQ(LostKeys(parser, "own", "thread", kThreads, kRounds), 0);
  // Every error line was written whole.
  const std::string text = LoggedText();
  EXPECT_EQ(zel_test::CountOccurrences(text, "zel::ConfigParser::GetDoubleVal 105] Error:"),
            kThreads * kRounds);
  EXPECT_EQ(zel_test::CountOccurrences(text, "SetValuesByString 224] Error:not implement\n"),
            kThreads * kRounds);
}

TEST_F(ConfigParserTest, EightThreadsSettingNewKeysLoseNone) {
  // Silent, so that the threads spend their time in the key file.
  zel_set_log_level(-1);
  ConfigParser parser;
  ASSERT_EQ(parser.Init(kSample, ""), 0);
  constexpr int kThreads = 8;
  constexpr int kKeys = 5000;
  zel_test::RunTogether(kThreads, [&](int t) {
    for (int k = 0; k < kKeys; ++k) {
      const std::string key = "k" + std::to_string(t) + "_" + std::to_string(k);
      parser.SetValuesByString("shared", key, std::to_string(k));
      // A reader in the same group while the others insert.
      parser.GetStringVal("shared", "k0_0");
    }
  });
  EXPECT_EQ(LostKeys(parser, "shared", "k", kThreads, kKeys), 0);
}

}  // namespace

// ---------------------------------------------------------------------------
// GLib's memory goes back to GLib: every string and list the parser gets
// from GLib is released with g_free or g_strfreev, never with free(). On
// Windows the GLib DLL may have a C runtime and heap of its own, where a
// free() of the library's runtime would corrupt memory; here, with one heap,
// the release is watched through GLib's functions, which the test program
// replaces (ELF symbol interposition, so POSIX only) and forwards.
#if !defined(ZEL_TEST_ON_WINDOWS)

namespace {

// In order: what GLib's getters returned ('h') and what went back through
// g_free or g_strfreev ('r'). A block may be given out again once released.
struct GLibWatch {
  std::mutex mutex;
  std::vector<std::pair<char, const void*>> events;
};

GLibWatch& Watch() {
  static GLibWatch* watch = new GLibWatch;  // used until the process ends
  return *watch;
}

template <typename T>
T* HandedOut(T* result) {
  if (result != nullptr) {
    std::lock_guard<std::mutex> lock(Watch().mutex);
    Watch().events.emplace_back('h', result);
  }
  return result;
}

void Released(const void* memory) {
  if (memory == nullptr) return;
  std::lock_guard<std::mutex> lock(Watch().mutex);
  Watch().events.emplace_back('r', memory);
}

// GLib's own definition of `name`.
template <typename Function>
Function Real(const char* name) {
  void* address = dlsym(RTLD_NEXT, name);
  if (address == nullptr) std::abort();
  Function function;
  std::memcpy(&function, &address, sizeof(function));
  return function;
}

}  // namespace

// Visible to the dynamic linker, which then binds every caller to these
// (the test program is built with hidden visibility).
#define ZEL_TEST_INTERPOSE __attribute__((visibility("default")))

// A list getter of GLib's key files that records the list it hands out.
#define ZEL_TEST_LIST_GETTER(type, name)                                              \
  ZEL_TEST_INTERPOSE type* name(GKeyFile* file, const gchar* group, const gchar* key, \
                                gsize* length, GError** error) {                      \
    static const auto real = Real<decltype(&name)>(#name);                            \
    return HandedOut(real(file, group, key, length, error));                          \
  }

// A function of GLib's that frees what it is given and records the release.
#define ZEL_TEST_RELEASER(name, type)                      \
  ZEL_TEST_INTERPOSE void name(type memory) {              \
    static const auto real = Real<decltype(&name)>(#name); \
    Released(memory);                                      \
    real(memory);                                          \
  }

extern "C" {

ZEL_TEST_INTERPOSE gchar* g_key_file_get_string(GKeyFile* file, const gchar* group,
                                                const gchar* key, GError** error) {
  static const auto real = Real<decltype(&g_key_file_get_string)>("g_key_file_get_string");
  return HandedOut(real(file, group, key, error));
}

ZEL_TEST_LIST_GETTER(gchar*, g_key_file_get_string_list)
ZEL_TEST_LIST_GETTER(gint, g_key_file_get_integer_list)
ZEL_TEST_LIST_GETTER(gdouble, g_key_file_get_double_list)
ZEL_TEST_LIST_GETTER(gboolean, g_key_file_get_boolean_list)
ZEL_TEST_RELEASER(g_free, gpointer)
ZEL_TEST_RELEASER(g_strfreev, gchar**)

}  // extern "C"

namespace {

TEST_F(ConfigParserTest, EveryStringAndListFromGLibIsReleasedThroughGLib) {
  const std::string path =
      FileWith("glib.conf", "[g]\ns=text\nsl=a;b;c\nil=1;2;3\ndl=1.5;2.5\nbl=true;false\n");
  ConfigParser parser;
  ASSERT_EQ(parser.Init(path, ";"), 0);
  {
    std::lock_guard<std::mutex> lock(Watch().mutex);
    Watch().events.clear();
  }
  EXPECT_EQ(parser.GetStringVal("g", "s"), "text");
  EXPECT_EQ(parser.GetStringVals("g", "sl"), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(parser.GetIntegerVals("g", "il"), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(parser.GetDoubleVals("g", "dl"), (std::vector<double>{1.5, 2.5}));
  EXPECT_EQ(parser.GetBooleanVals("g", "bl"), (std::vector<bool>{true, false}));
  std::lock_guard<std::mutex> lock(Watch().mutex);
  // One result per getter, each released through GLib before its block
  // was handed out again.
  const std::vector<std::pair<char, const void*>>& events = Watch().events;
  int handedOut = 0;
  for (std::size_t i = 0; i < events.size(); ++i) {
    if (events[i].first != 'h') continue;
    ++handedOut;
    std::size_t next = i + 1;
    while (next < events.size() && events[next].second != events[i].second) ++next;
    EXPECT_TRUE(next < events.size() && events[next].first == 'r')
        << "result " << handedOut << " was not given back to GLib";
  }
  EXPECT_EQ(handedOut, 5);
}

}  // namespace

#endif  // !defined(ZEL_TEST_ON_WINDOWS)
