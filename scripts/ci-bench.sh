#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Stage "bench": builds the benchmarks (preset "bench", build/bench), runs
# every micro-benchmark once, briefly, and the comparison with spdlog's
# asynchronous logger in its short mode, so that both keep compiling and
# running. No time is asserted here; scripts/bench-compare.sh makes the
# figures and the plot.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/need.sh libbenchmark-dev libspdlog-dev

cmake --preset bench >/dev/null
cmake --build --preset bench -- -j2

echo "== bench: micro-benchmarks (brief)"
build/bench/bench/zel_bench --benchmark_min_time=0.01

echo "== bench: zel vs spdlog (short mode)"
build/bench/bench/zel_log_compare --quick --reps 5
