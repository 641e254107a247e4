// SPDX-License-Identifier: MIT

// Demonstration of zel_utils: the crash drain installed; a process-wide
// asynchronous log written from several threads into a per-day directory,
// with a backend that receives the forwarded lines, and its files rotated
// under a small size limit; a full queue dropping lines; the retention of
// an earlier run's files; a worker running closures; one-shot and periodic
// timers; an INI file and a key file read and changed; the string helpers;
// device and error events delivered through the tracing client to a file
// and over HTTP to a receiver on 127.0.0.1 that the program runs.
//
// Usage: zel_demo [directory]
// Everything is written under `directory` (by default a fresh directory
// under the system's temporary directory), whose name is printed.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "examples/demo_parts.h"
#include "examples/demo_tracker.h"
#if defined(_WIN32)
#include "utils/log_debug_output_backend.h"
#else
#include "utils/log_syslog_backend.h"
#endif
#include "utils/logger.h"
#include "utils/process_path.h"
#include "utils/timer.h"
#include "utils/worker.h"

namespace {

// Counts the lines it is handed: a LogBackend sees every forwarded line on
// the writer thread, before the line is written to the file.
class CountingBackend : public zel::LogBackend {
 public:
  void Log(const std::string& line) override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    last_ = line;
  }
  int count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
  }
  std::string last() {
    std::lock_guard<std::mutex> lock(mutex_);
    return last_;
  }

 private:
  std::mutex mutex_;
  int count_ = 0;
  std::string last_;
};

// The operating system's own log as a second backend: the debugger output
// on Windows (a debugger or a debug output viewer shows the lines); syslog
// elsewhere, through the socket named by ZEL_DEMO_SYSLOG_SOCKET or else
// /dev/log, when there is one. Each backend drops and counts what its
// receiver cannot take at once instead of holding up the log.
class SystemLog {
 public:
  SystemLog() {
#if defined(_WIN32)
    debugger_ = std::make_unique<zel::DebugOutputBackend>();
    zel::Logger::GetInstance()->RegisterBackend(debugger_.get());
#else
    const char* socket = std::getenv("ZEL_DEMO_SYSLOG_SOCKET");
    path_ = socket != nullptr && *socket != '\0' ? socket : "/dev/log";
    if (!std::filesystem::exists(path_)) return;
    syslog_ = std::make_unique<zel::SyslogBackend>(path_, "zel_demo", zel::SyslogFacility::kUser);
    zel::Logger::GetInstance()->RegisterBackend(syslog_.get());
#endif
  }

  // Prints what the backend did with the forwarded lines.
  void Report() {
#if defined(_WIN32)
    debugger_->Flush();
    std::printf("   debugger output: %llu lines sent, %llu dropped\n",
                static_cast<unsigned long long>(debugger_->Sent()),
                static_cast<unsigned long long>(debugger_->Dropped()));
#else
    if (!syslog_) {
      std::printf("   syslog: no socket at %s (set ZEL_DEMO_SYSLOG_SOCKET), not used\n",
                  path_.c_str());
      return;
    }
    std::printf("   syslog at %s: %llu lines sent, %llu dropped\n", path_.c_str(),
                static_cast<unsigned long long>(syslog_->Sent()),
                static_cast<unsigned long long>(syslog_->Dropped()));
#endif
  }

 private:
#if defined(_WIN32)
  std::unique_ptr<zel::DebugOutputBackend> debugger_;
#else
  std::string path_;
  std::unique_ptr<zel::SyslogBackend> syslog_;
#endif
};

// The directory the demonstration writes under: the first argument, or a new
// directory "zel_demo_<number>" in the system's temporary directory (TMPDIR
// or /tmp on Linux, the user's Temp directory on Windows). Ends with a
// separator; empty when no directory could be made.
std::string MakeWorkDirectory(int argc, char** argv) {
  if (argc > 1) {
    std::string dir = argv[1];
    if (dir.back() != '/' && dir.back() != '\\') dir += '/';
    return dir;
  }
  std::error_code error;
  const std::filesystem::path base = std::filesystem::temp_directory_path(error);
  if (error) return std::string();
  std::random_device random;
  for (int attempt = 0; attempt < 100; ++attempt) {
    const std::filesystem::path dir = base / ("zel_demo_" + std::to_string(random()));
    // False when the name is taken: another number is tried.
    if (std::filesystem::create_directory(dir, error)) return (dir / "").string();
    if (error) return std::string();
  }
  return std::string();
}

// The last `count` lines of the file at `path`.
std::vector<std::string> Tail(const std::string& path, std::size_t count) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  if (lines.size() > count) lines.erase(lines.begin(), lines.end() - static_cast<long>(count));
  return lines;
}

// A worker runs closures on its own thread: DoAsync returns at once, DoSync
// after the closure has run.
void DemoWorker() {
  std::printf("\n-- worker: closures on a background thread\n");
  zel::Worker worker;
  worker.Start();
  std::vector<int> done;  // touched on the worker thread only, until DoSync returns
  for (int i = 1; i <= 3; ++i) {
    worker.DoAsync([&done, i] {
      done.push_back(i);
      log_print(3, 0, "[%s][%s %s %d] Debug:async closure %d ran\n", "", "/demo.cpp", "DemoWorker",
                __LINE__, i);
    });
  }
  std::printf("   queued 3 asynchronous closures\n");
  std::size_t seen = 0;
  worker.DoSync([&done, &seen] { seen = done.size(); });
  std::printf("   a synchronous closure returned: it saw %zu closures done before it\n", seen);
  worker.Stop();
}

// A timer calls back on its own thread, once or every interval.
void DemoTimer() {
  std::printf("\n-- timer: a one-shot after 30 ms and a periodic one every 20 ms\n");
  std::mutex mutex;
  std::condition_variable cond;
  std::vector<std::string> events;
  const auto start = std::chrono::steady_clock::now();
  auto record = [&](const std::string& what) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - start)
                        .count();
    std::lock_guard<std::mutex> lock(mutex);
    events.push_back(what + " at " + std::to_string(ms) + " ms");
    cond.notify_all();
  };
  zel::Timer timer;
  std::atomic<int> ticks{0};
  const uint64_t once = timer.Start(
      30, [&](uint64_t id, void*) { record("one-shot #" + std::to_string(id)); }, false, nullptr);
  const uint64_t periodic = timer.Start(
      20,
      [&](uint64_t id, void*) {
        record("periodic #" + std::to_string(id) + " tick " + std::to_string(++ticks));
      },
      true, nullptr);
  {
    std::unique_lock<std::mutex> lock(mutex);
    cond.wait_for(lock, std::chrono::seconds(5), [&] { return ticks.load() >= 4; });
  }
  timer.Stop(periodic);
  std::lock_guard<std::mutex> lock(mutex);
  std::printf("   timer ids: one-shot %llu, periodic %llu\n", static_cast<unsigned long long>(once),
              static_cast<unsigned long long>(periodic));
  for (const std::string& e : events) std::printf("   %s\n", e.c_str());
}

// A small size limit makes the live file rotate: each time it has grown
// past the limit it is renamed with the next index and a new live file is
// started; only the newest files up to the kept count stay.
void DemoRotation(const std::string& dir) {
  constexpr int kMaxSize = 4096;
  constexpr int kMaxCount = 3;
  constexpr int kLines = 160;
  std::printf("\n-- rotation: %d lines with a size limit of %d bytes, %d files kept\n", kLines,
              kMaxSize, kMaxCount);
  zel::Logger::GetInstance()->SetLogFileInfo(kMaxSize, kMaxCount);
  for (int i = 0; i < kLines; ++i) {
    log_print(3, 0, "[%s][%s %s %d] Debug:device %s attached vid=0x%04x pid=0x%04x (%d)\n", "",
              "/demo.cpp", "DemoRotation", __LINE__, "disk", 0x1234, 0x0001, i);
  }
  zel_log_flush();
  zel::Logger::GetInstance()->SetLogFileInfo(5 * 1024 * 1024, 10);  // the defaults again

  // Rotated files by index, then the live file.
  auto rank = [](const std::filesystem::path& p) {
    const std::string ext = p.extension().string();
    return ext == ".txt" ? 1000 : std::atoi(ext.c_str() + 1);
  };
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) files.push_back(entry.path());
  std::sort(files.begin(), files.end(),
            [&rank](const auto& a, const auto& b) { return rank(a) < rank(b); });
  std::printf("   %s now holds, rotated files by index, then the live file:\n", dir.c_str());
  for (const auto& path : files) {
    const std::vector<std::string> lines = Tail(path.string(), 1);
    std::printf("     %-34s %6ju bytes, last line ends \"...%s\"\n",
                path.filename().string().c_str(),
                static_cast<std::uintmax_t>(std::filesystem::file_size(path)),
                lines.empty() ? "" : lines.back().substr(lines.back().size() - 12).c_str());
  }
  std::printf("   (.txt is the live file; each rotation renames it to the next index\n");
  std::printf("   and deletes the file that falls out of the kept count)\n");
}

}  // namespace

int main(int argc, char** argv) {
  const std::string work = MakeWorkDirectory(argc, argv);
  if (work.empty()) {
    std::fprintf(stderr, "zel_demo: cannot make a working directory\n");
    return 1;
  }
  std::printf("== zel_utils demonstration, writing under %s\n", work.c_str());
  std::printf("   process %s in %s\n\n", get_process_name().c_str(), get_process_dir().c_str());

  // The log base must be set before the first line; the day directory
  // "YYYYMMDD/" is appended to it.
  const std::string logBase = work + "log/";
  zel_set_log_path(logBase.c_str());
  DemoCrashDrain();

  std::printf("-- log: 4 threads x 5 lines, every third line forwarded to a backend\n");
  auto* backend = new CountingBackend;  // must outlive the Logger: never freed
  zel::Logger::GetInstance()->RegisterBackend(backend);
  // Registers its backend, which must outlive the Logger too: never freed
  // (held by a static, so that a leak checker sees it is still reachable
  // when no backend of it was registered).
  static SystemLog* const systemLog = new SystemLog;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 5; ++i) {
        if (zel_log_level() >= 3) {
          log_print(3, i % 3 == 0 ? 1 : 0, "[%s][%s %s %d] Debug:worker %d says hello %d\n", "",
                    "/demo.cpp", "main", __LINE__, t, i);
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  zel_log_flush();  // every line above is now in the file

  char dir[512] = {0};
  if (zel_get_log_path(dir, sizeof(dir)) != 0) {
    std::printf("no log directory was chosen\n");
    return 1;
  }
  std::printf("   log directory: %s\n", dir);
  std::printf("   backend received %d forwarded lines, the last:\n     %s", backend->count(),
              backend->last().c_str());
  systemLog->Report();

  // The live file is zel.log.<process>.<hhmmss>.txt in the day directory.
  std::string live;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().extension() == ".txt") live = entry.path().string();
  }
  if (live.empty()) {
    std::printf("no live log file found\n");
    return 1;
  }
  std::printf("   live file: %s\n   its last lines:\n", live.c_str());
  for (const std::string& line : Tail(live, 5)) std::printf("     %s\n", line.c_str());

  DemoRotation(dir);
  DemoQueueLimit(dir);
  DemoRetention(logBase);
  DemoWorker();
  DemoTimer();
  DemoConfiguration(work);
  DemoTracker(work);
  DemoHttpDelivery();

  zel_log_flush();
  std::printf("\n== done\n");
  return 0;
}
