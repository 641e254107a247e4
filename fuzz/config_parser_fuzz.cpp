// SPDX-License-Identifier: MIT

// Fuzzes ConfigParser's loading and getters on a real file, checking every
// result against GLib's own key-file API applied to the same file. Input
// layout: the first line is the list separator handed to Init (any length),
// the second the group, the third the key; the rest is the key file. Init
// must succeed exactly when GLib loads the file; each getter must give what
// the GLib getter gives (its defaults after an error); a value set in memory
// must read back as GLib reads back the same value.
#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_util.h"
#include "utils/config_parser.h"
#include "utils/logger.h"

namespace {

// GLib's side: the same file loaded with the same separator.
class Reference {
 public:
  Reference(const std::string& path, const std::string& separator) : file_(g_key_file_new()) {
    if (separator.size() == 1) g_key_file_set_list_separator(file_, separator[0]);
    loaded_ = g_key_file_load_from_file(file_, path.c_str(), G_KEY_FILE_NONE, nullptr) != FALSE;
  }
  ~Reference() { g_key_file_free(file_); }
  Reference(const Reference&) = delete;
  Reference& operator=(const Reference&) = delete;

  bool loaded() const { return loaded_; }
  GKeyFile* file() const { return file_; }

 private:
  GKeyFile* file_;
  bool loaded_;
};

// True when two doubles are the same bits (NaN included).
bool Same(double a, double b) { return std::memcmp(&a, &b, sizeof(a)) == 0; }

void CheckGetters(zel::ConfigParser& parser, GKeyFile* file, const std::string& group,
                  const std::string& key) {
  const char* g = group.c_str();
  const char* k = key.c_str();
  GError* error = nullptr;

  gchar* text = g_key_file_get_string(file, g, k, &error);
  g_clear_error(&error);
  if (parser.GetStringVal(group, key) != (text != nullptr ? text : "")) std::abort();
  g_free(text);

  int number = -12345;
  const gint gNumber = g_key_file_get_integer(file, g, k, &error);
  g_clear_error(&error);
  if (parser.GetIntegerVal(group, key, &number) != 0 || number != gNumber) std::abort();

  double real = -1.5;
  const gdouble gReal = g_key_file_get_double(file, g, k, &error);
  g_clear_error(&error);
  if (parser.GetDoubleVal(group, key, &real) != 0 || !Same(real, gReal)) std::abort();

  const bool gBool = g_key_file_get_boolean(file, g, k, &error) != FALSE;
  g_clear_error(&error);
  if (parser.GetBooleanVal(group, key) != gBool) std::abort();

  gsize length = 0;
  std::vector<std::string> strings;
  gchar** stringList = g_key_file_get_string_list(file, g, k, &length, &error);
  if (error == nullptr && stringList != nullptr) strings.assign(stringList, stringList + length);
  g_clear_error(&error);
  g_strfreev(stringList);
  if (parser.GetStringVals(group, key) != strings) std::abort();

  std::vector<int> ints;
  gint* intList = g_key_file_get_integer_list(file, g, k, &length, &error);
  if (error == nullptr && intList != nullptr) ints.assign(intList, intList + length);
  g_clear_error(&error);
  g_free(intList);
  if (parser.GetIntegerVals(group, key) != ints) std::abort();

  std::vector<double> reals;
  gdouble* realList = g_key_file_get_double_list(file, g, k, &length, &error);
  if (error == nullptr && realList != nullptr) reals.assign(realList, realList + length);
  g_clear_error(&error);
  g_free(realList);
  const std::vector<double> parsed = parser.GetDoubleVals(group, key);
  if (parsed.size() != reals.size()) std::abort();
  for (std::size_t i = 0; i < reals.size(); ++i) {
    if (!Same(parsed[i], reals[i])) std::abort();
  }

  std::vector<bool> bools;
  gboolean* boolList = g_key_file_get_boolean_list(file, g, k, &length, &error);
  if (error == nullptr && boolList != nullptr) {
    for (gsize i = 0; i < length; ++i) bools.push_back(boolList[i] != FALSE);
  }
  g_clear_error(&error);
  g_free(boolList);
  if (parser.GetBooleanVals(group, key) != bools) std::abort();
}

// With an empty group or key every getter gives its default at once and
// leaves the output argument alone.
void CheckDefaults(zel::ConfigParser& parser, const std::string& group, const std::string& key) {
  int number = 7;
  double real = 7.5;
  if (!parser.GetStringVal(group, key).empty() || parser.GetIntegerVal(group, key, &number) != -1 ||
      number != 7 || parser.GetDoubleVal(group, key, &real) != -1 || real != 7.5 ||
      parser.GetBooleanVal(group, key) || !parser.GetStringVals(group, key).empty() ||
      !parser.GetIntegerVals(group, key).empty() || !parser.GetDoubleVals(group, key).empty() ||
      !parser.GetBooleanVals(group, key).empty()) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // Error lines for every malformed input would fill the disk.
  zel_set_log_level(-1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = zel_fuzz::ScratchFile("client.conf");

  std::string input(reinterpret_cast<const char*>(data), size);
  const std::string separator = zel_fuzz::TakeLine(input);
  const std::string group = zel_fuzz::TakeLine(input);
  const std::string key = zel_fuzz::TakeLine(input);
  zel_fuzz::WriteWhole(path, input);

  zel::ConfigParser parser;
  const int loaded = parser.Init(path, separator);
  const Reference reference(path, separator);
  if (loaded != (reference.loaded() ? 0 : -1)) std::abort();
  if (!parser.GetRoot().empty()) std::abort();

  if (group.empty() || key.empty()) {
    CheckDefaults(parser, group, key);
  } else if (loaded == 0) {
    CheckGetters(parser, reference.file(), group, key);
  }

  // A group and key that GLib accepts as names; the value is fuzzed.
  const std::string value = key.c_str();
  if (parser.SetValuesByString("fuzz", "value", value) != (value.empty() ? -1 : 0)) std::abort();
  if (loaded == 0 && !value.empty()) {
    g_key_file_set_string(reference.file(), "fuzz", "value", value.c_str());
    CheckGetters(parser, reference.file(), "fuzz", "value");
  }
  return 0;
}
