// SPDX-License-Identifier: MIT

// Micro-benchmarks of the library: the caller's side of the log path, posting
// into a Looper at several queue depths, the Worker, the Timer, the
// configuration readers and the string helpers.
//
// The log lines go to a fresh directory under $TMPDIR (or /tmp), removed at
// the end. Run: build/bench/bench/zel_bench [--benchmark_filter=...]
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "utils/config_file.h"
#include "utils/config_parser.h"
#include "utils/logger.h"
#include "utils/looper.h"
#include "utils/timer.h"
#include "utils/worker.h"
#include "utils/zel_string.h"

namespace {

// The scratch directory of this run, ending in '/'.
std::string gScratch;

void RemoveTree(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return;
  if (S_ISDIR(st.st_mode)) {
    if (DIR* dir = opendir(path.c_str())) {
      std::vector<std::string> names;
      while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
      }
      closedir(dir);
      for (const std::string& name : names) RemoveTree(path + "/" + name);
    }
    rmdir(path.c_str());
  } else {
    unlink(path.c_str());
  }
}

// ---------------------------------------------------------------------------
// Log path: the caller's cost of one log_print() of a typical line. The
// writer thread runs meanwhile; every thread waits for it after its loop, so
// no run leaves lines behind for the next.

void BM_LogPrint(benchmark::State& state) {
  const char* name = "usb-3.1";
  int vid = 0x1d6b;
  for (auto _ : state) {
    log_print(3, 0, "[%s][%s %s %d] Debug:device %s attached vid=0x%04x pid=0x%04x\n", "",
              "/device_monitor.cpp", "zel::DeviceMonitor::OnAttach", 214, name, vid, 0x0003);
    ++vid;
  }
  zel_log_flush();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogPrint)->Threads(1)->Threads(2)->UseRealTime();

// The caller's cost of a line whose format asks for far more than the line
// holds (the line is cut at 4094 characters): a width of 999,999,999 in
// digits (the fast formatter), a precision of as many digits and a width of
// 2e9 from the arguments (the bounded formatter). Each took 2.7 to 5.5 s
// when the whole width was formatted.
void BM_LogPrintHugeWidth(benchmark::State& state) {
  static volatile int huge = 2000000000;
  const int width = huge;
  for (auto _ : state) {
    switch (state.range(0)) {
      case 0:
        log_print(3, 0, "%999999999d\n", 42);
        break;
      case 1:
        log_print(3, 0, "%.999999999d\n", 42);
        break;
      default:
        log_print(3, 0, "%*s\n", width, "abc");
        break;
    }
  }
  zel_log_flush();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogPrintHugeWidth)->Arg(0)->Arg(1)->Arg(2)->UseRealTime();

// ---------------------------------------------------------------------------
// Looper: posting one message that is due at once into a running looper
// that holds `depth` messages due in an hour. The loop thread takes the
// posted messages meanwhile.

void BM_LooperPost(benchmark::State& state) {
  const auto depth = state.range(0);
  zel::Looper looper;
  looper.Start();
  for (int64_t i = 0; i < depth; ++i) {
    looper.PostDelayMessage(std::make_unique<zel::Message>(), 3600 * 1000 + i % 1000);
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(looper.PostMessageAAA(std::make_unique<zel::Message>()));
  }
  state.SetItemsProcessed(state.iterations());
  looper.Stop();
}
BENCHMARK(BM_LooperPost)->Arg(0)->Arg(1000)->Arg(100000);

// Posting behind `depth` messages that are all due now while the loop thread
// is held by a message that waits: the backlog of a busy writer.
void BM_LooperPostBehindBacklog(benchmark::State& state) {
  const auto depth = state.range(0);
  zel::Looper looper;
  looper.Start();
  std::atomic<bool> release{false};
  std::atomic<bool> held{false};
  struct Hold : zel::Message {
    std::atomic<bool>* release;
    std::atomic<bool>* held;
    void Run() override {
      held->store(true);
      while (!release->load()) std::this_thread::yield();
    }
  };
  auto hold = std::make_unique<Hold>();
  hold->release = &release;
  hold->held = &held;
  looper.PostMessageAAA(std::move(hold));
  while (!held.load()) std::this_thread::yield();
  for (int64_t i = 0; i < depth; ++i) looper.PostMessageAAA(std::make_unique<zel::Message>());
  for (auto _ : state) {
    benchmark::DoNotOptimize(looper.PostMessageAAA(std::make_unique<zel::Message>()));
  }
  state.SetItemsProcessed(state.iterations());
  release.store(true);
  looper.Stop();
}
// The backlog grows by one message per iteration, so the count is fixed.
BENCHMARK(BM_LooperPostBehindBacklog)->Arg(0)->Arg(1000)->Arg(100000)->Iterations(200000);

// ---------------------------------------------------------------------------
// Worker and Timer.

void BM_WorkerDoAsync(benchmark::State& state) {
  zel::Worker worker;
  worker.Start();
  std::atomic<int64_t> ran{0};
  for (auto _ : state) worker.DoAsync([&ran] { ran.fetch_add(1, std::memory_order_relaxed); });
  worker.DoSync([] {});
  worker.Stop();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_WorkerDoAsync);

// Start() and Stop() of one timer while 10,000 others are pending (due in an
// hour, so none fires during the run).
void BM_TimerStartStop(benchmark::State& state) {
  zel::Timer timer;
  const auto cb = [](uint64_t, void*) {};
  for (int i = 0; i < 10000; ++i) timer.Start(3600 * 1000 + i, cb, false, nullptr);
  for (auto _ : state) {
    const uint64_t id = timer.Start(1800 * 1000, cb, false, nullptr);
    timer.Stop(id);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimerStartStop);

// ---------------------------------------------------------------------------
// Configuration readers.

std::string WriteIni() {
  const std::string path = gScratch + "client.ini";
  std::ofstream out(path);
  out << "[log]\nlevel=3\npath=/var/log/client/\n";
  for (int i = 0; i < 20; ++i) out << "key" << i << "=value" << i << "\n";
  out << "[net]\nhost=device.local\nport=8080\n";
  return path;
}

void BM_GetKeyStringFromFile(benchmark::State& state) {
  const std::string path = WriteIni();
  for (auto _ : state) {
    char* value = GetKeyStringFromFile(path.c_str(), "net", "host");
    benchmark::DoNotOptimize(value);
    std::free(value);
  }
}
BENCHMARK(BM_GetKeyStringFromFile);

void BM_GetKeyIntFromFile(benchmark::State& state) {
  const std::string path = WriteIni();
  for (auto _ : state) {
    benchmark::DoNotOptimize(GetKeyIntFromFile(path.c_str(), "net", "port"));
  }
}
BENCHMARK(BM_GetKeyIntFromFile);

std::string WriteKeyFile() {
  const std::string path = gScratch + "client.conf";
  std::ofstream out(path);
  out << "[net]\nport=8080\nhost=device.local\nhosts=a,b,c,d\nports=1,2,3,4\n"
         "ratio=0.75\nenabled=true\n";
  return path;
}

void BM_ConfigParserGetStringVal(benchmark::State& state) {
  zel::ConfigParser parser;
  if (parser.Init(WriteKeyFile(), ",") != 0) state.SkipWithError("Init failed");
  for (auto _ : state) benchmark::DoNotOptimize(parser.GetStringVal("net", "host"));
}
BENCHMARK(BM_ConfigParserGetStringVal);

void BM_ConfigParserGetIntegerVal(benchmark::State& state) {
  zel::ConfigParser parser;
  if (parser.Init(WriteKeyFile(), ",") != 0) state.SkipWithError("Init failed");
  int port = 0;
  for (auto _ : state) benchmark::DoNotOptimize(parser.GetIntegerVal("net", "port", &port));
}
BENCHMARK(BM_ConfigParserGetIntegerVal);

void BM_ConfigParserGetStringVals(benchmark::State& state) {
  zel::ConfigParser parser;
  if (parser.Init(WriteKeyFile(), ",") != 0) state.SkipWithError("Init failed");
  for (auto _ : state) benchmark::DoNotOptimize(parser.GetStringVals("net", "hosts"));
}
BENCHMARK(BM_ConfigParserGetStringVals);

void BM_ConfigParserGetIntegerVals(benchmark::State& state) {
  zel::ConfigParser parser;
  if (parser.Init(WriteKeyFile(), ",") != 0) state.SkipWithError("Init failed");
  for (auto _ : state) benchmark::DoNotOptimize(parser.GetIntegerVals("net", "ports"));
}
BENCHMARK(BM_ConfigParserGetIntegerVals);

void BM_ConfigParserGetDoubleVal(benchmark::State& state) {
  zel::ConfigParser parser;
  if (parser.Init(WriteKeyFile(), ",") != 0) state.SkipWithError("Init failed");
  double ratio = 0;
  for (auto _ : state) benchmark::DoNotOptimize(parser.GetDoubleVal("net", "ratio", &ratio));
}
BENCHMARK(BM_ConfigParserGetDoubleVal);

void BM_ConfigParserGetBooleanVal(benchmark::State& state) {
  zel::ConfigParser parser;
  if (parser.Init(WriteKeyFile(), ",") != 0) state.SkipWithError("Init failed");
  for (auto _ : state) benchmark::DoNotOptimize(parser.GetBooleanVal("net", "enabled"));
}
BENCHMARK(BM_ConfigParserGetBooleanVal);

// ---------------------------------------------------------------------------
// String helpers. get_brackets_value logs at level 3; the level is lowered
// so that only the helper itself is measured.

void BM_CheckBrackets(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(check_brackets("f(a[b]{c(d)e}g)h[i]"));
}
BENCHMARK(BM_CheckBrackets);

void BM_ZelHtoi(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(zel_htoi("0x1d6b"));
}
BENCHMARK(BM_ZelHtoi);

void BM_GetBracketsValue(benchmark::State& state) {
  const char saved = static_cast<char>(zel_log_level());
  zel_set_log_level(2);
  std::string out;
  const std::string text = "device(usb(3.1)port)";
  for (auto _ : state) benchmark::DoNotOptimize(get_brackets_value(out, text, '(', ')', 0));
  zel_set_log_level(saved);
}
BENCHMARK(BM_GetBracketsValue);

void BM_ParseStringKv(benchmark::State& state) {
  std::string key;
  std::string value;
  const std::string text = "vid=0x1d6b";
  const std::string sep = "=";
  for (auto _ : state) benchmark::DoNotOptimize(parse_string_kv(text, sep, key, value));
}
BENCHMARK(BM_ParseStringKv);

void BM_SplitStrings(benchmark::State& state) {
  const std::string text = "a,bb,,ccc,dddd,eeeee,ffffff,g";
  const std::string sep = ",";
  for (auto _ : state) benchmark::DoNotOptimize(split_strings(text, sep));
}
BENCHMARK(BM_SplitStrings);

}  // namespace

int main(int argc, char** argv) {
  const char* base = std::getenv("TMPDIR");
  std::string tmpl =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/zel_bench_XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) {
    std::perror("zel_bench: mkdtemp");
    return 1;
  }
  gScratch = std::string(buf.data()) + "/";
  zel_set_log_path(gScratch.c_str());

  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  zel_log_flush();
  RemoveTree(gScratch);
  return 0;
}
