#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>
#if defined(ZEL_TEST_ON_WINDOWS)
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/test_util.h"
#include "tracer/tracer_client.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using zel_test::ReadFile;
using zel_test::SplitLines;
using zel_test::TempDir;
using zel_test::WaitFor;

// The few socket calls whose types differ between Winsock and POSIX.
#if defined(ZEL_TEST_ON_WINDOWS)
using Socket = SOCKET;
using PollFd = WSAPOLLFD;
const Socket kNoSocket = INVALID_SOCKET;
constexpr int kSendFlags = 0;
int PollOne(PollFd* p, int timeoutMs) { return WSAPoll(p, 1, timeoutMs); }
void CloseSocket(Socket s) { closesocket(s); }
// Winsock works only between WSAStartup and WSACleanup; the test server may
// open its socket before the tracing client has started Winsock itself.
const bool kWinsockStarted = [] {
  WSADATA data;
  return WSAStartup(MAKEWORD(2, 2), &data) == 0;
}();
#else
using Socket = int;
using PollFd = pollfd;
const Socket kNoSocket = -1;
constexpr int kSendFlags = MSG_NOSIGNAL;
int PollOne(PollFd* p, int timeoutMs) { return poll(p, 1, timeoutMs); }
void CloseSocket(Socket s) { close(s); }
#endif

// ---------------------------------------------------------------------------
// A small HTTP/1.1 server on 127.0.0.1, on a port of its own choosing, that
// records what it is sent. Its behaviour can be switched while it runs:
//   kRefuse  the port is bound but nobody listens: connections are refused;
//   kClose   connections are accepted and closed at once, unanswered;
//   kSilent  requests are read and recorded but never answered;
//   kAnswer  requests are recorded and answered, by default with 200; a
//            script of status codes can be given for the next answers.
// One thread accepts, one thread serves each connection; all are stopped and
// joined by the destructor.
class TestHttpServer {
 public:
  enum class Mode { kRefuse, kClose, kSilent, kAnswer };

  struct Request {
    std::string method;
    std::string target;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
    int status;  // the answer given; 0 when none
    Clock::time_point received;
  };

  explicit TestHttpServer(Mode mode) : mode_(mode) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_NE(fd_, kNoSocket);
    const int one = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&one), sizeof(one));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    socklen_t len = sizeof(addr);
    EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    port_ = ntohs(addr.sin_port);
    if (mode != Mode::kRefuse) startListening();
  }

  ~TestHttpServer() {
    stop_ = true;
    if (acceptThread_.joinable()) acceptThread_.join();
    std::vector<std::thread> threads;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      threads.swap(connectionThreads_);
    }
    for (std::thread& t : threads) t.join();
    CloseSocket(fd_);
  }

  TestHttpServer(const TestHttpServer&) = delete;
  TestHttpServer& operator=(const TestHttpServer&) = delete;

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/trace"; }

  // Switches the behaviour for connections and requests from now on.
  void SetMode(Mode mode) {
    std::lock_guard<std::mutex> lock(mutex_);
    const bool listen = mode_ == Mode::kRefuse && mode != Mode::kRefuse;
    mode_ = mode;
    if (listen) startListeningLocked();
  }

  // The status codes of the next answers, in order; 200 after them.
  void ScriptStatuses(const std::vector<int>& statuses) {
    std::lock_guard<std::mutex> lock(mutex_);
    statuses_.assign(statuses.begin(), statuses.end());
  }

  int connections() {
    std::lock_guard<std::mutex> lock(mutex_);
    return connections_;
  }

  std::vector<Request> requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

  // The bodies of the requests answered with a 2xx status, in arrival order.
  std::vector<std::string> delivered() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> bodies;
    for (const Request& r : requests_) {
      if (r.status >= 200 && r.status < 300) bodies.push_back(r.body);
    }
    return bodies;
  }

 private:
  void startListening() {
    std::lock_guard<std::mutex> lock(mutex_);
    startListeningLocked();
  }

  void startListeningLocked() {
    EXPECT_EQ(listen(fd_, 64), 0);
    acceptThread_ = std::thread(&TestHttpServer::acceptLoop, this);
  }

  void acceptLoop() {
    while (!stop_) {
      PollFd p{fd_, POLLIN, 0};
      if (PollOne(&p, 20) <= 0) continue;
      const Socket conn = accept(fd_, nullptr, nullptr);
      if (conn == kNoSocket) continue;
      std::lock_guard<std::mutex> lock(mutex_);
      ++connections_;
      if (mode_ == Mode::kClose) {
        CloseSocket(conn);
        continue;
      }
      connectionThreads_.emplace_back(&TestHttpServer::serve, this, conn);
    }
  }

  // Reads into `buffer` until it holds `size` bytes; false when the peer
  // closed or the server stops first.
  bool readAtLeast(Socket conn, std::string& buffer, std::size_t size) {
    constexpr int kChunkSize = 65536;
    char chunk[kChunkSize];
    while (buffer.size() < size) {
      PollFd p{conn, POLLIN, 0};
      if (stop_) return false;
      if (PollOne(&p, 20) <= 0) continue;
      const auto n = recv(conn, chunk, kChunkSize, 0);
      if (n <= 0) return false;
      buffer.append(chunk, static_cast<std::size_t>(n));
    }
    return true;
  }

  // Serves one connection: request after request until the peer closes.
  void serve(Socket conn) {
    std::string buffer;
    for (;;) {
      std::size_t end;
      while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
        if (!readAtLeast(conn, buffer, buffer.size() + 1)) {
          CloseSocket(conn);
          return;
        }
      }
      Request request = parseHead(buffer.substr(0, end));
      buffer.erase(0, end + 4);
      const std::size_t length = static_cast<std::size_t>(std::stoul(
          request.headers["content-length"].empty() ? "0" : request.headers["content-length"]));
      if (!readAtLeast(conn, buffer, length)) {
        CloseSocket(conn);
        return;
      }
      request.body = buffer.substr(0, length);
      buffer.erase(0, length);
      request.received = Clock::now();

      std::unique_lock<std::mutex> lock(mutex_);
      if (mode_ != Mode::kAnswer) {
        // Recorded, never answered: wait for the peer to give up.
        requests_.push_back(request);
        lock.unlock();
        std::string ignored;
        while (readAtLeast(conn, ignored, ignored.size() + 1)) {
        }
        CloseSocket(conn);
        return;
      }
      request.status = 200;
      if (!statuses_.empty()) {
        request.status = statuses_.front();
        statuses_.pop_front();
      }
      requests_.push_back(request);
      const std::string answer =
          "HTTP/1.1 " + std::to_string(request.status) + " Status\r\nContent-Length: 0\r\n\r\n";
      lock.unlock();
      send(conn, answer.data(), static_cast<int>(answer.size()), kSendFlags);
    }
  }

  static Request parseHead(const std::string& head) {
    Request request{};
    std::size_t pos = head.find("\r\n");
    const std::string line = head.substr(0, pos);
    const std::size_t space = line.find(' ');
    request.method = line.substr(0, space);
    request.target = line.substr(space + 1, line.find(' ', space + 1) - space - 1);
    while (pos != std::string::npos) {
      const std::size_t start = pos + 2;
      pos = head.find("\r\n", start);
      const std::string field = head.substr(start, pos == std::string::npos ? pos : pos - start);
      const std::size_t colon = field.find(':');
      if (colon == std::string::npos) continue;
      std::string name = field.substr(0, colon);
      std::transform(name.begin(), name.end(), name.begin(),
                     [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
      std::string value = field.substr(colon + 1);
      value.erase(0, value.find_first_not_of(' '));
      request.headers[name] = value;
    }
    return request;
  }

  Socket fd_ = kNoSocket;
  uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread acceptThread_;

  std::mutex mutex_;
  Mode mode_;                                   // guarded by mutex_
  std::deque<int> statuses_;                    // guarded by mutex_
  int connections_ = 0;                         // guarded by mutex_
  std::vector<Request> requests_;               // guarded by mutex_
  std::vector<std::thread> connectionThreads_;  // guarded by mutex_
};

// Sets the client's environment for one test: the target and short timings.
void UseEndpoint(const std::string& endpoint) {
  setenv("ZEL_TRACE_ENDPOINT", endpoint.c_str(), 1);
  setenv("ZEL_TRACE_CONNECT_TIMEOUT_MS", "2000", 1);
  setenv("ZEL_TRACE_TIMEOUT_MS", "2000", 1);
  setenv("ZEL_TRACE_RETRY_MS", "20", 1);
  setenv("ZEL_TRACE_RETRY_MAX_MS", "50", 1);
  setenv("ZEL_TRACE_DEREGISTER_MS", "10000", 1);
}

// A compact JSON document numbered `n`, `padding` characters long or more.
std::string Document(const std::string& tag, int n, std::size_t padding = 0) {
  Json::Value value;
  value["tag"] = tag;
  value["n"] = std::to_string(n);
  value["pad"] = std::string(padding, 'x');
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

// Parses `text` as one JSON document; fails the test when it is not one.
Json::Value Parse(const std::string& text) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string errors;
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors)) << errors;
  return root;
}

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
// file:// target.

TEST(TracerClientTest, FileTargetGetsOneWholeDocumentPerLine) {
  TempDir dir;
  const std::string path = dir.path() + "trace.jsonl";
  setenv("ZEL_TRACE_ENDPOINT", ("file://" + path).c_str(), 1);
  TracerClient* client = TracerClient::registerClient("test");
  ASSERT_NE(client, nullptr);
  EXPECT_TRUE(client->postTrace("{\"a\":\"1\"}"));
  EXPECT_TRUE(client->postTrace("{\n\t\"b\" : \"2\"\n}"));
  client->deregister();
  EXPECT_EQ(ReadFile(path), "{\"a\":\"1\"}\n{\n\t\"b\" : \"2\"\n}\n");
}

TEST(TracerClientTest, FileTargetAppendsToAnExistingFile) {
  TempDir dir;
  const std::string path = dir.path() + "trace.jsonl";
  zel_test::WriteFile(path, "{}\n");
  setenv("ZEL_TRACE_ENDPOINT", ("file://" + path).c_str(), 1);
  TracerClient* client = TracerClient::registerClient("test");
  ASSERT_NE(client, nullptr);
  EXPECT_TRUE(client->postTrace("{\"c\":\"3\"}"));
  client->deregister();
  EXPECT_EQ(ReadFile(path), "{}\n{\"c\":\"3\"}\n");
}

TEST(TracerClientTest, UnwritableFileTargetRefusesThePost) {
  TempDir dir;
  setenv("ZEL_TRACE_ENDPOINT", ("file://" + dir.path() + "missing/trace.jsonl").c_str(), 1);
  TracerClient* client = TracerClient::registerClient("test");
  ASSERT_NE(client, nullptr);
  EXPECT_FALSE(client->postTrace("{}"));
  client->deregister();
}

TEST(TracerClientTest, FileTargetWrittenByFourThreadsKeepsEveryDocumentWhole) {
  TempDir dir;
  const std::string path = dir.path() + "trace.jsonl";
  setenv("ZEL_TRACE_ENDPOINT", ("file://" + path).c_str(), 1);
  TracerClient* client = TracerClient::registerClient("test");
  ASSERT_NE(client, nullptr);
  constexpr int kThreads = 4;
  constexpr int kPerThread = 200;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([client, t] {
      // Larger than a stdio buffer, so that a torn write would show.
      for (int i = 0; i < kPerThread; ++i) {
        EXPECT_TRUE(client->postTrace(Document(std::to_string(t), i, 9000)));
      }
    });
  }
  for (std::thread& t : threads) t.join();
  client->deregister();

  const std::vector<std::string> lines = SplitLines(ReadFile(path));
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kPerThread));
  std::vector<int> next(kThreads, 0);
  for (const std::string& line : lines) {
    ASSERT_EQ(line.back(), '\n');
    const Json::Value doc = Parse(line);
    ASSERT_TRUE(doc.isObject()) << line.substr(0, 80);
    const int t = std::stoi(doc["tag"].asString());
    ASSERT_GE(t, 0);
    ASSERT_LT(t, kThreads);
    // Each thread's documents appear in its own posting order.
    EXPECT_EQ(std::stoi(doc["n"].asString()), next[static_cast<std::size_t>(t)]++);
    EXPECT_EQ(line, Document(doc["tag"].asString(), std::stoi(doc["n"].asString()), 9000) + "\n");
  }
  for (int n : next) EXPECT_EQ(n, kPerThread);
}

// ---------------------------------------------------------------------------
// http:// target.

TEST(TracerClientTest, HttpTargetDeliversDocumentsIntactAndInOrder) {
  TestHttpServer server(TestHttpServer::Mode::kAnswer);
  UseEndpoint(server.url());
  TracerClient* client = TracerClient::registerClient("zelModule");
  ASSERT_NE(client, nullptr);

  std::vector<std::string> sent;
  sent.reserve(53);
  for (int i = 0; i < 50; ++i) sent.push_back(Document("order", i));
  sent.push_back("{\n\t\"event\" : \"tabs\\tand\\nbreaks\",\n\t\"x\" : \"\xc3\xa9\"\n}");
  sent.push_back(Document("large", 0, 300000));
  sent.push_back("");
  for (const std::string& text : sent) EXPECT_TRUE(client->postTrace(text));

  ASSERT_TRUE(WaitFor([&] { return server.delivered().size() >= sent.size(); }));
  client->deregister();
  EXPECT_EQ(server.delivered(), sent);
  for (const TestHttpServer::Request& r : server.requests()) {
    EXPECT_EQ(r.method, "POST");
    EXPECT_EQ(r.target, "/trace");
    EXPECT_EQ(r.headers.at("content-type"), "application/json");
    EXPECT_EQ(r.headers.at("x-trace-client"), "zelModule");
    EXPECT_EQ(r.headers.at("content-length"), std::to_string(r.body.size()));
  }
}

TEST(TracerClientTest, HttpTargetKeepsEachThreadsOrder) {
  TestHttpServer server(TestHttpServer::Mode::kAnswer);
  UseEndpoint(server.url());
  TracerClient* client = TracerClient::registerClient("test");
  ASSERT_NE(client, nullptr);
  constexpr int kThreads = 4;
  constexpr int kPerThread = 50;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([client, t] {
      for (int i = 0; i < kPerThread; ++i) {
        EXPECT_TRUE(client->postTrace(Document(std::to_string(t), i)));
      }
    });
  }
  for (std::thread& t : threads) t.join();
  ASSERT_TRUE(WaitFor([&] {
    return server.delivered().size() >= static_cast<std::size_t>(kThreads * kPerThread);
  }));
  client->deregister();
  const std::vector<std::string> bodies = server.delivered();
  ASSERT_EQ(bodies.size(), static_cast<std::size_t>(kThreads * kPerThread));
  std::vector<int> next(kThreads, 0);
  for (const std::string& body : bodies) {
    const Json::Value doc = Parse(body);
    const int t = std::stoi(doc["tag"].asString());
    EXPECT_EQ(std::stoi(doc["n"].asString()), next[static_cast<std::size_t>(t)]++);
  }
}

TEST(TracerClientTest, DocumentsPostedWhileTheServiceIsDownArriveLater) {
  TestHttpServer server(TestHttpServer::Mode::kRefuse);
  UseEndpoint(server.url());
  TracerClient* client = TracerClient::registerClient("test");
  ASSERT_NE(client, nullptr);
  std::vector<std::string> sent;
  for (int i = 0; i < 10; ++i) {
    sent.push_back(Document("down", i));
    EXPECT_TRUE(client->postTrace(sent.back()));
  }
  // Connections refused; then accepted but dropped without an answer. The
  // client keeps trying with back-off.
  server.SetMode(TestHttpServer::Mode::kClose);
  ASSERT_TRUE(WaitFor([&] { return server.connections() >= 3; }));
  EXPECT_TRUE(server.delivered().empty());
  for (int i = 10; i < 20; ++i) {
    sent.push_back(Document("down", i));
    EXPECT_TRUE(client->postTrace(sent.back()));
  }
  // The service comes up: everything arrives, once each, in order.
  server.SetMode(TestHttpServer::Mode::kAnswer);
  ASSERT_TRUE(WaitFor([&] { return server.delivered().size() >= sent.size(); }));
  client->deregister();
  EXPECT_EQ(server.delivered(), sent);
}

TEST(TracerClientTest, ServerErrorsAreRetriedAndClientErrorsDropTheDocument) {
  TestHttpServer server(TestHttpServer::Mode::kAnswer);
  server.ScriptStatuses({503, 429, 400});
  UseEndpoint(server.url());
  TracerClient* client = TracerClient::registerClient("test");
  ASSERT_NE(client, nullptr);
  const std::string first = Document("first", 1);
  const std::string second = Document("second", 2);
  EXPECT_TRUE(client->postTrace(first));
  EXPECT_TRUE(client->postTrace(second));
  ASSERT_TRUE(WaitFor([&] { return server.requests().size() >= 4; }));
  client->deregister();
  const std::vector<TestHttpServer::Request> requests = server.requests();
  ASSERT_EQ(requests.size(), 4u);
  const struct {
    const std::string* body;
    int status;
  } expected[] = {{&first, 503}, {&first, 429}, {&first, 400}, {&second, 200}};
  for (std::size_t i = 0; i < requests.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(requests[i].body, *expected[i].body);
    EXPECT_EQ(requests[i].status, expected[i].status);
  }
}

TEST(TracerClientTest, FullQueueRefusesPostsAndKeepsWhatItHolds) {
  TestHttpServer server(TestHttpServer::Mode::kClose);
  UseEndpoint(server.url());
  setenv("ZEL_TRACE_QUEUE_MAX", "4", 1);
  TracerClient* client = TracerClient::registerClient("test");
  ASSERT_NE(client, nullptr);
  std::vector<std::string> kept;
  for (int i = 0; i < 4; ++i) {
    kept.push_back(Document("kept", i));
    EXPECT_TRUE(client->postTrace(kept.back()));
  }
  ASSERT_TRUE(WaitFor([&] { return server.connections() >= 1; }));
  // The queue holds four documents, the one being retried included: every
  // further post is refused, and none of them is kept.
  int refused = 0;
  for (int i = 0; i < 20000; ++i) {
    if (!client->postTrace(Document("refused", i, 1000))) ++refused;
  }
  EXPECT_EQ(refused, 20000);
  server.SetMode(TestHttpServer::Mode::kAnswer);
  ASSERT_TRUE(WaitFor([&] { return server.delivered().size() >= kept.size(); }));
  EXPECT_EQ(server.delivered(), kept);
  // With room again, posts are accepted.
  const std::string after = Document("after", 0);
  EXPECT_TRUE(client->postTrace(after));
  ASSERT_TRUE(WaitFor([&] { return server.delivered().size() >= kept.size() + 1; }));
  client->deregister();
  kept.push_back(after);
  EXPECT_EQ(server.delivered(), kept);
}

TEST(TracerClientTest, QueueByteLimitRefusesWhatDoesNotFit) {
  TestHttpServer server(TestHttpServer::Mode::kClose);
  UseEndpoint(server.url());
  setenv("ZEL_TRACE_QUEUE_BYTES", "100", 1);
  TracerClient* client = TracerClient::registerClient("test");
  ASSERT_NE(client, nullptr);
  EXPECT_FALSE(client->postTrace(std::string(101, 'x')));  // never fits
  const std::string first(60, 'a');
  EXPECT_TRUE(client->postTrace(first));
  EXPECT_FALSE(client->postTrace(std::string(41, 'b')));  // 101 bytes in all
  const std::string second(40, 'c');
  EXPECT_TRUE(client->postTrace(second));  // exactly 100
  server.SetMode(TestHttpServer::Mode::kAnswer);
  ASSERT_TRUE(WaitFor([&] { return server.delivered().size() >= 2; }));
  client->deregister();
  EXPECT_EQ(server.delivered(), (std::vector<std::string>{first, second}));
}

TEST(TracerClientTest, DeregisterSendsWhatIsQueued) {
  TestHttpServer server(TestHttpServer::Mode::kClose);
  UseEndpoint(server.url());
  // After the first failure the sender would wait a minute before trying
  // again; deregister() must not wait for that.
  setenv("ZEL_TRACE_RETRY_MS", "60000", 1);
  setenv("ZEL_TRACE_RETRY_MAX_MS", "60000", 1);
  TracerClient* client = TracerClient::registerClient("test");
  ASSERT_NE(client, nullptr);
  std::vector<std::string> sent;
  for (int i = 0; i < 20; ++i) {
    sent.push_back(Document("queued", i));
    EXPECT_TRUE(client->postTrace(sent.back()));
  }
  ASSERT_TRUE(WaitFor([&] { return server.connections() >= 1; }));
  server.SetMode(TestHttpServer::Mode::kAnswer);
  const Clock::time_point start = Clock::now();
  client->deregister();
  EXPECT_LT(Clock::now() - start, milliseconds(30000));
  // Everything arrived before deregister() returned.
  EXPECT_EQ(server.delivered(), sent);
}

TEST(TracerClientTest, DeregisterGivesUpAtItsTimeLimit) {
  TestHttpServer server(TestHttpServer::Mode::kSilent);
  UseEndpoint(server.url());
  setenv("ZEL_TRACE_TIMEOUT_MS", "60000", 1);
  setenv("ZEL_TRACE_DEREGISTER_MS", "300", 1);
  TracerClient* client = TracerClient::registerClient("test");
  ASSERT_NE(client, nullptr);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(client->postTrace(Document("stuck", i)));
  ASSERT_TRUE(WaitFor([&] { return server.requests().size() >= 1; }));
  const Clock::time_point start = Clock::now();
  client->deregister();
  const Clock::duration took = Clock::now() - start;
  // It kept trying until the limit, then cut the hanging request off long
  // before the request timeout.
  EXPECT_GE(took, milliseconds(300));
  EXPECT_LT(took, milliseconds(10000));
  EXPECT_TRUE(server.delivered().empty());
}

TEST(TracerClientTest, UnansweredRequestTimesOutAndIsRetried) {
  TestHttpServer server(TestHttpServer::Mode::kSilent);
  UseEndpoint(server.url());
  setenv("ZEL_TRACE_TIMEOUT_MS", "300", 1);
  TracerClient* client = TracerClient::registerClient("test");
  ASSERT_NE(client, nullptr);
  const std::string text = Document("silent", 0);
  const Clock::time_point posted = Clock::now();
  EXPECT_TRUE(client->postTrace(text));
  ASSERT_TRUE(WaitFor([&] { return server.requests().size() >= 2; }));
  const std::vector<TestHttpServer::Request> requests = server.requests();
  // The retry comes only after the first request's timeout.
  EXPECT_GE(requests[1].received - posted, milliseconds(300));
  EXPECT_EQ(requests[0].body, text);
  EXPECT_EQ(requests[1].body, text);
  // Once the service answers, the document is delivered exactly once.
  server.SetMode(TestHttpServer::Mode::kAnswer);
  ASSERT_TRUE(WaitFor([&] { return server.delivered().size() >= 1; }));
  client->deregister();
  EXPECT_EQ(server.delivered(), std::vector<std::string>{text});
}

TEST(TracerClientTest, DeregisterWithNothingQueuedReturnsAtOnce) {
  TestHttpServer server(TestHttpServer::Mode::kAnswer);
  UseEndpoint(server.url());
  setenv("ZEL_TRACE_DEREGISTER_MS", "60000", 1);
  TracerClient* client = TracerClient::registerClient("test");
  ASSERT_NE(client, nullptr);
  const Clock::time_point start = Clock::now();
  client->deregister();
  EXPECT_LT(Clock::now() - start, milliseconds(10000));
  // A client sends nothing of its own.
  EXPECT_TRUE(server.requests().empty());
}

}  // namespace
