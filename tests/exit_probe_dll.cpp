// SPDX-License-Identifier: MIT

// A DLL whose static destructor uses the library at process exit, when
// Windows has already ended every other thread (the log writer and the
// worker among them): exit_probe.exe arms it and returns from main. The
// destructor notes each step in a marker file, which
// PlatformWinTest.FlushAndDoSyncReturnInADllDestructorAtProcessExit reads.
#include <cstdio>
#include <memory>
#include <string>

#include "utils/logger.h"
#include "utils/worker.h"

namespace {

class ExitProbe {
 public:
  ~ExitProbe() {
    if (marker_.empty()) return;
    note("exiting\n");
    zel_log_flush();
    note("flushed\n");
    bool ran = false;
    worker_->DoSync([&ran] { ran = true; });
    note(ran ? "synced, ran\n" : "synced\n");
    worker_.reset();
    note("stopped\n");
  }

  void arm(const char* marker, const char* logDir) {
    marker_ = marker;
    zel_set_log_path(logDir);
    log_print(0, 0, "armed\n");
    zel_log_flush();
    worker_ = std::make_unique<zel::Worker>();
    worker_->Start();
    // The worker runs: a closure comes back.
    bool ran = false;
    worker_->DoSync([&ran] { ran = true; });
    note(ran ? "armed\n" : "worker dead\n");
  }

 private:
  void note(const char* text) {
    FILE* file = std::fopen(marker_.c_str(), "ab");
    if (file == nullptr) return;
    std::fputs(text, file);
    std::fclose(file);
  }

  std::string marker_;
  std::unique_ptr<zel::Worker> worker_;
};

ExitProbe probe;

}  // namespace

extern "C" __declspec(dllexport) void exit_probe_arm(const char* marker, const char* logDir) {
  probe.arm(marker, logDir);
}
