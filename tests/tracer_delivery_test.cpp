// SPDX-License-Identifier: MIT

// What becomes of every document the tracing client is given: delivered,
// or counted and said in the application's log. Shared senders, bursts,
// rejected documents and a service that asks to be left alone a while.
#include <dirent.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/http_server.h"
#include "tests/support/test_util.h"
#include "tests/support/tracer_test_util.h"
#include "tracer/tracer_client.h"
#include "utils/logger.h"
#include "utils/zel_client_tracker.h"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using zel_test::TempDir;
using zel_test::TestHttpServer;
using zel_test::UseEndpointWithShortRetries;
using zel_test::WaitFor;

// Sets the client's environment for one test: the target and short timings,
// with the client's own limits for the queue and the batches, and no spool.
void UseEndpoint(const std::string& endpoint) {
  UseEndpointWithShortRetries(endpoint);
  unsetenv("ZEL_TRACE_QUEUE_MAX");
  unsetenv("ZEL_TRACE_QUEUE_BYTES");
  unsetenv("ZEL_TRACE_BATCH_MAX");
  unsetenv("ZEL_TRACE_BATCH_BYTES");
  unsetenv("ZEL_TRACE_SPOOL_DIR");
}

// The threads of this process.
int ThreadCount() { return static_cast<int>(zel_test::ListDir("/proc/self/task").size()); }

// A compact document numbered `n`.
std::string Document(const std::string& tag, int n) {
  return "{\"tag\":\"" + tag + "\",\"n\":" + std::to_string(n) + "}";
}

// The documents `server` took (answered 2xx): a body of one document is
// sent as it is, with its own line breaks; one of several has one per line.
std::size_t DeliveredCount(TestHttpServer& server) {
  std::size_t count = 0;
  for (const TestHttpServer::Request& r : server.requests()) {
    if (r.status < 200 || r.status >= 300) continue;
    const auto type = r.headers.find("content-type");
    if (type != r.headers.end() && type->second == "application/json") {
      ++count;
    } else {
      count += static_cast<std::size_t>(std::count(r.body.begin(), r.body.end(), '\n')) + 1;
    }
  }
  return count;
}

// One "documents dropped" line of the log.
struct DropLine {
  std::string time;  // "hh:mm:ss.mmm"
  unsigned long long count;
  std::string reason;
};

// The log of this test, as set up by LogHere.
class LogHere {
 public:
  LogHere() {
    zel_set_log_path(dir_.path().c_str());
    zel_set_log_level(2);
  }

  // The drop lines written so far, in order; fails the test on a drop line
  // that is not in the call-site form.
  std::vector<DropLine> DropLines() {
    zel_log_flush();
    const std::string text = zel_test::ReadLiveLog(zel::Logger::GetLogPath());
    static const std::regex line(
        R"(\[\d+-\d+ (\d\d:\d\d:\d\d\.\d\d\d)\]\[tid:\d+\] \[\]\[/tracer_client\.cpp \S+ \d+\] )"
        R"(Error:zel trace: (\d+) documents dropped \(([^)]*)\))");
    std::vector<DropLine> lines;
    for (std::string l : zel_test::SplitLines(text)) {
      if (l.find("zel trace:") == std::string::npos) continue;
      while (!l.empty() && (l.back() == '\n' || l.back() == '\r')) l.pop_back();
      std::smatch m;
      EXPECT_TRUE(std::regex_match(l, m, line)) << l;
      if (m.empty()) continue;
      lines.push_back(DropLine{m[1], std::stoull(m[2]), m[3]});
    }
    return lines;
  }

  unsigned long long DroppedInLog(const std::string& reason = "") {
    unsigned long long sum = 0;
    for (const DropLine& l : DropLines()) {
      if (reason.empty() || l.reason == reason) sum += l.count;
    }
    return sum;
  }

 private:
  TempDir dir_;
};

// Milliseconds of a "hh:mm:ss.mmm" time of day.
long long TimeMs(const std::string& t) {
  return ((std::stoll(t.substr(0, 2)) * 60 + std::stoll(t.substr(3, 2))) * 60 +
          std::stoll(t.substr(6, 2))) *
             1000 +
         std::stoll(t.substr(9, 3));
}

// ---------------------------------------------------------------------------
// Nothing dropped without a count and a line.

TEST(TracerDeliveryTest, BurstIntoASlowServerIsDeliveredOrCountedAndSaid) {
  LogHere log;
  TestHttpServer server(TestHttpServer::Mode::kAnswer);
  // A slow service: every request takes 20 ms.
  server.SetHandler([](const TestHttpServer::Request&, std::string&) {
    std::this_thread::sleep_for(milliseconds(20));
    return 200;
  });
  UseEndpoint(server.url());
  setenv("ZEL_TRACE_QUEUE_MAX", "200", 1);
  setenv("ZEL_TRACE_BATCH_MAX", "10", 1);
  TracerClient* client = TracerClient::registerClient("burst");
  ASSERT_NE(client, nullptr);
  constexpr int kSent = 3000;
  int refused = 0;
  for (int i = 0; i < kSent; ++i) refused += client->postTrace(Document("burst", i)) ? 0 : 1;
  client->deregister();
  const std::size_t delivered = server.deliveredDocuments().size();
  ASSERT_GT(refused, 0) << "the burst never filled the queue";
  EXPECT_EQ(delivered + static_cast<std::size_t>(refused), static_cast<std::size_t>(kSent));
  EXPECT_EQ(TracerClient::droppedDocuments(), static_cast<unsigned long long>(refused));
  const std::vector<DropLine> lines = log.DropLines();
  EXPECT_EQ(log.DroppedInLog("queue full"), static_cast<unsigned long long>(refused));
  // At most one line per reason per second.
  for (std::size_t i = 1; i < lines.size(); ++i) {
    if (lines[i].reason != lines[i - 1].reason) continue;
    EXPECT_GE(TimeMs(lines[i].time) - TimeMs(lines[i - 1].time), 1000)
        << lines[i - 1].time << " then " << lines[i].time;
  }
}

TEST(TracerDeliveryTest, DefaultQueueHoldsAStartUpBurstOfTwoThousand) {
  LogHere log;
  TestHttpServer server(TestHttpServer::Mode::kClose);
  UseEndpoint(server.url());
  TracerClient* client = TracerClient::registerClient("burst");
  ASSERT_NE(client, nullptr);
  int accepted = 0;
  for (int i = 0; i < 2000; ++i) accepted += client->postTrace(Document("start", i)) ? 1 : 0;
  EXPECT_EQ(accepted, 2000);
  server.SetMode(TestHttpServer::Mode::kAnswer);
  client->deregister();
  EXPECT_EQ(server.deliveredDocuments().size(), 2000u);
  EXPECT_EQ(TracerClient::droppedDocuments(), 0u);
  EXPECT_TRUE(log.DropLines().empty());
}

TEST(TracerDeliveryTest, DeadlinePassedAndRejectedDocumentsAreCountedAndSaid) {
  LogHere log;
  TestHttpServer server(TestHttpServer::Mode::kAnswer);
  server.ScriptStatuses({404});
  UseEndpoint(server.url());
  setenv("ZEL_TRACE_BATCH_MAX", "1", 1);
  setenv("ZEL_TRACE_DEREGISTER_MS", "300", 1);
  TracerClient* client = TracerClient::registerClient("late");
  ASSERT_NE(client, nullptr);
  EXPECT_TRUE(client->postTrace(Document("not found", 0)));
  ASSERT_TRUE(WaitFor([&] { return server.requests().size() >= 1; }));
  server.SetMode(TestHttpServer::Mode::kClose);
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(client->postTrace(Document("late", i)));
  client->deregister();
  EXPECT_EQ(TracerClient::droppedDocuments(), 6u);
  EXPECT_EQ(log.DroppedInLog("rejected: 404"), 1u);
  EXPECT_EQ(log.DroppedInLog("deregistration deadline passed"), 5u);
}

// ---------------------------------------------------------------------------
// One sender for the clients of one name, target and tuning.

TEST(TracerDeliveryTest, ClientsWithTheSameSettingsShareOneSender) {
  TestHttpServer server(TestHttpServer::Mode::kClose);
  UseEndpoint(server.url());
  setenv("ZEL_TRACE_BATCH_MAX", "1", 1);
  const int before = ThreadCount();
  TracerClient* first = TracerClient::registerClient("shared");
  ASSERT_NE(first, nullptr);
  const int withOne = ThreadCount();
  std::vector<TracerClient*> more;
  for (int i = 0; i < 9; ++i) more.push_back(TracerClient::registerClient("shared"));
  EXPECT_EQ(ThreadCount(), withOne);
  // Another name is another sender.
  TracerClient* other = TracerClient::registerClient("other");
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(ThreadCount(), withOne + 1);
  other->deregister();
  // The first handle goes while its documents wait for the service: the
  // shared sender still delivers them.
  EXPECT_TRUE(first->postTrace(Document("first", 0)));
  const Clock::time_point start = Clock::now();
  first->deregister();
  EXPECT_LT(Clock::now() - start, milliseconds(2000)) << "a handle that is not the last waited";
  server.SetMode(TestHttpServer::Mode::kAnswer);
  for (TracerClient* c : more) EXPECT_TRUE(c->postTrace(Document("more", 1)));
  ASSERT_TRUE(WaitFor([&] { return server.deliveredDocuments().size() >= 10; }));
  EXPECT_EQ(server.deliveredDocuments()[0], Document("first", 0));
  for (TracerClient* c : more) c->deregister();
  EXPECT_TRUE(WaitFor([&] { return ThreadCount() <= before; }));
}

TEST(TracerDeliveryTest, FiftyInitsAddNoThreadsAndLoseNoDocument) {
  LogHere log;
  TestHttpServer server(TestHttpServer::Mode::kClose);
  UseEndpoint(server.url());
  setenv("ZEL_TRACE_DEREGISTER_MS", "300", 1);
  zel::ZelClientTracker tracker;
  tracker.Init("0");
  const int afterFirst = ThreadCount();
  // The service is down while the program starts and Inits again and
  // again, posting between them.
  for (int i = 1; i < 50; ++i) {
    tracker.SendTrackError("init", std::to_string(i), "before");
    tracker.Init(std::to_string(i));
  }
  EXPECT_LE(ThreadCount(), afterFirst + 2);
  server.SetMode(TestHttpServer::Mode::kAnswer);
  for (int i = 0; i < 10; ++i) tracker.SendTrackError("after", std::to_string(i), "after");
  ASSERT_TRUE(WaitFor([&] { return DeliveredCount(server) >= 59; })) << DeliveredCount(server);
  EXPECT_LE(ThreadCount(), afterFirst + 2);
  tracker.Uninit();
  EXPECT_EQ(DeliveredCount(server), 59u);
  EXPECT_EQ(TracerClient::droppedDocuments(), 0u);
}

// ---------------------------------------------------------------------------
// One bad document never holds back the others.

TEST(TracerDeliveryTest, PoisonDocumentIsSplitOutAndTheOthersAreDelivered) {
  LogHere log;
  TestHttpServer server(TestHttpServer::Mode::kAnswer);
  // As a database answers a batch holding a document it cannot insert:
  // 500 to the whole request, whatever else it holds.
  server.SetHandler([](const TestHttpServer::Request& r, std::string&) {
    return r.body.find("\"poison\"") == std::string::npos ? 200 : 500;
  });
  UseEndpoint(server.url());
  setenv("ZEL_TRACE_BATCH_MAX", "100", 1);
  setenv("ZEL_TRACE_BATCH_DELAY_MS", "60000", 1);
  setenv("ZEL_TRACE_DEREGISTER_MS", "3000", 1);
  TracerClient* client = TracerClient::registerClient("poison");
  ASSERT_NE(client, nullptr);
  for (int i = 0; i < 100; ++i) {
    EXPECT_TRUE(client->postTrace(i == 37 ? Document("poison", i) : Document("good", i)));
  }
  ASSERT_TRUE(WaitFor([&] { return DeliveredCount(server) >= 99; })) << DeliveredCount(server);
  client->deregister();
  EXPECT_EQ(DeliveredCount(server), 99u);
  for (const std::string& d : server.deliveredDocuments()) {
    EXPECT_EQ(d.find("poison"), std::string::npos);
  }
  EXPECT_EQ(TracerClient::droppedDocuments(), 1u);
  EXPECT_EQ(log.DroppedInLog("rejected: 500"), 1u);
  // Halving: a few requests per level, not one per document.
  EXPECT_LE(server.requests().size(), 20u);
}

TEST(TracerDeliveryTest, ContentRefusalsAreSplitAndOutagesRetriedWhole) {
  LogHere log;
  TestHttpServer server(TestHttpServer::Mode::kAnswer);
  // 401, 403, 502, 503 and 504 to the batch of four: retried whole; then
  // 422 to the batch and 413 to its first half: split, the second half and
  // the first half's halves delivered.
  server.ScriptStatuses({401, 403, 502, 503, 504, 422, 413});
  UseEndpoint(server.url());
  setenv("ZEL_TRACE_BATCH_MAX", "4", 1);
  setenv("ZEL_TRACE_BATCH_DELAY_MS", "60000", 1);
  TracerClient* client = TracerClient::registerClient("split");
  ASSERT_NE(client, nullptr);
  std::vector<std::string> sent;
  for (int i = 0; i < 4; ++i) {
    sent.push_back(Document("doc", i));
    EXPECT_TRUE(client->postTrace(sent.back()));
  }
  ASSERT_TRUE(WaitFor([&] { return DeliveredCount(server) >= 4; }));
  client->deregister();
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 10u);
  const std::string whole = sent[0] + "\n" + sent[1] + "\n" + sent[2] + "\n" + sent[3];
  for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(requests[i].body, whole) << i;
  EXPECT_EQ(requests[6].body, sent[0] + "\n" + sent[1]);
  EXPECT_EQ(requests[7].body, sent[0]);
  EXPECT_EQ(requests[8].body, sent[1]);
  EXPECT_EQ(requests[9].body, sent[2] + "\n" + sent[3]);
  EXPECT_EQ(server.deliveredDocuments(), sent);
  EXPECT_EQ(TracerClient::droppedDocuments(), 0u);
}

TEST(TracerDeliveryTest, RetryAfterOnTooManyRequestsAndUnavailableIsHonoured) {
  TestHttpServer server(TestHttpServer::Mode::kAnswer);
  std::atomic<int> answered{0};
  server.SetHandler([&](const TestHttpServer::Request&, std::string& headers) {
    const int n = answered++;
    if (n == 0) {
      headers = "Retry-After: 2\r\n";
      return 429;
    }
    if (n == 1) {
      headers = "Retry-After: 1\r\n";
      return 503;
    }
    return 200;
  });
  UseEndpoint(server.url());
  setenv("ZEL_TRACE_BATCH_MAX", "1", 1);
  TracerClient* client = TracerClient::registerClient("slow down");
  ASSERT_NE(client, nullptr);
  EXPECT_TRUE(client->postTrace(Document("later", 0)));
  ASSERT_TRUE(WaitFor([&] { return server.delivered().size() >= 1; }, milliseconds(20000)));
  client->deregister();
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_GE(requests[1].received - requests[0].received, milliseconds(2000));
  EXPECT_GE(requests[2].received - requests[1].received, milliseconds(1000));
  EXPECT_LT(requests[2].received - requests[0].received, milliseconds(15000));
}

}  // namespace
