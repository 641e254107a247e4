// SPDX-License-Identifier: MIT

// Demonstration of event reporting: a device event and an error event
// posted through the tracker and delivered by the tracing client.
#include "examples/demo_tracker.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "utils/zel_client_tracker.h"

namespace {

constexpr char kFileScheme[] = "file://";

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

void DemoTracker(const std::string& workDir) {
  std::printf("\n-- tracker: device and error events\n");
  const char* preset = std::getenv("ZEL_TRACE_ENDPOINT");
  if (preset == nullptr) {
    const std::string endpoint = kFileScheme + workDir + "trace.jsonl";
    // putenv keeps the text it is given: it must live as long as the variable.
    static std::string setting;
    setting = "ZEL_TRACE_ENDPOINT=" + endpoint;
    putenv(&setting[0]);
  }
  const std::string endpoint = std::getenv("ZEL_TRACE_ENDPOINT");
  std::printf("target: %s\n", endpoint.c_str());

  // Starting with the text already in a file target, so that only this
  // run's documents are printed.
  const bool toFile = endpoint.compare(0, sizeof(kFileScheme) - 1, kFileScheme) == 0;
  const std::string path = toFile ? endpoint.substr(sizeof(kFileScheme) - 1) : std::string();
  const std::size_t before = toFile ? readText(path).size() : 0;

  zel::ZelClientTracker* tracker = zel::ZelClientTracker::GetInstance();
  tracker->Init("0.1.0");
  // A USB disk (type 2, mass storage class 8) that is connecting (state 1).
  zel::ZelClientTrackDevice disk{0x1234, 0x0001, "Demo Disk", 2, {0x08}, 1, 7};
  tracker->SendTrackDevice("attach", disk, "redirecting the disk");
  tracker->SendTrackError("attach", "E_DEMO_BUSY", "the device is busy");
  // An HTTP client sends what is still queued before Uninit returns.
  tracker->Uninit();

  if (!toFile) {
    std::printf("posted a device event and an error event\n");
    return;
  }
  const std::string text = readText(path);
  std::printf("documents written to %s:\n%s", path.c_str(),
              text.size() >= before ? text.substr(before).c_str() : text.c_str());
}
