// SPDX-License-Identifier: MIT

#include "utils/zel_client_tracker.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support/test_util.h"
#include "tests/tracer_double.h"
#include "tracer/tracer_client.h"
#include "utils/logger.h"

// ---------------------------------------------------------------------------
// The TracerClient double (tests/tracer_double.h): every registration, post
// and deregistration of the tracker lands there and is recorded. A test
// steers it and reads what happened through Double():
//   Double().registerFails = true;   next registerClient() calls give null
//   Double().postResult = false;     next postTrace() calls return false
//   Double().registeredNames         names registered, in order
//   Double().posts[i].text/.client   documents posted and their client's index
//   Double().deregistered            client indices deregistered, in order
//   Double().registeredNames.size()  counts registerClient() calls;
//   Double().deregistered.size()     counts deregister() calls.

namespace {

TracerDouble& Double() { return TracerDoubleState(); }

}  // namespace

// Reaches the tracker's private conversions.
namespace zel {
class ZelClientTrackerPeer {
 public:
  static std::string Redirtype(ZelClientTracker& t, uint16_t code) {
    return t.redirtypeToString(code);
  }
  static std::string Status(ZelClientTracker& t, uint16_t code) { return t.statusToString(code); }
  static std::string Cids(ZelClientTracker& t, std::vector<uint16_t> cids) {
    return t.cidsToString(std::move(cids));
  }
  static std::string Uint16(ZelClientTracker& t, uint16_t value) { return t.uint16ToString(value); }
  static std::string Convert(ZelClientTracker& t, const Json::Value& value) {
    return t.convertJsonToStr(value);
  }
};
}  // namespace zel

namespace {

using zel::ZelClientTrackDevice;
using zel::ZelClientTracker;
using zel::ZelClientTrackerPeer;
using zel_test::StripLogPrefixes;
using zel_test::TempDir;

// The record's shape is part of the interface: an aggregate with these
// fields, in this order, of these types.
static_assert(std::is_aggregate<ZelClientTrackDevice>::value, "an aggregate");
static_assert(std::is_same<decltype(ZelClientTrackDevice::vid), uint16_t>::value, "vid");
static_assert(std::is_same<decltype(ZelClientTrackDevice::pid), uint16_t>::value, "pid");
static_assert(std::is_same<decltype(ZelClientTrackDevice::productName), std::string>::value,
              "productName");
static_assert(std::is_same<decltype(ZelClientTrackDevice::redirtype), uint16_t>::value,
              "redirtype");
static_assert(std::is_same<decltype(ZelClientTrackDevice::cids), std::vector<uint16_t>>::value,
              "cids");
static_assert(std::is_same<decltype(ZelClientTrackDevice::status), uint16_t>::value, "status");
static_assert(std::is_same<decltype(ZelClientTrackDevice::vmid), uint32_t>::value, "vmid");

using RecordingBackend = zel_test::LineRecorder;

// `text` with the line numbers of the tracker's log lines replaced by "N".
std::string WithoutLineNumbers(const std::string& text) {
  static const std::regex number(R"((zel::ZelClientTracker::\w+) \d+\])");
  return std::regex_replace(text, number, "$1 N]");
}

// The debug line that follows a post of `document`, prefix removed.
std::string DebugLine(bool ok, const std::string& document) {
  return std::string("[][/zel_client_tracker.cpp zel::ZelClientTracker::postTrace N] ") +
         "Debug:zel client [" + (ok ? "1" : "0") + "] trace[" + document + "]\n";
}

const char kRegisterErrorLine[] =
    "[][/zel_client_tracker.cpp zel::ZelClientTracker::Init N] Error:trace registerClient is "
    "null !!!\n";

// Parses `text` as one JSON document; fails the test when it is not one.
Json::Value Parse(const std::string& text) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string errors;
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors))
      << errors << "\n"
      << text;
  return root;
}

// Checks that `text` is a JSON object whose members are exactly `expected`,
// each a JSON string with the expected value.
void ExpectDocument(const std::string& text,
                    const std::vector<std::pair<std::string, std::string>>& expected) {
  const Json::Value root = Parse(text);
  ASSERT_TRUE(root.isObject()) << text;
  std::set<std::string> names;
  for (const auto& member : expected) {
    SCOPED_TRACE(member.first);
    names.insert(member.first);
    ASSERT_TRUE(root.isMember(member.first));
    ASSERT_TRUE(root[member.first].isString());
    EXPECT_EQ(root[member.first].asString(), member.second);
  }
  const std::vector<std::string> actual = root.getMemberNames();
  EXPECT_EQ(std::set<std::string>(actual.begin(), actual.end()), names);
  EXPECT_EQ(actual.size(), expected.size());
}

// Every test runs in a process of its own, with a fresh double, its own log
// directory and a recording backend. The backend stays registered for the
// rest of the process, so it is never destroyed; TearDown() waits until the
// writer thread is done with every line.
class ZelClientTrackerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zel_set_log_path(dir_.path().c_str());
    zel::Logger::GetInstance()->RegisterBackend(&backend_);
  }

  void TearDown() override {
    zel_log_flush();
    // The tracker deregisters only clients that it got from the double.
    EXPECT_EQ(Double().foreignDeregisters, 0);
  }

  // Logs a marker, waits until everything is written and returns the log's
  // text with prefixes removed and the tracker's line numbers as "N". A text
  // of the marker alone means that nothing else was logged.
  std::string LoggedText() { return WithoutLineNumbers(zel_test::LoggedText()); }

  // The lines handed to the backend so far (the marker is not forwarded).
  std::vector<std::string> Forwarded() {
    zel_log_flush();
    std::vector<std::string> lines;
    for (const std::string& line : backend_.lines()) {
      lines.push_back(WithoutLineNumbers(StripLogPrefixes(line)));
    }
    return lines;
  }

  TempDir dir_;
  RecordingBackend& backend_ = *new RecordingBackend;
};

// ---------------------------------------------------------------------------
// The conversions of the device record's codes.

TEST_F(ZelClientTrackerTest, RedirtypeCodesHaveTheirTexts) {
  ZelClientTracker tracker;
  const struct {
    uint16_t code;
    const char* text;
  } cases[] = {
      {2, "DEV_REDIRTYPE_UDISK"},
      {3, "DEV_REDIRTYPE_CAMERA"},
      {4, "DEV_REDIRTYPE_PRINTTER"},
      {5, "DEV_REDIRTYPE_SCANNER"},
      {6, "DEV_REDIRTYPE_PEN"},
      {7, "DEV_REDIRTYPE_ROUTER"},
      {16, "DEV_REDIRTYPE_USBREDIR"},
      {249, "DEV_REDIRTYPE_MOUSE_KEYBOARD"},
      {250, "DEV_REDIRTYPE_MOUSE"},
      {251, "DEV_REDIRTYPE_KEYBOARD"},
      {0, "DEV_REDIRTYPE_UNKNOW"},
      {1, "DEV_REDIRTYPE_UNKNOW"},
      {8, "DEV_REDIRTYPE_UNKNOW"},
      {15, "DEV_REDIRTYPE_UNKNOW"},
      {17, "DEV_REDIRTYPE_UNKNOW"},
      {248, "DEV_REDIRTYPE_UNKNOW"},
      {252, "DEV_REDIRTYPE_UNKNOW"},
      {0x0102, "DEV_REDIRTYPE_UNKNOW"},  // the whole code counts, not its low byte
      {65535, "DEV_REDIRTYPE_UNKNOW"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.code);
    EXPECT_EQ(ZelClientTrackerPeer::Redirtype(tracker, c.code), c.text);
  }
}

TEST_F(ZelClientTrackerTest, EveryUnnamedRedirtypeCodeIsUnknow) {
  ZelClientTracker tracker;
  const std::set<unsigned> named = {2, 3, 4, 5, 6, 7, 16, 249, 250, 251};
  int unknown = 0;
  for (unsigned code = 0; code <= 0xFFFF; ++code) {
    const std::string text = ZelClientTrackerPeer::Redirtype(tracker, static_cast<uint16_t>(code));
    if (named.count(code) == 0) {
      ASSERT_EQ(text, "DEV_REDIRTYPE_UNKNOW") << code;
      ++unknown;
    } else {
      ASSERT_NE(text, "DEV_REDIRTYPE_UNKNOW") << code;
    }
  }
  EXPECT_EQ(unknown, 65536 - 10);
}

TEST_F(ZelClientTrackerTest, StatusCodesHaveTheirTextsAndOthersTheirNumber) {
  ZelClientTracker tracker;
  const struct {
    uint16_t code;
    const char* text;
  } cases[] = {
      {0, "idea"}, {1, "connecting"}, {2, "connected"}, {3, "disconnecting"},
      {4, "4"},    {10, "10"},        {256, "256"},     {65535, "65535"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.code);
    EXPECT_EQ(ZelClientTrackerPeer::Status(tracker, c.code), c.text);
  }
}

TEST_F(ZelClientTrackerTest, ClassCodesBecomeOneTextByTheirLowByte) {
  ZelClientTracker tracker;
  const struct {
    std::vector<uint16_t> cids;
    const char* text;
  } cases[] = {
      {{}, ""},
      {{0x08, 0x0108, 0x01}, "MASS_STORAGE;MASS_STORAGE;AUDIO;"},
      {{2}, "2;"},
      {{0x0100}, "0;"},
      {{0x0E, 0x0E}, "VIDEO;VIDEO;"},
      {{0x01, 0x03, 0x06, 0x07, 0x08, 0x0B, 0x0E},
       "AUDIO;HID;IMAGE;PRINTER;MASS_STORAGE;SMART_CARD;VIDEO;"},
      {{0x0E, 0x01}, "VIDEO;AUDIO;"},  // caller's order, no sorting
      {{0, 9, 255, 0xFFFF}, "0;9;255;255;"},
      {{0x0203, 0xFF06}, "HID;IMAGE;"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(ZelClientTrackerPeer::Cids(tracker, c.cids), c.text);
  }
}

TEST_F(ZelClientTrackerTest, SixteenBitIdsAreFourLowerCaseHexDigits) {
  ZelClientTracker tracker;
  const struct {
    uint16_t value;
    const char* text;
  } cases[] = {
      {0, "0x0000"}, {1, "0x0001"}, {0xABCD, "0xabcd"}, {0x0F0, "0x00f0"}, {0xFFFF, "0xffff"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(ZelClientTrackerPeer::Uint16(tracker, c.value), c.text);
  }
}

TEST_F(ZelClientTrackerTest, ConversionsNeitherNeedNorTouchAClient) {
  ZelClientTracker tracker;
  ZelClientTrackerPeer::Redirtype(tracker, 2);
  ZelClientTrackerPeer::Status(tracker, 0);
  ZelClientTrackerPeer::Cids(tracker, {8});
  ZelClientTrackerPeer::Uint16(tracker, 1);
  EXPECT_TRUE(Double().registeredNames.empty());
  EXPECT_TRUE(Double().posts.empty());
  EXPECT_EQ(LoggedText(), "marker\n");
}

// ---------------------------------------------------------------------------
// Documents.

TEST_F(ZelClientTrackerTest, DeviceEventCarriesTheRecordAsTexts) {
  ZelClientTracker* tracker = ZelClientTracker::GetInstance();
  tracker->Init("1.2.3");
  ZelClientTrackDevice device{0x1234, 1, "Disk", 2, {8}, 1, 7};
  tracker->SendTrackDevice("attach", device, "redirected");

  ASSERT_EQ(Double().posts.size(), 1u);
  const std::string text = Double().posts[0].text;
  EXPECT_EQ(Double().posts[0].client, 0);
  ExpectDocument(text, {{"zelVersion", "1.2.3"},
                        {"eventType", "ZEL_TRACKER_TYPE_DEVICE"},
                        {"event", "attach"},
                        {"productName", "Disk"},
                        {"vid", "0x1234"},
                        {"pid", "0x0001"},
                        {"vmid", "7"},
                        {"redirtype", "DEV_REDIRTYPE_UDISK"},
                        {"class", "MASS_STORAGE;"},
                        {"status", "connecting"},
                        {"message", "redirected"}});
  // JsonCpp's default writer: tab indentation, one member per line, keys in
  // its own order, no newline at the end.
  EXPECT_EQ(text,
            "{\n"
            "\t\"class\" : \"MASS_STORAGE;\",\n"
            "\t\"event\" : \"attach\",\n"
            "\t\"eventType\" : \"ZEL_TRACKER_TYPE_DEVICE\",\n"
            "\t\"message\" : \"redirected\",\n"
            "\t\"pid\" : \"0x0001\",\n"
            "\t\"productName\" : \"Disk\",\n"
            "\t\"redirtype\" : \"DEV_REDIRTYPE_UDISK\",\n"
            "\t\"status\" : \"connecting\",\n"
            "\t\"vid\" : \"0x1234\",\n"
            "\t\"vmid\" : \"7\",\n"
            "\t\"zelVersion\" : \"1.2.3\"\n"
            "}");
  EXPECT_EQ(LoggedText(), DebugLine(true, text) + "marker\n");
}

TEST_F(ZelClientTrackerTest, DeviceEventFieldsAtTheirLimits) {
  ZelClientTracker tracker;
  tracker.Init("v");
  const struct {
    ZelClientTrackDevice device;
    const char* vid;
    const char* pid;
    const char* vmid;
    const char* redirtype;
    const char* cls;
    const char* status;
  } cases[] = {
      {{1, 0, "", 0, {}, 0, 0}, "0x0001", "0x0000", "0", "DEV_REDIRTYPE_UNKNOW", "", "idea"},
      {{0xFFFF, 0xABCD, "p", 251, {0x0103, 0x0E}, 4, 0xFFFFFFFFu},
       "0xffff",
       "0xabcd",
       "4294967295",
       "DEV_REDIRTYPE_KEYBOARD",
       "HID;VIDEO;",
       "4"},
      {{0x00AB, 0x1000, "cam", 3, {0x0E, 0x01}, 2, 123456},
       "0x00ab",
       "0x1000",
       "123456",
       "DEV_REDIRTYPE_CAMERA",
       "VIDEO;AUDIO;",
       "connected"},
      {{2, 3, "pr", 4, {7}, 3, 1},
       "0x0002",
       "0x0003",
       "1",
       "DEV_REDIRTYPE_PRINTTER",
       "PRINTER;",
       "disconnecting"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.vid);
    ZelClientTrackDevice device = c.device;
    const std::size_t before = Double().posts.size();
    tracker.SendTrackDevice("e", device, "m");
    ASSERT_EQ(Double().posts.size(), before + 1);
    ExpectDocument(Double().posts.back().text, {{"zelVersion", "v"},
                                                {"eventType", "ZEL_TRACKER_TYPE_DEVICE"},
                                                {"event", "e"},
                                                {"productName", c.device.productName},
                                                {"vid", c.vid},
                                                {"pid", c.pid},
                                                {"vmid", c.vmid},
                                                {"redirtype", c.redirtype},
                                                {"class", c.cls},
                                                {"status", c.status},
                                                {"message", "m"}});
  }
}

TEST_F(ZelClientTrackerTest, DeviceRecordIsLeftUnchanged) {
  ZelClientTracker tracker;
  ZelClientTrackDevice device{0x1234, 0x5678, "Pen", 6, {0x0108, 3}, 2, 99};
  tracker.SendTrackDevice("e", device, "m");
  ASSERT_EQ(Double().posts.size(), 1u);
  EXPECT_EQ(device.vid, 0x1234);
  EXPECT_EQ(device.pid, 0x5678);
  EXPECT_EQ(device.productName, "Pen");
  EXPECT_EQ(device.redirtype, 6);
  EXPECT_EQ(device.cids, (std::vector<uint16_t>{0x0108, 3}));
  EXPECT_EQ(device.status, 2);
  EXPECT_EQ(device.vmid, 99u);
}

TEST_F(ZelClientTrackerTest, ErrorEventCarriesItsArguments) {
  ZelClientTracker tracker;
  tracker.Init("9.0");
  tracker.SendTrackError("open", "E_BUSY", "device is busy");
  ASSERT_EQ(Double().posts.size(), 1u);
  const std::string text = Double().posts[0].text;
  ExpectDocument(text, {{"zelVersion", "9.0"},
                        {"eventType", "ZEL_TRACKER_TYPE_ERROR"},
                        {"event", "open"},
                        {"errorCode", "E_BUSY"},
                        {"message", "device is busy"}});
  EXPECT_EQ(text,
            "{\n"
            "\t\"errorCode\" : \"E_BUSY\",\n"
            "\t\"event\" : \"open\",\n"
            "\t\"eventType\" : \"ZEL_TRACKER_TYPE_ERROR\",\n"
            "\t\"message\" : \"device is busy\",\n"
            "\t\"zelVersion\" : \"9.0\"\n"
            "}");
  EXPECT_EQ(LoggedText(), DebugLine(true, text) + "marker\n");
}

TEST_F(ZelClientTrackerTest, ErrorEventSendsEmptyTextsAsEmptyStrings) {
  ZelClientTracker tracker;
  tracker.Init("");
  tracker.SendTrackError("", "", "");
  ASSERT_EQ(Double().posts.size(), 1u);
  ExpectDocument(Double().posts[0].text, {{"zelVersion", ""},
                                          {"eventType", "ZEL_TRACKER_TYPE_ERROR"},
                                          {"event", ""},
                                          {"errorCode", ""},
                                          {"message", ""}});
}

TEST_F(ZelClientTrackerTest, TextsWithQuotesAndLineBreaksSurviveTheRoundTrip) {
  ZelClientTracker tracker;
  const std::string event = "say \"hi\"\\";
  const std::string message = "line one\nline two\ttab";
  ZelClientTrackDevice device{5, 6, "name {with} [brackets], \"quotes\"", 2, {8}, 1, 7};
  tracker.SendTrackDevice(event, device, message);
  tracker.SendTrackError(event, "{}", message);
  ASSERT_EQ(Double().posts.size(), 2u);
  const Json::Value first = Parse(Double().posts[0].text);
  EXPECT_EQ(first["event"].asString(), event);
  EXPECT_EQ(first["productName"].asString(), device.productName);
  EXPECT_EQ(first["message"].asString(), message);
  const Json::Value second = Parse(Double().posts[1].text);
  EXPECT_EQ(second["event"].asString(), event);
  EXPECT_EQ(second["errorCode"].asString(), "{}");
  EXPECT_EQ(second["message"].asString(), message);
}

TEST_F(ZelClientTrackerTest, ConvertWritesWithTheDefaultWriter) {
  ZelClientTracker tracker;
  Json::Value value;
  value["b"] = "2";
  value["a"] = "1";
  EXPECT_EQ(ZelClientTrackerPeer::Convert(tracker, value),
            "{\n\t\"a\" : \"1\",\n\t\"b\" : \"2\"\n}");
  EXPECT_EQ(ZelClientTrackerPeer::Convert(tracker, Json::Value()), "null");
}

// ---------------------------------------------------------------------------
// Registration and its life cycle.

TEST_F(ZelClientTrackerTest, SendBeforeInitRegistersAndSendsAnEmptyVersion) {
  ZelClientTracker* tracker = ZelClientTracker::GetInstance();
  tracker->SendTrackError("e", "c", "m");
  EXPECT_EQ(Double().registeredNames, std::vector<std::string>{"zelModule"});
  ASSERT_EQ(Double().posts.size(), 1u);
  EXPECT_EQ(Double().posts[0].client, 0);
  ExpectDocument(Double().posts[0].text, {{"zelVersion", ""},
                                          {"eventType", "ZEL_TRACKER_TYPE_ERROR"},
                                          {"event", "e"},
                                          {"errorCode", "c"},
                                          {"message", "m"}});
  // The client registered by the send is kept for the next one.
  tracker->SendTrackError("e2", "c", "m");
  EXPECT_EQ(Double().registeredNames.size(), 1u);
  ASSERT_EQ(Double().posts.size(), 2u);
  EXPECT_EQ(Double().posts[1].client, 0);
}

TEST_F(ZelClientTrackerTest, InitRegistersUnderZelModule) {
  ZelClientTracker tracker;
  tracker.Init("1.0");
  EXPECT_EQ(Double().registeredNames, std::vector<std::string>{"zelModule"});
  EXPECT_TRUE(Double().posts.empty());
  EXPECT_TRUE(Double().deregistered.empty());
  EXPECT_EQ(LoggedText(), "marker\n");
}

TEST_F(ZelClientTrackerTest, SendAfterUninitRegistersAgainAndPosts) {
  ZelClientTracker tracker;
  tracker.Init("2.0");
  tracker.Uninit();
  EXPECT_EQ(Double().deregistered, std::vector<int>{0});
  tracker.SendTrackError("e", "c", "m");
  EXPECT_EQ(Double().registeredNames, (std::vector<std::string>{"zelModule", "zelModule"}));
  ASSERT_EQ(Double().posts.size(), 1u);
  EXPECT_EQ(Double().posts[0].client, 1);
  // The version survives Uninit.
  EXPECT_EQ(Parse(Double().posts[0].text)["zelVersion"].asString(), "2.0");
}

TEST_F(ZelClientTrackerTest, InitTwiceRegistersTwiceAndNeverDeregistersTheFirstClient) {
  ZelClientTracker tracker;
  tracker.Init("1");
  tracker.Init("2");
  EXPECT_EQ(Double().registeredNames, (std::vector<std::string>{"zelModule", "zelModule"}));
  // The replaced client is overwritten: neither deregistered nor reused.
  EXPECT_TRUE(Double().deregistered.empty());
  tracker.SendTrackError("e", "c", "m");
  ASSERT_EQ(Double().posts.size(), 1u);
  EXPECT_EQ(Double().posts[0].client, 1);
  EXPECT_EQ(Parse(Double().posts[0].text)["zelVersion"].asString(), "2");
  tracker.Uninit();
  EXPECT_EQ(Double().deregistered, std::vector<int>{1});
}

TEST_F(ZelClientTrackerTest, ACopyKeepsPostingToTheClientThatInitReplaced) {
  ZelClientTracker original;
  original.Init("1");
  ZelClientTracker copy(original);
  original.Init("2");
  copy.SendTrackError("e", "c", "m");
  EXPECT_EQ(Double().registeredNames.size(), 2u);
  ASSERT_EQ(Double().posts.size(), 1u);
  EXPECT_EQ(Double().posts[0].client, 0);
  copy.Uninit();
  original.Uninit();
  EXPECT_EQ(Double().deregistered, (std::vector<int>{0, 1}));
}

TEST_F(ZelClientTrackerTest, DeviceWithVidZeroSendsNothing) {
  ZelClientTracker tracker;
  ZelClientTrackDevice device{0, 0x1234, "Disk", 2, {8}, 1, 7};
  tracker.SendTrackDevice("attach", device, "m");
  EXPECT_TRUE(Double().registeredNames.empty());
  EXPECT_TRUE(Double().posts.empty());
  // Also with a client held: still no post.
  tracker.Init("1");
  tracker.SendTrackDevice("attach", device, "m");
  EXPECT_EQ(Double().registeredNames.size(), 1u);
  EXPECT_TRUE(Double().posts.empty());
  EXPECT_EQ(LoggedText(), "marker\n");
  EXPECT_TRUE(Forwarded().empty());
}

TEST_F(ZelClientTrackerTest, UninitWithoutClientDoesNothing) {
  ZelClientTracker tracker;
  tracker.Uninit();
  EXPECT_TRUE(Double().deregistered.empty());
  EXPECT_TRUE(Double().registeredNames.empty());
  EXPECT_EQ(LoggedText(), "marker\n");
}

TEST_F(ZelClientTrackerTest, UninitTwiceDeregistersOnce) {
  ZelClientTracker tracker;
  tracker.Init("1");
  tracker.Uninit();
  tracker.Uninit();
  EXPECT_EQ(Double().deregistered, std::vector<int>{0});
}

TEST_F(ZelClientTrackerTest, FailedRegistrationInInitLogsTheErrorLine) {
  Double().registerFails = true;
  ZelClientTracker tracker;
  tracker.Init("1");
  EXPECT_EQ(Double().registeredNames.size(), 1u);
  // No client: Uninit has nothing to deregister.
  tracker.Uninit();
  EXPECT_TRUE(Double().deregistered.empty());
  EXPECT_EQ(LoggedText(), std::string(kRegisterErrorLine) + "marker\n");
  // Flag 1: the line reaches the backends too.
  EXPECT_EQ(Forwarded(), std::vector<std::string>{kRegisterErrorLine});
}

TEST_F(ZelClientTrackerTest, FailedRegistrationInSendDropsTheDocumentSilently) {
  Double().registerFails = true;
  ZelClientTracker tracker;
  ZelClientTrackDevice device{1, 2, "Disk", 2, {8}, 1, 7};
  tracker.SendTrackError("e", "c", "m");
  tracker.SendTrackDevice("e", device, "m");
  // Each send tries again.
  EXPECT_EQ(Double().registeredNames.size(), 2u);
  EXPECT_TRUE(Double().posts.empty());
  EXPECT_EQ(LoggedText(), "marker\n");
  // Once registration works, the next send posts.
  Double().registerFails = false;
  tracker.SendTrackError("e", "c", "m");
  EXPECT_EQ(Double().registeredNames.size(), 3u);
  EXPECT_EQ(Double().posts.size(), 1u);
}

TEST_F(ZelClientTrackerTest, RefusedPostShowsAsZeroInTheDebugLineWithoutRetry) {
  Double().postResult = false;
  ZelClientTracker tracker;
  tracker.Init("1");
  tracker.SendTrackError("e", "c", "m");
  ASSERT_EQ(Double().posts.size(), 1u);
  const std::string text = Double().posts[0].text;
  EXPECT_EQ(LoggedText(), DebugLine(false, text) + "marker\n");
  EXPECT_EQ(Forwarded(), std::vector<std::string>{DebugLine(false, text)});
}

TEST_F(ZelClientTrackerTest, DebugLineReachesTheBackends) {
  ZelClientTracker tracker;
  ZelClientTrackDevice device{0x1234, 1, "Disk", 2, {8}, 1, 7};
  tracker.SendTrackDevice("attach", device, "redirected");
  ASSERT_EQ(Double().posts.size(), 1u);
  EXPECT_EQ(Forwarded(), std::vector<std::string>{DebugLine(true, Double().posts[0].text)});
}

TEST_F(ZelClientTrackerTest, LevelBelowDebugPostsWithoutTheDebugLine) {
  zel_set_log_level(2);
  ZelClientTracker tracker;
  tracker.Init("1");
  tracker.SendTrackError("e", "c", "m");
  EXPECT_EQ(Double().posts.size(), 1u);
  EXPECT_EQ(LoggedText(), "marker\n");
  EXPECT_TRUE(Forwarded().empty());
}

TEST_F(ZelClientTrackerTest, LevelZeroStillLogsTheRegistrationError) {
  zel_set_log_level(0);
  Double().registerFails = true;
  ZelClientTracker tracker;
  tracker.Init("1");
  EXPECT_EQ(LoggedText(), std::string(kRegisterErrorLine) + "marker\n");
}

TEST_F(ZelClientTrackerTest, NegativeLevelSilencesTheRegistrationError) {
  zel_set_log_level(-1);
  Double().registerFails = true;
  ZelClientTracker tracker;
  tracker.Init("1");
  EXPECT_EQ(Double().registeredNames.size(), 1u);
  EXPECT_EQ(LoggedText(), "marker\n");
  EXPECT_TRUE(Forwarded().empty());
}

// ---------------------------------------------------------------------------
// The singleton and copies.

TEST_F(ZelClientTrackerTest, GetInstanceGivesOneTrackerToEveryThread) {
  std::vector<ZelClientTracker*> seen(8, nullptr);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&seen, i] { seen[i] = ZelClientTracker::GetInstance(); });
  }
  for (std::thread& t : threads) t.join();
  ASSERT_NE(seen[0], nullptr);
  for (ZelClientTracker* tracker : seen) EXPECT_EQ(tracker, seen[0]);
  EXPECT_EQ(ZelClientTracker::GetInstance(), seen[0]);
  // Creating the tracker neither registers nor logs.
  EXPECT_TRUE(Double().registeredNames.empty());
  EXPECT_EQ(LoggedText(), "marker\n");
}

TEST_F(ZelClientTrackerTest, CopiesShareTheClientAndKeepItOnDestruction) {
  ZelClientTracker original;
  original.Init("3.1");
  {
    ZelClientTracker copy(original);
    copy.SendTrackError("e", "c", "m");
    ZelClientTracker assigned;
    assigned = original;
    assigned.SendTrackError("e", "c", "m");
  }
  // Neither the copies' sends nor their destruction registered or
  // deregistered anything.
  EXPECT_EQ(Double().registeredNames.size(), 1u);
  EXPECT_TRUE(Double().deregistered.empty());
  ASSERT_EQ(Double().posts.size(), 2u);
  for (const TracerDouble::Post& post : Double().posts) {
    EXPECT_EQ(post.client, 0);
    EXPECT_EQ(Parse(post.text)["zelVersion"].asString(), "3.1");
  }
  original.Uninit();
  EXPECT_EQ(Double().deregistered, std::vector<int>{0});
}

// ---------------------------------------------------------------------------
// Several threads and copies.

TEST_F(ZelClientTrackerTest, CopiesNeverDeregisterOneClientTwice) {
  ZelClientTracker original;
  original.Init("1");
  ZelClientTracker copy(original);
  ZelClientTracker assigned;
  assigned = original;
  original.Uninit();
  EXPECT_EQ(Double().deregistered, std::vector<int>{0});
  // The copies still hold the pointer of the client that is gone: they
  // neither deregister it again nor post to it.
  copy.Uninit();
  EXPECT_EQ(Double().deregistered, std::vector<int>{0});
  assigned.SendTrackError("e", "c", "m");
  EXPECT_EQ(Double().registeredNames.size(), 2u);
  ASSERT_EQ(Double().posts.size(), 1u);
  EXPECT_EQ(Double().posts[0].client, 1);
  assigned.Uninit();
  assigned.Uninit();
  EXPECT_EQ(Double().deregistered, (std::vector<int>{0, 1}));
}

TEST_F(ZelClientTrackerTest, SendsAndInitsFromManyThreadsAtOnce) {
  zel_set_log_level(2);  // no debug line per post
  ZelClientTracker* tracker = ZelClientTracker::GetInstance();
  tracker->Init("0");
  constexpr int kThreads = 6;
  constexpr int kPerThread = 300;
  constexpr int kInits = 50;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([tracker, t] {
      ZelClientTrackDevice device{1, 2, "Disk", 2, {8}, 1, static_cast<uint32_t>(t)};
      for (int i = 0; i < kPerThread; ++i) {
        if (i % 2 == 0) {
          tracker->SendTrackError("e", std::to_string(t), std::to_string(i));
        } else {
          tracker->SendTrackDevice("e", device, std::to_string(i));
        }
      }
    });
  }
  // Meanwhile the version changes and each Init replaces the client.
  for (int i = 1; i <= kInits; ++i) tracker->Init(std::to_string(i));
  for (std::thread& th : threads) th.join();
  tracker->Uninit();

  TracerDouble& d = Double();
  ASSERT_EQ(d.posts.size(), static_cast<std::size_t>(kThreads * kPerThread));
  // Every client was registered by an Init; those that a later Init
  // replaced are never deregistered, and Uninit deregisters the last one
  // only, once.
  EXPECT_EQ(d.registeredNames.size(), static_cast<std::size_t>(kInits + 1));
  EXPECT_EQ(d.deregistered, std::vector<int>{kInits});
  for (const TracerDouble::Post& post : d.posts) {
    const Json::Value doc = Parse(post.text);
    ASSERT_TRUE(doc.isObject());
    // Whole versions only, never a torn text.
    const int version = std::stoi(doc["zelVersion"].asString());
    EXPECT_GE(version, 0);
    EXPECT_LE(version, kInits);
    EXPECT_EQ(std::to_string(version), doc["zelVersion"].asString());
  }
}

TEST_F(ZelClientTrackerTest, InvalidUtf8AndControlBytesStillGiveValidJson) {
  ZelClientTracker tracker;
  const std::string invalid = "bad \xff\xfe utf8 \xc3 cut \xe2\x82";
  static const char kControl[] = "ctl \x01\x02\x1f\x7f end\0nul";
  const std::string control(kControl, sizeof(kControl) - 1);
  tracker.SendTrackError(invalid, control, "\xc3\xa9t\xc3\xa9");
  ZelClientTrackDevice device{1, 2, control, 2, {8}, 1, 7};
  tracker.SendTrackDevice(control, device, invalid);
  ASSERT_EQ(Double().posts.size(), 2u);
  for (const TracerDouble::Post& post : Double().posts) {
    // Only ASCII (DEL is valid JSON as it is) and the writer's own layout
    // reach the wire: the text is valid UTF-8 and valid JSON whatever the
    // input bytes were.
    for (char c : post.text) {
      const auto byte = static_cast<unsigned char>(c);
      EXPECT_TRUE((byte >= 0x20 && byte <= 0x7f) || c == '\n' || c == '\t') << int(byte);
    }
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    ASSERT_TRUE(
        reader->parse(post.text.data(), post.text.data() + post.text.size(), &root, &errors))
        << errors;
    ASSERT_TRUE(root.isObject());
  }
  // Control bytes come back exactly; valid UTF-8 too.
  const Json::Value error = Parse(Double().posts[0].text);
  EXPECT_EQ(error["errorCode"].asString(), control);
  EXPECT_EQ(error["message"].asString(), "\xc3\xa9t\xc3\xa9");
  const Json::Value deviceDoc = Parse(Double().posts[1].text);
  EXPECT_EQ(deviceDoc["productName"].asString(), control);
}

}  // namespace
