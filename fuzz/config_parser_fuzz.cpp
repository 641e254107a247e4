// Fuzzes ConfigParser's loading and getters on a real file. Input layout:
// the first line is the list separator handed to Init (any length), the
// second the group, the third the key; the rest is the key file. Every
// getter runs on that group and key, then a value set in memory must read
// back unchanged (or empty, when GLib refuses it as text).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_util.h"
#include "utils/config_parser.h"
#include "utils/logger.h"

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
  if (loaded != 0 && loaded != -1) std::abort();

  parser.GetStringVal(group, key);
  parser.GetStringVals(group, key);
  int number = 0;
  parser.GetIntegerVal(group, key, &number);
  parser.GetIntegerVals(group, key);
  double real = 0.0;
  parser.GetDoubleVal(group, key, &real);
  parser.GetDoubleVals(group, key);
  parser.GetBooleanVal(group, key);
  parser.GetBooleanVals(group, key);
  if (!parser.GetRoot().empty()) std::abort();

  // A group and key that GLib accepts as names; the value is fuzzed.
  const std::string value = key.c_str();
  if (parser.SetValuesByString("fuzz", "value", value) != (value.empty() ? -1 : 0)) std::abort();
  if (loaded == 0 && !value.empty()) {
    const std::string back = parser.GetStringVal("fuzz", "value");
    if (!back.empty() && back != value) std::abort();
  }
  return 0;
}
