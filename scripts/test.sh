#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Sets up a fresh machine, then checks formatting, runs each fuzz target for
# a minute, and builds and runs every test: in Release, under AddressSanitizer
# + UndefinedBehaviorSanitizer and under ThreadSanitizer, plus the stages of
# their own (install, the documentation's code blocks, benchmarks, stress,
# ClickHouse delivery, Windows). Give
# stage names to run only those: fuzz, install, docs, bench, stress,
# clickhouse, windows, or a test preset (release, debug, asan, tsan).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

# The logic files reach the operating system only through the platform
# layer (utils/platform_*.cpp) or files that CMake builds for one system
# only (utils/log/*_win.cpp, *_posix.cpp).
if grep -rn '_WIN32' utils --include='*.cpp' --include='*.h' |
  grep -v -e '^utils/platform_' -e '^utils/export.h' -e '_win\.cpp:' -e '_posix\.cpp:'; then
  echo "test: _WIN32 outside the platform layer" >&2
  exit 1
fi

# No function of the libraries is longer than 80 lines of code.
python3 scripts/function-lengths.py --max 80 utils tracer

# Every source file names its licence.
bash scripts/license-headers.sh

# House formatting.
find utils tracer tests examples fuzz bench \( -name '*.h' -o -name '*.cpp' \) -print0 2>/dev/null |
  xargs -0 clang-format --dry-run --Werror

presets=("$@")
[ ${#presets[@]} -eq 0 ] && presets=(fuzz install docs bench stress clickhouse release asan tsan windows)

# Fuzzing (preset name "fuzz"), before the test presets so that the run ends
# with ctest's summary: each libFuzzer target runs for FUZZ_SECONDS (default
# 60) on a copy of its seed corpus in fuzz/corpus/, which stays unchanged.
# A crash, a leak or a sanitizer report fails the script; the input that
# caused it is kept in build/fuzz/artifacts/.
run_fuzz() {
  local seconds="${FUZZ_SECONDS:-60}"
  local work
  work="$(mktemp -d)"
  cmake --preset fuzz >/dev/null
  cmake --build --preset fuzz
  mkdir -p build/fuzz/artifacts
  for dir in fuzz/corpus/*/; do
    local target
    target="$(basename "$dir")"
    echo "== fuzz $target (${seconds} s)"
    cp -r "fuzz/corpus/$target" "$work/$target"
    if ! "build/fuzz/fuzz/${target}_fuzz" -max_total_time="$seconds" -detect_leaks=1 \
      -timeout=30 -print_final_stats=1 -artifact_prefix="build/fuzz/artifacts/${target}-" \
      "$work/$target" >"$work/$target.log" 2>&1; then
      tail -n 80 "$work/$target.log" >&2
      echo "test: fuzz target $target failed; inputs in build/fuzz/artifacts/" >&2
      rm -rf "$work"
      exit 1
    fi
    grep -E '^(Done|stat::number_of_executed_units|stat::peak_rss_mb)|cov: ' "$work/$target.log" |
      tail -n 4
  done
  rm -rf "$work"
}

# Each stage in the order given; the default order ends with a ctest summary.
for stage in "${presets[@]}"; do
  case "$stage" in
    fuzz) run_fuzz ;;
    install | docs | bench | stress | clickhouse | windows)
      echo "== $stage"
      bash "scripts/ci-$stage.sh"
      ;;
    *)
      echo "== $stage"
      cmake --preset "$stage" >/dev/null
      cmake --build --preset "$stage"
      ctest --preset "$stage"
      ;;
  esac
done
