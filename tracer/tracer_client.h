// The client of the tracing service that event documents are posted to.
//
// registerClient() reads the delivery target from the environment variable
// ZEL_TRACE_ENDPOINT when it is called:
//
//   file://<path>       Each posted document is appended to the file <path>
//                       (created when missing) exactly as it came, followed
//                       by one newline. postTrace() writes before it
//                       returns, under a lock shared by every client of the
//                       process, so the file is a stream of complete
//                       documents: none is torn or interleaved with another,
//                       whichever threads post. A stream of JSON documents
//                       written this way is read by `jq . <path>`.
//   http://host[:port]/path, https://...
//                       Each document is sent as the body of one HTTP POST
//                       with "Content-Type: application/json" (and the
//                       header "X-Trace-Client: <name>" when the name is
//                       printable ASCII), by the client's own sender thread,
//                       in posting order. postTrace() only queues the
//                       document. A 2xx answer delivers it. When the service
//                       is unreachable (no connection, a timeout, no answer)
//                       or answers 408, 429 or 5xx, the same document is
//                       tried again after a back-off that starts at
//                       ZEL_TRACE_RETRY_MS and doubles up to
//                       ZEL_TRACE_RETRY_MAX_MS; nothing behind it is lost
//                       while the queue has room. Any other answer (a 4xx,
//                       a redirect) rejects the document for good: it is
//                       dropped and the next one is sent.
//
// Any other target, an empty one, a file target without a path or an HTTP
// target without a host gives no client.
//
// Tuning of HTTP clients, read from the environment by registerClient();
// each is a positive decimal number, and an unset or invalid value takes
// the default:
//   ZEL_TRACE_CONNECT_TIMEOUT_MS  connection timeout, ms (default 2000)
//   ZEL_TRACE_TIMEOUT_MS          whole-request timeout, ms (default 5000)
//   ZEL_TRACE_RETRY_MS            first back-off, ms (default 250)
//   ZEL_TRACE_RETRY_MAX_MS        longest back-off, ms (default 30000)
//   ZEL_TRACE_QUEUE_MAX           documents queued at most, the one being
//                                 sent included (default 1000)
//   ZEL_TRACE_QUEUE_BYTES         bytes of documents queued at most, the one
//                                 being sent included (default 8388608)
//   ZEL_TRACE_DEREGISTER_MS       time deregister() keeps sending, ms
//                                 (default 5000)
//
// Threads: an HTTP client owns one sender thread from registerClient() to
// deregister(); a file client owns none. postTrace() may be called from any
// thread at once; deregister() once, after the last postTrace() has
// returned.
//
// Example:
//   // ZEL_TRACE_ENDPOINT=file:///tmp/trace.jsonl
//   TracerClient* client = TracerClient::registerClient("client");
//   if (client != nullptr) {
//     client->postTrace("{\"event\":\"attach\"}");
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

namespace zel_tracer_detail {
class Sink;  // the delivery to one target; defined by the library
}  // namespace zel_tracer_detail

// A client of the tracing service, delivering to one target, as the top of this file describes.
class ZEL_TRACER_API TracerClient {
 public:
  // Returns a new client named `name` for the target in ZEL_TRACE_ENDPOINT
  // (read now; later changes of the variable do not affect the client), or
  // null when the variable is unset, empty or names no usable target, or
  // when an HTTP client's sender thread cannot be started. Ownership: the
  // caller gives the client up with deregister(), never with delete.
  // Threads: any thread.
  static TracerClient* registerClient(const std::string& name);

  // Delivers one document, `text`, which should be one complete JSON text;
  // it is sent or written unchanged (an empty text too).
  // File target: returns true when `text` and its newline were written
  // whole, false when the file could not be opened or written.
  // HTTP target: returns true when `text` was queued for sending, false when
  // the queue is full (ZEL_TRACE_QUEUE_MAX documents or
  // ZEL_TRACE_QUEUE_BYTES bytes; a document larger than the byte limit is
  // always refused); a refused document is not kept. True does not mean
  // that the service received it.
  // Threads: any thread, at the same time as others; a file post blocks for
  // the write, an HTTP post only for the queue's lock.
  bool postTrace(const std::string& text);

  // Ends the client and frees it: the pointer is invalid when this returns.
  // An HTTP client first keeps sending what is queued, retries included,
  // for at most ZEL_TRACE_DEREGISTER_MS ms (a transfer still running then
  // is cut off); documents still queued after that are dropped. Then its
  // sender thread is stopped and joined. Threads: blocks until the sender
  // thread has ended; call it once, after the last postTrace() returned.
  void deregister();

  TracerClient(const TracerClient&) = delete;
  TracerClient& operator=(const TracerClient&) = delete;

 private:
  // Takes ownership of `sink`.
  explicit TracerClient(zel_tracer_detail::Sink* sink);
  ~TracerClient();

  zel_tracer_detail::Sink* sink_;  // owned; deleted by deregister()
};

#endif  // ZEL_TRACER_TRACER_CLIENT_H_
