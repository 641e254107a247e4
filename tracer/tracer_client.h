// SPDX-License-Identifier: MIT

// The client of the tracing service that event documents are posted to.
//
// registerClient() reads the delivery target from the environment variable
// ZEL_TRACE_ENDPOINT when it is called:
//
//   file://<path>       Each posted document is appended to the file <path>
//                       (created with mode 0600 when missing; a symbolic
//                       link at <path> is never followed, and a file that
//                       is not a regular file of the effective user with
//                       one link is refused: the post returns false and the
//                       first refusal of a client is reported on standard
//                       error; on Windows a reparse point is refused
//                       likewise) exactly as it came, followed
//                       by one newline. postTrace() writes before it
//                       returns: one write() on a descriptor opened in
//                       append mode (not inherited by child processes), so
//                       the file is a stream of complete documents: none is
//                       torn or interleaved with another, whichever threads
//                       or processes append to it. A stream of JSON
//                       documents written this way is read by
//                       `jq . <path>`.
//   http://host[:port]/path, https://...
//                       Documents are sent by the client's own sender
//                       thread, in posting order, as the bodies of HTTP
//                       POSTs over one connection that is kept open between
//                       requests. postTrace() only queues the document.
//                       Batches: a request carries up to
//                       ZEL_TRACE_BATCH_MAX documents and
//                       ZEL_TRACE_BATCH_BYTES bytes; the sender waits at
//                       most ZEL_TRACE_BATCH_DELAY_MS from the post of a
//                       batch's first document for the batch to fill
//                       (deregister() sends at once). A batch of one
//                       document is that document unchanged with
//                       "Content-Type: application/json"; a batch of
//                       several has one document per line, separated by
//                       "\n", with "Content-Type: application/x-ndjson",
//                       each document put on one line by leaving out its
//                       line breaks and the spaces and tabs after them (for
//                       a JSON text, whitespace between tokens only). With
//                       ZEL_TRACE_GZIP=1 the body is compressed
//                       ("Content-Encoding: gzip"). Every request carries
//                       "X-Trace-Client: <name>" when the name is non-empty
//                       printable ASCII, and no such header otherwise.
//                       A 2xx answer delivers the batch. When the service is
//                       unreachable (no connection, a timeout, no answer) or
//                       answers 401, 403, 408, 429 or 5xx (an outage or a
//                       misconfiguration), the same batch, whole, is tried
//                       again after a back-off that starts at
//                       ZEL_TRACE_RETRY_MS and doubles up to
//                       ZEL_TRACE_RETRY_MAX_MS, and is never shorter than
//                       the Retry-After (seconds or a date, at most an hour)
//                       of a 429 or 503 answer; nothing behind it is lost
//                       while the queue has room. An answer that refuses
//                       the content (400, 413, 422; 500 while the service
//                       delivered another request in the last minute, or
//                       500 twice in a row to several documents) splits
//                       the request in halves, sent in order, until the
//                       document at fault stands alone; such a document is
//                       dropped, with one line "zel_tracer: 1 document(s)
//                       dropped: <url> answered <status>" on standard
//                       error, and the others are delivered. Any other
//                       answer (another 4xx, a redirect, which is never
//                       followed) drops the request's documents for good
//                       with the same line, and the next batch is sent. A
//                       libcurl error that no retry can mend (a malformed
//                       URL or proxy setting, an unsupported protocol)
//                       drops the batch too; the first such drop of a
//                       client is reported on standard error, later ones
//                       are counted (see Drops below).
//
// Any other target, an empty one, a file target without a path, an HTTP
// target without a host or one that libcurl's URL parser refuses (spaces,
// a bad port, a host without an ASCII form) gives no client.
//
// Tuning, read from the environment by registerClient(). Each numeric
// setting is a whole decimal number of digits only; a value above its range
// is taken as the range's top, and anything else (unset, empty, a sign,
// letters, spaces, a value below the range) takes the default:
//   ZEL_TRACE_CONNECT_TIMEOUT_MS  connection timeout, ms: 1 to 600000
//                                 (default 2000)
//   ZEL_TRACE_TIMEOUT_MS          whole-request timeout, ms: 1 to 3600000
//                                 (default 5000)
//   ZEL_TRACE_RETRY_MS            first back-off, ms: 1 to 3600000
//                                 (default 250)
//   ZEL_TRACE_RETRY_MAX_MS        longest back-off, ms: 1 to 3600000, never
//                                 below ZEL_TRACE_RETRY_MS (default 30000)
//   ZEL_TRACE_QUEUE_MAX           documents queued at most, those being
//                                 sent included: 1 to 10000000 (default
//                                 10000: a start-up burst of a client)
//   ZEL_TRACE_QUEUE_BYTES         bytes of documents queued at most, those
//                                 being sent included: 1 to 1073741824
//                                 (default 8388608)
//   ZEL_TRACE_DEREGISTER_MS       time deregister() keeps sending, ms: 1 to
//                                 3600000 (default 5000)
//   ZEL_TRACE_BATCH_MAX           documents per request at most: 1 to
//                                 100000 (default 500; 1 sends each alone)
//   ZEL_TRACE_BATCH_BYTES         bytes per request at most, before
//                                 compression, the newlines counted: 1 to
//                                 67108864 (default 1048576); a larger
//                                 document goes alone
//   ZEL_TRACE_BATCH_DELAY_MS      longest wait for a batch to fill, ms: 0 to
//                                 60000 (default 1000; 0 sends what is
//                                 queued at once)
//   ZEL_TRACE_GZIP                "1" compresses request bodies; anything
//                                 else does not (default)
//   ZEL_TRACE_SPOOL_DIR           a directory for the spool (below); unset
//                                 or empty: no spool (POSIX only)
//   ZEL_TRACE_SPOOL_BYTES         bytes of spool files at most: 1 to
//                                 2000000000 (default 67108864)
//
// The spool: with ZEL_TRACE_SPOOL_DIR, documents an HTTP client cannot
// deliver now are kept in files there instead of being dropped: what the
// queue cannot hold, what is left when the deregister deadline passes, and
// the queues of clients never deregistered when the process ends; a
// document the service refuses for good goes to a "rejected-*.ndjson" file
// there. The directory is created 0700 when missing and refused (said on
// standard error; the client then has no spool) when it is a link, is not
// the effective user's, or is writable by its group or others without the
// sticky bit. Files are created 0600, written whole (one document a line,
// on one line as in a batch) and synced. A client with the same directory
// sends the spooled files first, oldest first, and removes each once its
// documents are delivered; processes sharing the directory claim a file by
// renaming it, so that no file is sent by two at once. A torn last line is
// skipped and counted ("torn spool line"). Beyond ZEL_TRACE_SPOOL_BYTES the
// oldest files are removed and counted ("spool full"). Delivery is then at
// least once: a document may arrive twice (after a restart, or when a
// claimed file was given back with some of its documents already sent).
//
// Where the settings come from: the environment, unless the program called
// TracerClient::configure() first, which then is the only source. A
// privileged process (set-user-ID, set-group-ID or file capabilities: the
// kernel's AT_SECURE) reads none of the ZEL_TRACE_* variables from its
// environment, which whoever started it chose, and no client is registered
// until the program gives its settings with configure(); such a process
// also turns off libcurl's proxy variables (http_proxy, HTTPS_PROXY,
// ALL_PROXY, NO_PROXY). libcurl still reads some of its environment itself
// (SSLKEYLOGFILE when its TLS library supports it, CURL_SSL_BACKEND); the
// program removes them before its first HTTP client if it cannot trust them.
// Messages never show the user-info or the query of an endpoint: both
// appear as "***". A TLS failure (a handshake that fails, a certificate
// not accepted) is reported once on standard error with libcurl's text; the
// documents are kept and tried again as for an unreachable service.
//
// Shared senders: the HTTP clients of one process registered with the same
// name, target and tuning share one sender (one thread, one connection,
// one queue); registerClient() gives each a light handle. A handle's
// deregister() leaves what it posted to the shared sender, which ends when
// its last handle is deregistered. Handles never deregistered keep their
// sender until the process ends.
//
// Drops: every document a client cannot keep (queue full, deregistration
// deadline passed, rejected by the service, a transfer that can never
// work, a trace file that cannot be written) is counted
// (droppedDocuments()) and said in the application's log, at most one line
// per reason per second, at level 0 and only when zel_log_level() is 0 or
// more:
//   [][/tracer_client.cpp DropReports::say <line>] Error:zel trace: <n>
//   documents dropped (<reason>)
// The log's functions are looked up when the process runs (this library
// does not link the log's); without them the line, from "zel trace:" on,
// goes to standard error instead, unless standard error said those drops
// already.
//
// Threads: an HTTP client's sender thread runs from the first registration
// of its settings to the deregistration of their last handle; a file
// client owns none. postTrace() may be called from any thread at once;
// deregister() once, after the last postTrace() has returned.
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

  // Gives the client's settings from the program instead of from the
  // environment, for every later registerClient(): `settings` holds lines
  // "NAME=value" separated by "\n" with the names of the environment
  // variables (ZEL_TRACE_ENDPOINT and the tuning ones), read as the
  // variables would be; a name left out is unset. For privileged programs,
  // whose environment is not read, and for any program that wants its
  // target fixed. Returns false, changing nothing, when a line has no "=",
  // names no setting or names one twice, or when this is not the first
  // call or a client was registered (or a setting read) before it.
  // Threads: any thread.
  static bool configure(const std::string& settings);

  // The documents the clients of this process dropped so far, whatever
  // the reason: a full queue, the deregister deadline passed, a rejection
  // by the service, a transfer that can never work, a trace file that
  // could not be written. Each reason is also said in the application's
  // log. Threads: any thread.
  static unsigned long long droppedDocuments();

  // Delivers one document, `text`, which should be one complete JSON text;
  // it is sent or written unchanged (an empty text too).
  // File target: returns true when `text` and its newline were written
  // whole, false when the file could not be opened or written.
  // HTTP target: returns true when `text` was queued for sending, false when
  // the queue is full (ZEL_TRACE_QUEUE_MAX documents or
  // ZEL_TRACE_QUEUE_BYTES bytes; a document larger than the byte limit is
  // always refused) or deregister() has begun; a refused document is not
  // kept. True does not mean that the service received it.
  // Threads: any thread, at the same time as others; a file post blocks for
  // the write, an HTTP post only for the queue's lock.
  bool postTrace(const std::string& text);

  // Ends the client and frees it: the pointer is invalid when this returns.
  // An HTTP client that is not the last handle of its sender returns at
  // once: the sender delivers what it posted. The last handle first sends
  // what is queued at once, without waiting for batches to fill, retries
  // included, for at most ZEL_TRACE_DEREGISTER_MS ms (a transfer still
  // running then is cut off); documents still queued after that are
  // dropped and counted. Then the sender thread is stopped and joined.
  // Threads: blocks until the sender thread has ended; call it once, after
  // the last postTrace() returned.
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
