// SPDX-License-Identifier: MIT

// Same-run comparison of the zel log path with spdlog and, when the
// benchmark is configured with ZEL_BENCH_QUILL_DIR, with quill.
//
// Every logger writes the same line: a prefix of month-day hh:mm:ss.mmm and
// the thread id, then "[%s][%s %s %d] Debug:device %s attached vid=0x%04x
// pid=0x%04x\n" with typical arguments (about 130 bytes in all), into a file
// under a scratch directory, with every line handed to the operating system
// (flushed) before the logger waits. The peers:
//
//   spdlog       spdlog's asynchronous logger, 8,192-slot queue, flush on
//                every line (the reference of the caller figures)
//   spdlog-1M    the same with a queue of 1,048,576 slots
//   spdlog-sync  spdlog's synchronous file logger, flush on every line
//   quill        quill (optional; bench/log_compare_quill.cpp): its
//                defaults, a file opened with mode 'w', the buffer handed
//                to the operating system whenever its backend runs out of
//                work
//
// Every figure is measured for every logger in the same run, interleaved
// (the order rotates with each repetition), and the medians over the
// repetitions are printed with their spread (lowest and highest) and the
// ratio zel/peer:
//
//   caller  the caller's cost of one call, paced so that no queue fills
//           (200 calls, then a 2 ms pause), 1 and 2 threads: p50, p90, p99
//           and p99.9 of every call of a repetition (zel, spdlog, quill)
//   e2e     lines per second from the first call until every line is
//           written and flushed (spdlog: its thread pool joined and the file
//           closed; quill: flush_log() and Backend::stop() returned), 1 and 2
//           threads, every logger
//   memory  peak resident memory of a process that logs a burst of 200,000
//           lines as fast as it can and waits until they are written; each
//           logger runs in its own child process (zel, spdlog, quill)
//
// Usage: zel_log_compare [--quick] [--reps N] [--data DIR]
//   --quick  fewer calls per repetition (for CI: checks that it runs)
//   --reps   repetitions, at least 5 (default 7)
//   --data   also writes latency.dat and throughput.dat (gnuplot input)
#include "bench/log_compare.h"

#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "utils/logger.h"

namespace {

using zelbench::kDevice;
using zelbench::kFile;
using zelbench::kFunction;
using zelbench::kLine;
using zelbench::kTag;
using zelbench::Side;
using Clock = std::chrono::steady_clock;

struct Options {
  bool quick = false;
  int reps = 7;
  std::string data;
};

std::string gScratch;  // ends in '/'
int gSpdlogRun = 0;    // numbers the spdlog files of this process

class ZelSide : public Side {
 public:
  const char* name() const override { return "zel"; }
  void open() override {}
  void log(int i) override {
    log_print(3, 0, "[%s][%s %s %d] Debug:device %s attached vid=0x%04x pid=0x%04x\n", kTag, kFile,
              kFunction, kLine, kDevice, 0x1d6b, i & 0xffff);
  }
  void finish() override { zel_log_flush(); }
};

// The file of the next spdlog measurement.
std::string SpdlogFile() {
  return gScratch + "spdlog." + std::to_string(getpid()) + "." + std::to_string(gSpdlogRun++) +
         ".txt";
}

class SpdlogSide : public Side {
 public:
  SpdlogSide(const char* name, std::size_t queue) : name_(name), queue_(queue) {}
  const char* name() const override { return name_; }
  void open() override {
    // A fresh pool and logger per measurement, so that finish() can wait for
    // the pool's thread to drain the queue and then close the file.
    pool_ = std::make_shared<spdlog::details::thread_pool>(queue_, 1);
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(SpdlogFile());
    logger_ = std::make_shared<spdlog::async_logger>("compare", std::move(sink), pool_,
                                                     spdlog::async_overflow_policy::block);
    logger_->set_pattern("[%m-%d %H:%M:%S.%e][tid:%t] %v");
    logger_->set_level(spdlog::level::debug);
    logger_->flush_on(spdlog::level::debug);
  }
  void log(int i) override {
    logger_->debug("[{}][{} {} {}] Debug:device {} attached vid=0x{:04x} pid=0x{:04x}", kTag, kFile,
                   kFunction, kLine, kDevice, 0x1d6b, i & 0xffff);
  }
  void finish() override {
    // The pool's destructor lets its thread take every queued line before
    // it joins; the last logger reference then closes the file.
    pool_.reset();
    logger_.reset();
  }

 private:
  const char* name_;
  std::size_t queue_;
  std::shared_ptr<spdlog::details::thread_pool> pool_;
  std::shared_ptr<spdlog::async_logger> logger_;
};

// spdlog's synchronous file logger: the caller formats and writes the line
// itself and flushes after every line.
class SpdlogSyncSide : public Side {
 public:
  const char* name() const override { return "spdlog-sync"; }
  void open() override {
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(SpdlogFile());
    logger_ = std::make_shared<spdlog::logger>("compare-sync", std::move(sink));
    logger_->set_pattern("[%m-%d %H:%M:%S.%e][tid:%t] %v");
    logger_->set_level(spdlog::level::debug);
    logger_->flush_on(spdlog::level::debug);
  }
  void log(int i) override {
    logger_->debug("[{}][{} {} {}] Debug:device {} attached vid=0x{:04x} pid=0x{:04x}", kTag, kFile,
                   kFunction, kLine, kDevice, 0x1d6b, i & 0xffff);
  }
  void finish() override { logger_.reset(); }

 private:
  std::shared_ptr<spdlog::logger> logger_;
};

double Percentile(std::vector<double>& sorted, double p) {
  if (sorted.empty()) return 0;
  const auto idx = static_cast<std::size_t>(p / 100.0 * static_cast<double>(sorted.size() - 1));
  return sorted[idx];
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  if (n == 0) return 0;
  return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Runs `body(thread index)` on `threads` threads at once.
void RunThreads(int threads, const std::function<void(int)>& body) {
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) pool.emplace_back(body, t);
  for (std::thread& th : pool) th.join();
}

// "median [lowest-highest]" of `values`, each printed with `format`.
std::string Spread(std::vector<double> values, const char* format) {
  std::sort(values.begin(), values.end());
  char med[32] = "-";
  char low[32] = "-";
  char high[32] = "-";
  if (!values.empty()) {
    std::snprintf(med, sizeof(med), format, Median(values));
    std::snprintf(low, sizeof(low), format, values.front());
    std::snprintf(high, sizeof(high), format, values.back());
  }
  return std::string(med) + " [" + low + "-" + high + "]";
}

// The optional quill peer, or null when the benchmark is built without it.
std::unique_ptr<Side> MakeQuill() {
#ifdef ZEL_BENCH_HAVE_QUILL
  return zelbench::MakeQuillSide(gScratch);
#else
  return nullptr;
#endif
}

const double kPercentiles[] = {50, 90, 99, 99.9};
constexpr int kNumPercentiles = 4;

// Caller cost: `rounds` rounds of 200 timed calls and a 2 ms pause on each
// thread. Returns the percentiles (ns) of all calls.
std::vector<double> CallerCost(Side& side, int threads, int rounds) {
  side.open();
  std::vector<std::vector<double>> perThread(static_cast<std::size_t>(threads));
  RunThreads(threads, [&](int t) {
    std::vector<double>& out = perThread[static_cast<std::size_t>(t)];
    out.reserve(static_cast<std::size_t>(rounds) * 200);
    int i = 0;
    for (int r = 0; r < rounds; ++r) {
      for (int k = 0; k < 200; ++k) {
        const auto start = Clock::now();
        side.log(i++);
        const auto end = Clock::now();
        out.push_back(static_cast<double>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(end - start).count()));
      }
      // The pacing of the workload: a pause between bursts.
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  side.finish();
  std::vector<double> all;
  for (const auto& v : perThread) all.insert(all.end(), v.begin(), v.end());
  std::sort(all.begin(), all.end());
  std::vector<double> result;
  for (double p : kPercentiles) result.push_back(Percentile(all, p));
  return result;
}

// End to end: `lines` lines split over `threads` threads, as fast as the
// logger takes them, until finish() returned. Returns lines per second.
double EndToEnd(Side& side, int threads, int lines) {
  side.open();
  const int perThread = lines / threads;
  const auto start = Clock::now();
  RunThreads(threads, [&](int) {
    for (int i = 0; i < perThread; ++i) side.log(i);
  });
  side.finish();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return static_cast<double>(perThread * threads) / seconds;
}

// The peak resident memory of this process in KiB (VmHWM), or -1.
long PeakKib() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, 6, "VmHWM:") == 0) return std::atol(line.c_str() + 6);
  }
  return -1;
}

// The child of the memory measurement: logs the burst, waits until it is
// written and prints its peak resident memory in KiB.
int BurstChild(const std::string& which, int lines) {
  std::unique_ptr<Side> quill = MakeQuill();
  ZelSide zel;
  SpdlogSide spd("spdlog", 8192);
  Side* chosen = &spd;
  if (which == "zel") chosen = &zel;
  if (which == "quill") {
    if (quill == nullptr) return 2;
    chosen = quill.get();
  }
  Side& side = *chosen;
  side.open();
  for (int i = 0; i < lines; ++i) side.log(i);
  side.finish();
  std::printf("%ld\n", PeakKib());
  return 0;
}

// Runs this program again as the burst child of `which`, in a process of its
// own so that the peaks of the two loggers do not mix; returns the child's
// peak resident memory in MiB, or -1.
double PeakMemory(const char* self, const std::string& which, int lines) {
  const std::string cmd = std::string("'") + self + "' --burst " + which + " " +
                          std::to_string(lines) + " '" + gScratch + "'";
  FILE* child = popen(cmd.c_str(), "r");
  if (child == nullptr) return -1;
  long kib = -1;
  // The last line is the figure; the logger's own notices come before it.
  char text[512] = {0};
  while (std::fgets(text, sizeof(text), child) != nullptr) kib = std::atol(text);
  if (pclose(child) != 0 || kib <= 0) return -1;
  return static_cast<double>(kib) / 1024.0;
}

void RemoveScratch() {
  const std::string cmd = "rm -rf '" + gScratch + "'";
  if (std::system(cmd.c_str()) != 0)
    std::fprintf(stderr, "could not remove %s\n", gScratch.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5 && std::strcmp(argv[1], "--burst") == 0) {
    gScratch = argv[4];
    zel_set_log_path((gScratch + "burst-" + argv[2] + "/").c_str());
    return BurstChild(argv[2], std::atoi(argv[3]));
  }
  Options opt;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--quick") {
      opt.quick = true;
    } else if (arg == "--reps" && i + 1 < argc) {
      opt.reps = std::max(5, std::atoi(argv[++i]));
    } else if (arg == "--data" && i + 1 < argc) {
      opt.data = argv[++i];
    } else {
      std::fprintf(stderr, "usage: %s [--quick] [--reps N] [--data DIR]\n", argv[0]);
      return 2;
    }
  }
  const char* base = std::getenv("TMPDIR");
  std::string tmpl =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/zel_compare_XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  gScratch = std::string(buf.data()) + "/";
  zel_set_log_path((gScratch + "zel/").c_str());

  const int rounds = opt.quick ? 10 : 50;
  const int lines = opt.quick ? 20000 : 200000;
  const int burst = 200000;
  ZelSide zel;
  SpdlogSide spd("spdlog", 8192);
  SpdlogSide spd1m("spdlog-1M", std::size_t{1} << 20);
  SpdlogSyncSide spdSync;
  std::unique_ptr<Side> quill = MakeQuill();
  // zel first; every figure compares zel with the others. The caller cost
  // and the memory are measured for the asynchronous peers of the common
  // configuration (spdlog's 8,192-slot queue, quill).
  std::vector<Side*> sides = {&zel, &spd, &spd1m, &spdSync};
  std::vector<Side*> callers = {&zel, &spd};
  if (quill != nullptr) {
    sides.push_back(quill.get());
    callers.push_back(quill.get());
  }
  const int nSides = static_cast<int>(sides.size());
  const int nCallers = static_cast<int>(callers.size());
  // Every logger starts its threads and opens its files before timing.
  zel.log(0);
  zel.finish();

  std::printf("zel vs %s, every line flushed, %d repetitions, medians [lowest-highest]\n",
              quill != nullptr ? "spdlog and quill" : "spdlog", opt.reps);
  std::printf("(a shared, noisy machine: compare the spreads, not only the medians)\n");
  // [threads - 1][caller side][percentile] -> values of the repetitions
  std::vector<std::vector<std::vector<double>>> caller[2];
  std::vector<std::vector<double>> e2e[2];
  for (int t = 0; t < 2; ++t) {
    caller[t].assign(static_cast<std::size_t>(nCallers),
                     std::vector<std::vector<double>>(kNumPercentiles));
    e2e[t].assign(static_cast<std::size_t>(nSides), {});
  }
  for (int rep = 0; rep < opt.reps; ++rep) {
    for (int threads = 1; threads <= 2; ++threads) {
      for (int k = 0; k < nCallers; ++k) {
        const int s = (k + rep) % nCallers;
        const std::vector<double> p = CallerCost(*callers[s], threads, rounds);
        for (int q = 0; q < kNumPercentiles; ++q) caller[threads - 1][s][q].push_back(p[q]);
      }
      for (int k = 0; k < nSides; ++k) {
        const int s = (k + rep) % nSides;
        e2e[threads - 1][s].push_back(EndToEnd(*sides[s], threads, lines));
      }
    }
  }

  std::printf("\ncaller cost per call (ns), 200 calls then 2 ms pause:\n");
  std::printf("%-8s %-12s %-22s %-22s %-22s %-22s\n", "threads", "logger", "p50", "p90", "p99",
              "p99.9");
  // [threads - 1][caller side][percentile] -> median
  std::vector<std::vector<double>> med[2];
  for (int t = 0; t < 2; ++t) {
    for (int s = 0; s < nCallers; ++s) {
      std::printf("%-8d %-12s", t + 1, callers[s]->name());
      med[t].emplace_back();
      for (int q = 0; q < kNumPercentiles; ++q) {
        med[t][s].push_back(Median(caller[t][s][q]));
        std::printf(" %-22s", Spread(caller[t][s][q], "%.0f").c_str());
      }
      std::printf("\n");
    }
    for (int s = 1; s < nCallers; ++s) {
      const std::string label = std::string("zel/") + callers[s]->name();
      std::printf("%-8d %-12s", t + 1, label.c_str());
      for (int q = 0; q < kNumPercentiles; ++q)
        std::printf(" %-22.2f", med[t][0][q] / med[t][s][q]);
      std::printf("\n");
    }
  }

  std::printf("\nend to end, %d lines, flush after every line (lines/s):\n", lines);
  std::printf("%-8s %-12s %-26s %s\n", "threads", "logger", "lines/s", "zel/logger");
  std::vector<double> rate[2];
  for (int t = 0; t < 2; ++t) {
    for (int s = 0; s < nSides; ++s) rate[t].push_back(Median(e2e[t][s]));
    for (int s = 0; s < nSides; ++s) {
      std::printf("%-8d %-12s %-26s %.2f\n", t + 1, sides[s]->name(),
                  Spread(e2e[t][s], "%.0f").c_str(), rate[t][0] / rate[t][s]);
    }
  }

  std::vector<std::vector<double>> mem(static_cast<std::size_t>(nCallers));
  const int memReps = opt.quick ? 1 : opt.reps;
  for (int rep = 0; rep < memReps; ++rep) {
    for (int k = 0; k < nCallers; ++k) {
      const int s = (k + rep) % nCallers;
      mem[s].push_back(PeakMemory(argv[0], callers[s]->name(), burst));
    }
  }
  std::vector<double> memMed;
  for (const auto& values : mem) memMed.push_back(Median(values));
  std::printf("\npeak resident memory, burst of %d lines (MiB):\n", burst);
  for (int s = 0; s < nCallers; ++s) std::printf("%-22s ", callers[s]->name());
  std::printf("\n");
  for (int s = 0; s < nCallers; ++s) std::printf("%-22s ", Spread(mem[s], "%.1f").c_str());
  std::printf("\n");
  for (int s = 1; s < nCallers; ++s)
    std::printf("zel/%s %.2f\n", callers[s]->name(), memMed[0] / memMed[s]);

  if (!opt.data.empty()) {
    // Columns: zel and spdlog at 1 and 2 threads, then each further peer at
    // 1 and 2 threads.
    std::ofstream lat(opt.data + "/latency.dat");
    lat << "# percentile zel_1t spdlog_1t zel_2t spdlog_2t";
    for (int s = 2; s < nCallers; ++s)
      lat << " " << callers[s]->name() << "_1t " << callers[s]->name() << "_2t";
    lat << " (ns)\n";
    const char* labels[] = {"p50", "p90", "p99", "p99.9"};
    for (int q = 0; q < kNumPercentiles; ++q) {
      lat << labels[q] << " " << med[0][0][q] << " " << med[0][1][q] << " " << med[1][0][q] << " "
          << med[1][1][q];
      for (int s = 2; s < nCallers; ++s) lat << " " << med[0][s][q] << " " << med[1][s][q];
      lat << "\n";
    }
    std::ofstream thr(opt.data + "/throughput.dat");
    thr << "# threads";
    for (Side* side : sides) thr << " " << side->name();
    thr << " (lines/s)\n";
    for (int t = 0; t < 2; ++t) {
      thr << (t == 0 ? "\"1 thread\"" : "\"2 threads\"");
      for (int s = 0; s < nSides; ++s) thr << " " << rate[t][s];
      thr << "\n";
    }
    std::ofstream mf(opt.data + "/memory.dat");
    mf << "#";
    for (Side* side : callers) mf << " " << side->name();
    mf << " (MiB)\n";
    for (double value : memMed) mf << value << " ";
    mf << "\n";
  }
  RemoveScratch();
  for (double value : memMed) {
    if (value < 0) return 1;
  }
  return 0;
}
