#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Stage "windows": cross-builds zel_utils.dll, zel_tracer.dll and the unit
# tests for Windows x64 with MinGW-w64, runs the tests under Wine through
# ctest, and checks the DLL's export table against the checked-in list.
#
# The dependencies (JsonCpp, GLib, libcurl) are cross-built from Debian's
# source packages into build/windows-deps/<key>/ by scripts/windows-deps.sh;
# a complete prefix is reused. The Wine prefix lives in build/wine/.
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"
start=$SECONDS
step() { echo "windows: [$((SECONDS - start)) s] $*"; }

step "packages"
bash scripts/need.sh g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 wine64 wine \
  cmake ninja-build googletest pkg-config meson libz-mingw-w64-dev dpkg-dev python3 make

# Debian's source packages of the dependencies: a deb-src entry for the
# archive the machine already uses.
if ! grep -rqs -e '^deb-src ' -e '^Types:.*deb-src' /etc/apt/sources.list /etc/apt/sources.list.d/; then
  uri="$(grep -rhs '^URIs:' /etc/apt/sources.list.d/*.sources | head -n 1 | awk '{print $2}')"
  [ -n "$uri" ] || uri="$(grep -hs '^deb ' /etc/apt/sources.list | head -n 1 | awk '{print $2}')"
  suite="$(. /etc/os-release && echo "$VERSION_CODENAME")"
  step "adding deb-src $uri $suite main"
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo tee /etc/apt/sources.list.d/zel-deb-src.sources >/dev/null <<EOF
Types: deb-src
URIs: ${uri:-http://deb.debian.org/debian}
Suites: $suite
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
EOF
  $sudo apt-get update -qq
fi

# Wine: one prefix, a persistent server, and its background services
# started once with their standard streams on /dev/null (they inherit
# them, and a reader of a pipe they hold would wait for them to exit).
export WINEPREFIX="$root/build/wine"
export WINEDEBUG=-all
unset DISPLAY TZ
mkdir -p "$WINEPREFIX"
# A server left over from an earlier run would refuse the persistent one.
wineserver -k >/dev/null 2>&1 || true
wineserver -w >/dev/null 2>&1 || true
wineserver -p
trap 'wineserver -k >/dev/null 2>&1 || true' EXIT
step "wine prefix"
wineboot -i >/dev/null 2>&1 </dev/null

step "dependencies"
# Through a file rather than a pipe: no Wine process of the dependency build
# may hold the reading end open.
deps_out="$(mktemp)"
bash scripts/windows-deps.sh >"$deps_out"
export ZEL_WIN64_DEPS_PREFIX="$(tail -n 1 "$deps_out")"
rm -f "$deps_out"

# A fresh configuration each time: pkg-config results are cached, and the
# dependency prefix moves when its key changes. Unchanged objects are not
# rebuilt.
step "configure"
configure_log="$(mktemp)"
cmake --preset windows --fresh >"$configure_log" 2>&1 || {
  cat "$configure_log" >&2
  exit 1
}
# What the Windows build leaves out, and why.
grep '^-- zel: ' "$configure_log" | sed 's/^-- zel: /windows: /' || true
rm -f "$configure_log"

step "build"
cmake --build --preset windows

step "export tables"
for lib in zel_utils zel_tracer; do
  bash scripts/check-exports.sh "build/windows/bin/$lib.dll" "tests/exports/$lib.txt"
done

step "tests"
ctest --preset windows
# The run's whole log (each test's output) for the tally below.
cp build/windows/Testing/Temporary/LastTest.log build/windows/ctest-run.log

# The Windows suite against the Linux one: every Linux test the Windows
# build leaves out is listed with its reason (tests/windows-left-out.txt),
# and every skip under Wine says why. The Linux tests are listed from the
# release build (already built when the release stage ran first).
step "tally against the Linux suite"
cmake --preset release >/dev/null
cmake --build --preset release >/dev/null
python3 scripts/windows-tally.py build/release build/windows build/windows/ctest-run.log

# The demonstration program under Wine, in a directory of its own: its
# output, its log directory and its files.
step "demo"
bash scripts/windows-demo-check.sh build/windows/bin/zel_demo.exe build/windows/demo-run

# The load program for 10 s (its short run is one of the tests above).
step "load (10 s)"
wine build/windows/bin/zel_stress.exe --seconds 10 >build/windows/stress.log 2>&1 </dev/null || {
  cat build/windows/stress.log >&2
  exit 1
}
grep '^stress: ' build/windows/stress.log | sed 's/^/windows: /'
step "done"
