// SPDX-License-Identifier: MIT

// Fuzzes the string helpers against a reference model written here, from
// their documented rules, in a different way from the library (indices and
// plain loops instead of the library's scans). Input layout: byte 0, 1 and 2
// are the opening, closing and excluded characters of get_brackets_value;
// byte 3 gives the separator length (1 to 4) of parse_string_kv and
// split_strings; the separator follows, then the text. check_brackets and
// zel_htoi read the whole input as a C text (up to its first NUL). Every
// result, and every output argument, must equal the model's.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "utils/logger.h"
#include "utils/zel_string.h"

namespace {

// check_brackets: a stack of openers; more than 4095 open at once fails.
bool ModelBrackets(const std::string& text) {
  std::string open;
  for (char c : text) {
    const std::size_t opener = std::string("([{").find(c);
    const std::size_t closer = std::string(")]}").find(c);
    if (c != '\0' && opener != std::string::npos) {
      if (open.size() == 4095) return false;
      open.push_back(c);
    } else if (c != '\0' && closer != std::string::npos) {
      if (open.empty() || open.back() != "([{"[closer]) return false;
      open.pop_back();
    }
  }
  return open.empty();
}

// zel_htoi: digits and ASCII letters of either case ("g" is 16, "z" 35),
// after an optional 0x; wraps in 32 bits.
int ModelHtoi(const std::string& text) {
  static const char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
  std::size_t i = text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') ? 2 : 0;
  uint64_t result = 0;
  for (; i < text.size(); ++i) {
    char c = text[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    const char* at = c == '\0' ? nullptr : std::strchr(kDigits, c);
    if (at == nullptr) break;
    result = (result * 16 + static_cast<uint64_t>(at - kDigits)) & 0xffffffffu;
  }
  const auto low = static_cast<uint32_t>(result);
  int32_t value;
  std::memcpy(&value, &low, sizeof(value));
  return value;
}

// get_brackets_value: the first opener among positions 0 to size - 2, the
// last closer among positions size - 1 down to 2; neither may be `excluded`.
int ModelBracketsValue(std::string& out, const std::string& text, char open, char close,
                       char excluded) {
  const long size = static_cast<long>(text.size());
  long opener = -1;
  for (long p = 0; p <= size - 2 && opener < 0; ++p) {
    if (text[static_cast<std::size_t>(p)] == open && open != excluded) opener = p;
  }
  long closer = -1;
  for (long p = size - 1; p >= 2 && closer < 0; --p) {
    if (text[static_cast<std::size_t>(p)] == close && close != excluded) closer = p;
  }
  if (opener < 0 || closer < 0) return -1;
  const auto pos = static_cast<std::size_t>(opener + 1);
  const auto end = closer < opener + 1 ? text.size() : static_cast<std::size_t>(closer);
  out = text.substr(pos, end - pos);
  return 0;
}

// parse_string_kv: split at the first separator; without one the key is the
// whole text and the value starts at separator.size() - 1.
int ModelKv(const std::string& text, const std::string& sep, std::string& key, std::string& value) {
  if (text.empty() || sep.empty() || text.size() > 4096 || text.size() < sep.size()) return -1;
  std::size_t at = std::string::npos;
  for (std::size_t p = 0; p + sep.size() <= text.size(); ++p) {
    if (text.compare(p, sep.size(), sep) == 0) {
      at = p;
      break;
    }
  }
  if (at == std::string::npos) {
    key = text;
    value = text.substr(sep.size() - 1);
  } else {
    key = text.substr(0, at);
    value = text.substr(at + sep.size());
  }
  return 0;
}

// split_strings: on the text with the separator appended, each separator
// found at p closes the field that began at the previous resume point, and
// the scan resumes at p + 1; empty fields and fields equal to the separator
// are dropped.
std::vector<std::string> ModelSplit(const std::string& text, const std::string& sep) {
  std::vector<std::string> fields;
  if (text.empty() || sep.empty()) return fields;
  const std::string work = text + sep;
  std::size_t start = 0;
  for (std::size_t p = start; p + sep.size() <= work.size(); ++p) {
    if (work.compare(p, sep.size(), sep) != 0) continue;
    const std::string field = work.substr(start, p - start);
    if (!field.empty() && field != sep) fields.push_back(field);
    start = p + 1;
    p = start - 1;  // the loop's ++p resumes the search at start
  }
  return fields;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // The debug lines of get_brackets_value would fill the disk.
  zel_set_log_level(-1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::string cText = input.c_str();

  if (check_brackets(input.c_str()) != ModelBrackets(cText)) std::abort();
  if (zel_htoi(input.c_str()) != ModelHtoi(cText)) std::abort();

  if (size < 4) return 0;
  const char open = input[0];
  const char close = input[1];
  const char excluded = input[2];
  const std::size_t separatorLength = 1 + static_cast<std::size_t>(data[3] % 4);
  const std::string separator = input.substr(4, separatorLength);
  const std::string text =
      input.size() > 4 + separator.size() ? input.substr(4 + separator.size()) : std::string();

  std::string value = "unchanged";
  std::string modelValue = "unchanged";
  if (get_brackets_value(value, text, open, close, excluded) !=
          ModelBracketsValue(modelValue, text, open, close, excluded) ||
      value != modelValue) {
    std::abort();
  }

  std::string key = "k";
  std::string kvValue = "v";
  std::string modelKey = "k";
  std::string modelKvValue = "v";
  if (parse_string_kv(text, separator, key, kvValue) !=
          ModelKv(text, separator, modelKey, modelKvValue) ||
      key != modelKey || kvValue != modelKvValue) {
    std::abort();
  }

  if (split_strings(text, separator) != ModelSplit(text, separator)) std::abort();
  return 0;
}
