// SPDX-License-Identifier: MIT

// A program for the tracing client's tests, run by them as another process
// (a set-user-ID copy, or one of several processes sharing a spool):
// registers a client, posts one document and ends it.
//   tracer_secure_probe <document> [<settings> [<spool directory>]]
// With <settings> the program gives them with TracerClient::configure()
// first ("NAME=value" lines separated by "\n"). With <spool directory> it
// waits, for at most 30 s, until no file there is waiting or claimed
// before it deregisters. Exit status: 0 when the document was accepted, 2
// when the settings were refused, 3 when no client was registered, 4 when
// the post was refused, 5 when the spool was not emptied in time.
#include <dirent.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "tracer/tracer_client.h"

namespace {

// True when `dir` holds no "spool-" or "claimed-" file.
bool SpoolEmpty(const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return true;
  bool empty = true;
  while (const dirent* entry = readdir(d)) {
    const std::string name = entry->d_name;
    if (name.rfind("spool-", 0) == 0 || name.rfind("claimed-", 0) == 0) empty = false;
  }
  closedir(d);
  return empty;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: tracer_secure_probe <document> [<settings> [<spool dir>]]\n");
    return 1;
  }
  if (argc > 2 && !TracerClient::configure(argv[2])) return 2;
  TracerClient* client = TracerClient::registerClient("probe");
  if (client == nullptr) return 3;
  const bool posted = client->postTrace(argv[1]);
  bool emptied = true;
  if (argc > 3) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!SpoolEmpty(argv[3])) {
      if (std::chrono::steady_clock::now() >= deadline) {
        emptied = false;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  client->deregister();
  if (!posted) return 4;
  return emptied ? 0 : 5;
}
