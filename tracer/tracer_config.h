// SPDX-License-Identifier: MIT

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
extern const SettingRange kSpoolBytesRange;      // ZEL_TRACE_SPOOL_BYTES

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
  bool gzip;             // ZEL_TRACE_GZIP is exactly "1"
  std::string spoolDir;  // ZEL_TRACE_SPOOL_DIR; empty: no spool
  long spoolBytes;       // ZEL_TRACE_SPOOL_BYTES

  // Reads every ZEL_TRACE_* tuning setting now, through settingValue().
  static HttpSettings fromEnvironment();
};

// True when the process runs with more privilege than whoever started it
// (set-user-ID, set-group-ID, file capabilities: the kernel's AT_SECURE);
// always false where the system does not say.
bool isPrivilegedProcess();

// Takes `text`, lines "NAME=value" separated by "\n" (empty lines ignored),
// as the only source of the ZEL_TRACE_* settings from now on: the
// environment is no longer read, and a name left out is unset. False, with
// nothing changed, when a line has no "=", names a setting that does not
// exist or names one twice, or when settings were given before or a
// setting has already been read.
bool configureSettings(const std::string& text);

// The value of the setting `name` (null when unset): from
// configureSettings() when it was called, else from the environment,
// except in a privileged process, which reads no setting from its
// environment. The first call fixes the source for the process.
const char* settingValue(const char* name);

// `url` as messages show it: its user-info (before "@" in the authority)
// and its query (after "?") each replaced by "***", so that credentials and
// tokens in the URL are never printed. "http://u:pw@h/p?token=t" gives
// "http://***@h/p?***".
std::string redactUrl(const std::string& url);

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
