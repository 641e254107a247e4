// The client of the tracing service that event reports are posted to.
//
// registerClient() reads the delivery target from the environment variable
// ZEL_TRACE_ENDPOINT. This version delivers to a "file://<path>" target: each
// posted document is appended to that file followed by a newline, in one
// write under a process-wide lock, so the file is a stream of whole
// documents and two documents are never interleaved. Any other target, or
// none, gives no client.
//
// Threads: postTrace() may be called from any thread at once; deregister()
// after the last postTrace().
//
// Example:
//   // ZEL_TRACE_ENDPOINT=file:///tmp/trace.jsonl
//   TracerClient* client = TracerClient::registerClient("client");
//   if (client != nullptr) {
//     client->postTrace("{\"event\":\"idea\"}");
//     client->deregister();  // frees the client
//   }
#ifndef ZEL_TRACER_TRACER_CLIENT_H_
#define ZEL_TRACER_TRACER_CLIENT_H_

#include <string>

#if defined(_WIN32)
#if defined(ZEL_TRACER_BUILDING)
#define ZEL_TRACER_API __declspec(dllexport)
#else
#define ZEL_TRACER_API __declspec(dllimport)
#endif
#else
#define ZEL_TRACER_API __attribute__((visibility("default")))
#endif

class ZEL_TRACER_API TracerClient {
 public:
  // Returns a new client named `name` for the target in ZEL_TRACE_ENDPOINT,
  // or null when the variable is unset, empty or names no usable target.
  static TracerClient* registerClient(const std::string& name);

  // Delivers one document. Returns true when it was written whole, false
  // when it could not be.
  bool postTrace(const std::string& text);

  // Closes the client and frees it; the pointer is invalid afterwards.
  void deregister();

 private:
  TracerClient(const std::string& name, const std::string& path);
  ~TracerClient();

  std::string name_;
  std::string path_;  // the file that documents are appended to
};

#endif  // ZEL_TRACER_TRACER_CLIENT_H_
