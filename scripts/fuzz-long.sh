#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs every libFuzzer target for 10 million executions or a number of hours,
# whichever comes first, one after another, keeping what each finds. Usage:
#   bash scripts/fuzz-long.sh [hours per target, default 2] [target ...]
# FUZZ_RUNS changes the number of executions (default 10000000). The
# targets' scratch files go to /dev/shm where it exists: the INI writer
# syncs every copy to disk, which on a real disk is most of the time spent.
# The corpora grow in build/fuzz-long/corpus/<target>/ (seeded from
# fuzz/corpus/<target>/, which stays unchanged) and are kept between runs;
# an input that fails is written to build/fuzz-long/artifacts/. The script
# exits non-zero when any target failed. Interesting new inputs can be
# minimised into the seed corpus by hand:
#   build/fuzz/fuzz/<target>_fuzz -merge=1 fuzz/corpus/<target> build/fuzz-long/corpus/<target>
set -euo pipefail
cd "$(dirname "$0")/.."

hours="${1:-2}"
seconds=$(awk -v h="$hours" 'BEGIN { printf "%d", h * 3600 }')
runs="${FUZZ_RUNS:-10000000}"
shift || true
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for dir in fuzz/corpus/*/; do targets+=("$(basename "$dir")"); done
fi
[ -d /dev/shm ] && [ -w /dev/shm ] && export TMPDIR=/dev/shm

bash scripts/setup.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

out=build/fuzz-long
mkdir -p "$out/artifacts" "$out/logs"
failed=()
for target in "${targets[@]}"; do
  mkdir -p "$out/corpus/$target"
  cp -n "fuzz/corpus/$target/"* "$out/corpus/$target/" 2>/dev/null || true
  echo "== $target: $runs executions or ${hours} h, log in $out/logs/$target.log"
  if ! "build/fuzz/fuzz/${target}_fuzz" -runs="$runs" -max_total_time="$seconds" \
    -detect_leaks=1 -timeout=30 \
    -rss_limit_mb=4096 -print_final_stats=1 \
    -artifact_prefix="$out/artifacts/${target}-" "$out/corpus/$target" >"$out/logs/$target.log" 2>&1; then
    tail -n 60 "$out/logs/$target.log" >&2
    failed+=("$target")
  fi
  grep -E '^(Done|stat::number_of_executed_units|stat::peak_rss_mb)|cov: ' \
    "$out/logs/$target.log" | tail -n 4 || true
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz-long: failed: ${failed[*]}; inputs in $out/artifacts/" >&2
  exit 1
fi
echo "fuzz-long: every target ran $runs executions (or ${hours} h) without a finding"
