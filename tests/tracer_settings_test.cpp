// SPDX-License-Identifier: MIT

// The tracing client's settings: which targets give a client, and how the
// tuning variables are read (whole numbers, clamped to their ranges, the
// default for what is not one).
#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>

#include <string>

#include "tests/support/http_server.h"
#include "tests/support/test_util.h"
#include "tests/support/tracer_test_util.h"
#include "tracer/tracer_client.h"
#include "tracer/tracer_config.h"

namespace {

using zel_test::Document;
using zel_test::TestHttpServer;
using zel_test::UseEndpoint;

// ---------------------------------------------------------------------------
// Registration.

TEST(TracerClientTest, OnlyUsableTargetsGiveAClient) {
  unsetenv("ZEL_TRACE_ENDPOINT");
  EXPECT_EQ(TracerClient::registerClient("test"), nullptr);
  const struct {
    const char* endpoint;
    bool usable;
  } cases[] = {
      {"", false},
      {"file://", false},
      {"gopher://example", false},
      {"/tmp/trace.jsonl", false},
      {"http://", false},
      {"https://", false},
      {"http:///trace", false},
      {"file:///tmp/zel_tracer_test_unused.jsonl", true},
      {"http://127.0.0.1:9/trace", true},
      {"https://127.0.0.1:9/trace", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.endpoint);
    setenv("ZEL_TRACE_ENDPOINT", c.endpoint, 1);
    TracerClient* client = TracerClient::registerClient("test");
    EXPECT_EQ(client != nullptr, c.usable);
    // Nothing was posted: the client ends at once and writes nothing.
    if (client != nullptr) client->deregister();
  }
  EXPECT_FALSE(zel_test::FileExists("/tmp/zel_tracer_test_unused.jsonl"));
}

// ---------------------------------------------------------------------------
// Settings.

TEST(TracerClientTest, InvalidSettingsTakeTheirDefaults) {
  TestHttpServer server(TestHttpServer::Mode::kClose);
  for (const char* value : {"4x", "0", "-4", " 4", "+4", "4 ", "", "0x4", "4.0"}) {
    SCOPED_TRACE(value);
    UseEndpoint(server.url());
    setenv("ZEL_TRACE_QUEUE_MAX", value, 1);
    setenv("ZEL_TRACE_DEREGISTER_MS", "1", 1);
    TracerClient* client = TracerClient::registerClient("test");
    ASSERT_NE(client, nullptr);
    // The default queue: 10000 documents, not 4.
    int accepted = 0;
    for (int i = 0; i < 10001; ++i) accepted += client->postTrace(Document("q", i)) ? 1 : 0;
    EXPECT_EQ(accepted, 10000);
    client->deregister();
  }
  unsetenv("ZEL_TRACE_QUEUE_MAX");
}

TEST(TracerClientTest, SettingsAreWholeNumbersClampedToTheirRange) {
  using zel_tracer_detail::parseSetting;
  using zel_tracer_detail::SettingRange;
  const SettingRange range{250, 1, 3600000};
  EXPECT_EQ(parseSetting(nullptr, range), 250);
  EXPECT_EQ(parseSetting("", range), 250);
  EXPECT_EQ(parseSetting("1", range), 1);
  EXPECT_EQ(parseSetting("0007", range), 7);
  EXPECT_EQ(parseSetting("3600000", range), 3600000);
  EXPECT_EQ(parseSetting("3600001", range), 3600000);
  EXPECT_EQ(parseSetting("99999999999999999999999999999999", range), 3600000);
  EXPECT_EQ(parseSetting("0", range), 250);
  EXPECT_EQ(parseSetting("-1", range), 250);
  EXPECT_EQ(parseSetting("12abc", range), 250);
  EXPECT_EQ(parseSetting("1e3", range), 250);
  EXPECT_EQ(parseSetting("99999999999999999999999x", range), 250);
  // A setting whose range starts at 0 takes 0.
  EXPECT_EQ(parseSetting("0", zel_tracer_detail::kBatchDelayRange), 0);
  // Every tuning variable is read with its range.
  UseEndpoint("http://127.0.0.1:9/");
  setenv("ZEL_TRACE_QUEUE_BYTES", "99999999999999999999", 1);
  setenv("ZEL_TRACE_BATCH_MAX", "1000000", 1);
  setenv("ZEL_TRACE_BATCH_BYTES", "junk", 1);
  setenv("ZEL_TRACE_RETRY_MS", "500", 1);
  setenv("ZEL_TRACE_RETRY_MAX_MS", "100", 1);
  setenv("ZEL_TRACE_CONNECT_TIMEOUT_MS", "999999999", 1);
  setenv("ZEL_TRACE_GZIP", "yes", 1);
  const zel_tracer_detail::HttpSettings s = zel_tracer_detail::HttpSettings::fromEnvironment();
  EXPECT_EQ(s.queueBytes, 1073741824u);
  EXPECT_EQ(s.batchMax, 100000u);
  EXPECT_EQ(s.batchBytes, 1048576u);
  EXPECT_EQ(s.retryMs, 500);
  EXPECT_EQ(s.retryMaxMs, 500);  // never below the first back-off
  EXPECT_EQ(s.connectTimeoutMs, 600000);
  EXPECT_FALSE(s.gzip);
  unsetenv("ZEL_TRACE_GZIP");
  unsetenv("ZEL_TRACE_QUEUE_BYTES");
  unsetenv("ZEL_TRACE_BATCH_BYTES");
}

TEST(TracerClientTest, UrlsThatLibcurlRejectsGiveNoClient) {
  for (const char* endpoint :
       {"http://exa mple/", "http://127.0.0.1:99999/", "http://user@:80/", "http://a%00b/",
        "http://ex\xff"
        "ample/",
        "http://[::1/"}) {
    SCOPED_TRACE(endpoint);
    setenv("ZEL_TRACE_ENDPOINT", endpoint, 1);
    EXPECT_EQ(TracerClient::registerClient("test"), nullptr);
  }
}

}  // namespace
