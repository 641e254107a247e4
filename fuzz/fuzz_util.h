// SPDX-License-Identifier: MIT

// Helpers shared by the fuzz targets: a scratch directory for the files the
// targets write, and the splitting of an input into lines.
#ifndef ZEL_FUZZ_FUZZ_UTIL_H_
#define ZEL_FUZZ_FUZZ_UTIL_H_

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace zel_fuzz {

// A directory of its own under $TMPDIR (or /tmp), created on first use and
// removed, with the files named by RemoveAtExit(), when the process exits.
// Aborts when it cannot be created: a target that cannot write its file would
// fuzz nothing.
inline const std::string& ScratchDir() {
  static const std::string dir = [] {
    const char* base = std::getenv("TMPDIR");
    std::string tmpl =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/zel_fuzz_XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) std::abort();
    return std::string(buf.data()) + "/";
  }();
  return dir;
}

// Files to remove at exit, then the scratch directory.
inline std::vector<std::string>& ScratchFiles() {
  static std::vector<std::string> files;
  return files;
}

inline void RemoveScratch() {
  for (const std::string& file : ScratchFiles()) std::remove(file.c_str());
  rmdir(ScratchDir().c_str());
}

// Returns the path of `name` in the scratch directory and arranges for its
// removal at exit.
inline std::string ScratchFile(const std::string& name) {
  // Both statics exist before the handler is registered, so they are
  // destroyed only after it ran.
  static const bool registered = [] {
    ScratchDir();
    ScratchFiles();
    return std::atexit(RemoveScratch) == 0;
  }();
  (void)registered;
  const std::string path = ScratchDir() + name;
  ScratchFiles().push_back(path);
  return path;
}

// True when something exists at `path`.
inline bool FileExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// Writes `content` to `path`, replacing it; aborts on failure.
inline void WriteWhole(const std::string& path, const std::string& content) {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) std::abort();
  if (!content.empty() && std::fwrite(content.data(), 1, content.size(), file) != content.size()) {
    std::abort();
  }
  std::fclose(file);
}

// Takes the text up to the first '\n' of `input` off its front and returns
// it; the whole input when it has no '\n'.
inline std::string TakeLine(std::string& input) {
  const std::size_t end = input.find('\n');
  std::string line = input.substr(0, end);
  input.erase(0, end == std::string::npos ? input.size() : end + 1);
  return line;
}

}  // namespace zel_fuzz

#endif  // ZEL_FUZZ_FUZZ_UTIL_H_
