#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs the whole test suite under valgrind's memcheck: builds a
# RelWithDebInfo tree without sanitizers in build/valgrind and runs every
# ctest test with valgrind as its launcher. Any memory error or definite
# leak fails the test (and the script). Extra arguments go to ctest, for
# example: bash scripts/valgrind.sh -R Logger
#
# Child processes are not followed (the tests that re-run themselves under
# faketime, the crash and fault tests' forked children): each test's own
# process is what is checked. scripts/valgrind.supp holds suppressions for
# third-party noise only.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/need.sh valgrind g++ cmake ninja-build pkg-config libgtest-dev \
  libglib2.0-dev libjsoncpp-dev libcurl4-openssl-dev

build=build/valgrind
cmake -S . -B "$build" -DZEL_BUILD_BENCH=OFF -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEL_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j2

options=(--error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite
  --show-leak-kinds=definite --track-origins=yes --child-silent-after-fork=yes
  --num-callers=30 --suppressions="$PWD/scripts/valgrind.supp" --gen-suppressions=all)

start=$(date +%s)
# ctest's memcheck mode runs each test under MEMORYCHECK_COMMAND and writes
# one log per test; a test fails on valgrind's exit code (99) as well.
status=0
ctest --test-dir "$build" -T memcheck -j2 --timeout 900 --output-on-failure \
  --overwrite MemoryCheckCommand="$(command -v valgrind)" \
  --overwrite MemoryCheckCommandOptions="${options[*]}" "$@" || status=$?
logs="$build/Testing/Temporary"
# ctest -T memcheck reports defects but does not fail on them by itself.
defects=$(grep -l -E '(ERROR SUMMARY: [1-9]|definitely lost: [1-9])' "$logs"/MemoryChecker.*.log 2>/dev/null || true)
if [ -n "$defects" ]; then
  for log in $defects; do
    echo "== $log"
    grep -E -A30 '(Invalid|uninitialised|definitely lost: [1-9]|ERROR SUMMARY: [1-9])' "$log" | head -n 80
  done
  status=1
fi
echo "valgrind: $(ls "$logs"/MemoryChecker.*.log 2>/dev/null | wc -l) tests checked in $(($(date +%s) - start)) s"
exit "$status"
