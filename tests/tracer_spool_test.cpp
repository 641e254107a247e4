// SPDX-License-Identifier: MIT

// The tracing client's spool: documents kept in files across outages and
// restarts, shared by processes, checked like the log's base directory.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/support/http_server.h"
#include "tests/support/test_util.h"
#include "tests/support/tracer_test_util.h"
#include "tracer/tracer_client.h"
#include "utils/logger.h"

namespace {

using std::chrono::milliseconds;
using zel_test::ListDir;
using zel_test::ReadFile;
using zel_test::TempDir;
using zel_test::TestHttpServer;
using zel_test::UseEndpointWithShortRetries;
using zel_test::WaitFor;
using zel_test::WriteFile;

// Sets the client's environment for one test: the target, the spool and
// short timings, with batches of up to ten documents; the wait for the
// queue to drain at deregistration is `deregisterMs` when given.
void UseEndpoint(const std::string& endpoint, const std::string& spool,
                 const char* deregisterMs = nullptr) {
  UseEndpointWithShortRetries(endpoint);
  if (deregisterMs != nullptr) setenv("ZEL_TRACE_DEREGISTER_MS", deregisterMs, 1);
  setenv("ZEL_TRACE_SPOOL_DIR", spool.c_str(), 1);
  unsetenv("ZEL_TRACE_SPOOL_BYTES");
  unsetenv("ZEL_TRACE_QUEUE_MAX");
  unsetenv("ZEL_TRACE_QUEUE_BYTES");
  setenv("ZEL_TRACE_BATCH_MAX", "10", 1);
}

std::string Document(const std::string& tag, int n) {
  return "{\"tag\":\"" + tag + "\",\"n\":" + std::to_string(n) + "}";
}

// The names in `dir` that begin with `prefix`.
std::vector<std::string> FilesWith(const std::string& dir, const std::string& prefix) {
  std::vector<std::string> names;
  for (const std::string& name : ListDir(dir)) {
    if (name.compare(0, prefix.size(), prefix) == 0) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// How often each document reached `server`.
std::map<std::string, int> Received(TestHttpServer& server) {
  std::map<std::string, int> seen;
  for (const std::string& d : server.deliveredDocuments()) ++seen[d];
  return seen;
}

TEST(TracerSpoolTest, DocumentsOutliveAnOutageAndARestartOfTheProgram) {
  TempDir dir;
  const std::string spool = dir.path() + "spool";
  // Bound, never listening: the service is down during the first run.
  TestHttpServer server(TestHttpServer::Mode::kRefuse);
  UseEndpoint(server.url(), spool, "300");
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    // The first run: one client deregistered (its deadline passes), one
    // never deregistered (the process ends with it).
    TracerClient* ended = TracerClient::registerClient("ended");
    TracerClient* abandoned = TracerClient::registerClient("abandoned");
    if (ended == nullptr || abandoned == nullptr) _exit(3);
    for (int i = 0; i < 30; ++i) ended->postTrace(Document("ended", i));
    for (int i = 0; i < 20; ++i) abandoned->postTrace(Document("abandoned", i));
    ended->deregister();
    std::exit(TracerClient::droppedDocuments() == 0 ? 0 : 4);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), 0) << "the first run dropped documents";
  // The spool directory was made for the owner alone, its files too.
  struct stat st;
  ASSERT_EQ(stat(spool.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  const std::vector<std::string> files = FilesWith(spool, "spool-");
  ASSERT_FALSE(files.empty());
  for (const std::string& f : files) {
    ASSERT_EQ(stat((spool + "/" + f).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u) << f;
  }
  // The second run, with the service up: a client with the same spool
  // sends what the first run kept, and removes the files.
  server.SetMode(TestHttpServer::Mode::kAnswer);
  TracerClient* client = TracerClient::registerClient("restarted");
  ASSERT_NE(client, nullptr);
  ASSERT_TRUE(WaitFor([&] { return server.deliveredDocuments().size() >= 50; }));
  client->deregister();
  std::set<std::string> expected;
  for (int i = 0; i < 30; ++i) expected.insert(Document("ended", i));
  for (int i = 0; i < 20; ++i) expected.insert(Document("abandoned", i));
  const std::map<std::string, int> seen = Received(server);
  for (const std::string& d : expected) EXPECT_EQ(seen.count(d), 1u) << d;
  EXPECT_TRUE(FilesWith(spool, "spool-").empty());
  EXPECT_TRUE(FilesWith(spool, "claimed-").empty());
  EXPECT_EQ(TracerClient::droppedDocuments(), 0u);
}

TEST(TracerSpoolTest, TwoProcessesSharingASpoolSendEveryFileOnce) {
  TempDir dir;
  const std::string spool = dir.path() + "spool";
  ASSERT_EQ(mkdir(spool.c_str(), 0700), 0);
  // Forty files of ten documents, as an earlier run left them.
  std::set<std::string> expected;
  for (int f = 0; f < 40; ++f) {
    std::string lines;
    for (int i = 0; i < 10; ++i) {
      const std::string d = Document("file" + std::to_string(f), i);
      expected.insert(d);
      lines += d + "\n";
    }
    char name[64];
    std::snprintf(name, sizeof(name), "/spool-%020d-1-%d.ndjson", 1000 + f, f);
    WriteFile(spool + name, lines);
    chmod((spool + name).c_str(), 0600);
  }
  TestHttpServer server(TestHttpServer::Mode::kAnswer);
  // A slow service, so that both processes are sending at once.
  server.SetHandler([](const TestHttpServer::Request&, std::string&) {
    std::this_thread::sleep_for(milliseconds(5));
    return 200;
  });
  const std::string settings = "ZEL_TRACE_ENDPOINT=" + server.url() +
                               "\nZEL_TRACE_SPOOL_DIR=" + spool +
                               "\nZEL_TRACE_BATCH_MAX=3\nZEL_TRACE_BATCH_DELAY_MS=0";
  std::vector<pid_t> children;
  for (int p = 0; p < 2; ++p) {
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
      const std::string document = Document("process", p);
      execl(ZEL_TRACER_SECURE_PROBE, "tracer_secure_probe", document.c_str(), settings.c_str(),
            spool.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    children.push_back(child);
  }
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
  const std::map<std::string, int> seen = Received(server);
  for (const std::string& d : expected) EXPECT_EQ(seen.count(d) ? seen.at(d) : 0, 1) << d;
  EXPECT_TRUE(FilesWith(spool, "spool-").empty());
  EXPECT_TRUE(FilesWith(spool, "claimed-").empty());
  // The two processes' own documents, and nothing else.
  EXPECT_EQ(seen.size(), expected.size() + 2);
}

TEST(TracerSpoolTest, TornLastLineIsSkippedAndCounted) {
  TempDir dir;
  const std::string spool = dir.path() + "spool";
  ASSERT_EQ(mkdir(spool.c_str(), 0700), 0);
  zel_set_log_path((dir.path() + "log").c_str());
  const std::string file = spool + "/spool-00000000000000001000-1-0.ndjson";
  WriteFile(file, Document("whole", 0) + "\n" + Document("whole", 1) + "\n{\"tag\":\"to");
  TestHttpServer server(TestHttpServer::Mode::kAnswer);
  UseEndpoint(server.url(), spool);
  TracerClient* client = TracerClient::registerClient("torn");
  ASSERT_NE(client, nullptr);
  ASSERT_TRUE(WaitFor([&] { return server.deliveredDocuments().size() >= 2; }));
  client->deregister();
  EXPECT_EQ(server.deliveredDocuments(),
            (std::vector<std::string>{Document("whole", 0), Document("whole", 1)}));
  EXPECT_EQ(TracerClient::droppedDocuments(), 1u);
  EXPECT_TRUE(ListDir(spool).empty());
  zel_log_flush();
  const std::string log = zel_test::ReadLiveLog(zel::Logger::GetLogPath());
  EXPECT_NE(log.find("Error:zel trace: 1 documents dropped (torn spool line)"), std::string::npos)
      << log;
}

TEST(TracerSpoolTest, RejectedDocumentsGoToARejectedFile) {
  TempDir dir;
  const std::string spool = dir.path() + "spool";
  TestHttpServer server(TestHttpServer::Mode::kAnswer);
  server.ScriptStatuses({400});
  UseEndpoint(server.url(), spool);
  setenv("ZEL_TRACE_BATCH_MAX", "1", 1);
  TracerClient* client = TracerClient::registerClient("rejected");
  ASSERT_NE(client, nullptr);
  EXPECT_TRUE(client->postTrace("{\n  \"bad\": 1\n}"));
  EXPECT_TRUE(client->postTrace(Document("good", 1)));
  ASSERT_TRUE(WaitFor([&] { return server.deliveredDocuments().size() >= 1; }));
  client->deregister();
  const std::vector<std::string> rejected = FilesWith(spool, "rejected-");
  ASSERT_EQ(rejected.size(), 1u);
  EXPECT_EQ(ReadFile(spool + "/" + rejected[0]), "{\"bad\": 1}\n");
  EXPECT_EQ(TracerClient::droppedDocuments(), 0u);
}

TEST(TracerSpoolTest, SpoolBeyondItsBoundLosesItsOldestFilesCounted) {
  TempDir dir;
  const std::string spool = dir.path() + "spool";
  TestHttpServer server(TestHttpServer::Mode::kRefuse);
  UseEndpoint(server.url(), spool, "100");
  setenv("ZEL_TRACE_SPOOL_BYTES", "300", 1);
  // One batch of five per run, kept in one file.
  setenv("ZEL_TRACE_BATCH_MAX", "5", 1);
  setenv("ZEL_TRACE_BATCH_DELAY_MS", "60000", 1);
  // Each run keeps five documents of 22 bytes and their newlines: 115
  // bytes. The third run's file does not fit beside the first two.
  for (int run = 0; run < 3; ++run) {
    TracerClient* client = TracerClient::registerClient("bounded");
    ASSERT_NE(client, nullptr);
    for (int i = 0; i < 5; ++i) client->postTrace(Document("run" + std::to_string(run), i));
    client->deregister();
  }
  const std::vector<std::string> files = FilesWith(spool, "spool-");
  ASSERT_EQ(files.size(), 2u);
  EXPECT_NE(ReadFile(spool + "/" + files[0]).find("run1"), std::string::npos);
  EXPECT_NE(ReadFile(spool + "/" + files[1]).find("run2"), std::string::npos);
  EXPECT_EQ(TracerClient::droppedDocuments(), 5u);
}

TEST(TracerSpoolTest, SpoolDirectoryThatOthersMayWriteOrALinkIsRefused) {
  TempDir dir;
  const std::string open = dir.path() + "open";
  ASSERT_EQ(mkdir(open.c_str(), 0700), 0);
  ASSERT_EQ(chmod(open.c_str(), 0770), 0);
  const std::string target = dir.path() + "target";
  ASSERT_EQ(mkdir(target.c_str(), 0700), 0);
  const std::string link = dir.path() + "link";
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  TestHttpServer server(TestHttpServer::Mode::kRefuse);
  for (const std::string& spool : {open, link}) {
    SCOPED_TRACE(spool);
    UseEndpoint(server.url(), spool, "100");
    zel_test::StderrCapture err;
    TracerClient* client = TracerClient::registerClient(spool);
    ASSERT_NE(client, nullptr);
    EXPECT_TRUE(client->postTrace(Document("lost", 0)));
    client->deregister();
    const std::string said = err.Stop();
    EXPECT_NE(said.find("no spool: the spool directory " + spool), std::string::npos) << said;
  }
  EXPECT_TRUE(ListDir(open).empty());
  EXPECT_TRUE(ListDir(target).empty());
  EXPECT_EQ(TracerClient::droppedDocuments(), 2u);
}

}  // namespace
