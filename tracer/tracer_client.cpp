#include "tracer/tracer_client.h"

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

namespace zel_tracer_detail {

// Where the documents of one client go.
class Sink {
 public:
  virtual ~Sink() = default;
  // Delivers or queues one document; see TracerClient::postTrace().
  virtual bool post(const std::string& text) = 0;
  // Finishes the delivery before the client is freed.
  virtual void close() = 0;
};

}  // namespace zel_tracer_detail

namespace {

using zel_tracer_detail::Sink;
using Clock = std::chrono::steady_clock;

constexpr char kFileScheme[] = "file://";
constexpr char kHttpScheme[] = "http://";
constexpr char kHttpsScheme[] = "https://";

// True when `text` begins with the literal `prefix`.
template <std::size_t N>
bool startsWith(const std::string& text, const char (&prefix)[N]) {
  return text.compare(0, N - 1, prefix) == 0;
}

// The positive number in environment variable `name`, or `fallback` when
// it is unset, not a whole decimal number, zero, negative or too large.
long envPositive(const char* name, long fallback) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return fallback;
  char* end = nullptr;
  errno = 0;
  const long number = std::strtol(value, &end, 10);
  if (errno != 0 || *end != '\0' || number <= 0) return fallback;
  return number;
}

// ---------------------------------------------------------------------------
// file:// target.

// Serialises the appends of every file client of the process, so that
// documents written by several threads or clients never mix.
std::mutex& appendMutex() {
  // Never destroyed: a client may still post while static data goes away.
  static std::mutex* mutex = new std::mutex;
  return *mutex;
}

class FileSink : public Sink {
 public:
  explicit FileSink(std::string path) : path_(std::move(path)) {}

  bool post(const std::string& text) override {
    std::string record = text;
    record.push_back('\n');
    std::lock_guard<std::mutex> lock(appendMutex());
    // Opened per document: a file moved away or removed from outside is
    // simply created again.
    FILE* file = std::fopen(path_.c_str(), "ab");
    if (file == nullptr) return false;
    // Fully buffered with room for the whole record, so that it reaches the
    // file in one write at fclose. Should that buffer be refused, the default
    // one still keeps the record whole: the lock is held until fclose.
    static_cast<void>(std::setvbuf(file, nullptr, _IOFBF, record.size() + 1));
    const bool written = std::fwrite(record.data(), 1, record.size(), file) == record.size();
    return (std::fclose(file) == 0) && written;
  }

  void close() override {}

 private:
  const std::string path_;
};

// ---------------------------------------------------------------------------
// http:// and https:// targets.

struct HttpSettings {
  long connectTimeoutMs;
  long timeoutMs;
  long retryMs;
  long retryMaxMs;
  std::size_t queueMax;
  std::size_t queueBytes;
  long deregisterMs;

  static HttpSettings fromEnvironment() {
    HttpSettings s;
    s.connectTimeoutMs = envPositive("ZEL_TRACE_CONNECT_TIMEOUT_MS", 2000);
    s.timeoutMs = envPositive("ZEL_TRACE_TIMEOUT_MS", 5000);
    s.retryMs = envPositive("ZEL_TRACE_RETRY_MS", 250);
    s.retryMaxMs = std::max(s.retryMs, envPositive("ZEL_TRACE_RETRY_MAX_MS", 30000));
    s.queueMax = static_cast<std::size_t>(envPositive("ZEL_TRACE_QUEUE_MAX", 1000));
    s.queueBytes = static_cast<std::size_t>(envPositive("ZEL_TRACE_QUEUE_BYTES", 8388608));
    s.deregisterMs = envPositive("ZEL_TRACE_DEREGISTER_MS", 5000);
    return s;
  }
};

// libcurl's process-wide set-up, done once before the first HTTP client and
// never undone (clients of other threads may still run at exit). Returns
// whether it succeeded.
bool curlReady() {
  static const bool ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  return ready;
}

// True when `url`, after its scheme `schemeLen` characters long, names a
// host right away and parses as a URL with a host. libcurl alone would also
// take "http:///x" as the host "x".
bool hasHost(const std::string& url, std::size_t schemeLen) {
  if (url.size() <= schemeLen || url.find_first_of("/?#", schemeLen) == schemeLen) return false;
  CURLU* handle = curl_url();
  if (handle == nullptr) return false;
  bool ok = false;
  if (curl_url_set(handle, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK) {
    char* host = nullptr;
    if (curl_url_get(handle, CURLUPART_HOST, &host, 0) == CURLUE_OK && host != nullptr) {
      ok = host[0] != '\0';
    }
    curl_free(host);
  }
  curl_url_cleanup(handle);
  return ok;
}

// True when `name` can travel in a header line as it is.
bool isHeaderSafe(const std::string& name) {
  if (name.empty()) return false;
  return std::all_of(name.begin(), name.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
}

// Discards the body of the service's answer.
size_t discardBody(char* /*data*/, size_t size, size_t count, void* /*user*/) {
  return size * count;
}

class HttpSink : public Sink {
 public:
  HttpSink(const std::string& url, const std::string& name, const HttpSettings& settings)
      : url_(url), settings_(settings) {
    if (isHeaderSafe(name)) clientHeader_ = "X-Trace-Client: " + name;
    thread_ = std::thread(&HttpSink::run, this);
  }

  ~HttpSink() override {
    if (thread_.joinable()) close();
  }

  bool post(const std::string& text) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_.load(std::memory_order_relaxed)) return false;
    if (queue_.size() >= settings_.queueMax) return false;
    if (text.size() > settings_.queueBytes - queuedBytes_) return false;
    queue_.push_back(text);
    queuedBytes_ += text.size();
    wake_.notify_one();
    return true;
  }

  void close() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      deadline_ = Clock::now() + std::chrono::milliseconds(settings_.deregisterMs);
      stopping_.store(true, std::memory_order_release);
    }
    wake_.notify_all();
    thread_.join();
  }

 private:
  enum class Outcome { kDelivered, kRejected, kRetry, kAborted };

  // The sender thread: sends the queue's front document until it is
  // delivered or rejected, backing off while the service is unreachable,
  // until close() asks it to stop and the queue is empty or the deadline
  // has passed.
  void run() {
    CURL* easy = curl_easy_init();
    CURLM* multi = curl_multi_init();
    curl_slist* headers = nullptr;
    headers = curl_slist_append(headers, "Content-Type: application/json");
    // Without this, libcurl waits up to a second for "100 Continue" before
    // sending a larger body.
    headers = curl_slist_append(headers, "Expect:");
    if (!clientHeader_.empty()) headers = curl_slist_append(headers, clientHeader_.c_str());
    if (easy != nullptr) {
      curl_easy_setopt(easy, CURLOPT_URL, url_.c_str());
      curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
      curl_easy_setopt(easy, CURLOPT_POST, 1L);
      curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
      curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, settings_.connectTimeoutMs);
      curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, settings_.timeoutMs);
      curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &discardBody);
    }

    long backoffMs = settings_.retryMs;
    bool drainTried = false;  // the immediate try after deregister() was made
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return stopping_.load() || !queue_.empty(); });
      if (queue_.empty()) break;
      if (stopping_.load() && Clock::now() >= deadline_) break;

      // Only this thread removes documents, and adding at the back of a
      // deque leaves references to its elements valid, so the front can be
      // sent without the lock and without a copy.
      const std::string& text = queue_.front();
      lock.unlock();
      const Outcome outcome =
          (easy != nullptr && multi != nullptr) ? transfer(easy, multi, text) : Outcome::kRetry;
      lock.lock();

      if (outcome == Outcome::kDelivered || outcome == Outcome::kRejected) {
        queuedBytes_ -= queue_.front().size();
        queue_.pop_front();
        backoffMs = settings_.retryMs;
        continue;
      }
      if (outcome == Outcome::kAborted) break;
      // Unreachable: wait before trying the same document again. Once
      // deregister() has been called, the next try comes at once (a wait
      // that runs then is cut short), and later waits end at the deadline.
      const auto retryAt = Clock::now() + std::chrono::milliseconds(backoffMs);
      if (!stopping_.load()) {
        wake_.wait_until(lock, retryAt, [this] { return stopping_.load(); });
        if (stopping_.load()) drainTried = true;
      } else if (!drainTried) {
        drainTried = true;
        continue;
      } else {
        wake_.wait_until(lock, std::min(retryAt, deadline_));
      }
      backoffMs = std::min(backoffMs * 2, settings_.retryMaxMs);
    }
    // What is left could not be sent in time.
    queue_.clear();
    queuedBytes_ = 0;
    lock.unlock();

    if (multi != nullptr) curl_multi_cleanup(multi);
    if (easy != nullptr) curl_easy_cleanup(easy);
    curl_slist_free_all(headers);
  }

  // Sends `text` once. The multi interface lets the wait for the service
  // be cut off when deregister()'s deadline passes.
  Outcome transfer(CURL* easy, CURLM* multi, const std::string& text) {
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(text.size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, text.data());
    if (curl_multi_add_handle(multi, easy) != CURLM_OK) return Outcome::kRetry;

    CURLcode result = CURLE_OK;
    bool done = false;
    bool aborted = false;
    for (;;) {
      int running = 0;
      if (curl_multi_perform(multi, &running) != CURLM_OK) break;
      int pending = 0;
      while (CURLMsg* msg = curl_multi_info_read(multi, &pending)) {
        if (msg->msg == CURLMSG_DONE) {
          result = msg->data.result;
          done = true;
        }
      }
      if (done || running == 0) break;
      if (pastDeadline()) {
        aborted = true;
        break;
      }
      curl_multi_poll(multi, nullptr, 0, kPollMs, nullptr);
    }
    curl_multi_remove_handle(multi, easy);

    if (aborted) return Outcome::kAborted;
    if (!done || result != CURLE_OK) return Outcome::kRetry;
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    if (status >= 200 && status < 300) return Outcome::kDelivered;
    if (status == 408 || status == 429 || status >= 500) return Outcome::kRetry;
    return Outcome::kRejected;
  }

  bool pastDeadline() {
    if (!stopping_.load(std::memory_order_acquire)) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    return Clock::now() >= deadline_;
  }

  // How often a running transfer looks at the deregister deadline, ms.
  static constexpr int kPollMs = 50;

  const std::string url_;
  const HttpSettings settings_;
  std::string clientHeader_;  // "" when the name cannot be sent

  std::mutex mutex_;
  std::condition_variable wake_;   // a document was queued, or close()
  std::deque<std::string> queue_;  // guarded by mutex_; front is being sent
  std::size_t queuedBytes_ = 0;    // guarded by mutex_
  Clock::time_point deadline_;     // guarded by mutex_; set by close()
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace

TracerClient* TracerClient::registerClient(const std::string& name) {
  const char* endpoint = std::getenv("ZEL_TRACE_ENDPOINT");
  if (endpoint == nullptr) return nullptr;
  const std::string target(endpoint);

  if (startsWith(target, kFileScheme)) {
    const std::string path = target.substr(sizeof(kFileScheme) - 1);
    if (path.empty()) return nullptr;
    std::unique_ptr<Sink> sink(new FileSink(path));
    // The memory is allocated before release() runs, so a failed
    // allocation still frees the sink.
    return new TracerClient(sink.release());
  }

  if (startsWith(target, kHttpScheme) || startsWith(target, kHttpsScheme)) {
    const std::size_t schemeLen =
        startsWith(target, kHttpScheme) ? sizeof(kHttpScheme) - 1 : sizeof(kHttpsScheme) - 1;
    if (!curlReady() || !hasHost(target, schemeLen)) return nullptr;
    std::unique_ptr<Sink> sink;
    try {
      sink.reset(new HttpSink(target, name, HttpSettings::fromEnvironment()));
    } catch (const std::system_error&) {
      return nullptr;  // the sender thread could not be started
    }
    // The memory is allocated before release() runs, so a failed
    // allocation still frees the sink.
    return new TracerClient(sink.release());
  }
  return nullptr;
}

TracerClient::TracerClient(zel_tracer_detail::Sink* sink) : sink_(sink) {}

TracerClient::~TracerClient() { delete sink_; }

bool TracerClient::postTrace(const std::string& text) { return sink_->post(text); }

void TracerClient::deregister() {
  sink_->close();
  delete this;
}
