// SPDX-License-Identifier: MIT

// A small HTTP/1.1 test server for the tracing client's tests, kept here
// until the tests' shared support folder offers the same server.
#ifndef ZEL_TESTS_SUPPORT_HTTP_SERVER_TMP_H_
#define ZEL_TESTS_SUPPORT_HTTP_SERVER_TMP_H_

#include <gtest/gtest.h>
#include <zlib.h>
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
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zel_http_test {

using Clock = std::chrono::steady_clock;

// The few socket calls whose types differ between Winsock and POSIX.
#if defined(ZEL_TEST_ON_WINDOWS)
using Socket = SOCKET;
using PollFd = WSAPOLLFD;
inline const Socket kNoSocket = INVALID_SOCKET;
constexpr int kSendFlags = 0;
inline int PollOne(PollFd* p, int timeoutMs) { return WSAPoll(p, 1, timeoutMs); }
inline void CloseSocket(Socket s) { closesocket(s); }
// Winsock works only between WSAStartup and WSACleanup; the test server may
// open its socket before the tracing client has started Winsock itself.
inline const bool kWinsockStarted = [] {
  WSADATA data;
  return WSAStartup(MAKEWORD(2, 2), &data) == 0;
}();
#else
using Socket = int;
using PollFd = pollfd;
inline const Socket kNoSocket = -1;
constexpr int kSendFlags = MSG_NOSIGNAL;
inline int PollOne(PollFd* p, int timeoutMs) { return poll(p, 1, timeoutMs); }
inline void CloseSocket(Socket s) { close(s); }
#endif

// ---------------------------------------------------------------------------
// A small HTTP/1.1 server on 127.0.0.1, on a port of its own choosing, that
// records what it is sent. Its behaviour can be switched while it runs:
//   kRefuse  the port is bound but nobody listens: connections are refused;
//   kClose   connections are accepted and closed at once, unanswered;
//   kSilent  requests are read and recorded but never answered;
//   kAnswer  requests are recorded and answered, by default with 200; a
//            script of status codes can be given for the next answers.
// A body sent with "Content-Encoding: gzip" is recorded decompressed.
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

  // Every later answer carries "Location: <url>" (for redirects).
  void SetLocation(const std::string& url) {
    std::lock_guard<std::mutex> lock(mutex_);
    location_ = url;
  }

  // Decides the answers that no scripted status decides: `handler` gets
  // the request (its body decompressed) and returns the status; header
  // lines it appends to its second argument ("Name: value\r\n") go with
  // the answer. Called on the connection's thread, without the server's
  // lock.
  using Handler = std::function<int(const Request&, std::string&)>;
  void SetHandler(Handler handler) {
    std::lock_guard<std::mutex> lock(mutex_);
    handler_ = std::move(handler);
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

  // The documents of the requests answered with a 2xx status, in arrival
  // order: a body of several documents has one per line.
  std::vector<std::string> deliveredDocuments() {
    std::vector<std::string> documents;
    for (const std::string& body : delivered()) {
      std::size_t start = 0;
      for (;;) {
        const std::size_t end = body.find('\n', start);
        documents.push_back(body.substr(start, end - start));
        if (end == std::string::npos) break;
        start = end + 1;
      }
    }
    return documents;
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
      const auto encoding = request.headers.find("content-encoding");
      if (encoding != request.headers.end() && encoding->second == "gzip") {
        request.body = Gunzip(request.body);
      }
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
      std::string extraHeaders;
      if (!statuses_.empty()) {
        request.status = statuses_.front();
        statuses_.pop_front();
      } else if (handler_) {
        // The handler decides without the lock: it may take its time, as a
        // slow service does.
        const Handler handler = handler_;
        lock.unlock();
        request.status = handler(request, extraHeaders);
        lock.lock();
      }
      requests_.push_back(request);
      const std::string answer = "HTTP/1.1 " + std::to_string(request.status) + " Status\r\n" +
                                 (location_.empty() ? "" : "Location: " + location_ + "\r\n") +
                                 extraHeaders + "Content-Length: 0\r\n\r\n";
      lock.unlock();
      send(conn, answer.data(), static_cast<int>(answer.size()), kSendFlags);
    }
  }

  // `data` decompressed from the gzip format; "<not gzip>" when it is not.
  static std::string Gunzip(const std::string& data) {
    z_stream stream{};
    if (inflateInit2(&stream, 15 + 16) != Z_OK) return "<not gzip>";
    std::string out;
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    stream.avail_in = static_cast<uInt>(data.size());
    int result = Z_OK;
    while (result == Z_OK) {
      char chunk[65536];
      stream.next_out = reinterpret_cast<Bytef*>(chunk);
      stream.avail_out = sizeof(chunk);
      result = inflate(&stream, Z_NO_FLUSH);
      out.append(chunk, sizeof(chunk) - stream.avail_out);
    }
    inflateEnd(&stream);
    return result == Z_STREAM_END ? out : "<not gzip>";
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
  std::string location_;                        // guarded by mutex_
  Handler handler_;                             // guarded by mutex_
  int connections_ = 0;                         // guarded by mutex_
  std::vector<Request> requests_;               // guarded by mutex_
  std::vector<std::thread> connectionThreads_;  // guarded by mutex_
};

}  // namespace zel_http_test

#endif  // ZEL_TESTS_SUPPORT_HTTP_SERVER_TMP_H_
