#!/usr/bin/env bash
# Sets up a fresh machine, then builds and runs every test: in Release, under
# AddressSanitizer + UndefinedBehaviorSanitizer, and under ThreadSanitizer.
# Give preset names (release, debug, asan, tsan) to run only those.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

# The logic files reach the operating system only through the platform
# layer.
if grep -n '_WIN32' utils/*.cpp utils/*.h | grep -v -e 'utils/platform_' -e 'utils/export.h'; then
  echo "test: _WIN32 outside the platform layer" >&2
  exit 1
fi

# House formatting.
clang-format --dry-run --Werror utils/*.h utils/*.cpp tracer/*.h tracer/*.cpp tests/*.h \
  tests/*.cpp examples/*.cpp

presets=("$@")
[ ${#presets[@]} -eq 0 ] && presets=(release asan tsan)
for preset in "${presets[@]}"; do
  echo "== $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done
