#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/test_util.h"
#include "tracer/tracer_client.h"

namespace {

using zel_test::ReadFile;
using zel_test::SplitLines;
using zel_test::TempDir;

TEST(TracerClientTest, NoEndpointGivesNoClient) {
  unsetenv("ZEL_TRACE_ENDPOINT");
  EXPECT_EQ(TracerClient::registerClient("test"), nullptr);
  setenv("ZEL_TRACE_ENDPOINT", "", 1);
  EXPECT_EQ(TracerClient::registerClient("test"), nullptr);
  setenv("ZEL_TRACE_ENDPOINT", "file://", 1);
  EXPECT_EQ(TracerClient::registerClient("test"), nullptr);
  setenv("ZEL_TRACE_ENDPOINT", "gopher://example", 1);
  EXPECT_EQ(TracerClient::registerClient("test"), nullptr);
}

TEST(TracerClientTest, FileTargetGetsOneWholeDocumentPerLine) {
  TempDir dir;
  const std::string path = dir.path() + "trace.jsonl";
  setenv("ZEL_TRACE_ENDPOINT", ("file://" + path).c_str(), 1);
  TracerClient* client = TracerClient::registerClient("test");
  ASSERT_NE(client, nullptr);
  EXPECT_TRUE(client->postTrace("{\"a\":\"1\"}"));
  EXPECT_TRUE(client->postTrace("{\n\t\"b\" : \"2\"\n}"));
  client->deregister();
  EXPECT_EQ(ReadFile(path), "{\"a\":\"1\"}\n{\n\t\"b\" : \"2\"\n}\n");
}

TEST(TracerClientTest, UnwritableFileTargetRefusesThePost) {
  TempDir dir;
  setenv("ZEL_TRACE_ENDPOINT", ("file://" + dir.path() + "missing/trace.jsonl").c_str(), 1);
  TracerClient* client = TracerClient::registerClient("test");
  ASSERT_NE(client, nullptr);
  EXPECT_FALSE(client->postTrace("{}"));
  client->deregister();
}

TEST(TracerClientTest, DocumentsOfFourThreadsNeverMix) {
  TempDir dir;
  const std::string path = dir.path() + "trace.jsonl";
  setenv("ZEL_TRACE_ENDPOINT", ("file://" + path).c_str(), 1);
  TracerClient* client = TracerClient::registerClient("test");
  ASSERT_NE(client, nullptr);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([client, t] {
      const std::string body(3000, static_cast<char>('a' + t));
      for (int i = 0; i < 200; ++i) EXPECT_TRUE(client->postTrace(body));
    });
  }
  for (std::thread& t : threads) t.join();
  client->deregister();
  const std::vector<std::string> lines = SplitLines(ReadFile(path));
  ASSERT_EQ(lines.size(), 800u);
  for (const std::string& line : lines) {
    ASSERT_EQ(line.size(), 3001u);
    EXPECT_EQ(line, std::string(3000, line[0]) + "\n");
  }
}

}  // namespace
