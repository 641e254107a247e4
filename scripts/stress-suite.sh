#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs the whole ctest suite of a preset N times in a row while stress-ng
# keeps two CPU workers busy, to show that no test depends on an idle
# machine. Usage:
#   bash scripts/stress-suite.sh [runs, default 20] [preset, default release]
# Extra ctest arguments may be given in CTEST_ARGS, for instance
#   CTEST_ARGS="-R Timer|Worker" bash scripts/stress-suite.sh 5
# Builds the preset first. Each run's ctest output is kept in
# build/stress-suite/run-<n>.log; the script prints one line per run and
# exits non-zero when any run had a failing test. stress-ng (Debian package
# stress-ng) is installed by scripts/setup.sh.
set -euo pipefail
cd "$(dirname "$0")/.."

runs="${1:-20}"
preset="${2:-release}"
out=build/stress-suite
mkdir -p "$out"

command -v stress-ng >/dev/null || bash scripts/need.sh stress-ng
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"

stress-ng --cpu 2 --timeout 0 --quiet &
stress_pid=$!
trap 'kill "$stress_pid" 2>/dev/null || true; wait "$stress_pid" 2>/dev/null || true' EXIT

failed=0
for ((n = 1; n <= runs; n++)); do
  start=$(date +%s)
  # shellcheck disable=SC2086 # CTEST_ARGS holds several words on purpose
  if ctest --preset "$preset" ${CTEST_ARGS:-} >"$out/run-$n.log" 2>&1; then
    result=passed
  else
    result=FAILED
    failed=$((failed + 1))
  fi
  summary=$(grep -E 'tests passed|tests failed' "$out/run-$n.log" | tail -n 1)
  echo "run $n/$runs: $result in $(($(date +%s) - start)) s: $summary"
  if [ "$result" = FAILED ]; then
    grep -E '^\s+[0-9]+ - .*\((Failed|Timeout|SEGFAULT|Subprocess)' "$out/run-$n.log" || true
  fi
done
echo "stress-suite: $failed of $runs runs had a failing test (stress-ng --cpu 2, preset $preset)"
[ "$failed" -eq 0 ]
