// SPDX-License-Identifier: MIT

#include "utils/config_file.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/platform.h"

namespace {

constexpr std::size_t kAppDataPathSize = 256;
constexpr std::size_t kConfigPathSize = 1024;
constexpr std::size_t kLineSize = 1024;
constexpr std::size_t kHeaderSize = 32;
constexpr std::size_t kValueSize = 32;
constexpr std::size_t kNumberSize = 32;

// Where a scan stands: before the wanted section's header, inside the
// section (never left again), or, in the writer, past the replaced line.
enum class ScanState { kSearching, kInside, kReplaced };

// Formats the header pattern "[section]" into `header` (kHeaderSize bytes,
// truncating): a name of 30 characters or more loses the closing bracket.
void formatHeader(char* header, const char* section) {
  std::snprintf(header, kHeaderSize, "[%s]", section);
}

// True when `line`, less its last character, is `header` or a prefix of it.
// A line of one character (a newline alone) therefore always matches; an
// empty line (one that starts with a NUL byte) never does.
bool isHeaderLine(const char* header, const char* line) {
  const std::size_t len = std::strlen(line);
  if (len == 0) return false;
  return std::strncmp(header, line, len - 1) == 0;
}

// True when the text of `line` before `equals` (its first "=") is `key` or a
// prefix of it. Blanks are part of both.
bool keyMatches(const char* key, const char* line, const char* equals) {
  return std::strncmp(key, line, static_cast<std::size_t>(equals - line)) == 0;
}

}  // namespace

std::string GetAppDataPath() {
  // No exception leaves a function with C linkage: memory exhausted while
  // copying the variable gives the empty text, as an unset one does.
  try {
    std::string appData;
    if (!zel::platform::getEnv("APPDATA", &appData)) return std::string();
    char buf[kAppDataPathSize] = {0};
    zel::platform::formatAppDataPath(buf, sizeof(buf), appData.c_str(),
                                     zel::platform::kPathSeparator);
    return std::string(buf, std::strlen(buf));
  } catch (...) {
    return std::string();
  }
}

char* GetConfigFilePath() {
  // No location is composed in this version: the buffer stays empty.
  char path[kConfigPathSize] = {0};
  const std::size_t n = std::strlen(path);
  char* copy = static_cast<char*>(std::malloc(n + 1));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, path, n);
  copy[n] = '\0';
  return copy;
}

char* GetKeyStringFromFile(const char* path, const char* section, const char* key) {
  char header[kHeaderSize] = {0};
  char line[kLineSize] = {0};
  if (path == nullptr) return nullptr;
  char* value = static_cast<char*>(std::calloc(kValueSize, 1));
  if (value == nullptr) return nullptr;
  formatHeader(header, section);

  FILE* file = zel::platform::fopenNoInherit(path, "r");
  if (file == nullptr) {
    std::perror("fopen");
    return value;
  }

  ScanState state = ScanState::kSearching;
  while (std::fgets(line, static_cast<int>(sizeof(line)), file) != nullptr) {
    if (std::strncmp(line, "//", 2) == 0 || line[0] == '#') continue;
    const std::size_t len = std::strlen(line);
    if (len < 2) continue;
    char* equals = std::strchr(line, '=');
    if (equals != nullptr && state == ScanState::kInside) {
      if (!keyMatches(key, line, equals)) continue;
      // The last character goes, newline or not. On a final line of the key
      // and "=" alone that character is the "=" itself, and the value is
      // empty.
      line[len - 1] = '\0';
      const char* text = equals + 1;
      const std::size_t textLen =
          static_cast<std::size_t>(equals - line) < len - 1 ? std::strlen(text) : 0;
      // The block keeps its last byte zero: a longer value is cut to 31.
      std::memcpy(value, text, textLen < kValueSize - 1 ? textLen : kValueSize - 1);
      break;
    }
    if (isHeaderLine(header, line)) state = ScanState::kInside;
  }
  std::fclose(file);
  return value;
}

int GetKeyIntFromFile(const char* path, const char* section, const char* key) {
  char* value = GetKeyStringFromFile(path, section, key);
  if (value == nullptr) return 0;
  const int number = value[0] != '\0' ? std::atoi(value) : 0;
  std::free(value);
  return number;
}

int PutKeyStringToFile(const char* path, const char* section, const char* key, const char* value) {
  char line[kLineSize] = {0};
  char header[kHeaderSize] = {0};
  if (path == nullptr) return 0;
  formatHeader(header, section);

  FILE* in = zel::platform::fopenNoInherit(path, "r");
  if (in == nullptr) return -2;
  // A line end in the value would end its line and start another: a
  // section or key of the caller's choosing. Refused before anything is
  // written.
  if (std::strpbrk(value, "\r\n") != nullptr) {
    std::fclose(in);
    return -1;
  }

  char tmpName[kLineSize] = {0};
  const int nameLen = std::snprintf(tmpName, sizeof(tmpName), "%s.tmp", path);
  if (nameLen < 0 || static_cast<std::size_t>(nameLen) >= sizeof(tmpName)) {
    // A cut name could be an unrelated file: touch nothing.
    std::fclose(in);
    return -1;
  }
  // Created 0600 and never through what another user placed at the name
  // (a link, a hard link, a file of theirs): the file is then left as it
  // was and the name alone.
  FILE* out = zel::platform::openPrivateCopy(tmpName);
  if (out == nullptr) {
    std::fclose(in);
    return -1;
  }

  ScanState state = ScanState::kSearching;
  bool copied = true;
  while (std::fgets(line, static_cast<int>(sizeof(line)), in) != nullptr) {
    if (state != ScanState::kReplaced) {
      char* equals = std::strchr(line, '=');
      if (equals != nullptr && state == ScanState::kInside) {
        if (keyMatches(key, line, equals)) {
          // Bounded by the room left in the line buffer, so a long value is
          // cut (its newline with it) rather than written past the buffer.
          char* text = equals + 1;
          std::snprintf(text, sizeof(line) - static_cast<std::size_t>(text - line), "%s\n", value);
          state = ScanState::kReplaced;
        }
      } else if (isHeaderLine(header, line)) {
        state = ScanState::kInside;
      }
    }
    if (std::fputs(line, out) == EOF) {
      copied = false;
      break;
    }
  }
  // A read error ends the copy early: it would lose the rest of the file.
  if (std::ferror(in) != 0) copied = false;
  std::fclose(in);

  // The copy replaces the file only once all of it is known to be on the
  // disk with the file's permission bits, owner and group: a full disk, a quota or a size
  // limit shows up as a failed write, flush, sync or close. On any such
  // failure the copy goes and the file stays as it was.
  if (copied && zel::platform::copyPermissions(path, out) != 0) copied = false;
  if (copied && zel::platform::syncFile(out) != 0) copied = false;
  if (std::fclose(out) != 0) copied = false;
  if (!copied) {
    std::remove(tmpName);
    return -1;
  }
  // A failed replace leaves the complete, synced copy beside the file, as a
  // failed rename always has: the new text is not lost.
  return zel::platform::replaceFile(tmpName, path) == 0 ? 0 : -1;
}

int PutKeyIntToFile(const char* path, const char* section, const char* key, int value) {
  char text[kNumberSize] = {0};
  std::snprintf(text, sizeof(text), "%d", value);
  return PutKeyStringToFile(path, section, key, text);
}

char* GetKeyString(const char* section, const char* key) {
  char* path = GetConfigFilePath();
  if (path == nullptr) return nullptr;
  char* value = GetKeyStringFromFile(path, section, key);
  std::free(path);
  return value;
}

int GetKeyInt(const char* section, const char* key) {
  char* path = GetConfigFilePath();
  if (path == nullptr) return 0;
  const int number = GetKeyIntFromFile(path, section, key);
  std::free(path);
  return number;
}

int PutKeyString(const char* section, const char* key, const char* value) {
  char* path = GetConfigFilePath();
  if (path == nullptr) return 0;
  const int result = PutKeyStringToFile(path, section, key, value);
  std::free(path);
  return result;
}

int PutKeyInt(const char* section, const char* key, int value) {
  char* path = GetConfigFilePath();
  if (path == nullptr) return 0;
  const int result = PutKeyIntToFile(path, section, key, value);
  std::free(path);
  return result;
}
