#!/usr/bin/env bash
# Runs every libFuzzer target for a long time, one after another, keeping
# what each finds. Usage:
#   bash scripts/fuzz-long.sh [hours per target, default 2]
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

bash scripts/setup.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

out=build/fuzz-long
mkdir -p "$out/artifacts" "$out/logs"
failed=()
for dir in fuzz/corpus/*/; do
  target="$(basename "$dir")"
  mkdir -p "$out/corpus/$target"
  cp -n "$dir"* "$out/corpus/$target/" 2>/dev/null || true
  echo "== $target: ${hours} h, log in $out/logs/$target.log"
  if ! "build/fuzz/fuzz/${target}_fuzz" -max_total_time="$seconds" -detect_leaks=1 -timeout=30 \
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
echo "fuzz-long: every target ran ${hours} h without a finding"
