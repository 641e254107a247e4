// Fuzzes the INI reader and writer on a real file. Input layout: the first
// line is the section, the second the key, the third the value to write; the
// rest is the file's content. The reader must return at most 31 characters;
// the writer must succeed and leave no temporary file behind, since the file
// exists and its directory is writable.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/fuzz_util.h"
#include "utils/config_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = zel_fuzz::ScratchFile("client.ini");
  static const std::string tmpPath = zel_fuzz::ScratchFile("client.ini.tmp");

  std::string input(reinterpret_cast<const char*>(data), size);
  const std::string section = zel_fuzz::TakeLine(input);
  const std::string key = zel_fuzz::TakeLine(input);
  const std::string value = zel_fuzz::TakeLine(input);
  zel_fuzz::WriteWhole(path, input);

  char* read = GetKeyStringFromFile(path.c_str(), section.c_str(), key.c_str());
  if (read == nullptr) std::abort();
  if (std::strlen(read) > 31) std::abort();
  std::free(read);
  GetKeyIntFromFile(path.c_str(), section.c_str(), key.c_str());

  if (PutKeyStringToFile(path.c_str(), section.c_str(), key.c_str(), value.c_str()) != 0) {
    std::abort();
  }
  if (zel_fuzz::FileExists(tmpPath)) std::abort();
  if (PutKeyIntToFile(path.c_str(), section.c_str(), key.c_str(), static_cast<int>(size)) != 0) {
    std::abort();
  }

  read = GetKeyStringFromFile(path.c_str(), section.c_str(), key.c_str());
  if (read == nullptr) std::abort();
  std::free(read);
  return 0;
}
