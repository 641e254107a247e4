#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs a test program as the unprivileged user "nobody", for the tests that
# check what file permissions refuse and therefore skip when run as root
# (as CI runs). Usage:
#   bash scripts/run-as-nobody.sh <test program> <gtest filter>
# As root: drops to nobody/nogroup with setpriv (util-linux), runs the
# filtered tests with a scratch TMPDIR that nobody may write, and fails when
# any of them failed or skipped. Not as root: the tests need no help and run
# in the ordinary ctest list, so this exits with 77 (reported as skipped).
set -euo pipefail
program="$1"
filter="$2"
if [ "$(id -u)" -ne 0 ]; then
  echo "not root: the permission tests run unprivileged in the ordinary list"
  exit 77
fi
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
# The build tree may lie where nobody cannot go (a clone below /root): the
# program and the project's libraries it loads are copied next to it.
mkdir "$scratch/bin" "$scratch/tmp"
cp "$program" "$scratch/bin/"
ldd "$program" | awk '/libzel_/ { print $3 }' | while read -r lib; do
  cp "$lib" "$scratch/bin/"
done
chown -R nobody:nogroup "$scratch"
chmod 755 "$scratch"
set +e
output="$(cd "$scratch/tmp" && TMPDIR="$scratch/tmp" LD_LIBRARY_PATH="$scratch/bin" \
  setpriv --reuid=nobody --regid=nogroup --clear-groups -- \
  "$scratch/bin/$(basename "$program")" --gtest_filter="$filter" 2>&1)"
status=$?
set -e
echo "$output"
if [ "$status" -ne 0 ]; then exit "$status"; fi
if grep -q '^\[  SKIPPED \]' <<<"$output"; then
  echo "run-as-nobody: a test skipped although it ran unprivileged" >&2
  exit 1
fi
if ! grep -q '^\[  PASSED  \]' <<<"$output"; then
  echo "run-as-nobody: no test ran" >&2
  exit 1
fi
