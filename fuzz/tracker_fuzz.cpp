// SPDX-License-Identifier: MIT

// Fuzzes the client tracker with odd texts. The tracing client writes to a
// file:// endpoint in a scratch directory, so each document can be read
// back. Input layout: bytes 0-9 give the device's numbers (vid, pid,
// redirtype, status, vmid, first class code), then lines: the event, the
// product name, the message, the error code, the version. Each post must
// leave exactly one document, a JSON object whose texts are those given when
// they are plain printable ASCII, and exactly one document per send: the
// file holds one JSON value and its newline, nothing before or after.
#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "fuzz/fuzz_util.h"
#include "utils/logger.h"
#include "utils/zel_client_tracker.h"

namespace {

std::string gTracePath;
std::string gVersion = "fuzz";

bool PlainAscii(const std::string& text) {
  for (char c : text) {
    if (c < 0x20 || c > 0x7e) return false;
  }
  return true;
}

// Reads the trace file, which must hold exactly one document: one JSON
// object, then the newline the file client adds, and nothing else. A second
// document, a second newline or a torn one fails the strict reader, which
// refuses anything after the first value.
Json::Value ReadDocument() {
  std::ifstream in(gTracePath, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  const std::string document = text.str();
  if (document.size() < 2 || document.back() != '\n') std::abort();
  // The writer never ends a document with a line break of its own.
  if (document[document.size() - 2] == '\n') std::abort();
  Json::Value value;
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  if (!reader->parse(document.data(), document.data() + document.size() - 1, &value, &errors) ||
      !value.isObject()) {
    std::abort();
  }
  return value;
}

void ExpectMember(const Json::Value& document, const char* name, const std::string& text) {
  if (!document.isMember(name) || !document[name].isString()) std::abort();
  if (PlainAscii(text) && document[name].asString() != text) std::abort();
}

void Truncate() { std::ofstream(gTracePath, std::ios::binary | std::ios::trunc); }

uint16_t U16(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The debug line of every post would fill the disk.
  zel_set_log_level(-1);
  gTracePath = zel_fuzz::ScratchFile("trace.jsonl");
  setenv("ZEL_TRACE_ENDPOINT", ("file://" + gTracePath).c_str(), 1);
  zel::ZelClientTracker::GetInstance()->Init("fuzz");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 10) return 0;
  zel::ZelClientTrackDevice device{U16(data),
                                   U16(data + 2),
                                   "",
                                   static_cast<uint16_t>(data[4]),
                                   {U16(data + 5), static_cast<uint16_t>(data[7])},
                                   static_cast<uint16_t>(data[8]),
                                   static_cast<uint32_t>(data[9]) * 16777619u};
  std::string input(reinterpret_cast<const char*>(data) + 10, size - 10);
  const std::string event = zel_fuzz::TakeLine(input);
  device.productName = zel_fuzz::TakeLine(input);
  const std::string message = zel_fuzz::TakeLine(input);
  const std::string errorCode = zel_fuzz::TakeLine(input);
  const std::string version = input;
  zel::ZelClientTracker* tracker = zel::ZelClientTracker::GetInstance();
  if (!version.empty() && data[9] % 16 == 0) {
    tracker->Uninit();
    tracker->Init(version);
    gVersion = version;
  }

  Truncate();
  tracker->SendTrackDevice(event, device, message);
  if (device.vid == 0) {
    // No device: nothing is sent.
    std::ifstream in(gTracePath, std::ios::binary | std::ios::ate);
    if (in.tellg() != 0) std::abort();
  } else {
    const Json::Value document = ReadDocument();
    ExpectMember(document, "zelVersion", gVersion);
    ExpectMember(document, "eventType", "ZEL_TRACKER_TYPE_DEVICE");
    ExpectMember(document, "event", event);
    ExpectMember(document, "productName", device.productName);
    ExpectMember(document, "message", message);
    ExpectMember(document, "vmid", std::to_string(device.vmid));
  }

  Truncate();
  tracker->SendTrackError(event, errorCode, message);
  const Json::Value document = ReadDocument();
  ExpectMember(document, "zelVersion", gVersion);
  ExpectMember(document, "eventType", "ZEL_TRACKER_TYPE_ERROR");
  ExpectMember(document, "event", event);
  ExpectMember(document, "errorCode", errorCode);
  ExpectMember(document, "message", message);
  return 0;
}
