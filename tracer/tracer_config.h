// Internal to the tracing client: how registerClient() reads its target and
// its tuning from the environment. Pure functions of their inputs (apart
// from fromEnvironment(), which reads the variables), kept apart from the
// delivery so that tests and fuzz targets can drive them directly.
#ifndef ZEL_TRACER_TRACER_CONFIG_H_
#define ZEL_TRACER_TRACER_CONFIG_H_

#include <cstddef>
#include <string>

namespace zel_tracer_detail {

// One numeric environment setting: its default and the range it is clamped
// to.
struct SettingRange {
  long fallback;  // taken when the value is unset or invalid
  long lowest;    // smallest valid value
  long highest;   // larger values are taken as this one
};

// The value of the text `text` (null when unset) for a setting of range
// `range`: a whole decimal number of digits only (no sign, no space) at or
// above `range.lowest` gives itself, capped at `range.highest` (any number
// of digits, however large); anything else (null, empty, a sign, letters,
// spaces, a number below `range.lowest`) gives `range.fallback`.
long parseSetting(const char* text, const SettingRange& range);

// The ranges of the settings, with their defaults.
extern const SettingRange kConnectTimeoutRange;  // ZEL_TRACE_CONNECT_TIMEOUT_MS
extern const SettingRange kTimeoutRange;         // ZEL_TRACE_TIMEOUT_MS
extern const SettingRange kRetryRange;           // ZEL_TRACE_RETRY_MS
extern const SettingRange kRetryMaxRange;        // ZEL_TRACE_RETRY_MAX_MS (at least RETRY_MS)
extern const SettingRange kQueueMaxRange;        // ZEL_TRACE_QUEUE_MAX
extern const SettingRange kQueueBytesRange;      // ZEL_TRACE_QUEUE_BYTES
extern const SettingRange kDeregisterRange;      // ZEL_TRACE_DEREGISTER_MS
extern const SettingRange kBatchMaxRange;        // ZEL_TRACE_BATCH_MAX
extern const SettingRange kBatchBytesRange;      // ZEL_TRACE_BATCH_BYTES
extern const SettingRange kBatchDelayRange;      // ZEL_TRACE_BATCH_DELAY_MS

// The tuning of an HTTP client.
struct HttpSettings {
  long connectTimeoutMs;
  long timeoutMs;
  long retryMs;
  long retryMaxMs;  // never below retryMs
  std::size_t queueMax;
  std::size_t queueBytes;
  long deregisterMs;
  std::size_t batchMax;
  std::size_t batchBytes;
  long batchDelayMs;
  bool gzip;  // ZEL_TRACE_GZIP is exactly "1"

  // Reads every ZEL_TRACE_* tuning variable now.
  static HttpSettings fromEnvironment();
};

// What a ZEL_TRACE_ENDPOINT text names.
struct Endpoint {
  enum class Kind { kNone, kFile, kHttp };
  Kind kind = Kind::kNone;
  std::string location;  // the file's path, or the whole URL
};

// Classifies `text` (null when unset): "file://<path>" with a non-empty path
// is a file target; "http://" or "https://" followed at once by a host, in
// a URL that libcurl's own parser accepts whole, is an HTTP target; anything
// else is none. Needs libcurl's URL API (no global set-up).
Endpoint parseEndpoint(const char* text);

}  // namespace zel_tracer_detail

#endif  // ZEL_TRACER_TRACER_CONFIG_H_
