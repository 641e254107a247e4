#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Install stage: checks zel the ways another project takes it in.
#  1. Installs the shared libraries with `cmake --install --prefix` into a
#     tree other than the configured prefix, checks the public headers one
#     by one (GCC and clang, every warning as an error), and builds and runs
#     the consumer program of tests/consumer/ against the tree through the
#     CMake package (with pkg-config switched off: shared libraries need
#     neither GLib's nor JsonCpp's development files) and through
#     pkg-config; then moves the tree and does it again from there.
#  2. The same for static libraries (GLib, JsonCpp and libcurl then come
#     from the CMake package and from pkg-config --static).
#  3. clang builds the consumer with zel's sources as a subproject, by
#     add_subdirectory() and by FetchContent from a clone of this
#     repository (no network): the parent's build type stays unset, zel's
#     tests and examples are not built and its code gets no -Werror, while
#     the consumer's own code is built with -Weverything -Werror.
#  4. Makes the Debian packages with CPack, runs lintian on them, installs
#     them with apt-get and builds and runs the consumer against them both
#     ways; the packages are removed again at the end.
#  5. Builds the API reference with Doxygen (scripts/api-docs.sh), which
#     fails on any undocumented public name.
# Takes about 9 minutes on two cores shared with a load of about 18; four
# builds of the libraries (shared, static, two clang subprojects) are most
# of it.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/need.sh clang lintian doxygen git dpkg-dev file binutils

build=build/install
work="$PWD/$build/run"
rm -rf "$work"
mkdir -p "$work"
start=$SECONDS

# $1: name of the run, $2...: extra configure arguments of the consumer.
consume() {
  local name="$1"
  shift
  local dir="$work/$name"
  cmake -S tests/consumer -B "$dir/build" -G Ninja "$@" >"$dir.configure.log" 2>&1 ||
    { cat "$dir.configure.log" >&2; return 1; }
  cmake --build "$dir/build" >"$dir.build.log" 2>&1 || { cat "$dir.build.log" >&2; return 1; }
  mkdir -p "$dir/log"
  echo "-- consumer ($name)"
  "$dir/build/zel_consumer" "$dir/log/"
  # The consumer checks its own line; check from outside that it is there.
  grep -q 'consumer: worker gave 42 in zel_consumer$' "$dir"/log/*/zel.log.zel_consumer.*.txt
}

# Every public header on its own, with the warnings of a strict user.
check_headers() {
  local include="$1"
  test ! -e "$include/zel/utils/platform.h"
  for header in "$include"/zel/utils/*.h "$include"/zel/tracer/*.h; do
    local rel="${header#"$include/zel/"}"
    echo "#include \"$rel\"" | g++ -std=c++17 -fsyntax-only -Wall -Wextra -Wpedantic \
      -Wconversion -Wshadow -Werror -I"$include/zel" -x c++ -
    echo "#include \"$rel\"" | clang++ -std=c++17 -fsyntax-only -Weverything -Werror \
      -Wno-c++98-compat -Wno-c++98-compat-pedantic -Wno-padded -I"$include/zel" -x c++ -
  done
}

# -- 1. Shared libraries, installed elsewhere than configured, then moved.
echo "-- shared libraries: configured for /usr/local, installed with --prefix"
tree="$work/tree"
cmake -S . -B "$build" -DZEL_BUILD_BENCH=OFF -G Ninja -DCMAKE_BUILD_TYPE=Release -DZEL_BUILD_TESTS=OFF \
  -DZEL_BUILD_EXAMPLES=OFF -DZEL_BUILD_SHARED=ON -DCMAKE_INSTALL_PREFIX=/usr/local >/dev/null
cmake --build "$build"
cmake --install "$build" --prefix "$tree" >/dev/null
check_headers "$tree/include"
for lib in zel_utils zel_tracer; do
  test -L "$tree/lib/lib$lib.so" && test -L "$tree/lib/lib$lib.so.0"
  test -f "$tree/lib/lib$lib.so.0.1.0"
done
# A user of the shared libraries gets none of their private dependencies.
pc_shared="$(PKG_CONFIG_PATH="$tree/lib/pkgconfig" pkg-config --cflags --libs zel)"
echo "pkg-config zel: $pc_shared"
if grep -E 'glib|jsoncpp|curl|/usr/local' <<<"$pc_shared"; then
  echo "install: pkg-config gives private dependencies or the configured prefix" >&2
  exit 1
fi

for place in installed moved; do
  if [ "$place" = moved ]; then
    mv "$tree" "$work/tree-moved"
    tree="$work/tree-moved"
  fi
  consume "shared-$place-cmake" -DCMAKE_PREFIX_PATH="$tree" \
    -DCMAKE_DISABLE_FIND_PACKAGE_PkgConfig=ON
  PKG_CONFIG_PATH="$tree/lib/pkgconfig" consume "shared-$place-pkgconfig" \
    -DZEL_CONSUMER_USE_PKGCONFIG=ON
done

# -- 2. Static libraries.
echo "-- static libraries ($((SECONDS - start)) s)"
static_build="$build-static"
static_tree="$work/tree-static"
cmake -S . -B "$static_build" -DZEL_BUILD_BENCH=OFF -G Ninja -DCMAKE_BUILD_TYPE=Release -DZEL_BUILD_TESTS=OFF \
  -DZEL_BUILD_EXAMPLES=OFF -DZEL_BUILD_SHARED=OFF >/dev/null
cmake --build "$static_build"
cmake --install "$static_build" --prefix "$static_tree" >/dev/null
test -f "$static_tree/lib/libzel_utils.a" && test -f "$static_tree/lib/libzel_tracer.a"
consume static-cmake -DCMAKE_PREFIX_PATH="$static_tree"
PKG_CONFIG_PATH="$static_tree/lib/pkgconfig" consume static-pkgconfig \
  -DZEL_CONSUMER_USE_PKGCONFIG=ON -DZEL_CONSUMER_PKGCONFIG_STATIC=ON
# Statically linked: the program needs no zel library at run time.
if ldd "$work/static-cmake/build/zel_consumer" | grep -q libzel; then
  echo "install: the static consumer loads a zel shared library" >&2
  exit 1
fi

# -- 3. zel as a subproject of a clang build with warnings on and -Werror off.
# $1: name of the run, $2...: extra configure arguments of the consumer.
consume_subproject() {
  local name="$1"
  shift
  CXX=clang++ consume "$name" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Wconversion -Wshadow" \
    "$@"
  local dir="$work/$name/build"
  grep -q '^CMAKE_BUILD_TYPE:STRING=$' "$dir/CMakeCache.txt" ||
    { echo "install: zel set the parent's build type ($name)" >&2; return 1; }
  if ninja -C "$dir" -t targets all | grep -E '^(zel_demo|[a-z_]+_test):'; then
    echo "install: zel built its own tests or examples in the parent ($name)" >&2
    return 1
  fi
  # zel's sources compile without -Werror; the consumer's own code with it.
  if ninja -C "$dir" -t commands zel_consumer | grep ' -c ' | grep -v 'consumer/main.cpp' |
    grep -e '-Werror'; then
    echo "install: zel's code is compiled with -Werror in the parent ($name)" >&2
    return 1
  fi
  ninja -C "$dir" -t commands zel_consumer | grep 'consumer/main.cpp' |
    grep -q -e '-Weverything -Werror'
}
echo "-- subproject: add_subdirectory ($((SECONDS - start)) s)"
consume_subproject subdirectory -DZEL_CONSUMER_SOURCE_DIR="$PWD"
echo "-- subproject: FetchContent from $PWD at $(git rev-parse --short HEAD)" \
  "($((SECONDS - start)) s)"
consume_subproject fetchcontent -DZEL_CONSUMER_GIT_REPOSITORY="file://$PWD" \
  -DZEL_CONSUMER_GIT_TAG="$(git rev-parse HEAD)"

# -- 4. Debian packages.
echo "-- Debian packages ($((SECONDS - start)) s)"
cmake -S . -B "$build" -DZEL_BUILD_BENCH=OFF -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
cmake --build "$build"
rm -f "$build"/*.deb
(cd "$build" && cpack >/dev/null)
for deb in "$build"/*.deb; do
  echo "$(basename "$deb"): Depends: $(dpkg-deb -f "$deb" Depends)"
done
# Errors fail the stage; warnings are shown.
lintian_ok=0
lintian --fail-on error "$build"/*.deb >"$work/lintian.log" 2>&1 || lintian_ok=$?
grep -v 'running with root privileges' "$work/lintian.log" || true
if [ "$lintian_ok" -ne 0 ]; then
  echo "install: lintian found errors in the Debian packages" >&2
  exit 1
fi
trap 'dpkg --purge libzel-dev libzel-utils0 libzel-tracer0 >/dev/null 2>&1 || true' EXIT
export DEBIAN_FRONTEND=noninteractive
apt-get install -y -qq --no-install-recommends "$PWD/$build"/libzel-utils0_*.deb \
  "$PWD/$build"/libzel-tracer0_*.deb "$PWD/$build"/libzel-dev_*.deb >/dev/null
dpkg -s libzel-utils0 libzel-tracer0 libzel-dev | grep -E '^(Package|Status|Version)'
# The packaged headers are the installed tree's, checked above.
diff -r "$tree/include/zel" /usr/include/zel
consume deb-cmake -DCMAKE_DISABLE_FIND_PACKAGE_PkgConfig=ON
consume deb-pkgconfig -DZEL_CONSUMER_USE_PKGCONFIG=ON
# Each package states its licence in the machine-readable copyright format.
for package in libzel-utils0 libzel-tracer0 libzel-dev; do
  grep -qx 'License: MIT' "/usr/share/doc/$package/copyright" ||
    { echo "install: $package's copyright file names no MIT licence" >&2; exit 1; }
done

# A product's own maintainer and Debian revision reach every package, and
# the packages' dependencies on each other name the whole version.
cmake -S . -B "$build" -DZEL_DEB_MAINTAINER="Example Product <packages@example.com>" \
  -DZEL_DEB_REVISION=2 >/dev/null
rm -f "$build"/*.deb
(cd "$build" && cpack >/dev/null)
for deb in "$build"/*.deb; do
  fields="$(dpkg-deb -f "$deb" Version Maintainer Depends)"
  grep -qx 'Version: 0\.[0-9.]*-2' <<<"$fields" &&
    grep -qx 'Maintainer: Example Product <packages@example.com>' <<<"$fields" &&
    ! grep -E 'libzel-[a-z]+0 \(= [0-9.]+\)' <<<"$fields" || {
    echo "install: $(basename "$deb") does not carry the product's version and maintainer:" >&2
    echo "$fields" >&2
    exit 1
  }
  dpkg-deb --fsys-tarfile "$deb" | tar -xO --wildcards './usr/share/doc/*/changelog.Debian.gz' \
    >"$work/changelog.gz"
  first="$(gzip -dc "$work/changelog.gz" | sed -n 1p)"
  grep -q '(0\.[0-9.]*-2)' <<<"$first" ||
    { echo "install: $(basename "$deb")'s changelog starts '$first', without the revision" >&2; exit 1; }
done
lintian --fail-on error "$build"/*.deb >"$work/lintian.log" 2>&1 || {
  grep -v 'running with root privileges' "$work/lintian.log" >&2
  echo "install: lintian found errors in the packages with a Debian revision" >&2
  exit 1
}

# -- 5. API reference.
echo "-- API reference ($((SECONDS - start)) s)"
bash scripts/api-docs.sh "$build/docs"

echo "install: every way in works ($((SECONDS - start)) s)"
