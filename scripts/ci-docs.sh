#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The docs stage: builds the two libraries once (build/docs, Release, no
# tests), installs them under build/docs/prefix, then compiles and runs
# every C++ and shell block of README.md and docs/*.md and compares what
# each prints with the output shown beside it (scripts/docs-blocks.py; the
# rules are in docs/testing.md). Ends with the lnav format's test when
# scripts/docs-lnav.sh exists.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/docs
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZEL_BUILD_TESTS=OFF \
  -DZEL_BUILD_EXAMPLES=OFF -DZEL_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j2 --target zel_utils zel_tracer
rm -rf "$build/prefix" "$build/scratch"
cmake --install "$build" --prefix "$build/prefix" >/dev/null

python3 scripts/docs-blocks.py --prefix "$build/prefix" --work "$build/scratch" \
  README.md docs/*.md

if [ -f scripts/docs-lnav.sh ]; then
  bash scripts/docs-lnav.sh
fi
