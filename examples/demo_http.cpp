// SPDX-License-Identifier: MIT

// Demonstration of HTTP delivery: events posted through the tracker to a
// small receiver that this program runs on 127.0.0.1.
#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "examples/demo_tracker.h"
#include "utils/zel_client_tracker.h"

namespace {

#if defined(_WIN32)
using Socket = SOCKET;
const Socket kNoSocket = INVALID_SOCKET;
int PollOne(WSAPOLLFD* p, int timeoutMs) { return WSAPoll(p, 1, timeoutMs); }
using PollFd = WSAPOLLFD;
void CloseSocket(Socket s) { closesocket(s); }
constexpr int kSendFlags = 0;
#else
using Socket = int;
const Socket kNoSocket = -1;
int PollOne(pollfd* p, int timeoutMs) { return poll(p, 1, timeoutMs); }
using PollFd = pollfd;
void CloseSocket(Socket s) { close(s); }
constexpr int kSendFlags = MSG_NOSIGNAL;
#endif

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// An HTTP/1.1 receiver on 127.0.0.1 at a port of the system's choosing: it
// answers every POST with 204 and counts the requests and the documents
// they carried (one per line in a batch of several).
class Receiver {
 public:
  Receiver() {
#if defined(_WIN32)
    WSADATA data;
    if (WSAStartup(MAKEWORD(2, 2), &data) != 0) return;
#endif
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    if (fd_ == kNoSocket) return;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof(addr);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0 || listen(fd_, 4) != 0) {
      CloseSocket(fd_);
      fd_ = kNoSocket;
      return;
    }
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { Serve(); });
  }

  ~Receiver() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (fd_ != kNoSocket) CloseSocket(fd_);
  }

  bool listening() const { return thread_.joinable(); }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/trace"; }
  int requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }
  int documents() {
    std::lock_guard<std::mutex> lock(mutex_);
    return documents_;
  }

 private:
  // Accepts connections one after another until stopped.
  void Serve() {
    while (!stop_) {
      PollFd p{};
      p.fd = fd_;
      p.events = POLLIN;
      if (PollOne(&p, 50) <= 0) continue;
      const Socket conn = accept(fd_, nullptr, nullptr);
      if (conn == kNoSocket) continue;
      ServeConnection(conn);
      CloseSocket(conn);
    }
  }

  // Reads requests from `conn` until the client closes it (or the receiver
  // is stopped) and answers each.
  void ServeConnection(Socket conn) {
    std::string in;
    while (!stop_) {
      const std::size_t end = in.find("\r\n\r\n");
      if (end != std::string::npos) {
        const std::string head = Lower(in.substr(0, end + 2));
        std::size_t length = 0;
        const std::size_t at = head.find("\r\ncontent-length:");
        if (at != std::string::npos) length = std::strtoul(head.c_str() + at + 17, nullptr, 10);
        if (head.find("\r\nexpect: 100-continue") != std::string::npos && in.size() == end + 4) {
          Send(conn, "HTTP/1.1 100 Continue\r\n\r\n");
        }
        if (in.size() >= end + 4 + length) {
          Count(head, in.substr(end + 4, length));
          in.erase(0, end + 4 + length);
          if (!Send(conn, "HTTP/1.1 204 No Content\r\n\r\n")) return;
          continue;
        }
      }
      PollFd p{};
      p.fd = conn;
      p.events = POLLIN;
      if (PollOne(&p, 50) <= 0) continue;
      char buffer[4096];
      const int n = static_cast<int>(recv(conn, buffer, sizeof(buffer), 0));
      if (n <= 0) return;
      in.append(buffer, static_cast<std::size_t>(n));
    }
  }

  // A batch of several documents ("application/x-ndjson") has one per
  // line; a single document is sent as it is, line breaks included.
  void Count(const std::string& head, const std::string& body) {
    int documents = 0;
    std::size_t start = 0;
    const bool batch = head.find("\r\ncontent-type: application/x-ndjson") != std::string::npos;
    if (!batch) documents = body.empty() ? 0 : 1;
    while (batch && start < body.size()) {
      std::size_t end = body.find('\n', start);
      if (end == std::string::npos) end = body.size();
      if (end > start) ++documents;
      start = end + 1;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    ++requests_;
    documents_ += documents;
  }

  static bool Send(Socket conn, const std::string& text) {
    return send(conn, text.data(), static_cast<int>(text.size()), kSendFlags) ==
           static_cast<int>(text.size());
  }

  Socket fd_ = kNoSocket;
  unsigned port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::mutex mutex_;
  int requests_ = 0;
  int documents_ = 0;
};

}  // namespace

void DemoHttpDelivery() {
  std::printf("\n-- HTTP delivery: events posted to a receiver on 127.0.0.1\n");
  Receiver receiver;
  if (!receiver.listening()) {
    std::printf("   no port could be bound on 127.0.0.1: nothing shown\n");
    return;
  }
  // putenv keeps the text it is given: it must live as long as the variable.
  static std::string setting;
  setting = "ZEL_TRACE_ENDPOINT=" + receiver.url();
  putenv(&setting[0]);
  std::printf("   target: http://127.0.0.1:<port>/trace (a port of the system's choosing)\n");

  zel::ZelClientTracker* tracker = zel::ZelClientTracker::GetInstance();
  tracker->Init("0.1.0");  // a client for the new target
  zel::ZelClientTrackDevice disk{0x1234, 0x0001, "Demo Disk", 2, {0x08}, 1, 7};
  tracker->SendTrackDevice("attach", disk, "redirecting the disk");
  disk.status = 2;  // connected
  tracker->SendTrackDevice("attach", disk, "the disk is redirected");
  tracker->SendTrackError("detach", "E_DEMO_GONE", "the device went away");
  std::printf("   posted 3 events (the sender thread delivers them, in batches)\n");
  // Uninit sends what is still queued, then stops the sender.
  tracker->Uninit();
  std::printf("   after Uninit() the receiver had %d documents (answered 204 No Content)\n",
              receiver.documents());
}
