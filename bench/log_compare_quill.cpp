// SPDX-License-Identifier: MIT

// quill as a peer of the log comparison, configured as its users get it: its
// default frontend and backend options, except that the backend hands its
// buffer to the operating system whenever it runs out of work
// (sink_min_flush_interval 0, the promise the zel log makes for every line),
// a file sink opened with mode 'w', and the prefix of the other loggers
// ("[month-day hh:mm:ss.mmm][tid:N] "). A measurement starts the backend
// and makes a logger and a file of its own; it ends when flush_log() and
// Backend::stop() have returned.
#include <quill/Backend.h>
#include <quill/Frontend.h>
#include <quill/LogMacros.h>
#include <quill/Logger.h>
#include <quill/sinks/FileSink.h>
#include <unistd.h>

#include <string>

#include "bench/log_compare.h"

namespace zelbench {
namespace {

class QuillSide : public Side {
 public:
  explicit QuillSide(std::string scratch) : scratch_(std::move(scratch)) {}
  const char* name() const override { return "quill"; }
  void open() override {
    quill::BackendOptions options;
    options.sink_min_flush_interval = std::chrono::milliseconds{0};
    quill::Backend::start(options);
    const std::string id = std::to_string(getpid()) + "." + std::to_string(run_++);
    quill::FileSinkConfig config;
    config.set_open_mode('w');
    auto sink = quill::Frontend::create_or_get_sink<quill::FileSink>(
        scratch_ + "quill." + id + ".txt", config);
    logger_ = quill::Frontend::create_or_get_logger(
        "compare." + id, std::move(sink),
        quill::PatternFormatterOptions{"[%(time)][tid:%(thread_id)] %(message)",
                                       "%m-%d %H:%M:%S.%Qms"});
  }
  void log(int i) override {
    LOG_INFO(logger_, "[{}][{} {} {}] Debug:device {} attached vid=0x{:04x} pid=0x{:04x}", kTag,
             kFile, kFunction, kLine, kDevice, 0x1d6b, i & 0xffff);
  }
  void finish() override {
    logger_->flush_log();
    quill::Backend::stop();
    // The logger (and with it its file) is freed by the backend the next
    // time it runs.
    quill::Frontend::remove_logger(logger_);
    logger_ = nullptr;
  }

 private:
  std::string scratch_;
  int run_ = 0;
  quill::Logger* logger_ = nullptr;
};

}  // namespace

std::unique_ptr<Side> MakeQuillSide(const std::string& scratch) {
  return std::make_unique<QuillSide>(scratch);
}

}  // namespace zelbench
