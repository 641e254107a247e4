#!/usr/bin/env bash
# Usage: check-exports.sh <shared library> <expected list> [--update]
#
# Lists the names a shared library exports (its defined dynamic symbols,
# demangled, one per line, sorted; a name appears as often as the library
# defines it, so the constructors and destructors of a class appear once per
# variant) and compares them with the checked-in list. Any difference fails:
# a name that appeared is an accidental export, a name that went is a lost
# one. With --update the list is rewritten instead, for a deliberate change
# of the exported surface.
set -euo pipefail

if [ $# -lt 2 ]; then
  echo "usage: $0 <shared library> <expected list> [--update]" >&2
  exit 2
fi
library="$1"
expected="$2"

exported() {
  nm -D --defined-only "$library" | awk '{ print $3 }' | c++filt | LC_ALL=C sort
}

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
