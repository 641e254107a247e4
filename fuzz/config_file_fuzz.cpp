// SPDX-License-Identifier: MIT

// Fuzzes the INI reader and writer on a real file against a model of the
// scanning rules written here: the file read in pieces as fgets delivers
// them (at most 1023 bytes, up to and with a newline, each piece a C text up
// to its first NUL), the section state that never goes back once inside, the
// loose header test (the line less its last character is the bracketed name
// or a prefix of it), the key test (the text before the first "=" is the
// requested key or a prefix of it), the reader's comment and short-line
// rules, and the writer's replacement of the first matching line only.
// Input layout: the first line is the section, the second the key, the third
// the value to write; the rest is the file's content. The value read, the
// file the writer leaves and the value read back must all be the model's,
// and no temporary file may be left behind.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/fuzz_util.h"
#include "utils/config_file.h"

namespace {

// The file as fgets hands it over with a 1024-byte buffer, each piece cut at
// its first NUL as the C functions see it.
std::vector<std::string> Pieces(const std::string& content) {
  std::vector<std::string> pieces;
  std::size_t at = 0;
  while (at < content.size()) {
    std::size_t end = at;
    while (end < content.size() && end - at < 1023) {
      if (content[end++] == '\n') break;
    }
    const std::string piece = content.substr(at, end - at);
    pieces.push_back(piece.substr(0, piece.find('\0')));
    at = end;
  }
  return pieces;
}

// The bracketed section name as a 32-byte buffer holds it.
std::string Header(const std::string& section) { return ("[" + section + "]").substr(0, 31); }

// The line less its last character is the header or a prefix of it; a line
// of length 0 is never a header.
bool IsHeader(const std::string& header, const std::string& line) {
  if (line.empty()) return false;
  const std::size_t n = line.size() - 1;
  return n <= header.size() && header.compare(0, n, line, 0, n) == 0;
}

// The text of `line` before its "=" at `equals` is `key` or a prefix of it.
bool KeyMatches(const std::string& key, const std::string& line, std::size_t equals) {
  return equals <= key.size() && key.compare(0, equals, line, 0, equals) == 0;
}

std::string ModelRead(const std::string& content, const std::string& section,
                      const std::string& key) {
  const std::string header = Header(section);
  bool inside = false;
  for (const std::string& line : Pieces(content)) {
    if (line.compare(0, 2, "//") == 0 || (!line.empty() && line[0] == '#')) continue;
    if (line.size() < 2) continue;
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos && inside) {
      if (!KeyMatches(key, line, equals)) continue;
      // The last character goes; the value is cut to the 31 bytes a block
      // of 32 holds.
      const std::string body = line.substr(0, line.size() - 1);
      const std::string value = equals + 1 <= body.size() ? body.substr(equals + 1) : "";
      return value.substr(0, 31);
    }
    if (IsHeader(header, line)) inside = true;
  }
  return "";
}

std::string ModelWrite(const std::string& content, const std::string& section,
                       const std::string& key, const std::string& value) {
  const std::string header = Header(section);
  enum { kSearching, kInside, kReplaced } state = kSearching;
  std::string out;
  for (std::string line : Pieces(content)) {
    if (state != kReplaced) {
      const std::size_t equals = line.find('=');
      if (equals != std::string::npos && state == kInside) {
        if (KeyMatches(key, line, equals)) {
          // The new value and its newline, cut to the room left in the
          // 1024-byte line buffer.
          const std::size_t room = 1023 - (equals + 1);
          line = line.substr(0, equals + 1) + (value + "\n").substr(0, room);
          state = kReplaced;
        }
      } else if (IsHeader(header, line)) {
        state = kInside;
      }
    }
    out += line;
  }
  return out;
}

std::string ReadWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = zel_fuzz::ScratchFile("client.ini");
  static const std::string tmpPath = zel_fuzz::ScratchFile("client.ini.tmp");

  std::string input(reinterpret_cast<const char*>(data), size);
  // The functions take C texts: each ends at its first NUL.
  const std::string section = zel_fuzz::TakeLine(input).c_str();
  const std::string key = zel_fuzz::TakeLine(input).c_str();
  const std::string value = zel_fuzz::TakeLine(input).c_str();
  const std::string content = input;
  zel_fuzz::WriteWhole(path, content);

  char* read = GetKeyStringFromFile(path.c_str(), section.c_str(), key.c_str());
  if (read == nullptr) std::abort();
  if (read != ModelRead(content, section, key)) std::abort();
  std::free(read);
  if (GetKeyIntFromFile(path.c_str(), section.c_str(), key.c_str()) !=
      std::atoi(ModelRead(content, section, key).c_str())) {
    std::abort();
  }

  // A value holding a line end is refused before anything is written (it
  // could end its line and start a section of its own).
  const bool refused = value.find_first_of("\r\n") != std::string::npos;
  if (PutKeyStringToFile(path.c_str(), section.c_str(), key.c_str(), value.c_str()) !=
      (refused ? -1 : 0)) {
    std::abort();
  }
  if (zel_fuzz::FileExists(tmpPath)) std::abort();
  const std::string written = refused ? content : ModelWrite(content, section, key, value);
  if (ReadWhole(path) != written) std::abort();

  const std::string number = std::to_string(static_cast<int>(size));
  if (PutKeyIntToFile(path.c_str(), section.c_str(), key.c_str(), static_cast<int>(size)) != 0) {
    std::abort();
  }
  const std::string rewritten = ModelWrite(written, section, key, number);
  if (ReadWhole(path) != rewritten) std::abort();

  read = GetKeyStringFromFile(path.c_str(), section.c_str(), key.c_str());
  if (read == nullptr) std::abort();
  if (read != ModelRead(rewritten, section, key)) std::abort();
  std::free(read);
  return 0;
}
