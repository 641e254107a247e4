// SPDX-License-Identifier: MIT

// A small HTTP/1.1 server on 127.0.0.1 that records what it is sent, for the
// tests of the tracing client and of the service going away under it.
#ifndef ZEL_TESTS_SUPPORT_HTTP_SERVER_H_
#define ZEL_TESTS_SUPPORT_HTTP_SERVER_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/socket.h"

namespace zel_test {

// The server listens on a port of its own choosing, or on one it is given.
// Its behaviour can be switched while it runs:
//   kRefuse  the port is bound but nobody listens: connections are refused;
//   kClose   connections are accepted and closed at once, unanswered;
//   kSilent  requests are read and recorded but never answered;
//   kAnswer  requests are recorded and answered, by default with 200; a
//            script of status codes can be given for the next answers,
//            and a handler can decide the others.
// A body sent with "Content-Encoding: gzip" is recorded decompressed.
// Started with Start(), one thread accepts and one thread serves each
// connection; all are stopped and joined by the destructor. ServeForever()
// serves instead on the calling thread, one connection after another, for
// a process of its own that may start no thread (a child forked from a
// process with threads).
class TestHttpServer {
 public:
  enum class Mode { kRefuse, kClose, kSilent, kAnswer };

  struct Request {
    std::string method;
    std::string target;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
    int status;  // the answer given; 0 when none
    std::chrono::steady_clock::time_point received;
  };

  // Binds the port (`port`, or one of the system's choosing when 0) and,
  // unless `mode` is kRefuse, listens on it with threads of its own.
  explicit TestHttpServer(Mode mode, uint16_t port = 0);
  ~TestHttpServer();
  TestHttpServer(const TestHttpServer&) = delete;
  TestHttpServer& operator=(const TestHttpServer&) = delete;

  // Whether the port could be bound.
  bool bound() const { return fd_ != kNoSocket; }
  uint16_t port() const { return port_; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/trace"; }

  // Switches the behaviour for connections and requests from now on.
  void SetMode(Mode mode);

  // Every later answer carries "Location: <url>" (for redirects).
  void SetLocation(const std::string& url);

  // The status codes of the next answers, in order; 200 after them.
  void ScriptStatuses(const std::vector<int>& statuses);

  // Decides the answers that no scripted status decides: `handler` gets
  // the request (its body decompressed) and returns the status; header
  // lines it appends to its second argument ("Name: value\r\n") go with
  // the answer (Retry-After, for one). Called on the connection's thread,
  // without the server's lock, so it may take its time as a slow service
  // does.
  using Handler = std::function<int(const Request&, std::string&)>;
  void SetHandler(Handler handler);

  // Called with each request before it is answered (not for kRefuse and
  // kClose), on the thread that serves it.
  void OnRequest(std::function<void(const Request&)> onRequest);

  int connections();
  std::vector<Request> requests();

  // The documents of the requests answered with a 2xx status, in arrival
  // order: a body of several documents has one per line.
  std::vector<std::string> deliveredDocuments();

  // The bodies of the requests answered with a 2xx status, in arrival order.
  std::vector<std::string> delivered();

  // Listens and serves connection after connection on the calling thread,
  // in mode kAnswer; returns only when the port cannot be listened on.
  void ServeForever();

 private:
  void startListeningLocked();
  void acceptLoop();
  bool readAtLeast(Socket conn, std::string& buffer, std::size_t size);
  void serve(Socket conn);

  Socket fd_ = kNoSocket;
  uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread acceptThread_;

  std::mutex mutex_;
  Mode mode_;                                      // guarded by mutex_
  std::deque<int> statuses_;                       // guarded by mutex_
  std::string location_;                           // guarded by mutex_
  std::function<void(const Request&)> onRequest_;  // guarded by mutex_
  Handler handler_;                                // guarded by mutex_
  int connections_ = 0;                            // guarded by mutex_
  std::vector<Request> requests_;                  // guarded by mutex_
  std::vector<std::thread> connectionThreads_;     // guarded by mutex_
};

}  // namespace zel_test

#endif  // ZEL_TESTS_SUPPORT_HTTP_SERVER_H_
