#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The stress stage: builds the load test in Release (build/stress) and runs
# it for STRESS_SECONDS (default 60): eight threads logging with a 64 KiB
# size limit, a Worker, timers and a shared ConfigParser under load, then
# the checks of every line, callback and the resident memory. Prints its
# report; fails on any violation. The crash, fault and limit tests are
# ordinary tests and run with every test preset.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${STRESS_SECONDS:-60}"
build=build/stress
cmake -S . -B "$build" -DZEL_BUILD_BENCH=OFF -G Ninja -DCMAKE_BUILD_TYPE=Release -DZEL_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j2 --target zel_stress

# The Logger's notices of its directory go to standard output; the report
# lines start with "stress:".
log="$(mktemp)"
trap 'rm -f "$log"' EXIT
status=0
"$build/tests/stress/zel_stress" --seconds "$seconds" >"$log" 2>&1 || status=$?
grep -E '^(stress:|VIOLATION)' "$log" || true
if [ "$status" -ne 0 ]; then
  echo "stress: the load test failed (exit $status)" >&2
  tail -n 40 "$log" >&2
  exit 1
fi
