#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Usage: [ZEL_BENCH_QUILL_DIR=<quill's include folder>] bash scripts/bench-compare.sh [repetitions]
# Builds the benchmarks (preset "bench"), runs the same-run comparison of the
# zel log path with spdlog's asynchronous logger (8,192 and 1 M queue) and
# its synchronous file logger (default 7 repetitions, medians with their
# spread) and draws docs/bench.png: the caller's cost per call at p50, p90,
# p99 and p99.9 for zel and spdlog async (1 and 2 threads), and the
# end-to-end lines per second of every logger. The printed table is kept in
# docs/bench.txt. With ZEL_BENCH_QUILL_DIR set, quill is measured too, in the
# same interleaved run, and drawn beside spdlog; without it the benchmark is
# configured without quill again.
set -euo pipefail
cd "$(dirname "$0")/.."
reps="${1:-7}"

bash scripts/need.sh libbenchmark-dev libspdlog-dev gnuplot-nox

quill="${ZEL_BENCH_QUILL_DIR:-}"
cmake --preset bench -DZEL_BENCH_QUILL_DIR="$quill" >/dev/null
cmake --build --preset bench -- -j2

data="$(mktemp -d)"
trap 'rm -rf "$data"' EXIT
build/bench/bench/zel_log_compare --reps "$reps" --data "$data" | grep -v -e '^zel::Logger' -e 'Quill INFO' |
  tee "$data/table.txt"

peers="spdlog"
latency_quill=""
throughput_quill=""
if [ -n "$quill" ]; then
  peers="spdlog and quill"
  latency_quill=', "" using 6 title "quill, 1 thread" lc rgb "#2ca02c", "" using 7 title "quill, 2 threads" lc rgb "#98df8a"'
  throughput_quill=', "" using 6 title "quill" lc rgb "#9467bd"'
fi

mkdir -p docs
cp "$data/table.txt" docs/bench.txt
gnuplot <<GNUPLOT
set terminal pngcairo size 1200,500 font "sans,10"
set output "docs/bench.png"
set multiplot layout 1,2 title "zel vs $peers, every line flushed, medians of $reps repetitions"

set title "Caller cost per call (200 calls, then 2 ms pause)"
set ylabel "ns"
set logscale y
set grid ytics
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.8 border -1
set key left top
plot "$data/latency.dat" using 2:xtic(1) title "zel, 1 thread" lc rgb "#1f77b4", \
     "" using 3 title "spdlog async, 1 thread" lc rgb "#ff7f0e", \
     "" using 4 title "zel, 2 threads" lc rgb "#6baed6", \
     "" using 5 title "spdlog async, 2 threads" lc rgb "#fdae6b"$latency_quill

unset logscale y
set title "End to end (until every line is written)"
set ylabel "lines per second"
set yrange [0:*]
plot "$data/throughput.dat" using 2:xtic(1) title "zel" lc rgb "#1f77b4", \
     "" using 3 title "spdlog async (8,192)" lc rgb "#ff7f0e", \
     "" using 4 title "spdlog async (1 M)" lc rgb "#fdae6b", \
     "" using 5 title "spdlog sync" lc rgb "#2ca02c"$throughput_quill
unset multiplot
GNUPLOT
echo "bench-compare: wrote docs/bench.png and docs/bench.txt"
