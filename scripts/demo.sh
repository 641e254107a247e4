#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Sets up a fresh machine, builds zel_utils in Release and runs the
# demonstration program. Extra arguments go to the program (a directory to
# write under; by default a fresh one under the temporary directory).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --target zel_demo
./build/release/examples/zel_demo "$@"
