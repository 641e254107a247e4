// SPDX-License-Identifier: MIT

#include "tracer/tracer_config.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#if defined(__linux__)
#include <sys/auxv.h>
#endif

namespace zel_tracer_detail {

const SettingRange kConnectTimeoutRange{2000, 1, 600000};
const SettingRange kTimeoutRange{5000, 1, 3600000};
const SettingRange kRetryRange{250, 1, 3600000};
const SettingRange kRetryMaxRange{30000, 1, 3600000};
const SettingRange kQueueMaxRange{10000, 1, 10000000};
const SettingRange kQueueBytesRange{8388608, 1, 1073741824};
const SettingRange kDeregisterRange{5000, 1, 3600000};
const SettingRange kBatchMaxRange{500, 1, 100000};
const SettingRange kBatchBytesRange{1048576, 1, 67108864};
const SettingRange kBatchDelayRange{1000, 0, 60000};
const SettingRange kSpoolBytesRange{67108864, 1, 2000000000};

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

// The settings given by configureSettings(), by name; set once and never
// changed or freed afterwards, so that the values can be handed out as
// pointers while other threads read them.
struct ConfiguredSettings {
  std::mutex mutex;
  bool set = false;                           // guarded by mutex
  bool frozen = false;                        // guarded by mutex: a client has read the settings
  std::map<std::string, std::string> values;  // guarded by mutex until set
};

ConfiguredSettings& configured() {
  // Never destroyed: clients may read settings while static data goes away.
  static ConfiguredSettings* settings = new ConfiguredSettings;
  return *settings;
}

// The names configureSettings() takes: those registerClient() reads.
const char* const kSettingNames[] = {
    "ZEL_TRACE_ENDPOINT",    "ZEL_TRACE_CONNECT_TIMEOUT_MS", "ZEL_TRACE_TIMEOUT_MS",
    "ZEL_TRACE_RETRY_MS",    "ZEL_TRACE_RETRY_MAX_MS",       "ZEL_TRACE_QUEUE_MAX",
    "ZEL_TRACE_QUEUE_BYTES", "ZEL_TRACE_DEREGISTER_MS",      "ZEL_TRACE_BATCH_MAX",
    "ZEL_TRACE_BATCH_BYTES", "ZEL_TRACE_BATCH_DELAY_MS",     "ZEL_TRACE_GZIP",
    "ZEL_TRACE_SPOOL_DIR",   "ZEL_TRACE_SPOOL_BYTES",
};

bool isSettingName(const std::string& name) {
  for (const char* known : kSettingNames) {
    if (name == known) return true;
  }
  return false;
}

long settingOf(const char* name, const SettingRange& range) {
  return parseSetting(settingValue(name), range);
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

bool isPrivilegedProcess() {
#if defined(__linux__)
  return getauxval(AT_SECURE) != 0;
#else
  return false;
#endif
}

bool configureSettings(const std::string& text) {
  std::map<std::string, std::string> values;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    if (line.empty()) continue;
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) return false;
    const std::string name = line.substr(0, equals);
    if (!isSettingName(name) || values.count(name) != 0) return false;
    values[name] = line.substr(equals + 1);
  }
  ConfiguredSettings& settings = configured();
  std::lock_guard<std::mutex> lock(settings.mutex);
  if (settings.set || settings.frozen) return false;
  settings.values.swap(values);
  settings.set = true;
  return true;
}

const char* settingValue(const char* name) {
  ConfiguredSettings& settings = configured();
  {
    std::lock_guard<std::mutex> lock(settings.mutex);
    settings.frozen = true;
    if (settings.set) {
      const auto found = settings.values.find(name);
      return found == settings.values.end() ? nullptr : found->second.c_str();
    }
  }
  // A privileged process does not take its settings from whoever started
  // it: secure_getenv() gives nothing there.
#if defined(__GLIBC__)
  return secure_getenv(name);
#else
  return isPrivilegedProcess() ? nullptr : std::getenv(name);
#endif
}

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
  const char* gzip = settingValue("ZEL_TRACE_GZIP");
  s.gzip = gzip != nullptr && std::string(gzip) == "1";
  const char* spoolDir = settingValue("ZEL_TRACE_SPOOL_DIR");
  s.spoolDir = spoolDir != nullptr ? spoolDir : "";
  s.spoolBytes = settingOf("ZEL_TRACE_SPOOL_BYTES", kSpoolBytesRange);
  return s;
}

std::string redactUrl(const std::string& url) {
  const std::size_t scheme = url.find("://");
  const std::size_t authorityStart = scheme == std::string::npos ? 0 : scheme + 3;
  std::size_t authorityEnd = url.find_first_of("/?#", authorityStart);
  if (authorityEnd == std::string::npos) authorityEnd = url.size();
  std::string out = url.substr(0, authorityStart);
  // The user-info ends at the last "@" of the authority (a password may
  // hold an unescaped "@").
  std::size_t at = std::string::npos;
  for (std::size_t i = authorityStart; i < authorityEnd; ++i) {
    if (url[i] == '@') at = i;
  }
  if (at != std::string::npos) {
    out += "***";
    out.append(url, at, authorityEnd - at);
  } else {
    out.append(url, authorityStart, authorityEnd - authorityStart);
  }
  const std::string rest = url.substr(authorityEnd);
  const std::size_t query = rest.find('?');
  if (query == std::string::npos || rest.find('#') < query) return out + rest;
  const std::size_t fragment = rest.find('#', query);
  out.append(rest, 0, query + 1);
  out += "***";
  if (fragment != std::string::npos) out.append(rest, fragment, std::string::npos);
  return out;
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
