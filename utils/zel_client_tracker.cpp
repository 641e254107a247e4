// SPDX-License-Identifier: MIT

#include "utils/zel_client_tracker.h"

#include <json/json.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>

#include "tracer/tracer_client.h"
#include "utils/logger.h"
#include "utils/platform.h"

namespace zel {

namespace {

constexpr const char* kFile = platform::fileTail(__FILE__);

// The levels of the two lines the tracker logs.
constexpr int kErrorLevel = 0;
constexpr int kDebugLevel = 3;

// The registration name and the document keys, built when the library is
// loaded.
const std::string kModuleName = "zelModule";
const std::string kKeyZelVersion = "zelVersion";
const std::string kKeyEventType = "eventType";
const std::string kKeyEvent = "event";
const std::string kKeyErrorCode = "errorCode";
const std::string kKeyMessage = "message";
const std::string kKeyVid = "vid";
const std::string kKeyPid = "pid";
const std::string kKeyVmid = "vmid";
const std::string kKeyProductName = "productName";
const std::string kKeyRedirtype = "redirtype";
const std::string kKeyClass = "class";
const std::string kKeyStatus = "status";

constexpr const char* kTypeDevice = "ZEL_TRACKER_TYPE_DEVICE";
constexpr const char* kTypeError = "ZEL_TRACKER_TYPE_ERROR";

// "0x%.4x" of `value` through a fixed 8-byte buffer: "0x0000" to "0xffff".
std::string hex16(uint16_t value) {
  char buf[8] = {0};
  // Six characters and the NUL always fit: the result needs no check.
  static_cast<void>(std::snprintf(buf, sizeof(buf), "0x%.4x", static_cast<unsigned int>(value)));
  return std::string(buf);
}

// The one lock of every tracker's registration, version and posting, and
// the clients that trackers registered and have not deregistered yet.
// Copies of a tracker share a client pointer: whichever deregisters it
// first removes it here, so the others neither post to it nor deregister
// it again. Never destroyed: a tracker may be used while static data goes
// away at exit.
struct TrackerState {
  std::mutex mutex;
  std::set<const TracerClient*> live;  // guarded by mutex
};

TrackerState& state() {
  static TrackerState* s = new TrackerState;
  return *s;
}

// Takes `client` out of the live set when it is in it and returns it, for
// the caller to deregister once the lock is released (a deregistration may
// take seconds); null when there is nothing to deregister. Called with the
// lock held: no post can be running on the client then, and none can start
// on it later.
TracerClient* retireLocked(TracerClient* client) {
  return (client != nullptr && state().live.erase(client) != 0) ? client : nullptr;
}

}  // namespace

std::atomic<ZelClientTracker*> ZelClientTracker::sZelClientTracker{nullptr};
std::mutex ZelClientTracker::sMutex;

ZelClientTracker* ZelClientTracker::GetInstance() {
  // The unlocked first test is an atomic load, so that a thread that sees
  // the pointer also sees the finished object.
  ZelClientTracker* tracker = sZelClientTracker.load(std::memory_order_acquire);
  if (tracker != nullptr) return tracker;
  std::lock_guard<std::mutex> lock(sMutex);
  tracker = sZelClientTracker.load(std::memory_order_relaxed);
  if (tracker == nullptr) {
    tracker = new ZelClientTracker();
    sZelClientTracker.store(tracker, std::memory_order_release);
  }
  return tracker;
}

ZelClientTracker::ZelClientTracker() : mTracerClient(nullptr) {}

ZelClientTracker::ZelClientTracker(const ZelClientTracker& other) = default;

ZelClientTracker& ZelClientTracker::operator=(const ZelClientTracker& other) = default;

ZelClientTracker::~ZelClientTracker() = default;

void ZelClientTracker::Init(const std::string& version) {
  TracerClient* client = nullptr;
  {
    std::lock_guard<std::mutex> lock(state().mutex);
    if (&version != &mVersion) mVersion = version;
    // The client this one replaces is neither deregistered nor reused: the
    // overwrite is intended. It stays live for the copies of this tracker
    // that still hold it; the tracing client makes such a client cheap (the
    // clients of one process with the same settings share one sender).
    mTracerClient = TracerClient::registerClient(kModuleName);
    if (mTracerClient != nullptr) state().live.insert(mTracerClient);
    client = mTracerClient;
  }
  if (client == nullptr && zel_log_level() >= kErrorLevel) {
    log_print(kErrorLevel, 1, "[%s][%s %s %d] Error:trace registerClient is null !!!\n", "", kFile,
              "zel::ZelClientTracker::Init", __LINE__);
  }
}

void ZelClientTracker::Uninit() {
  TracerClient* retired = nullptr;
  {
    std::lock_guard<std::mutex> lock(state().mutex);
    retired = retireLocked(mTracerClient);
    mTracerClient = nullptr;
  }
  if (retired != nullptr) retired->deregister();
}

void ZelClientTracker::initTrackJsonValue(Json::Value& value) {
  std::lock_guard<std::mutex> lock(state().mutex);
  value[kKeyZelVersion] = mVersion;
}

void ZelClientTracker::SendTrackDevice(const std::string& event, ZelClientTrackDevice& device,
                                       const std::string& message) {
  if (device.vid == 0) return;
  Json::Value value;
  initTrackJsonValue(value);
  value[kKeyEventType] = kTypeDevice;
  value[kKeyEvent] = event;
  value[kKeyProductName] = device.productName;
  value[kKeyVid] = hex16(device.vid);
  value[kKeyPid] = hex16(device.pid);
  value[kKeyVmid] = std::to_string(device.vmid);
  value[kKeyRedirtype] = redirtypeToString(device.redirtype);
  value[kKeyClass] = cidsToString(device.cids);
  value[kKeyStatus] = statusToString(device.status);
  value[kKeyMessage] = message;
  postTrace(value);
}

void ZelClientTracker::SendTrackError(const std::string& event, const std::string& errorCode,
                                      const std::string& message) {
  Json::Value value;
  initTrackJsonValue(value);
  value[kKeyEventType] = kTypeError;
  value[kKeyEvent] = event;
  value[kKeyErrorCode] = errorCode;
  value[kKeyMessage] = message;
  postTrace(value);
}

void ZelClientTracker::postTrace(const Json::Value& value) {
  const std::string text = convertJsonToStr(value);
  bool ok = false;
  {
    std::lock_guard<std::mutex> lock(state().mutex);
    // A client that a copy of this tracker deregistered is gone: register
    // anew, as without a client.
    if (mTracerClient != nullptr && state().live.count(mTracerClient) == 0) mTracerClient = nullptr;
    if (mTracerClient == nullptr) {
      mTracerClient = TracerClient::registerClient(kModuleName);
      if (mTracerClient == nullptr) return;
      state().live.insert(mTracerClient);
    }
    ok = mTracerClient->postTrace(text);
  }
  if (zel_log_level() >= kDebugLevel) {
    log_print(kDebugLevel, 1, "[%s][%s %s %d] Debug:zel client [%d] trace[%s]\n", "", kFile,
              "zel::ZelClientTracker::postTrace", __LINE__, ok ? 1 : 0, text.c_str());
  }
}

std::string ZelClientTracker::convertJsonToStr(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  std::ostringstream out;
  std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
  if (!writer) return "{}";
  // The writer's result is not looked at: the stream holds what was written.
  (void)writer->write(value, &out);
  return out.str();
}

std::string ZelClientTracker::redirtypeToString(uint16_t redirtype) {
  switch (redirtype) {
    case 2:
      return "DEV_REDIRTYPE_UDISK";
    case 3:
      return "DEV_REDIRTYPE_CAMERA";
    case 4:
      return "DEV_REDIRTYPE_PRINTTER";
    case 5:
      return "DEV_REDIRTYPE_SCANNER";
    case 6:
      return "DEV_REDIRTYPE_PEN";
    case 7:
      return "DEV_REDIRTYPE_ROUTER";
    case 16:
      return "DEV_REDIRTYPE_USBREDIR";
    case 249:
      return "DEV_REDIRTYPE_MOUSE_KEYBOARD";
    case 250:
      return "DEV_REDIRTYPE_MOUSE";
    case 251:
      return "DEV_REDIRTYPE_KEYBOARD";
    default:
      return "DEV_REDIRTYPE_UNKNOW";
  }
}

std::string ZelClientTracker::statusToString(uint16_t status) {
  switch (status) {
    case 0:
      return "idea";
    case 1:
      return "connecting";
    case 2:
      return "connected";
    case 3:
      return "disconnecting";
    default:
      return std::to_string(status);
  }
}

// Takes its list by value as part of the exported interface: the caller's
// copy is released when the function returns.
std::string ZelClientTracker::cidsToString(
    std::vector<uint16_t> cids) {  // NOLINT(performance-unnecessary-value-param)
  std::string text;
  for (uint16_t cid : cids) {
    // Only the low byte names the class; the high byte is ignored.
    const unsigned int base = cid & 0xFFu;
    switch (base) {
      case 0x01:
        text += "AUDIO;";
        break;
      case 0x03:
        text += "HID;";
        break;
      case 0x06:
        text += "IMAGE;";
        break;
      case 0x07:
        text += "PRINTER;";
        break;
      case 0x08:
        text += "MASS_STORAGE;";
        break;
      case 0x0B:
        text += "SMART_CARD;";
        break;
      case 0x0E:
        text += "VIDEO;";
        break;
      default:
        text += std::to_string(base);
        text += ';';
        break;
    }
  }
  return text;
}

std::string ZelClientTracker::uint16ToString(uint16_t value) { return hex16(value); }

}  // namespace zel
