#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Usage: check-exports.sh <shared library> <expected list> [--update]
#
# Lists the names a shared library exports (its defined dynamic symbols,
# demangled, one per line, sorted; a name appears as often as the library
# defines it, so the constructors and destructors of a class appear once per
# variant) and compares them with the checked-in list. Any difference fails:
# a name that appeared is an accidental export, a name that went is a lost
# one. With --update the list is rewritten instead, for a deliberate change
# of the exported surface.
#
# A Windows DLL (a name ending in .dll) is checked against the same list,
# which the Linux library defines: its export table is read with
# x86_64-w64-mingw32-objdump and demangled with x86_64-w64-mingw32-c++filt.
# What differs for a platform reason is normalised on both sides first:
# 64-bit integers are "long" on Linux and "long long" on Windows, and MinGW
# exports no "typeinfo name" objects. Names that the Linux library exports
# and the DLL does not, for a reason given there, are listed in
# <expected list without .txt>.windows-delta.txt; each is taken off the
# expected side. Names that only the DLL exports (what is built on Windows
# only) are listed in <expected list without .txt>.windows-only.txt; each
# is added to the expected side. In both files lines starting with '#' are
# comments. The DLL list cannot be --update'd: the Linux one is the
# reference.
set -euo pipefail

if [ $# -lt 2 ]; then
  echo "usage: $0 <shared library> <expected list> [--update]" >&2
  exit 2
fi
library="$1"
expected="$2"

# AddressSanitizer's instrumentation adds "__odr_asan" symbols of its own
# for the library's globals; they are no names of the library.
exported() {
  nm -D --defined-only "$library" | awk '$3 !~ /^__odr_asan/ { print $3 }' | c++filt |
    LC_ALL=C sort
}

if [ "${library%.dll}" != "$library" ]; then
  if [ "${3:-}" = "--update" ]; then
    echo "check-exports: the list is the Linux library's; update it from there" >&2
    exit 2
  fi
  delta="${expected%.txt}.windows-delta.txt"
  only="${expected%.txt}.windows-only.txt"
  # The same spelling of the platform-dependent types on both sides.
  normalise() { sed -e 's/long long/long/g'; }
  dll_exported() {
    x86_64-w64-mingw32-objdump -p "$library" |
      awk '/\[Ordinal\/Name Pointer\] Table/ { f = 1; next }
           f && /^\t\[/ { print $NF; next }
           f { f = 0 }' |
      x86_64-w64-mingw32-c++filt | normalise | LC_ALL=C sort
  }
  dll_expected() {
    grep -v '^typeinfo name for ' "$expected" | normalise |
      if [ -f "$delta" ]; then
        grep -v -x -F -f <(grep -v -e '^#' -e '^$' "$delta" | normalise)
      else
        cat
      fi
    if [ -f "$only" ]; then
      grep -v -e '^#' -e '^$' "$only" | normalise
    fi
  }
  dll_expected_sorted() { dll_expected | LC_ALL=C sort; }
  if ! diff -u --label "expected ($expected, Windows)" --label "exported ($library)" \
    <(dll_expected_sorted) <(dll_exported); then
    echo "check-exports: $library does not export exactly the names of $expected" >&2
    echo "  ('+' lines: exported but not expected; '-' lines: expected but missing;" >&2
    echo "  platform differences with a reason go into $delta" >&2
    echo "  and $only)" >&2
    exit 1
  fi
  echo "check-exports: $library exports the $(dll_expected | wc -l) names of $expected" \
    "that apply to Windows"
  exit 0
fi

if [ "${3:-}" = "--update" ]; then
  exported >"$expected"
  echo "check-exports: wrote $(wc -l <"$expected") names to $expected"
  exit 0
fi

if ! diff -u --label "expected ($expected)" --label "exported ($library)" \
  "$expected" <(exported); then
  echo "check-exports: $library does not export exactly the names of $expected" >&2
  echo "  ('+' lines: exported but not expected; '-' lines: expected but missing)" >&2
  echo "  after a deliberate change: $0 $library $expected --update" >&2
  exit 1
fi
echo "check-exports: $library exports the $(wc -l <"$expected") names of $expected"
