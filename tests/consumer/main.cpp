// SPDX-License-Identifier: MIT

// Uses the installed zel libraries as a client module would: logs through
// the log front end into the directory given as the first argument, runs a
// closure on a Worker and posts a document through the tracing client to a
// file in that directory. Prints the log file and the document; exits 0
// when both arrived.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tracer/tracer_client.h"
#include "utils/logger.h"
#include "utils/process_path.h"
#include "utils/worker.h"
#include "utils/zel_string.h"

namespace {

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || std::string(argv[1]).back() != '/') {
    std::fprintf(stderr, "usage: zel_consumer <log base directory ending in />\n");
    return 2;
  }
  const std::string base = argv[1];
  zel_set_log_path(base.c_str());

  int ran = 0;
  {
    zel::Worker worker;
    worker.Start();
    worker.DoSync([&ran] { ran = zel_htoi("2a"); });
  }
  log_print(0, 0, "consumer: worker gave %d in %s\n", ran, get_process_name().c_str());
  zel_log_flush();

  // The live file of this process in the day directory the Logger chose.
  std::string logged;
  for (const auto& entry : std::filesystem::directory_iterator(zel::Logger::GetLogPath())) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("zel.log.zel_consumer.", 0) == 0) {
      std::printf("log file: %s\n", entry.path().c_str());
      logged += ReadFile(entry.path());
    }
  }
  std::printf("%s", logged.c_str());
  const bool logOk = logged.find("consumer: worker gave 42 in zel_consumer\n") != std::string::npos;

  const std::string traceFile = base + "trace.jsonl";
  setenv("ZEL_TRACE_ENDPOINT", ("file://" + traceFile).c_str(), 1);
  TracerClient* client = TracerClient::registerClient("zel_consumer");
  const bool posted = client != nullptr && client->postTrace("{\"consumer\":true}");
  if (client != nullptr) client->deregister();
  const std::string traced = ReadFile(traceFile);
  std::printf("trace file %s: %s", traceFile.c_str(), traced.c_str());
  const bool traceOk = posted && traced == "{\"consumer\":true}\n";

  if (!logOk) std::fprintf(stderr, "consumer: the logged line is not in the log file\n");
  if (!traceOk) std::fprintf(stderr, "consumer: the document is not in the trace file\n");
  return logOk && traceOk ? 0 : 1;
}
