// SPDX-License-Identifier: MIT

// Hooks through which the library's own tests steer the operating-system
// layer. Kept out of platform_posix.cpp and platform_win.cpp, which a test
// may compile into itself, so that the exported definition exists once, in
// the library.
#include <mutex>
#include <string>

#include "utils/platform.h"

namespace zel {
namespace platform {

namespace {

// The base that the test hook put in place of kDefaultLogBase; empty when
// none. Never destroyed: the log writer may read it while the process exits.
struct DefaultBase {
  std::mutex mutex;
  std::string base;
};

DefaultBase& defaultBaseOverride() {
  static DefaultBase* state = new DefaultBase;
  return *state;
}

}  // namespace

std::string defaultLogBase() {
  DefaultBase& state = defaultBaseOverride();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.base.empty() ? std::string(kDefaultLogBase) : state.base;
}

void setDefaultLogBase(const std::string& base) {
  DefaultBase& state = defaultBaseOverride();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.base = base;
}

}  // namespace platform
}  // namespace zel

void zel_test_hook_set_wall_clock_offset_ms(int64_t offset_ms) {
  zel::platform::setWallClockOffsetMs(offset_ms);
}

void zel_test_hook_set_default_log_base(const char* base) {
  zel::platform::setDefaultLogBase(base != nullptr ? base : "");
}
