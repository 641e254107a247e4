#!/usr/bin/env bash
# Install stage: installs the libraries into a tree of their own, builds the
# consumer program of tests/consumer/ against that tree through the CMake
# package and through pkg-config and runs it; then makes the Debian packages
# with CPack, installs them with apt-get, and builds and runs the consumer
# against them the same two ways. The packages are removed again at the end.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/install
tree="$PWD/$build/tree"
work="$PWD/$build/run"
rm -rf "$tree" "$work"
mkdir -p "$work"

# $1: name of the run, $2...: extra configure arguments of the consumer.
consume() {
  local name="$1"
  shift
  local dir="$work/$name"
  cmake -S tests/consumer -B "$dir/build" -G Ninja "$@" >/dev/null
  cmake --build "$dir/build" >/dev/null
  mkdir -p "$dir/log"
  echo "-- consumer ($name)"
  "$dir/build/zel_consumer" "$dir/log/"
  # The consumer checks its own line; check from outside that it is there.
  grep -q 'consumer: worker gave 42 in zel_consumer$' "$dir"/log/*/zel.log.zel_consumer.*.txt
}

echo "-- install into $tree"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZEL_BUILD_TESTS=OFF \
  -DZEL_BUILD_EXAMPLES=OFF -DCMAKE_INSTALL_PREFIX="$tree" >/dev/null
cmake --build "$build"
cmake --install "$build" >/dev/null

# Public headers only, each usable on its own.
test ! -e "$tree/include/zel/utils/platform.h"
for header in "$tree"/include/zel/utils/*.h "$tree"/include/zel/tracer/*.h; do
  rel="${header#"$tree/include/zel/"}"
  echo "#include \"$rel\"" | g++ -std=c++17 -fsyntax-only -Wall -Wextra -Werror \
    -I"$tree/include/zel" -x c++ -
done
# Versioned shared libraries.
for lib in zel_utils zel_tracer; do
  test -L "$tree/lib/lib$lib.so" && test -L "$tree/lib/lib$lib.so.0" && test -f "$tree/lib/lib$lib.so.0.1.0"
done

consume tree-cmake -DCMAKE_PREFIX_PATH="$tree"
PKG_CONFIG_PATH="$tree/lib/pkgconfig" consume tree-pkgconfig -DZEL_CONSUMER_USE_PKGCONFIG=ON

echo "-- Debian packages"
cmake -S . -B "$build" -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
cmake --build "$build"
rm -f "$build"/*.deb
(cd "$build" && cpack >/dev/null)
for deb in "$build"/*.deb; do
  echo "$(basename "$deb"): $(dpkg-deb -f "$deb" Depends)"
done
trap 'dpkg -r libzel-dev libzel0 >/dev/null 2>&1 || true' EXIT
export DEBIAN_FRONTEND=noninteractive
apt-get install -y -qq --no-install-recommends "$PWD/$build"/libzel0_*.deb \
  "$PWD/$build"/libzel-dev_*.deb >/dev/null
dpkg -s libzel0 libzel-dev | grep -E '^(Package|Status|Version)'

consume deb-cmake
consume deb-pkgconfig -DZEL_CONSUMER_USE_PKGCONFIG=ON
echo "install: the installed tree and the Debian packages both work"
