// SPDX-License-Identifier: MIT

#include "utils/zel_string.h"

#include <cstddef>
#include <cstdint>
#include <utility>

#include "utils/logger.h"
#include "utils/platform.h"

namespace {

constexpr const char* kFile = zel::platform::fileTail(__FILE__);

// Line numbers that the debug lines of get_brackets_value carry.
constexpr int kBracketsEnterLine = 68;
constexpr int kBracketsResultLine = 94;

// Room of the bracket stack; one slot stays unused, so 4095 may be open.
constexpr std::size_t kBracketStackSize = 4096;

// Longest text that parse_string_kv accepts.
constexpr std::size_t kMaxKvTextSize = 4096;

// The opener that `closer` pairs with; 0 for a character that closes nothing.
char openerOf(char closer) {
  switch (closer) {
    case ')':
      return '(';
    case ']':
      return '[';
    case '}':
      return '{';
    default:
      return 0;
  }
}

// The value of a digit of zel_htoi, or -1 for a character that ends the
// scan. Only ASCII letters count, whatever the locale.
int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'z') return c - 'a' + 10;
  if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool check_brackets(const char* text) {
  char stack[kBracketStackSize];
  std::size_t open = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    const char c = *p;
    if (c == '(' || c == '[' || c == '{') {
      if (open >= kBracketStackSize - 1) return false;
      stack[open++] = c;
    } else if (c == ')' || c == ']' || c == '}') {
      if (open == 0 || stack[open - 1] != openerOf(c)) return false;
      --open;
    }
  }
  return open == 0;
}

int zel_htoi(const char* text) {
  const char* p = text;
  if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) p += 2;
  // Unsigned arithmetic: the number wraps in 32 bits by design.
  uint32_t result = 0;
  for (; *p != '\0'; ++p) {
    const int digit = hexDigitValue(*p);
    if (digit < 0) break;
    result = result * 16u + static_cast<uint32_t>(digit);
  }
  return static_cast<int>(result);
}

int get_brackets_value(std::string& out, const std::string& text, char open, char close,
                       char excluded) {
  if (text.empty()) return -1;
  if (zel_log_level() >= 3) {
    log_print(3, 1, "[%s][%s %s %d] Debug:enter:%s\n", "", kFile, "get_brackets_value",
              kBracketsEnterLine, text.c_str());
  }
  const std::size_t length = text.size();

  // The last character is never taken as the opener.
  std::size_t pos = 0;
  bool foundOpen = false;
  for (std::size_t p = 0; p + 1 < length; ++p) {
    if (text[p] == open && text[p] != excluded) {
      pos = p + 1;
      foundOpen = true;
      break;
    }
  }
  if (!foundOpen) return -1;

  // Searched from the end, independently of the opener; positions 0 and 1
  // are never taken as the closer.
  if (length - 1 <= 1) return -1;
  std::size_t i = 0;
  bool foundClose = false;
  for (std::size_t p = length - 1; p >= 2; --p) {
    if (text[p] == close && text[p] != excluded) {
      i = p;
      foundClose = true;
      break;
    }
  }
  if (!foundClose) return -1;

  // A closer before the opener gives the rest of the text after the opener.
  out = i < pos ? text.substr(pos) : text.substr(pos, i - pos);
  if (zel_log_level() >= 3) {
    log_print(3, 1, "[%s][%s %s %d] Debug:pos=%d i=%d get[%c] ret:%s \n", "", kFile,
              "get_brackets_value", kBracketsResultLine, static_cast<int>(pos), static_cast<int>(i),
              text[i], out.c_str());
  }
  return 0;
}

int parse_string_kv(const std::string& text, const std::string& separator, std::string& key,
                    std::string& value) {
  if (text.empty() || separator.empty() || text.size() > kMaxKvTextSize ||
      text.size() < separator.size()) {
    return -1;
  }
  const std::size_t p = text.find(separator);
  // Without a separator the value starts where "not found" plus the
  // separator's length wraps to: separator.size() - 1.
  const std::size_t valueStart =
      p == std::string::npos ? separator.size() - 1 : p + separator.size();
  std::string k = text.substr(0, p);
  std::string v = text.substr(valueStart);
  key = std::move(k);
  value = std::move(v);
  return 0;
}

std::vector<std::string> split_strings(const std::string& text, const std::string& separator) {
  std::vector<std::string> fields;
  if (text.empty() || separator.empty()) return fields;
  // The appended separator closes the last field.
  std::string work = text + separator;
  for (std::size_t p = work.find(separator); p != std::string::npos; p = work.find(separator)) {
    std::string field = work.substr(0, p);
    if (!field.empty() && field != separator) fields.push_back(std::move(field));
    // Resumes one character after the separator's start, not after its end.
    work.erase(0, p + 1);
  }
  return fields;
}
