// SPDX-License-Identifier: MIT

// A small program of the library's users, run by privileged_env_test as a
// set-user-ID copy: it prints what the library made of the variables it
// reads, then faults with the log's writer stuck, so that the time the
// crash drain waits for the writer shows which wait it used.
//
// Usage: privileged_env_probe <log base>
// Prints "secure=<AT_SECURE>", "appdata=[<GetAppDataPath()>]" and, just
// before the fault, "faulting <steady clock in ns>", each on a line of its
// own.
#include <sys/auxv.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "utils/config_file.h"
#include "utils/logger.h"

namespace {

// A log backend that never returns once it has a line: the writer stays in
// it, and the crash drain waits for it until its wait runs out.
class StuckBackend : public zel::LogBackend {
 public:
  void Log(const std::string&) override {
    entered_.store(true);
    std::unique_lock<std::mutex> lock(mutex_);
    cond_.wait(lock, [] { return false; });
  }
  bool entered() const { return entered_.load(); }

 private:
  std::atomic<bool> entered_{false};
  std::mutex mutex_;
  std::condition_variable cond_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: privileged_env_probe <log base>\n");
    return 2;
  }
  std::printf("secure=%lu\n", getauxval(AT_SECURE));
  std::printf("appdata=[%s]\n", GetAppDataPath().c_str());
  std::fflush(stdout);

  // The default action for the fault, and no core file.
  std::signal(SIGSEGV, SIG_DFL);
  zel_set_log_level(3);
  zel_set_log_path(argv[1]);
  if (zel_log_install_crash_handler() != 0) return 3;
  static StuckBackend stuck;
  zel::Logger::GetInstance()->RegisterBackend(&stuck);
  log_print(0, 1, "first line\n");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!stuck.entered()) {
    if (std::chrono::steady_clock::now() >= deadline) return 4;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  log_print(0, 1, "second line\n");
  // The monotonic clock (one for every process of the machine) just
  // before the fault: the test measures the drain's wait from here, not
  // from when it got to read this line.
  const long long at = std::chrono::duration_cast<std::chrono::nanoseconds>(
                           std::chrono::steady_clock::now().time_since_epoch())
                           .count();
  std::printf("faulting %lld\n", at);
  std::fflush(stdout);
  volatile std::uintptr_t address = 16;
  *reinterpret_cast<volatile int*>(address) = 1;
  return 5;  // not reached: the fault ends the process
}
