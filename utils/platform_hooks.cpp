// Hooks through which the library's own tests steer the operating-system
// layer. Kept out of platform_posix.cpp and platform_win.cpp, which a test
// may compile into itself, so that the exported definition exists once, in
// the library.
#include "utils/platform.h"

void zel_test_hook_set_wall_clock_offset_ms(int64_t offset_ms) {
  zel::platform::setWallClockOffsetMs(offset_ms);
}
