// The log under a crash: a child process logs heavily from several threads
// and is killed with SIGKILL at a random moment, many times over. Each time
// every line in its files must be whole, except possibly the very last one
// of the live file (the write under way), each thread's lines must be in
// posting order without a gap or a duplicate, and every line for which a
// Flush() had returned before the kill must be there.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/test_util.h"
#include "utils/logger.h"

namespace {

using zel_test::ListDir;
using zel_test::ReadFile;
using zel_test::TempDir;
using zel_test::WaitFor;

constexpr int kThreads = 4;

// Shared between the test and its child (an anonymous shared mapping made
// before the fork): how many lines each thread has posted, and how many of
// them a returned Flush() covers.
struct Shared {
  std::atomic<uint64_t> posted[kThreads];
  std::atomic<uint64_t> flushed[kThreads];
};

char PayloadChar(int thread, uint64_t seq, std::size_t i) {
  return static_cast<char>('a' + (static_cast<uint64_t>(thread) * 5 + seq * 11 + i) % 26);
}

std::size_t PayloadLength(uint64_t seq) { return 10 + static_cast<std::size_t>(seq * 37 % 300); }

// The child: logs "C <thread> <seq> <payload>" lines from kThreads threads
// until it is killed; every 64 lines a thread flushes and then publishes
// how far the flush reached.
[[noreturn]] void RunChild(const std::string& base, Shared* shared) {
  zel_set_log_level(-1);
  zel_set_log_path(base.c_str());
  zel::Logger::GetInstance()->SetLogFileInfo(32 * 1024, 255);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, shared] {
      std::string payload;
      for (uint64_t seq = 0;; ++seq) {
        payload.assign(PayloadLength(seq), ' ');
        for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = PayloadChar(t, seq, i);
        log_print(3, 0, "C %d %" PRIu64 " %s\n", t, seq, payload.c_str());
        shared->posted[t].store(seq + 1);
        if (seq % 64 == 63) {
          zel_log_flush();
          shared->flushed[t].store(seq + 1);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  _exit(0);
}

// Parses "[M-D hh:mm:ss.mmm][tid:N] C <t> <seq> <payload>\n"; false when the
// line is not whole.
bool ParseLine(const std::string& line, int* thread, uint64_t* seq) {
  static const std::regex whole(
      R"(\[\d+-\d+ \d\d:\d\d:\d\d\.\d\d\d\]\[tid:\d+\] C (\d+) (\d+) ([a-z]+)\n)");
  std::smatch match;
  if (!std::regex_match(line, match, whole)) return false;
  *thread = std::stoi(match[1]);
  *seq = std::stoull(match[2]);
  if (*thread < 0 || *thread >= kThreads) return false;
  const std::string payload = match[3];
  if (payload.size() != PayloadLength(*seq)) return false;
  for (std::size_t i = 0; i < payload.size(); ++i) {
    if (payload[i] != PayloadChar(*thread, *seq, i)) return false;
  }
  return true;
}

// The log files of the child's one day directory under `base`: rotated
// files by index, then the live file.
std::vector<std::string> ChildLogFiles(const std::string& base) {
  std::vector<std::string> files;
  for (const std::string& day : ListDir(base)) {
    const std::string dir = base + day + "/";
    std::string live;
    std::vector<std::pair<int, std::string>> rotated;
    for (const std::string& name : ListDir(dir)) {
      if (name.size() > 4 && name.compare(name.size() - 4, 4, ".txt") == 0) {
        live = dir + name;
      } else {
        rotated.emplace_back(std::stoi(name.substr(name.rfind('.') + 1)), dir + name);
      }
    }
    std::sort(rotated.begin(), rotated.end());
    for (const auto& entry : rotated) files.push_back(entry.second);
    if (!live.empty()) files.push_back(live);
  }
  return files;
}

TEST(CrashTest, KilledWhileLoggingLeavesWholeLinesAndEveryFlushedLine) {
  auto* shared = static_cast<Shared*>(
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(shared, MAP_FAILED);
  std::mt19937 random(std::random_device{}());
  constexpr int kRounds = 15;
  int roundsWithLines = 0;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    for (int t = 0; t < kThreads; ++t) {
      shared->posted[t].store(0);
      shared->flushed[t].store(0);
    }
    // Kill after a random number of posted lines (up to a few rotations).
    const uint64_t killAfter = std::uniform_int_distribution<uint64_t>(1, 3000)(random);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) RunChild(dir.path(), shared);

    const bool reached = WaitFor(
        [shared, killAfter] {
          uint64_t total = 0;
          for (int t = 0; t < kThreads; ++t) total += shared->posted[t].load();
          return total >= killAfter;
        },
        std::chrono::milliseconds(60000));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(reached) << "the child did not log " << killAfter << " lines within 60 s";
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);

    uint64_t flushed[kThreads];
    for (int t = 0; t < kThreads; ++t) flushed[t] = shared->flushed[t].load();

    const std::vector<std::string> files = ChildLogFiles(dir.path());
    std::vector<uint64_t> next(kThreads, 0);
    for (std::size_t f = 0; f < files.size(); ++f) {
      const std::vector<std::string> lines = zel_test::SplitLines(ReadFile(files[f]));
      for (std::size_t i = 0; i < lines.size(); ++i) {
        int thread = 0;
        uint64_t seq = 0;
        if (!ParseLine(lines[i], &thread, &seq)) {
          const bool lastOfLive = f + 1 == files.size() && i + 1 == lines.size();
          EXPECT_TRUE(lastOfLive) << files[f] << ": torn line " << i << ": " << lines[i];
          continue;
        }
        EXPECT_EQ(seq, next[static_cast<std::size_t>(thread)])
            << files[f] << ": thread " << thread << " out of order, lost or doubled";
        next[static_cast<std::size_t>(thread)] = seq + 1;
      }
    }
    uint64_t found = 0;
    for (int t = 0; t < kThreads; ++t) {
      EXPECT_GE(next[static_cast<std::size_t>(t)], flushed[t])
          << "thread " << t << ": a line covered by a returned Flush() is missing";
      found += next[static_cast<std::size_t>(t)];
    }
    if (found > 0) ++roundsWithLines;
  }
  // The kills must have hit a log under way, not only children that had
  // not written anything yet.
  EXPECT_GT(roundsWithLines, kRounds / 2);
  munmap(shared, sizeof(Shared));
}

}  // namespace
