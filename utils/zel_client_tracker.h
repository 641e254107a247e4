// SPDX-License-Identifier: MIT

// Event reporting: the process-wide ZelClientTracker that turns device
// events and errors into JSON documents and posts them to the tracing
// service through a TracerClient.
//
// A device event carries one ZelClientTrackDevice record; its numeric codes
// travel as texts ("DEV_REDIRTYPE_UDISK", "connecting", "MASS_STORAGE;",
// "0x1234"). Every document is one JSON object of string members, written
// with JsonCpp's default stream writer (tab indentation, one member per line,
// members in key order).
//
// Threads: the tracker has no thread, queue or buffer of its own. A send
// builds its document and posts it on the caller's thread and returns when
// TracerClient::postTrace() returns. Every operation may be called from
// several threads at once: one process-wide lock, shared by all trackers
// and their copies, covers registration, the version and each post (not
// the building of the document, the debug line or a deregistration).
//
// Example:
//   zel::ZelClientTracker* tracker = zel::ZelClientTracker::GetInstance();
//   tracker->Init("2.4.1");  // registers under "zelModule"
//   zel::ZelClientTrackDevice disk{0x1234, 0x0001, "Disk", 2, {0x08}, 2, 7};
//   tracker->SendTrackDevice("attach", disk, "redirected");
//   tracker->SendTrackError("attach", "E_ACCESS", "device is busy");
//   tracker->Uninit();
#ifndef ZEL_UTILS_ZEL_CLIENT_TRACKER_H_
#define ZEL_UTILS_ZEL_CLIENT_TRACKER_H_

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "utils/export.h"

namespace Json {
class Value;
}  // namespace Json

class TracerClient;

namespace zel {

// One device as a device event reports it. The caller fills it; the tracker
// only reads it. An aggregate: the fields are listed in declaration order.
struct ZelClientTrackDevice {
  uint16_t vid;                // USB vendor id; 0 means "no device": nothing is sent
  uint16_t pid;                // USB product id
  std::string productName;     // sent unchanged
  uint16_t redirtype;          // redirection type code (2 USB disk, 3 camera, ...)
  std::vector<uint16_t> cids;  // USB class codes, in the caller's order
  uint16_t status;             // connection state (0 idle, 1 connecting, ...)
  uint32_t vmid;               // sent as unsigned decimal text
};

// The event reporter the top of this file describes; one per process, from
// GetInstance().
class ZEL_API ZelClientTracker {
 public:
  // Returns the single tracker, creating it on the first call; it is never
  // destroyed. Threads: any thread; concurrent first calls create one
  // instance. Throws std::system_error when the creation lock fails.
  static ZelClientTracker* GetInstance();

  // Creates a tracker with an empty version and no client. Most callers use
  // GetInstance() instead.
  ZelClientTracker();

  // The copies share the client pointer and copy the version text. Whichever
  // of them deregisters the client first (Uninit()) ends it for all: the
  // others then register anew on their next send and never deregister it a
  // second time. Defined out of line so that they are exported too.
  // Threads: not while `other` is being changed by another thread.
  ZelClientTracker(const ZelClientTracker& other);
  ZelClientTracker& operator=(const ZelClientTracker& other);

  // Releases the version text only: the client is neither deregistered nor
  // deleted.
  virtual ~ZelClientTracker();

  // Keeps `version` (sent as "zelVersion" in every later document) and
  // registers a tracing client under "zelModule", replacing the held one.
  // A client held before is overwritten, neither deregistered nor reused
  // (copies of this tracker that hold it keep using it); the tracing
  // client's registrations with the same settings share one sender, so
  // that repeated Init() calls add no thread. When registration fails the
  // tracker holds no client and logs "Error:trace registerClient is null !!!"
  // (level 0, also handed to the log backends); the next send tries to
  // register again. Threads: any thread.
  void Init(const std::string& version);

  // Deregisters the held client and forgets it; does nothing without one,
  // or when a copy of this tracker has already deregistered it. The version
  // is kept, and a later send registers again. Threads: any thread; the
  // deregistration runs outside the lock, so other threads' sends do not
  // wait for it.
  void Uninit();

  // Posts a device event: "zelVersion", "eventType"
  // ("ZEL_TRACKER_TYPE_DEVICE"), `event`, the record's "productName",
  // "vid" and "pid" ("0x%.4x"), "vmid" (decimal), "redirtype", "class" and
  // "status" as texts, and `message`. A `device` whose vid is 0 sends
  // nothing and logs nothing. `device` is only read. Without a client it
  // registers one first; when that fails the document is dropped silently.
  // After the post it logs the debug line "Debug:zel client [1|0]
  // trace[<document>]" (level 3, also handed to the log backends), 1 when
  // the client accepted the document. Threads: any thread; blocks the
  // caller for as long as TracerClient::postTrace() takes, under the lock.
  void SendTrackDevice(const std::string& event, ZelClientTrackDevice& device,
                       const std::string& message);

  // Posts an error event: "zelVersion", "eventType"
  // ("ZEL_TRACKER_TYPE_ERROR"), `event`, `errorCode` and `message`. Empty
  // texts are sent as empty strings. Registration, dropping and the debug
  // line are as for SendTrackDevice(). Threads: any thread; blocks the
  // caller for as long as TracerClient::postTrace() takes, under the lock.
  void SendTrackError(const std::string& event, const std::string& errorCode,
                      const std::string& message);

 private:
  // Gives the unit tests access to the pure conversions below.
  friend class ZelClientTrackerPeer;

  // Sets "zelVersion" of `value` to mVersion.
  void initTrackJsonValue(Json::Value& value);

  // Registers when no client is held (dropping `value` silently when that
  // fails), posts the serialised `value` and logs the debug line.
  void postTrace(const Json::Value& value);

  // Serialises `value` with a default JsonCpp stream writer; "{}" when no
  // writer can be made.
  std::string convertJsonToStr(const Json::Value& value);

  // Text of a redirection type code: "DEV_REDIRTYPE_UDISK" (2) and so on;
  // "DEV_REDIRTYPE_UNKNOW" for every code without a name.
  std::string redirtypeToString(uint16_t redirtype);

  // Text of a connection state: "idea" (0), "connecting", "connected",
  // "disconnecting" (3); any other code in decimal ("4").
  std::string statusToString(uint16_t status);

  // The class codes in order, each by its low byte only, as "AUDIO;",
  // "HID;", "IMAGE;", "PRINTER;", "MASS_STORAGE;", "SMART_CARD;", "VIDEO;"
  // or the byte in decimal followed by ";". Empty for an empty list.
  std::string cidsToString(std::vector<uint16_t> cids);

  // "0x" and at least four lower-case hexadecimal digits: "0x0000" to
  // "0xffff".
  std::string uint16ToString(uint16_t value);

  std::string mVersion;         // "" until Init()
  TracerClient* mTracerClient;  // not owned; given up through deregister()

  static std::atomic<ZelClientTracker*> sZelClientTracker;  // never deleted
  static std::mutex sMutex;                                 // guards the creation only
};

}  // namespace zel

#endif  // ZEL_UTILS_ZEL_CLIENT_TRACKER_H_
