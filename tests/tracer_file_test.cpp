// SPDX-License-Identifier: MIT

// The tracing client's file:// target: one whole document per line, also
// with several threads and processes writing to the same file.
#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>
#if !defined(ZEL_TEST_ON_WINDOWS)
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <string>
#include <thread>
#include <vector>

#include "tests/support/test_util.h"
#include "tests/support/tracer_test_util.h"
#include "tracer/tracer_client.h"

namespace {

using zel_test::Document;
using zel_test::Parse;
using zel_test::ReadFile;
using zel_test::SplitLines;
using zel_test::TempDir;

// ---------------------------------------------------------------------------
// file:// target.

// A client registered as "test" with the file `path` as its target.
TracerClient* FileClient(const std::string& path) {
  setenv("ZEL_TRACE_ENDPOINT", ("file://" + path).c_str(), 1);
  return TracerClient::registerClient("test");
}

TEST(TracerClientTest, FileTargetGetsOneWholeDocumentPerLine) {
  TempDir dir;
  const std::string path = dir.path() + "trace.jsonl";
  TracerClient* client = FileClient(path);
  ASSERT_NE(client, nullptr);
  EXPECT_TRUE(client->postTrace("{\"a\":\"1\"}"));
  EXPECT_TRUE(client->postTrace("{\n\t\"b\" : \"2\"\n}"));
  client->deregister();
  EXPECT_EQ(ReadFile(path), "{\"a\":\"1\"}\n{\n\t\"b\" : \"2\"\n}\n");
}

TEST(TracerClientTest, FileTargetAppendsToAnExistingFile) {
  TempDir dir;
  const std::string path = dir.path() + "trace.jsonl";
  zel_test::WriteFile(path, "{}\n");
  TracerClient* client = FileClient(path);
  ASSERT_NE(client, nullptr);
  EXPECT_TRUE(client->postTrace("{\"c\":\"3\"}"));
  client->deregister();
  EXPECT_EQ(ReadFile(path), "{}\n{\"c\":\"3\"}\n");
}

TEST(TracerClientTest, UnwritableFileTargetRefusesThePost) {
  TempDir dir;
  TracerClient* client = FileClient(dir.path() + "missing/trace.jsonl");
  ASSERT_NE(client, nullptr);
  EXPECT_FALSE(client->postTrace("{}"));
  client->deregister();
}

TEST(TracerClientTest, FileTargetWrittenByFourThreadsKeepsEveryDocumentWhole) {
  TempDir dir;
  const std::string path = dir.path() + "trace.jsonl";
  TracerClient* client = FileClient(path);
  ASSERT_NE(client, nullptr);
  constexpr int kThreads = 4;
  constexpr int kPerThread = 200;
  // Documents larger than a stdio buffer, so that a torn write would show.
  zel_test::PostFromThreads(client, kThreads, kPerThread, 9000);
  client->deregister();

  const std::vector<std::string> lines = SplitLines(ReadFile(path));
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kPerThread));
  std::vector<int> next(kThreads, 0);
  for (const std::string& line : lines) {
    ASSERT_EQ(line.back(), '\n');
    const Json::Value doc = Parse(line);
    ASSERT_TRUE(doc.isObject()) << line.substr(0, 80);
    const int t = std::stoi(doc["tag"].asString());
    ASSERT_GE(t, 0);
    ASSERT_LT(t, kThreads);
    // Each thread's documents appear in its own posting order.
    EXPECT_EQ(std::stoi(doc["n"].asString()), next[static_cast<std::size_t>(t)]++);
    EXPECT_EQ(line, Document(doc["tag"].asString(), std::stoi(doc["n"].asString()), 9000) + "\n");
  }
  for (int n : next) EXPECT_EQ(n, kPerThread);
}

#if !defined(ZEL_TEST_ON_WINDOWS)
TEST(TracerClientTest, FileTargetWrittenByFourProcessesKeepsEveryDocumentWhole) {
  TempDir dir;
  const std::string path = dir.path() + "trace.jsonl";
  setenv("ZEL_TRACE_ENDPOINT", ("file://" + path).c_str(), 1);
  constexpr int kProcesses = 4;
#if defined(__SANITIZE_THREAD__)
  // ThreadSanitizer slows every write and copy many times over: fewer
  // documents keep the test within its time limit on a busy machine.
  constexpr int kPerProcess = 40;
#else
  constexpr int kPerProcess = 100;
#endif
  // Larger than any stdio or pipe buffer: written in pieces, the
  // processes' documents would interleave.
  constexpr std::size_t kPadding = 100000;
  // Built by hand, as Document() would, so that the test stays quick under
  // the sanitizers: {"n":"<n>","pad":"xx...","tag":"<p>"}.
  const std::string pad(kPadding, 'x');
  auto record = [&pad](int p, int n) {
    return "{\"n\":\"" + std::to_string(n) + "\",\"pad\":\"" + pad + "\",\"tag\":\"" +
           std::to_string(p) + "\"}";
  };
  ASSERT_EQ(record(1, 2), Document("1", 2, kPadding));
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      TracerClient* client = TracerClient::registerClient("test");
      bool ok = client != nullptr;
      for (int i = 0; ok && i < kPerProcess; ++i) ok = client->postTrace(record(p, i));
      if (client != nullptr) client->deregister();
      _exit(ok ? 0 : 1);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  const std::vector<std::string> lines = SplitLines(ReadFile(path));
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kProcesses * kPerProcess));
  std::vector<int> next(kProcesses, 0);
  for (const std::string& line : lines) {
    // The process's number is the text after the last "tag":".
    const std::size_t tag = line.rfind("\"tag\":\"");
    ASSERT_NE(tag, std::string::npos) << line.substr(0, 80);
    const int p = std::atoi(line.c_str() + tag + 7);
    ASSERT_GE(p, 0);
    ASSERT_LT(p, kProcesses);
    // Whole, and in each process's posting order.
    ASSERT_EQ(line, record(p, next[static_cast<std::size_t>(p)]++) + "\n") << line.substr(0, 80);
  }
}
#endif

}  // namespace
