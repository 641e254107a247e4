// SPDX-License-Identifier: MIT

// Small parsers of narrow byte strings: a bracket balance test, a
// hexadecimal reader, the text between an opening and a closing character, a
// key/value split and a list split.
//
// Characters are compared as bytes; no character set is assumed. Each
// function's rules, peculiar ones included, are part of its contract. None
// keeps state, takes a lock or throws for any text that fits in memory; only
// get_brackets_value() logs (debug lines, level 3).
//
// Threads: any thread.
//
// Example:
//   check_brackets("([]{})");                       // true
//   zel_htoi("0xff");                               // 255
//   std::string v;
//   get_brackets_value(v, "f(a(b)c)", '(', ')', 0);  // 0, v == "a(b)c"
//   std::string k;
//   parse_string_kv("k=v=w", "=", k, v);           // 0, k == "k", v == "v=w"
//   split_strings("a,b,,c", ",");                  // {"a", "b", "c"}
#ifndef ZEL_UTILS_ZEL_STRING_H_
#define ZEL_UTILS_ZEL_STRING_H_

#include <string>
#include <vector>

#include "utils/export.h"

// Returns true when the brackets "()", "[]" and "{}" of `text` balance and
// nest properly; every other character (quotes included) is ignored. An
// empty text is balanced. At most 4095 brackets may be open at once: the
// 4096th nested opener makes the result false. `text` must not be null.
ZEL_API bool check_brackets(const char* text);

// Reads `text` as a hexadecimal number, after an optional "0x" or "0X", up to
// the first character that is neither a digit nor an ASCII letter. Letters
// of either case count from 10: "a" to "f" give 10 to 15 and, deliberately,
// "g" to "z" give 16 to 35. There is no sign and no skipping of blanks: "-1"
// and "" give 0. The number wraps in 32 bits without an overflow check, so
// "FFFFFFFF" gives -1 and "100000000" gives 0. `text` must not be null.
ZEL_API int zel_htoi(const char* text);

// Finds the first `open` among the characters of `text` but its last, and,
// independently, the last `close` at position 2 or later, and assigns the
// text between them to `out`. The pairing is first opener with last closer:
// "f(a(b)c)" gives "a(b)c". When the closer lies before the opener the value
// runs from after the opener to the end: "ab)c(de" gives "de". A character
// equal to `excluded` is never taken as opener or closer, so an `excluded`
// equal to `open` or `close` always fails.
// Returns 0 when a value was found (it may be empty: "x()" gives ""); -1,
// leaving `out` untouched, for an empty text, a text of one or two
// characters ("()" fails, since position 1 cannot hold the closer), or a
// missing opener or closer.
// Logs, when zel_log_level() is 3 or more, "Debug:enter:<text>" for every
// non-empty text and, on success, the positions and the value; both lines
// are also handed to the registered log backends.
ZEL_API int get_brackets_value(std::string& out, const std::string& text, char open, char close,
                               char excluded);

// Splits `text` at the first occurrence of `separator`: `key` receives the
// text before it and `value` the text after it, untrimmed (later separators
// stay in the value). When the separator does not occur, `key` receives the
// whole text and `value` the text from position `separator.size()` - 1: the
// whole text for a one-character separator, the text less its first
// character for a two-character one. Returns 0 on success; -1, leaving `key`
// and `value` untouched, when `text` or `separator` is empty, `text` is
// longer than 4096 characters or shorter than `separator`.
ZEL_API int parse_string_kv(const std::string& text, const std::string& separator, std::string& key,
                            std::string& value);

// Splits `text` at each `separator` and returns the non-empty fields in
// order. After a separator found at position p the scan resumes at p + 1,
// one character after its start rather than after its end, so with a
// separator of several characters every field after the first keeps the
// separator's later characters: "a::b" split at "::" gives "a" and ":b".
// Returns an empty vector when `text` or `separator` is empty. The cost is
// quadratic in the number of fields.
ZEL_API std::vector<std::string> split_strings(const std::string& text,
                                               const std::string& separator);

#endif  // ZEL_UTILS_ZEL_STRING_H_
