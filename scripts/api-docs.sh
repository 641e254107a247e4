#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Usage: bash scripts/api-docs.sh [output directory]   (default build/docs)
# Builds the HTML API reference of the public headers with Doxygen
# (docs/api/Doxyfile) into <output directory>/html/index.html. Fails, and
# prints the places, when a public name has no documentation or a comment
# does not read as documentation.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/need.sh doxygen
out="${1:-build/docs}"
rm -rf "$out"
mkdir -p "$out"
log="$out/doxygen.log"
if ! (cat docs/api/Doxyfile && echo "OUTPUT_DIRECTORY = $out") | doxygen - >"$log" 2>&1; then
  cat "$log" >&2
  echo "api-docs: Doxygen failed; every public name needs a comment right above it" >&2
  exit 1
fi
test -f "$out/html/index.html"
echo "api-docs: $out/html/index.html"
