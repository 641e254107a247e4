// SPDX-License-Identifier: MIT

#include "tests/support/http_server.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cctype>

namespace zel_test {
namespace {

// `data` decompressed from the gzip format; "<not gzip>" when it is not.
std::string Gunzip(const std::string& data) {
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

TestHttpServer::Request ParseHead(const std::string& head) {
  TestHttpServer::Request request{};
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

}  // namespace

TestHttpServer::TestHttpServer(Mode mode, uint16_t port) : mode_(mode) {
  fd_ = BindLoopback(port, &port_);
  EXPECT_NE(fd_, kNoSocket) << "cannot bind 127.0.0.1:" << port;
  if (mode != Mode::kRefuse && fd_ != kNoSocket) {
    std::lock_guard<std::mutex> lock(mutex_);
    startListeningLocked();
  }
}

TestHttpServer::~TestHttpServer() {
  stop_ = true;
  if (acceptThread_.joinable()) acceptThread_.join();
  std::vector<std::thread> threads;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    threads.swap(connectionThreads_);
  }
  for (std::thread& t : threads) t.join();
  if (fd_ != kNoSocket) CloseSocket(fd_);
}

void TestHttpServer::SetMode(Mode mode) {
  std::lock_guard<std::mutex> lock(mutex_);
  const bool listen = mode_ == Mode::kRefuse && mode != Mode::kRefuse;
  mode_ = mode;
  if (listen) startListeningLocked();
}

void TestHttpServer::SetLocation(const std::string& url) {
  std::lock_guard<std::mutex> lock(mutex_);
  location_ = url;
}

void TestHttpServer::ScriptStatuses(const std::vector<int>& statuses) {
  std::lock_guard<std::mutex> lock(mutex_);
  statuses_.assign(statuses.begin(), statuses.end());
}

void TestHttpServer::SetHandler(Handler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  handler_ = std::move(handler);
}

void TestHttpServer::OnRequest(std::function<void(const Request&)> onRequest) {
  std::lock_guard<std::mutex> lock(mutex_);
  onRequest_ = std::move(onRequest);
}

int TestHttpServer::connections() {
  std::lock_guard<std::mutex> lock(mutex_);
  return connections_;
}

std::vector<TestHttpServer::Request> TestHttpServer::requests() {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::vector<std::string> TestHttpServer::deliveredDocuments() {
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

std::vector<std::string> TestHttpServer::delivered() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> bodies;
  for (const Request& r : requests_) {
    if (r.status >= 200 && r.status < 300) bodies.push_back(r.body);
  }
  return bodies;
}

void TestHttpServer::ServeForever() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    mode_ = Mode::kAnswer;
  }
  if (fd_ == kNoSocket || listen(fd_, 16) != 0) return;
  for (;;) {
    const Socket conn = accept(fd_, nullptr, nullptr);
    if (conn == kNoSocket) continue;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++connections_;
    }
    serve(conn);
  }
}

void TestHttpServer::startListeningLocked() {
  EXPECT_EQ(listen(fd_, 64), 0);
  acceptThread_ = std::thread(&TestHttpServer::acceptLoop, this);
}

void TestHttpServer::acceptLoop() {
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
bool TestHttpServer::readAtLeast(Socket conn, std::string& buffer, std::size_t size) {
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
void TestHttpServer::serve(Socket conn) {
  std::string buffer;
  for (;;) {
    std::size_t end;
    while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
      if (!readAtLeast(conn, buffer, buffer.size() + 1)) {
        CloseSocket(conn);
        return;
      }
    }
    Request request = ParseHead(buffer.substr(0, end));
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
    request.received = std::chrono::steady_clock::now();

    std::unique_lock<std::mutex> lock(mutex_);
    if (onRequest_) onRequest_(request);
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

}  // namespace zel_test
