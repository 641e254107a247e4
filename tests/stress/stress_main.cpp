// SPDX-License-Identifier: MIT

// Load test of the library: for a fixed time, several threads log through
// log_print() with a small size limit, so that the live file rotates
// hundreds of times, while other threads post closures to a Worker, start and
// stop timers and read one shared ConfigParser. Afterwards it checks
//
//  - every line logged is in the live or a rotated file exactly once, whole,
//    and each thread's lines are in its posting order; lines may be missing
//    only when rotated files were deleted for the kept count, and then only
//    the oldest lines of each thread (a contiguous run from its first line),
//    or when the Logger's full queue dropped them: every line logged was
//    then either written or dropped, exactly (posted = written + dropped),
//    and the writer's drop notices account for the dropped lines;
//  - peak resident memory stays within the queue bound plus 24 MiB;
//  - every Worker closure ran once, in posting order per poster, and none
//    handed to a stopped Worker ran;
//  - no one-shot timer fired twice and no timer fired after its Stop()
//    returned and the pass under way had ended;
//  - every configuration read gave the values of the file;
//  - resident memory came back to within 10% of its level before the load;
//
// and prints lines per second and the peak resident memory. Exit status 0
// when every check holds, 1 on any violation, 2 on a usage error.
#include <malloc.h>
#if defined(ZEL_TEST_ON_WINDOWS)
#include <windows.h>
// windows.h first.
#include <psapi.h>
#endif
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/test_util.h"
#include "utils/config_parser.h"
#include "utils/logger.h"
#include "utils/process_path.h"
#include "utils/timer.h"
#include "utils/worker.h"

namespace {

using Clock = std::chrono::steady_clock;

// The Logger's default queue bound, which the load leaves in place.
constexpr std::size_t kQueueBound = std::size_t{64} * 1024 * 1024;

struct Options {
  double seconds = 60;
  int logThreads = 8;
  int workerPosters = 2;
  int configReaders = 2;
  int fileSize = 64 * 1024;
  int fileCount = 255;
  long maxBacklog = 100000;  // lines queued but not yet written; 0: no bound
  bool memoryCheck = true;
  std::string dir;  // empty: a fresh temporary directory
};

void Usage() {
  std::printf(
      "usage: zel_stress [options]\n"
      "  --seconds S         length of the load (default 60)\n"
      "  --log-threads N     logging threads (default 8)\n"
      "  --worker-posters N  threads posting to the Worker (default 2)\n"
      "  --config-readers N  threads reading the ConfigParser (default 2)\n"
      "  --file-size BYTES   size limit of the log file (default 65536)\n"
      "  --file-count N      log files kept (default 255)\n"
      "  --max-backlog N     logging threads wait while more than N lines are\n"
      "                      queued and not yet written (default 100000; 0: no\n"
      "                      wait: the threads outrun the writer, the Logger's\n"
      "                      queue bound drops lines and counts them)\n"
      "  --dir PATH          log base directory, kept afterwards (default: a\n"
      "                      temporary directory, removed afterwards)\n"
      "  --no-memory-check   do not compare resident memory (for sanitizer builds)\n");
}

bool ParseOptions(int argc, char** argv, Options* options) {
  // The options that take a whole number.
  const struct {
    const char* name;
    int* value;
  } counts[] = {{"--log-threads", &options->logThreads},
                {"--worker-posters", &options->workerPosters},
                {"--config-readers", &options->configReaders},
                {"--file-size", &options->fileSize},
                {"--file-count", &options->fileCount}};
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    bool known = false;
    for (const auto& count : counts) {
      if (arg == count.name && hasValue) {
        *count.value = std::atoi(argv[++i]);
        known = true;
        break;
      }
    }
    if (known) continue;
    if (arg == "--no-memory-check") {
      options->memoryCheck = false;
    } else if (arg == "--seconds" && hasValue) {
      options->seconds = std::atof(argv[++i]);
    } else if (arg == "--max-backlog" && hasValue) {
      options->maxBacklog = std::atol(argv[++i]);
    } else if (arg == "--dir" && hasValue) {
      options->dir = argv[++i];
      if (options->dir.back() != '/') options->dir += '/';
    } else {
      return false;
    }
  }
  return options->seconds > 0 && options->logThreads > 0 && options->workerPosters >= 0 &&
         options->configReaders >= 0 && options->fileSize > 0 && options->fileCount > 1 &&
         options->fileCount <= 256 && options->maxBacklog >= 0;
}

// Violations found anywhere; each is printed once as it is found (up to a
// limit, then only counted).
std::atomic<long> gViolations{0};

void Violation(const char* format, ...) ZEL_PRINTF_FORMAT(1, 2);
void Violation(const char* format, ...) {
  const long n = ++gViolations;
  if (n > 50) return;
  va_list args;
  va_start(args, format);
  std::fputs("VIOLATION: ", stderr);
  std::vfprintf(stderr, format, args);
  std::fputc('\n', stderr);
  va_end(args);
}

// Resident memory of this process in KiB: now ("VmRSS") or the peak
// ("VmHWM"); on Windows the working set and its peak.
long ResidentKiB(const char* field) {
#if defined(ZEL_TEST_ON_WINDOWS)
  PROCESS_MEMORY_COUNTERS counters{};
  if (!GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters))) return -1;
  const std::size_t bytes =
      std::strcmp(field, "VmHWM") == 0 ? counters.PeakWorkingSetSize : counters.WorkingSetSize;
  return static_cast<long>(bytes / 1024);
#else
  std::ifstream in("/proc/self/status");
  std::string line;
  const std::string key = std::string(field) + ":";
  while (std::getline(in, line)) {
    if (line.compare(0, key.size(), key) == 0) return std::atol(line.c_str() + key.size());
  }
  return -1;
#endif
}

// Gives freed heap memory back to the system where the allocator can
// (glibc's malloc_trim; msvcrt's _heapmin).
void TrimHeap() {
#if defined(ZEL_TEST_ON_WINDOWS)
  _heapmin();
#else
  malloc_trim(0);
#endif
}

// The heap's bytes in use and held free, in KiB; -1 each where the runtime
// does not tell (Windows).
void HeapKiB(long* inUse, long* heldFree) {
#if defined(ZEL_TEST_ON_WINDOWS)
  *inUse = -1;
  *heldFree = -1;
#else
  const struct mallinfo2 heap = mallinfo2();
  *inUse = static_cast<long>((heap.uordblks + heap.hblkhd) / 1024);
  *heldFree = static_cast<long>(heap.fordblks / 1024);
#endif
}

// ---------------------------------------------------------------------------
// Logging load. Thread t logs lines "S <t> <seq> <len> <payload>\n" with
// seq = 0, 1, 2, ... and a payload of `len` letters that depends on t, seq
// and the position, so that the checker can tell a whole line from a torn one.

char PayloadChar(int thread, uint64_t seq, int i) {
  return static_cast<char>(
      'a' + (static_cast<uint64_t>(thread) * 7 + seq * 13 + static_cast<uint64_t>(i)) % 26);
}

int PayloadLength(int thread, uint64_t seq) {
  // 8 to 407 letters, varying from line to line.
  return 8 + static_cast<int>((seq * 2654435761u + static_cast<uint64_t>(thread) * 40503u) % 400);
}

// Counts the lines the writer has taken (it hands each line logged with a
// non-zero flag to the backends just before writing it).
class WrittenCounter : public zel::LogBackend {
 public:
  void Log(const std::string&) override { written.fetch_add(1, std::memory_order_relaxed); }
  std::atomic<uint64_t> written{0};
};

WrittenCounter gWritten;
std::atomic<uint64_t> gPosted{0};

// Where the logging threads meet after the stop.
class ClosingBarrier {
 public:
  explicit ClosingBarrier(int threads) : waiting_(threads) {}

  // Returns once every logging thread has arrived.
  void Arrive() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (--waiting_ == 0) {
      cond_.notify_all();
      return;
    }
    cond_.wait(lock, [this] { return waiting_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  int waiting_;
};

// Logs the line `seq` of `thread`.
void LogLine(int thread, uint64_t seq, std::string* payload) {
  const int len = PayloadLength(thread, seq);
  payload->resize(static_cast<std::size_t>(len));
  for (int i = 0; i < len; ++i)
    (*payload)[static_cast<std::size_t>(i)] = PayloadChar(thread, seq, i);
  log_print(3, 1, "S %d %" PRIu64 " %d %s\n", thread, seq, len, payload->c_str());
  gPosted.fetch_add(1, std::memory_order_relaxed);
}

// Logs until `stop`, continuing the thread's sequence from `*count`, then
// one closing line once every logging thread has stopped. The closing
// lines are the newest of the run, so every thread has lines in the kept
// files and the check sees each one's last line; without them, a thread
// that the scheduler held back during the load's last part could have all
// of its lines deleted with the rotated files, indistinguishable from lost.
void LogLoad(int thread, const std::atomic<bool>* stop, long maxBacklog, ClosingBarrier* closing,
             uint64_t* count) {
  std::string payload;
  uint64_t seq = *count;
  while (!stop->load(std::memory_order_relaxed)) {
    // The load keeps the Logger's queue at `maxBacklog` lines so that the
    // run tests concurrency and rotation; with --max-backlog 0 the threads
    // outrun the writer and the queue's own bound (64 MiB, lines dropped)
    // holds the memory.
    if (maxBacklog > 0 &&
        gPosted.load(std::memory_order_relaxed) >
            gWritten.written.load(std::memory_order_relaxed) + static_cast<uint64_t>(maxBacklog)) {
      std::this_thread::yield();
      continue;
    }
    LogLine(thread, seq, &payload);
    ++seq;
  }
  closing->Arrive();
  LogLine(thread, seq, &payload);
  *count = seq + 1;
}

// Parses the unsigned decimal at `*p`, advancing it; false when there is none.
bool ParseNumber(const char** p, const char* end, uint64_t* value) {
  const char* s = *p;
  uint64_t v = 0;
  while (s < end && *s >= '0' && *s <= '9') v = v * 10 + static_cast<uint64_t>(*s++ - '0');
  if (s == *p) return false;
  *value = v;
  *p = s;
  return true;
}

bool Expect(const char** p, const char* end, char c) {
  if (*p >= end || **p != c) return false;
  ++*p;
  return true;
}

// Checks the prefix "[M-D hh:mm:ss.mmm][tid:N] " at `*p` and skips it.
bool SkipPrefix(const char** p, const char* end) {
  uint64_t v = 0;
  return Expect(p, end, '[') && ParseNumber(p, end, &v) && Expect(p, end, '-') &&
         ParseNumber(p, end, &v) && Expect(p, end, ' ') && ParseNumber(p, end, &v) &&
         Expect(p, end, ':') && ParseNumber(p, end, &v) && Expect(p, end, ':') &&
         ParseNumber(p, end, &v) && Expect(p, end, '.') && ParseNumber(p, end, &v) &&
         Expect(p, end, ']') && Expect(p, end, '[') && Expect(p, end, 't') && Expect(p, end, 'i') &&
         Expect(p, end, 'd') && Expect(p, end, ':') && ParseNumber(p, end, &v) &&
         Expect(p, end, ']') && Expect(p, end, ' ');
}

// The rotated files of the run in rotation order (oldest first), then the
// live file. Rotated files are named by an index that wraps at 256; once the
// kept count has made the writer delete files, the oldest present index is
// the one after the gap of missing indices.
std::vector<std::string> LogFilesInOrder(const std::string& dir, int* rotatedCount) {
  std::string live;
  std::map<int, std::string> rotated;
  for (const std::string& name : zel_test::ListDir(dir)) {
    if (name.size() > 4 && name.compare(name.size() - 4, 4, ".txt") == 0) {
      live = name;
      continue;
    }
    const std::size_t dot = name.rfind('.');
    if (dot == std::string::npos) continue;
    char* end = nullptr;
    const long index = std::strtol(name.c_str() + dot + 1, &end, 10);
    if (*end == '\0' && index >= 0 && index < 256) rotated[static_cast<int>(index)] = name;
  }
  *rotatedCount = static_cast<int>(rotated.size());
  std::vector<std::string> files;
  int start = 0;
  if (!rotated.empty() && rotated.count(0) != 0 && rotated.size() < 256) {
    // Find the first present index that follows a missing one, circularly.
    for (int i = 0; i < 256; ++i) {
      if (rotated.count(i) != 0 && rotated.count((i + 255) % 256) == 0) {
        start = i;
        break;
      }
    }
  }
  for (int k = 0; k < 256; ++k) {
    auto it = rotated.find((start + k) % 256);
    if (it != rotated.end()) files.push_back(dir + it->second);
  }
  if (!live.empty()) files.push_back(dir + live);
  return files;
}

struct LogCheck {
  uint64_t linesFound = 0;
  uint64_t linesLost = 0;
  uint64_t linesSkipped = 0;  // gaps in a thread's lines, where lines were dropped
  uint64_t droppedNoted = 0;  // the sum of the drop notices found
  uint64_t bytes = 0;
  int files = 0;
};

// Reads the log files and checks every line against what each thread logged.
// `dropped` lines were dropped by the full queue: a thread's lines may then
// have gaps, and the files may end before its last line.
LogCheck CheckLogFiles(const std::string& dir, const std::vector<uint64_t>& logged, int fileCount,
                       uint64_t dropped) {
  LogCheck result;
  int rotatedCount = 0;
  const std::vector<std::string> files = LogFilesInOrder(dir, &rotatedCount);
  result.files = static_cast<int>(files.size());
  // next[t]: the sequence number expected next from thread t; first[t] the
  // first one seen (above 0 when the oldest lines were deleted).
  const std::size_t threads = logged.size();
  std::vector<uint64_t> next(threads, 0);
  std::vector<bool> seen(threads, false);
  for (const std::string& path : files) {
    const std::string text = zel_test::ReadFile(path);
    result.bytes += text.size();
    const char* p = text.data();
    const char* const end = p + text.size();
    while (p < end) {
      const char* eol =
          static_cast<const char*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
      if (eol == nullptr) {
        Violation("%s: a line without its newline at the end of the file", path.c_str());
        break;
      }
      const char* q = p;
      // The writer's notice of lines dropped by the full queue.
      static const char kNotice[] = "zel log: ";
      static const char kNoticeEnd[] = " lines dropped (queue full)";
      uint64_t count = 0;
      const char* n = p;
      if (SkipPrefix(&n, eol) && static_cast<std::size_t>(eol - n) > sizeof(kNotice) - 1 &&
          std::memcmp(n, kNotice, sizeof(kNotice) - 1) == 0) {
        n += sizeof(kNotice) - 1;
        if (ParseNumber(&n, eol, &count) &&
            static_cast<std::size_t>(eol - n) == sizeof(kNoticeEnd) - 1 &&
            std::memcmp(n, kNoticeEnd, sizeof(kNoticeEnd) - 1) == 0) {
          result.droppedNoted += count;
          p = eol + 1;
          continue;
        }
      }
      uint64_t thread = 0;
      uint64_t seq = 0;
      uint64_t len = 0;
      bool whole = SkipPrefix(&q, eol) && Expect(&q, eol, 'S') && Expect(&q, eol, ' ') &&
                   ParseNumber(&q, eol, &thread) && Expect(&q, eol, ' ') &&
                   ParseNumber(&q, eol, &seq) && Expect(&q, eol, ' ') &&
                   ParseNumber(&q, eol, &len) && Expect(&q, eol, ' ') && thread < threads &&
                   static_cast<uint64_t>(eol - q) == len;
      for (uint64_t i = 0; whole && i < len; ++i) {
        whole = q[i] == PayloadChar(static_cast<int>(thread), seq, static_cast<int>(i));
      }
      if (!whole) {
        Violation("%s: torn or foreign line: %.120s", path.c_str(),
                  std::string(p, static_cast<std::size_t>(eol - p)).c_str());
      } else {
        ++result.linesFound;
        if (!seen[thread]) {
          seen[thread] = true;
          next[thread] = seq;
          result.linesLost += seq;
        }
        if (dropped > 0 && seq > next[thread]) {
          result.linesSkipped += seq - next[thread];
        } else if (seq != next[thread]) {
          Violation("thread %" PRIu64 ": line %" PRIu64 " where %" PRIu64
                    " was expected (duplicate, lost or out of order)",
                    thread, seq, next[thread]);
        }
        next[thread] = seq + 1;
      }
      p = eol + 1;
    }
  }
  for (std::size_t t = 0; t < threads; ++t) {
    if (dropped > 0 && next[t] < logged[t]) {
      result.linesSkipped += logged[t] - next[t];
    } else if (next[t] != logged[t]) {
      Violation("thread %zu: logged %" PRIu64 " lines, the files end at %" PRIu64, t, logged[t],
                next[t]);
    }
  }
  // Lines may be missing only when the kept count made the writer delete
  // rotated files, that is when every slot it keeps is full.
  if (result.linesLost > 0 && rotatedCount < fileCount - 1) {
    Violation("%" PRIu64 " lines missing although only %d rotated files exist (%d kept)",
              result.linesLost, rotatedCount, fileCount - 1);
  }
  return result;
}

// ---------------------------------------------------------------------------
// Worker load: each poster p posts closures (p, seq) with DoAsync, now and
// then a DoSync; the closures run on the Worker's thread and record what ran.

struct WorkerRecord {
  std::vector<uint64_t> next;  // per poster: the seq expected next; worker thread only
  std::atomic<uint64_t> ran{0};
};

void WorkerLoad(zel::Worker* worker, WorkerRecord* record, int poster,
                const std::atomic<bool>* stop, uint64_t* posted) {
  uint64_t seq = *posted;  // continues the poster's sequence
  while (!stop->load(std::memory_order_relaxed)) {
    // Keep the queue bounded: the load is about concurrency, not memory.
    if (seq - std::min(seq, record->ran.load()) > 20000) {
      std::this_thread::yield();
      continue;
    }
    auto closure = [record, poster, seq] {
      uint64_t& expected = record->next[static_cast<std::size_t>(poster)];
      if (seq != expected) {
        Violation("worker: poster %d closure %" PRIu64 " ran where %" PRIu64 " was expected",
                  poster, seq, expected);
      }
      expected = seq + 1;
      record->ran.fetch_add(1);
    };
    if (seq % 5000 == 4999) {
      worker->DoSync(closure);
      // DoSync returns only after its closure ran.
      if (record->next[static_cast<std::size_t>(poster)] < seq + 1) {
        Violation("worker: DoSync returned before its closure ran");
      }
    } else {
      worker->DoAsync(closure);
    }
    ++seq;
  }
  *posted = seq;
}

// ---------------------------------------------------------------------------
// Timer load: rounds of periodic and one-shot timers, all stopped; after the
// Stop() calls of a round a marker timer is started, and once it has fired
// (a pass that began after the Stop() calls has run) the round is closed: a
// firing of a closed timer is a violation.

struct TimerSlot {
  std::atomic<int> fired{0};
  std::atomic<bool> closed{false};
  bool repeat = false;
};

// Adds the rounds and firings of this run to `*rounds` and `*firings`.
void TimerLoad(zel::Timer* timer, const std::atomic<bool>* stop, uint64_t* rounds,
               uint64_t* firings) {
  constexpr int kPerRound = 6;
  std::vector<std::unique_ptr<TimerSlot>> all;  // kept to the end: late firings use them
  uint64_t round = 0;
  while (!stop->load(std::memory_order_relaxed)) {
    std::vector<TimerSlot*> slots;
    std::vector<uint64_t> ids;
    for (int i = 0; i < kPerRound; ++i) {
      all.push_back(std::make_unique<TimerSlot>());
      TimerSlot* slot = all.back().get();
      slot->repeat = i % 2 == 0;
      slots.push_back(slot);
      const int64_t interval = slot->repeat ? 1 + i : 2 * i;
      ids.push_back(timer->Start(
          interval,
          [](uint64_t, void* user) {
            auto* s = static_cast<TimerSlot*>(user);
            const int n = ++s->fired;
            if (s->closed.load()) Violation("timer fired after its Stop()");
            if (!s->repeat && n > 1) Violation("one-shot timer fired %d times", n);
          },
          slot->repeat, slot));
    }
    // Let the periodic ones fire a few times (bounded wait), then stop all.
    zel_test::WaitFor([&slots] { return slots[0]->fired.load() >= 3; },
                      std::chrono::milliseconds(2000));
    for (uint64_t id : ids) timer->Stop(id);
    std::atomic<bool> marked{false};
    auto closeRound = [&slots, &marked] {
      for (TimerSlot* s : slots) s->closed.store(true);
      marked.store(true);
    };
    auto* closer = new std::function<void()>(closeRound);
    timer->Start(
        0,
        [](uint64_t, void* user) {
          auto* f = static_cast<std::function<void()>*>(user);
          (*f)();
        },
        false, closer);
    if (!zel_test::WaitFor([&marked] { return marked.load(); }, std::chrono::milliseconds(10000))) {
      Violation("timer: marker did not fire within 10 s");
      *rounds += round;
      return;  // `closer` and the slots stay alive: the timer may still call them
    }
    delete closer;
    ++round;
  }
  *rounds += round;
  uint64_t total = 0;
  for (const auto& s : all) total += static_cast<uint64_t>(s->fired.load());
  *firings += total;
}

// ---------------------------------------------------------------------------
// Configuration load: reader threads share one ConfigParser.

void ConfigLoad(zel::ConfigParser* parser, const std::atomic<bool>* stop, uint64_t* reads) {
  uint64_t n = *reads;
  while (!stop->load(std::memory_order_relaxed)) {
    int port = 0;
    if (parser->GetIntegerVal("net", "port", &port) != 0 || port != 8080) {
      Violation("config: port %d", port);
    }
    const std::vector<std::string> hosts = parser->GetStringVals("net", "hosts");
    if (hosts != std::vector<std::string>{"alpha", "beta", "gamma"}) {
      Violation("config: hosts list differs");
    }
    if (parser->GetStringVal("app", "name") != "stress") Violation("config: name differs");
    double ratio = 0;
    if (parser->GetDoubleVal("app", "ratio", &ratio) != 0 || ratio != 0.5) {
      Violation("config: ratio %f", ratio);
    }
    n += 4;
  }
  *reads = n;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    Usage();
    return 2;
  }
  // One malloc arena for every thread. With glibc's default of an arena
  // per busy thread, the memory of the queued lines stays resident in each
  // logging thread's arena after it was freed (malloc_trim does not give it
  // back), which would hide a real leak behind allocator retention. With one
  // arena, freed memory is returned and the comparison below means something.
#if !defined(ZEL_TEST_ON_WINDOWS)
  mallopt(M_ARENA_MAX, 1);
#endif
  std::unique_ptr<zel_test::TempDir> temp;
  std::string base = options.dir;
  if (base.empty()) {
    temp = std::make_unique<zel_test::TempDir>();
    base = temp->path();
  }
  if (base.empty()) {
    std::fprintf(stderr, "stress: no temporary directory\n");
    return 1;
  }

  // Only the load's own lines go into the log: the library's messages are
  // off. The Logger's own console notices (stdout) are left as they are.
  zel_set_log_level(-1);
  zel_set_log_path(base.c_str());
  zel::Logger::GetInstance()->SetLogFileInfo(options.fileSize, options.fileCount);
  zel::Logger::GetInstance()->RegisterBackend(&gWritten);

  const std::string configPath = base + "stress.conf";
  zel_test::WriteFile(configPath,
                      "[net]\nport=8080\nhosts=alpha,beta,gamma\n[app]\nname=stress\nratio=0.5\n");
  auto parser = std::make_unique<zel::ConfigParser>();
  if (parser->Init(configPath, ",") != 0) {
    std::fprintf(stderr, "stress: cannot load %s\n", configPath.c_str());
    return 1;
  }
  auto worker = std::make_unique<zel::Worker>();
  worker->Start();
  auto timer = std::make_unique<zel::Timer>();
  WorkerRecord workerRecord;
  workerRecord.next.assign(static_cast<std::size_t>(options.workerPosters), 0);

  std::vector<uint64_t> logged(static_cast<std::size_t>(options.logThreads), 0);
  std::vector<uint64_t> posted(static_cast<std::size_t>(options.workerPosters), 0);
  std::vector<uint64_t> reads(static_cast<std::size_t>(options.configReaders), 0);
  uint64_t timerRounds = 0;
  uint64_t timerFirings = 0;

  // Runs every load thread for `seconds`, continuing the sequences.
  auto runLoad = [&](double seconds) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    ClosingBarrier closing(options.logThreads);
    for (int t = 0; t < options.logThreads; ++t) {
      threads.emplace_back(LogLoad, t, &stop, options.maxBacklog, &closing,
                           &logged[static_cast<std::size_t>(t)]);
    }
    for (int p = 0; p < options.workerPosters; ++p) {
      threads.emplace_back(WorkerLoad, worker.get(), &workerRecord, p, &stop,
                           &posted[static_cast<std::size_t>(p)]);
    }
    for (int r = 0; r < options.configReaders; ++r) {
      threads.emplace_back(ConfigLoad, parser.get(), &stop, &reads[static_cast<std::size_t>(r)]);
    }
    threads.emplace_back(TimerLoad, timer.get(), &stop, &timerRounds, &timerFirings);
    // The main thread watches the clock.
    const auto begin = Clock::now();
    const auto deadline =
        begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    zel_test::WaitFor([&deadline] { return Clock::now() >= deadline; },
                      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - begin) +
                          std::chrono::milliseconds(1000));
    stop.store(true);
    for (std::thread& t : threads) t.join();
  };

  // Warm-up: a short run of the same load, written out, so that what the
  // first use of each part keeps for the rest of the process (per-thread
  // and library caches, container capacity at the bounded backlog) is in
  // the level measured before the load. A leak grows with the load, and
  // the load below is ten times longer.
  runLoad(options.seconds / 10);
  zel_log_flush();
  zel_log_flush();
  TrimHeap();
  const long rssBefore = ResidentKiB("VmRSS");
  uint64_t loggedBefore = 0;
  for (uint64_t n : logged) loggedBefore += n;

  const auto started = Clock::now();
  runLoad(options.seconds);
  const auto posting = Clock::now();
  zel_log_flush();
  const auto written = Clock::now();

  // Every closure posted before Stop() ran once; one handed to the stopped
  // Worker never runs (the Worker's thread is gone once it is destroyed).
  worker->DoSync([] {});
  worker->Stop();
  std::atomic<bool> lateRan{false};
  worker->DoAsync([&lateRan] { lateRan.store(true); });
  worker.reset();
  if (lateRan.load()) Violation("worker: a closure handed to a stopped Worker ran");
  for (std::size_t p = 0; p < posted.size(); ++p) {
    if (workerRecord.next[p] != posted[p]) {
      Violation("worker: poster %zu posted %" PRIu64 ", %" PRIu64 " ran", p, posted[p],
                workerRecord.next[p]);
    }
  }
  timer.reset();
  parser.reset();

  uint64_t totalLogged = 0;
  for (uint64_t n : logged) totalLogged += n;
  const uint64_t measuredLines = totalLogged - loggedBefore;
  const uint64_t dropped = zel_log_dropped();
  const LogCheck check =
      CheckLogFiles(zel::Logger::GetLogPath(), logged, options.fileCount, dropped);
  // Every line logged was either taken by the writer (the backend saw it)
  // or dropped by the full queue, and counted exactly once.
  const uint64_t taken = gWritten.written.load();
  if (totalLogged != taken + dropped) {
    Violation("lines logged %" PRIu64 " != written %" PRIu64 " + dropped %" PRIu64, totalLogged,
              taken, dropped);
  }
  // Each drop notice reports lines that were dropped; a notice in a file
  // deleted for the kept count is gone with it.
  if (check.droppedNoted > dropped || (check.linesLost == 0 && check.droppedNoted != dropped)) {
    Violation("drop notices report %" PRIu64 " lines, %" PRIu64 " were dropped", check.droppedNoted,
              dropped);
  }

  // A second flush: it runs in a later pass of the writer's loop, so what
  // the pass of the first one held is released by then.
  zel_log_flush();
  TrimHeap();
  const long rssAfter = ResidentKiB("VmRSS");
  const long rssPeak = ResidentKiB("VmHWM");

  const double postSeconds = std::chrono::duration<double>(posting - started).count();
  const double writeSeconds = std::chrono::duration<double>(written - started).count();
  uint64_t totalPosted = 0;
  for (uint64_t n : posted) totalPosted += n;
  uint64_t totalReads = 0;
  for (uint64_t n : reads) totalReads += n;

  std::printf(
      "stress: %.1f s of load, %d logging threads, size limit %d B, %d files kept, "
      "backlog bound %ld lines\n",
      postSeconds, options.logThreads, options.fileSize, options.fileCount, options.maxBacklog);
  std::printf("stress: lines logged %" PRIu64
              " (%.0f lines/s posted, %.0f lines/s written, "
              "%.1f s to write the rest after the load)\n",
              totalLogged, static_cast<double>(measuredLines) / postSeconds,
              static_cast<double>(measuredLines) / writeSeconds, writeSeconds - postSeconds);
  std::printf("stress: lines found %" PRIu64
              " in %d files (%.1f MiB); oldest lines deleted "
              "with rotated files: %" PRIu64 "\n",
              check.linesFound, check.files, static_cast<double>(check.bytes) / 1048576.0,
              check.linesLost);
  std::printf("stress: lines written %" PRIu64 " + dropped by the full queue %" PRIu64
              " = logged %" PRIu64 " (%s); drop notices found for %" PRIu64 " lines\n",
              taken, dropped, totalLogged, taken + dropped == totalLogged ? "exact" : "MISMATCH",
              check.droppedNoted);
  std::printf("stress: worker closures %" PRIu64 ", timer rounds %" PRIu64 " (%" PRIu64
              " firings), config reads %" PRIu64 "\n",
              totalPosted, timerRounds, timerFirings, totalReads);
  long heapInUse = 0;
  long heapFree = 0;
  HeapKiB(&heapInUse, &heapFree);
  std::printf(
      "stress: resident memory %ld KiB before, %ld KiB after, peak %ld KiB; heap in use "
      "%ld KiB, held free %ld KiB\n",
      rssBefore, rssAfter, rssPeak, heapInUse, heapFree);
  // The queue holds at most its bound of text (64 MiB by default); the
  // rest of the process stays within 24 MiB of it.
  const long rssLimit = static_cast<long>(kQueueBound / 1024) + 24 * 1024;
  std::printf("stress: peak resident memory %ld KiB, queue bound %zu KiB + 24 MiB = %ld KiB (%s)\n",
              rssPeak, kQueueBound / 1024, rssLimit, rssPeak <= rssLimit ? "within" : "ABOVE");
  if (options.memoryCheck && rssPeak > rssLimit) {
    Violation("peak resident memory %ld KiB above the queue bound plus 24 MiB (%ld KiB)", rssPeak,
              rssLimit);
  }
  if (options.memoryCheck && rssAfter > rssBefore + rssBefore / 10) {
    Violation("resident memory %ld KiB after the load, more than 10%% above %ld KiB", rssAfter,
              rssBefore);
  }
  if (check.files < 3) Violation("the log did not rotate (%d files)", check.files);

  const long violations = gViolations.load();
  std::printf("stress: %s (%ld violations)\n", violations == 0 ? "PASSED" : "FAILED", violations);
  return violations == 0 ? 0 : 1;
}
