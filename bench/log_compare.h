// SPDX-License-Identifier: MIT

// The parts of the log comparison (bench/log_compare.cpp) that its optional
// peers, built in translation units of their own, share with it.
#ifndef ZEL_BENCH_LOG_COMPARE_H_
#define ZEL_BENCH_LOG_COMPARE_H_

#include <memory>
#include <string>

namespace zelbench {

// The arguments of the line, the same for every logger.
constexpr const char* kTag = "";
constexpr const char* kFile = "/device_monitor.cpp";
constexpr const char* kFunction = "zel::DeviceMonitor::OnAttach";
constexpr int kLine = 214;
constexpr const char* kDevice = "usb-3.1-hub";

// One side of the comparison.
class Side {
 public:
  virtual ~Side() = default;
  virtual const char* name() const = 0;
  // Called once before the lines of a measurement.
  virtual void open() = 0;
  // Logs line `i` of the calling thread.
  virtual void log(int i) = 0;
  // Returns when every line logged so far is written and flushed (and, for
  // the peers, their writer stopped or the file closed).
  virtual void finish() = 0;
};

// The quill peer (bench/log_compare_quill.cpp, built only when the benchmark
// is configured with ZEL_BENCH_QUILL_DIR); each measurement writes a file
// of its own under `scratch` (ending in '/').
std::unique_ptr<Side> MakeQuillSide(const std::string& scratch);

}  // namespace zelbench

#endif  // ZEL_BENCH_LOG_COMPARE_H_
