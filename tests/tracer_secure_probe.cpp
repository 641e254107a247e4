// A program for the tracing client's security tests, run by them as a
// set-user-ID copy: registers a client, posts one document and ends it.
//   tracer_secure_probe <document> [<settings>]
// With <settings> the program gives them with TracerClient::configure()
// first ("NAME=value" lines separated by "\n"). Exit status: 0 when the
// document was accepted, 2 when the settings were refused, 3 when no
// client was registered, 4 when the post was refused.
#include <cstdio>
#include <string>

#include "tracer/tracer_client.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: tracer_secure_probe <document> [<settings>]\n");
    return 1;
  }
  if (argc > 2 && !TracerClient::configure(argv[2])) return 2;
  TracerClient* client = TracerClient::registerClient("probe");
  if (client == nullptr) return 3;
  const bool posted = client->postTrace(argv[1]);
  client->deregister();
  return posted ? 0 : 4;
}
