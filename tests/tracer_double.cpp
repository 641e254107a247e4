// SPDX-License-Identifier: MIT

// The tracing client's operations as the test double defines them; see
// tests/tracer_double.h.
#include "tests/tracer_double.h"

TracerDouble& TracerDoubleState() {
  static TracerDouble* state = new TracerDouble;
  return *state;
}

TracerClient::TracerClient(zel_tracer_detail::Sink* sink) : sink_(sink) {}

TracerClient::~TracerClient() = default;

TracerClient* TracerClient::registerClient(const std::string& name) {
  TracerDouble& d = TracerDoubleState();
  std::lock_guard<std::mutex> lock(d.mutex);
  d.registeredNames.push_back(name);
  if (d.registerFails) return nullptr;
  TracerClient* client = new TracerClient(nullptr);
  d.clients.push_back(client);
  return client;
}

bool TracerClient::postTrace(const std::string& text) {
  TracerDouble& d = TracerDoubleState();
  std::lock_guard<std::mutex> lock(d.mutex);
  d.posts.push_back({d.indexOf(this), text});
  return d.postResult;
}

void TracerClient::deregister() {
  TracerDouble& d = TracerDoubleState();
  std::lock_guard<std::mutex> lock(d.mutex);
  // The double's clients carry no delivery of their own; any other client
  // is not the double's to free.
  const int index = d.indexOf(this);
  if (index < 0 || sink_ != nullptr) {
    ++d.foreignDeregisters;
    return;
  }
  d.deregistered.push_back(index);
  // Freed as the real client frees itself, so that a later use by the
  // tracker shows up under the address sanitizer.
  delete this;
}
