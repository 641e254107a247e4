// SPDX-License-Identifier: MIT

// Helpers the tracing client's tests share (tests/tracer_*_test.cpp): the
// client's environment for one test, and JSON documents made and read back.
#ifndef ZEL_TESTS_SUPPORT_TRACER_TEST_UTIL_H_
#define ZEL_TESTS_SUPPORT_TRACER_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>

#include <cstddef>
#include <memory>
#include <string>

#include "tests/support/test_util.h"

namespace zel_test {

// Sets what every tracing test sets: the target, short retries, a long
// wait for the queue to drain at the end, documents sent as soon as they
// come, and no compression. The callers add what their tests need.
inline void UseEndpointWithShortRetries(const std::string& endpoint) {
  setenv("ZEL_TRACE_ENDPOINT", endpoint.c_str(), 1);
  setenv("ZEL_TRACE_RETRY_MS", "20", 1);
  setenv("ZEL_TRACE_RETRY_MAX_MS", "50", 1);
  setenv("ZEL_TRACE_DEREGISTER_MS", "10000", 1);
  setenv("ZEL_TRACE_BATCH_DELAY_MS", "0", 1);
  unsetenv("ZEL_TRACE_GZIP");
}

// Sets the client's environment for one test: the target and short timings.
inline void UseEndpoint(const std::string& endpoint) {
  UseEndpointWithShortRetries(endpoint);
  setenv("ZEL_TRACE_CONNECT_TIMEOUT_MS", "2000", 1);
  setenv("ZEL_TRACE_TIMEOUT_MS", "2000", 1);
  unsetenv("ZEL_TRACE_QUEUE_MAX");
  unsetenv("ZEL_TRACE_QUEUE_BYTES");
  // One request per document unless a test batches.
  setenv("ZEL_TRACE_BATCH_MAX", "1", 1);
  unsetenv("ZEL_TRACE_BATCH_BYTES");
}

// A compact JSON document numbered `n`, `padding` characters long or more.
inline std::string Document(const std::string& tag, int n, std::size_t padding = 0) {
  Json::Value value;
  value["tag"] = tag;
  value["n"] = std::to_string(n);
  value["pad"] = std::string(padding, 'x');
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

// Posts Document(<t>, 0 .. perThread - 1, padding) through `client` from
// each of `threads` threads t started together, expecting every post to be
// taken; returns when all threads are done.
template <typename Client>
void PostFromThreads(Client* client, int threads, int perThread, std::size_t padding = 0) {
  RunTogether(threads, [&](int t) {
    for (int i = 0; i < perThread; ++i) {
      EXPECT_TRUE(client->postTrace(Document(std::to_string(t), i, padding)));
    }
  });
}

// Parses `text` as one JSON document; fails the test when it is not one.
inline Json::Value Parse(const std::string& text) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string errors;
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors)) << errors;
  return root;
}

}  // namespace zel_test

#endif  // ZEL_TESTS_SUPPORT_TRACER_TEST_UTIL_H_
