#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Usage: bash scripts/windows-deps.sh
# Cross-builds the libraries that zel needs on Windows x64 (JsonCpp, GLib 2
# with pcre2 and libffi, libcurl) from Debian's own source packages with
# MinGW-w64, and installs them into a prefix below build/windows-deps/. The
# prefix is keyed by the source package versions and by this script, and is
# reused as it is when a complete one is already there. Prints the prefix
# path as its last line of standard output.
#
# Needs: a deb-src entry for the configured archive (scripts/ci-windows.sh
# adds it), the MinGW-w64 toolchain, meson, pkg-config, libz-mingw-w64-dev,
# dpkg-dev, cmake and ninja. Nothing of the sources is kept after the build.
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"

host=x86_64-w64-mingw32
packages=(libjsoncpp pcre2 libffi glib2.0 curl)

# The versions come from the .dsc names that apt would fetch.
versions="$(apt-get source --print-uris "${packages[@]}" 2>/dev/null |
  grep -o "[^/']*\.dsc'" | tr -d "'" | sort)"
if [ "$(printf '%s\n' "$versions" | grep -c '\.dsc$')" -ne ${#packages[@]} ]; then
  echo "windows-deps: apt cannot find all of ${packages[*]} as source packages" >&2
  echo "windows-deps: (is there a deb-src entry? apt-get update run?)" >&2
  exit 1
fi
key="$( (printf '%s\n' "$versions"; cat "$0") | sha256sum | cut -c1-12)"
prefix="$root/build/windows-deps/$key"

if [ -f "$prefix/.complete" ]; then
  echo "windows-deps: reusing $prefix" >&2
  echo "$prefix"
  exit 0
fi

rm -rf "$prefix"
work="$root/build/windows-deps/src-$key"
rm -rf "$work"
mkdir -p "$work" "$prefix"
cd "$work"

start=$SECONDS
log() { echo "windows-deps: [$((SECONDS - start)) s] $*" >&2; }

log "fetching ${packages[*]}"
# apt-get complains when its sandbox user cannot read the directory; the
# download works all the same.
apt-get source -qq "${packages[@]}" >/dev/null 2>"$work/apt-source.log" || {
  cat "$work/apt-source.log" >&2
  exit 1
}
srcdir() { find "$work" -mindepth 1 -maxdepth 1 -type d -name "$1-*" | head -n 1; }

cat >"$work/toolchain.cmake" <<EOF
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER ${host}-gcc-posix)
set(CMAKE_CXX_COMPILER ${host}-g++-posix)
set(CMAKE_RC_COMPILER ${host}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${host} $prefix)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
EOF
cmake_build() { # <source dir> <build dir> <cmake options...>
  local src="$1" build="$2"
  shift 2
  cmake -S "$src" -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$work/toolchain.cmake" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" "$@" >"$build.log" 2>&1 &&
    cmake --build "$build" -j2 >>"$build.log" 2>&1 &&
    cmake --install "$build" >>"$build.log" 2>&1 || {
    tail -n 40 "$build.log" >&2
    return 1
  }
}

log "JsonCpp (static)"
cmake_build "$(srcdir libjsoncpp)" "$work/b-jsoncpp" -DBUILD_SHARED_LIBS=OFF \
  -DBUILD_STATIC_LIBS=ON -DBUILD_OBJECT_LIBS=OFF -DJSONCPP_WITH_TESTS=OFF \
  -DJSONCPP_WITH_POST_BUILD_UNITTEST=OFF -DJSONCPP_WITH_PKGCONFIG_SUPPORT=ON \
  -DJSONCPP_WITH_CMAKE_PACKAGE=ON

log "pcre2 (static, 8-bit)"
cmake_build "$(srcdir pcre2)" "$work/b-pcre2" -DBUILD_SHARED_LIBS=OFF -DBUILD_STATIC_LIBS=ON \
  -DPCRE2_BUILD_PCRE2_8=ON -DPCRE2_BUILD_PCRE2_16=OFF -DPCRE2_BUILD_PCRE2_32=OFF \
  -DPCRE2_SUPPORT_JIT=OFF -DPCRE2_BUILD_PCRE2GREP=OFF -DPCRE2_BUILD_TESTS=OFF

log "libffi (static)"
(
  cd "$(srcdir libffi)"
  mkdir -p b-ffi && cd b-ffi
  ../configure --host=$host --prefix="$prefix" --disable-shared --enable-static \
    --disable-docs --disable-multi-os-directory CC=$host-gcc-posix >"$work/ffi.log" 2>&1 &&
    make -j2 >>"$work/ffi.log" 2>&1 && make install >>"$work/ffi.log" 2>&1
) || {
  tail -n 40 "$work/ffi.log" >&2
  exit 1
}

# GLib wants libintl; messages are not translated here, so a stub that hands
# every text back unchanged stands in for it. The format_arg attributes keep
# GLib's format checks working through the stub.
log "libintl stub"
mkdir -p "$prefix/include" "$prefix/lib"
cat >"$prefix/include/libintl.h" <<'EOF'
/* No-translation stand-in for libintl: every text comes back unchanged. */
#ifndef ZEL_DEPS_LIBINTL_H_
#define ZEL_DEPS_LIBINTL_H_
#include <locale.h>
/* The Windows runtime has no message category; libintl supplies it. */
#ifndef LC_MESSAGES
#define LC_MESSAGES 1729
#endif
#ifdef __cplusplus
extern "C" {
#endif
char *gettext(const char *msgid) __attribute__((format_arg(1)));
char *dgettext(const char *domain, const char *msgid) __attribute__((format_arg(2)));
char *dcgettext(const char *domain, const char *msgid, int category)
    __attribute__((format_arg(2)));
char *ngettext(const char *msgid, const char *plural, unsigned long n)
    __attribute__((format_arg(1))) __attribute__((format_arg(2)));
char *dngettext(const char *domain, const char *msgid, const char *plural, unsigned long n)
    __attribute__((format_arg(2))) __attribute__((format_arg(3)));
char *dcngettext(const char *domain, const char *msgid, const char *plural, unsigned long n,
                 int category) __attribute__((format_arg(2))) __attribute__((format_arg(3)));
char *textdomain(const char *domain);
char *bindtextdomain(const char *domain, const char *dir);
char *bind_textdomain_codeset(const char *domain, const char *codeset);
#ifdef __cplusplus
}
#endif
#endif
EOF
cat >"$work/libintl.c" <<'EOF'
#include <libintl.h>
char *gettext(const char *msgid) { return (char *)msgid; }
char *dgettext(const char *d, const char *msgid) { (void)d; return (char *)msgid; }
char *dcgettext(const char *d, const char *msgid, int c) { (void)d; (void)c; return (char *)msgid; }
char *ngettext(const char *m, const char *p, unsigned long n) { return (char *)(n == 1 ? m : p); }
char *dngettext(const char *d, const char *m, const char *p, unsigned long n) {
  (void)d; return (char *)(n == 1 ? m : p);
}
char *dcngettext(const char *d, const char *m, const char *p, unsigned long n, int c) {
  (void)d; (void)c; return (char *)(n == 1 ? m : p);
}
char *textdomain(const char *d) { return (char *)(d ? d : "messages"); }
char *bindtextdomain(const char *d, const char *dir) { (void)d; return (char *)dir; }
char *bind_textdomain_codeset(const char *d, const char *c) { (void)d; return (char *)c; }
EOF
$host-gcc-posix -O2 -I"$prefix/include" -c "$work/libintl.c" -o "$work/libintl.o"
$host-ar rcs "$prefix/lib/libintl.a" "$work/libintl.o"

log "GLib (shared)"
cat >"$work/cross.ini" <<EOF
[binaries]
c = '$host-gcc-posix'
cpp = '$host-g++-posix'
ar = '$host-ar'
strip = '$host-strip'
windres = '$host-windres'
pkgconfig = 'pkg-config'
exe_wrapper = 'wine'
[properties]
pkg_config_libdir = ['$prefix/lib/pkgconfig', '/usr/$host/lib/pkgconfig']
[built-in options]
c_args = ['-I$prefix/include']
c_link_args = ['-L$prefix/lib']
cpp_args = ['-I$prefix/include']
cpp_link_args = ['-L$prefix/lib']
[host_machine]
system = 'windows'
cpu_family = 'x86_64'
cpu = 'x86_64'
endian = 'little'
EOF
{
  meson setup "$work/b-glib" "$(srcdir glib2.0)" --cross-file "$work/cross.ini" \
    --prefix="$prefix" --buildtype=release --wrap-mode=nodownload -Dtests=false \
    -Dinstalled_tests=false -Dnls=disabled -Dlibmount=disabled -Dselinux=disabled \
    -Dxattr=false -Dgtk_doc=false -Dman=false -Dsysprof=disabled -Dlibelf=disabled &&
    ninja -C "$work/b-glib" -j2 && meson install -C "$work/b-glib" --no-rebuild
} >"$work/glib.log" 2>&1 || {
  tail -n 40 "$work/glib.log" >&2
  exit 1
}

# libcurl: static, TLS through Schannel, every optional dependency off.
log "libcurl (static, Schannel)"
cmake_build "$(srcdir curl)" "$work/b-curl" -DBUILD_SHARED_LIBS=OFF -DBUILD_CURL_EXE=OFF \
  -DBUILD_TESTING=OFF -DENABLE_MANUAL=OFF -DCURL_USE_SCHANNEL=ON -DCURL_USE_OPENSSL=OFF \
  -DCURL_USE_MBEDTLS=OFF -DCURL_USE_WOLFSSL=OFF -DCURL_USE_BEARSSL=OFF -DCURL_USE_NSS=OFF \
  -DCURL_ZLIB=OFF -DCURL_BROTLI=OFF -DCURL_ZSTD=OFF -DUSE_NGHTTP2=OFF -DUSE_NGTCP2=OFF \
  -DUSE_QUICHE=OFF -DUSE_LIBIDN2=OFF -DUSE_WIN32_IDN=OFF -DCURL_USE_LIBSSH2=OFF \
  -DCURL_USE_LIBSSH=OFF -DCURL_USE_GSSAPI=OFF -DCURL_DISABLE_LDAP=ON -DCURL_DISABLE_LDAPS=ON \
  -DENABLE_UNICODE=OFF -DCURL_CA_PATH=none -DCURL_CA_BUNDLE=none

# A user of the static libcurl must say so (CURL_STATICLIB), or curl.h
# declares its functions as DLL imports; its pkg-config file leaves that out.
# Its link line also names the compiler's own runtime libraries, among them
# the winpthread import library, which clashes with the static runtime:
# only the system libraries libcurl needs are kept.
sed -i -e 's/^Cflags: .*/& -DCURL_STATICLIB/' \
  -e 's/^Libs: .*/Libs: -L${libdir} -lcurl -lws2_32 -lcrypt32 -lbcrypt -ladvapi32 -lwinmm/' \
  -e 's/^Libs.private: .*/Libs.private:/' "$prefix/lib/pkgconfig/libcurl.pc"
printf '%s\n' "$versions" >"$prefix/.versions"
touch "$prefix/.complete"
cd "$root"
rm -rf "$work"
log "done: $prefix"
echo "$prefix"
