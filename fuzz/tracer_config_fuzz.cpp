// SPDX-License-Identifier: MIT

// Fuzzes how the tracing client reads ZEL_TRACE_ENDPOINT and its numeric
// settings. Input layout: the first line is a setting's text, the rest an
// endpoint's text (each up to its first NUL, as an environment value is).
// Checked against a model written here:
//   - a setting is its whole decimal number, capped at the range's top, when
//     the text is digits only and the number is not below the range's
//     bottom, and the default otherwise; every HttpSettings field read from
//     the environment lies in its range;
//   - "file://<path>" gives the file target <path> exactly (none for an
//     empty path); an HTTP target only for "http://" or "https://" followed
//     by a host character, with the whole text as its URL, and only for a
//     URL that libcurl parses with a host; anything else gives no target.
#include <curl/curl.h>
#include <stdlib.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_util.h"
#include "tracer/tracer_config.h"

namespace {

using zel_tracer_detail::Endpoint;
using zel_tracer_detail::SettingRange;

// The model of a setting: compares decimal texts without converting them,
// so that no length of digits overflows.
long ModelSetting(const std::string& text, const SettingRange& range) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
    return range.fallback;
  }
  std::string digits = text.substr(std::min(text.find_first_not_of('0'), text.size()));
  auto less = [](const std::string& a, const std::string& b) {
    return a.size() != b.size() ? a.size() < b.size() : a < b;
  };
  const std::string lowest = range.lowest == 0 ? "" : std::to_string(range.lowest);
  const std::string highest = std::to_string(range.highest);
  if (less(digits, lowest)) return range.fallback;
  if (less(highest, digits)) return range.highest;
  return digits.empty() ? 0 : std::stol(digits);
}

void CheckSetting(const std::string& text) {
  const SettingRange* ranges[] = {
      &zel_tracer_detail::kConnectTimeoutRange, &zel_tracer_detail::kTimeoutRange,
      &zel_tracer_detail::kRetryRange,          &zel_tracer_detail::kRetryMaxRange,
      &zel_tracer_detail::kQueueMaxRange,       &zel_tracer_detail::kQueueBytesRange,
      &zel_tracer_detail::kDeregisterRange,     &zel_tracer_detail::kBatchMaxRange,
      &zel_tracer_detail::kBatchBytesRange,     &zel_tracer_detail::kBatchDelayRange};
  for (const SettingRange* range : ranges) {
    const long value = zel_tracer_detail::parseSetting(text.c_str(), *range);
    if (value != ModelSetting(text, *range)) std::abort();
    if (value != range->fallback && (value < range->lowest || value > range->highest)) {
      std::abort();
    }
  }
}

// Sets the environment variable `name` to `text` (cut at 64 KiB, beyond any
// input the fuzzer makes). glibc's setenv keeps every value it was ever
// given, since a pointer that getenv returned may still be in use, so a
// long run with setenv grows without bound (several GiB in ten million
// inputs). Each variable here is a buffer of this target's own, put into
// the environment and rewritten in place.
void SetVariable(const char* name, const std::string& text) {
  constexpr std::size_t kValueMax = 64 * 1024;
  struct Variable {
    std::string name;
    std::vector<char> buffer;
  };
  static std::vector<Variable> variables;
  Variable* variable = nullptr;
  for (Variable& v : variables) {
    if (v.name == name) variable = &v;
  }
  if (variable == nullptr) {
    // Room for every variable at once: the buffers must never move.
    variables.reserve(16);
    if (variables.size() == variables.capacity()) std::abort();
    variables.push_back({name, std::vector<char>(std::strlen(name) + 2 + kValueMax, '\0')});
    variable = &variables.back();
  }
  const std::string value = std::string(text.c_str()).substr(0, kValueMax);
  const std::string entry = variable->name + "=" + value;
  std::memcpy(variable->buffer.data(), entry.c_str(), entry.size() + 1);
  if (putenv(variable->buffer.data()) != 0) std::abort();
}

void CheckEnvironment(const std::string& text) {
  const char* names[] = {
      "ZEL_TRACE_CONNECT_TIMEOUT_MS", "ZEL_TRACE_TIMEOUT_MS", "ZEL_TRACE_RETRY_MS",
      "ZEL_TRACE_RETRY_MAX_MS",       "ZEL_TRACE_QUEUE_MAX",  "ZEL_TRACE_QUEUE_BYTES",
      "ZEL_TRACE_DEREGISTER_MS",      "ZEL_TRACE_BATCH_MAX",  "ZEL_TRACE_BATCH_BYTES",
      "ZEL_TRACE_BATCH_DELAY_MS",     "ZEL_TRACE_GZIP"};
  for (const char* name : names) SetVariable(name, text);
  const zel_tracer_detail::HttpSettings s = zel_tracer_detail::HttpSettings::fromEnvironment();
  auto within = [](long value, const SettingRange& range) {
    return value >= range.lowest && value <= range.highest;
  };
  if (!within(s.connectTimeoutMs, zel_tracer_detail::kConnectTimeoutRange) ||
      !within(s.timeoutMs, zel_tracer_detail::kTimeoutRange) ||
      !within(s.retryMs, zel_tracer_detail::kRetryRange) || s.retryMaxMs < s.retryMs ||
      !within(s.retryMaxMs, zel_tracer_detail::kRetryMaxRange) ||
      !within(static_cast<long>(s.queueMax), zel_tracer_detail::kQueueMaxRange) ||
      !within(static_cast<long>(s.queueBytes), zel_tracer_detail::kQueueBytesRange) ||
      !within(s.deregisterMs, zel_tracer_detail::kDeregisterRange) ||
      !within(static_cast<long>(s.batchMax), zel_tracer_detail::kBatchMaxRange) ||
      !within(static_cast<long>(s.batchBytes), zel_tracer_detail::kBatchBytesRange) ||
      !within(s.batchDelayMs, zel_tracer_detail::kBatchDelayRange) || s.gzip != (text == "1")) {
    std::abort();
  }
}

// True when libcurl's parser takes `url` whole and finds a host in it.
bool CurlFindsHost(const std::string& url) {
  CURLU* handle = curl_url();
  if (handle == nullptr) std::abort();
  bool found = false;
  if (curl_url_set(handle, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK) {
    char* host = nullptr;
    found = curl_url_get(handle, CURLUPART_HOST, &host, 0) == CURLUE_OK && host != nullptr &&
            host[0] != '\0';
    curl_free(host);
  }
  curl_url_cleanup(handle);
  return found;
}

void CheckEndpoint(const std::string& text) {
  const Endpoint endpoint = zel_tracer_detail::parseEndpoint(text.c_str());
  const std::string file = "file://";
  if (text.compare(0, file.size(), file) == 0) {
    const bool usable = text.size() > file.size();
    if (endpoint.kind != (usable ? Endpoint::Kind::kFile : Endpoint::Kind::kNone)) std::abort();
    if (usable && endpoint.location != text.substr(file.size())) std::abort();
    return;
  }
  std::size_t scheme = 0;
  if (text.compare(0, 7, "http://") == 0) scheme = 7;
  if (text.compare(0, 8, "https://") == 0) scheme = 8;
  if (scheme == 0 || text.size() == scheme ||
      std::string("/?#").find(text[scheme]) != std::string::npos) {
    if (endpoint.kind != Endpoint::Kind::kNone) std::abort();
    return;
  }
  if (endpoint.kind == Endpoint::Kind::kFile) std::abort();
  if (endpoint.kind == Endpoint::Kind::kHttp) {
    if (endpoint.location != text || !CurlFindsHost(text)) std::abort();
  } else if (CurlFindsHost(text)) {
    // Refused although libcurl finds a host: only for a host without an
    // ASCII form, which needs a byte outside ASCII, as it stands or
    // percent-encoded ("%91").
    bool nonAscii = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
      const auto c = static_cast<unsigned char>(text[i]);
      if (c >= 0x80) nonAscii = true;
      if (c == '%' && i + 2 < text.size() &&
          std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
          std::isxdigit(static_cast<unsigned char>(text[i + 2])) &&
          std::stoi(text.substr(i + 1, 2), nullptr, 16) >= 0x80) {
        nonAscii = true;
      }
    }
    if (!nonAscii) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string input(reinterpret_cast<const char*>(data), size);
  // An environment value ends at its first NUL.
  input = input.substr(0, input.find('\0'));
  const std::string setting = zel_fuzz::TakeLine(input);
  CheckSetting(setting);
  CheckEnvironment(setting);
  CheckEndpoint(input);
  return 0;
}
