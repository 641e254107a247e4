#include "tracer/tracer_config.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstdlib>
#include <string>

namespace zel_tracer_detail {

const SettingRange kConnectTimeoutRange{2000, 1, 600000};
const SettingRange kTimeoutRange{5000, 1, 3600000};
const SettingRange kRetryRange{250, 1, 3600000};
const SettingRange kRetryMaxRange{30000, 1, 3600000};
const SettingRange kQueueMaxRange{1000, 1, 10000000};
const SettingRange kQueueBytesRange{8388608, 1, 1073741824};
const SettingRange kDeregisterRange{5000, 1, 3600000};
const SettingRange kBatchMaxRange{500, 1, 100000};
const SettingRange kBatchBytesRange{1048576, 1, 67108864};
const SettingRange kBatchDelayRange{1000, 0, 60000};

long parseSetting(const char* text, const SettingRange& range) {
  if (text == nullptr || *text == '\0') return range.fallback;
  // 64 bits wide on every platform: ten times a bound plus a digit fits.
  long long value = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9') return range.fallback;
    // Once past the upper bound the digits still have to be checked, but
    // the value stays above the bound instead of overflowing.
    if (value <= range.highest) value = value * 10 + (*p - '0');
  }
  if (value < range.lowest) return range.fallback;
  return value > range.highest ? range.highest : static_cast<long>(value);
}

namespace {

long settingOf(const char* name, const SettingRange& range) {
  return parseSetting(std::getenv(name), range);
}

constexpr char kFileScheme[] = "file://";
constexpr char kHttpScheme[] = "http://";
constexpr char kHttpsScheme[] = "https://";

// True when `text` begins with the literal `prefix`.
template <std::size_t N>
bool startsWith(const std::string& text, const char (&prefix)[N]) {
  return text.compare(0, N - 1, prefix) == 0;
}

// True when `url`, after its scheme `schemeLen` characters long, names a
// host right away and libcurl's URL parser takes the whole URL and finds a
// host in it that has an ASCII form. libcurl alone would also take
// "http:///x" as the host "x".
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
    // A host that is not ASCII must convert to its ASCII form, as the
    // transfer would do; bytes that are no name at all fail here instead of
    // in every request.
    char* ascii = nullptr;
    if (ok && curl_url_get(handle, CURLUPART_HOST, &ascii, CURLU_PUNYCODE) != CURLUE_OK) ok = false;
    curl_free(ascii);
  }
  curl_url_cleanup(handle);
  return ok;
}

}  // namespace

HttpSettings HttpSettings::fromEnvironment() {
  HttpSettings s;
  s.connectTimeoutMs = settingOf("ZEL_TRACE_CONNECT_TIMEOUT_MS", kConnectTimeoutRange);
  s.timeoutMs = settingOf("ZEL_TRACE_TIMEOUT_MS", kTimeoutRange);
  s.retryMs = settingOf("ZEL_TRACE_RETRY_MS", kRetryRange);
  s.retryMaxMs = std::max(s.retryMs, settingOf("ZEL_TRACE_RETRY_MAX_MS", kRetryMaxRange));
  s.queueMax = static_cast<std::size_t>(settingOf("ZEL_TRACE_QUEUE_MAX", kQueueMaxRange));
  s.queueBytes = static_cast<std::size_t>(settingOf("ZEL_TRACE_QUEUE_BYTES", kQueueBytesRange));
  s.deregisterMs = settingOf("ZEL_TRACE_DEREGISTER_MS", kDeregisterRange);
  s.batchMax = static_cast<std::size_t>(settingOf("ZEL_TRACE_BATCH_MAX", kBatchMaxRange));
  s.batchBytes = static_cast<std::size_t>(settingOf("ZEL_TRACE_BATCH_BYTES", kBatchBytesRange));
  s.batchDelayMs = settingOf("ZEL_TRACE_BATCH_DELAY_MS", kBatchDelayRange);
  const char* gzip = std::getenv("ZEL_TRACE_GZIP");
  s.gzip = gzip != nullptr && std::string(gzip) == "1";
  return s;
}

Endpoint parseEndpoint(const char* text) {
  Endpoint endpoint;
  if (text == nullptr) return endpoint;
  const std::string target(text);
  if (startsWith(target, kFileScheme)) {
    if (target.size() > sizeof(kFileScheme) - 1) {
      endpoint.kind = Endpoint::Kind::kFile;
      endpoint.location = target.substr(sizeof(kFileScheme) - 1);
    }
    return endpoint;
  }
  std::size_t schemeLen = 0;
  if (startsWith(target, kHttpScheme)) schemeLen = sizeof(kHttpScheme) - 1;
  if (startsWith(target, kHttpsScheme)) schemeLen = sizeof(kHttpsScheme) - 1;
  if (schemeLen != 0 && hasHost(target, schemeLen)) {
    endpoint.kind = Endpoint::Kind::kHttp;
    endpoint.location = target;
  }
  return endpoint;
}

}  // namespace zel_tracer_detail
