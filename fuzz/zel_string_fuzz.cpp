// Fuzzes the string helpers. Input layout: byte 0, 1 and 2 are the opening,
// closing and excluded characters of get_brackets_value; byte 3 gives the
// separator length (1 to 4) of parse_string_kv and split_strings; the
// separator follows, then the text. check_brackets and zel_htoi read the whole
// input as a C text. Each result is checked against what the rules allow.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "utils/logger.h"
#include "utils/zel_string.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // The debug lines of get_brackets_value would fill the disk.
  zel_set_log_level(-1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);

  const bool balanced = check_brackets(input.c_str());
  // The same text must give the same answer.
  if (check_brackets(input.c_str()) != balanced) std::abort();
  zel_htoi(input.c_str());

  if (size < 4) return 0;
  const char open = input[0];
  const char close = input[1];
  const char excluded = input[2];
  const std::size_t separatorLength = 1 + static_cast<std::size_t>(data[3] % 4);
  const std::string separator = input.substr(4, separatorLength);
  const std::string text =
      input.size() > 4 + separator.size() ? input.substr(4 + separator.size()) : std::string();

  std::string value = "unchanged";
  const int found = get_brackets_value(value, text, open, close, excluded);
  if (found == 0 && value.size() >= text.size()) std::abort();
  if (found != 0 && value != "unchanged") std::abort();
  if ((excluded == open || excluded == close) && found == 0) std::abort();

  std::string key = "k";
  std::string kvValue = "v";
  const int parsed = parse_string_kv(text, separator, key, kvValue);
  if (parsed == 0 && (key.size() > text.size() || kvValue.size() > text.size())) std::abort();
  if (parsed != 0 && (key != "k" || kvValue != "v")) std::abort();

  const std::vector<std::string> fields = split_strings(text, separator);
  std::size_t total = 0;
  for (const std::string& field : fields) {
    if (field.empty() || field == separator) std::abort();
    total += field.size();
  }
  if (total > text.size()) std::abort();
  return 0;
}
