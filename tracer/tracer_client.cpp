#include "tracer/tracer_client.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace {

constexpr char kFileScheme[] = "file://";

// Serialises the appends of every client of the process, so that documents
// written by several threads never mix.
std::mutex& appendMutex() {
  static std::mutex* mutex = new std::mutex;
  return *mutex;
}

}  // namespace

TracerClient* TracerClient::registerClient(const std::string& name) {
  const char* endpoint = std::getenv("ZEL_TRACE_ENDPOINT");
  if (endpoint == nullptr) return nullptr;
  const std::string target(endpoint);
  const std::size_t schemeLen = sizeof(kFileScheme) - 1;
  if (target.compare(0, schemeLen, kFileScheme) != 0 || target.size() == schemeLen) {
    return nullptr;
  }
  return new TracerClient(name, target.substr(schemeLen));
}

TracerClient::TracerClient(const std::string& name, const std::string& path)
    : name_(name), path_(path) {}

TracerClient::~TracerClient() = default;

bool TracerClient::postTrace(const std::string& text) {
  std::string record = text;
  record.push_back('\n');
  std::lock_guard<std::mutex> lock(appendMutex());
  FILE* file = std::fopen(path_.c_str(), "ab");
  if (file == nullptr) return false;
  const bool written = std::fwrite(record.data(), 1, record.size(), file) == record.size();
  return (std::fclose(file) == 0) && written;
}

void TracerClient::deregister() { delete this; }
