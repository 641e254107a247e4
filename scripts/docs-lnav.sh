#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Usage: bash scripts/docs-lnav.sh [day directory]
# Checks the lnav format docs/lnav/zel_log.json with Debian's lnav: installs
# it into a scratch configuration (HOME pointed at a scratch directory, so
# the user's own lnav settings are neither read nor changed), opens a day
# directory of the log in lnav's headless mode and checks that
#   - every message of the files is a row of the format (a message is a line
#     that starts with the prefix "[M-D hh:mm:ss.mmm][tid:T] ", with the
#     lines that follow it up to the next such line),
#   - every message with a call site "[module][file function line] " has
#     its file, function and line parsed,
#   - at least two levels are recognised,
#   - the rows of the rotated files and the live file come in time order.
# Without an argument the demonstration program (scripts/demo.sh) writes
# the log into a scratch directory first.
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"

fail() {
  echo "docs-lnav: $*" >&2
  exit 1
}

bash scripts/need.sh lnav

scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT

if [ $# -ge 1 ]; then
  day="$(cd "$1" && pwd)"
else
  bash scripts/demo.sh "$scratch/demo" >"$scratch/demo.out" 2>&1 || {
    cat "$scratch/demo.out" >&2
    fail "the demonstration program failed"
  }
  days=("$scratch"/demo/log/*/)
  [ ${#days[@]} -eq 1 ] && [ -d "${days[0]}" ] || fail "not one day directory under $scratch/demo/log"
  day="${days[0]%/}"
fi
files=("$day"/zel.log.*)
[ -f "${files[0]}" ] || fail "no log file in $day"

# lnav reads and writes its configuration under $HOME/.lnav (or
# $XDG_CONFIG_HOME/lnav when that exists).
export HOME="$scratch/home"
unset XDG_CONFIG_HOME
mkdir -p "$HOME"
lnav -i "$root/docs/lnav/zel_log.json" >"$scratch/install.out" 2>&1 || {
  cat "$scratch/install.out" >&2
  fail "lnav -i docs/lnav/zel_log.json failed"
}

# One query's single value, through lnav's headless mode; lnav's own
# complaints (a format it refuses, a sample line that does not match) fail
# the check.
query() {
  local out="$scratch/query.out"
  if ! lnav -n -c ";$1" -c ':write-csv-to -' "$day" >"$out" 2>"$scratch/query.err" ||
    [ -s "$scratch/query.err" ]; then
    cat "$out" "$scratch/query.err" >&2
    fail "lnav failed on: $1"
  fi
  tail -n 1 "$out" | tr -d '\r"'
}

prefix='^\[[0-9]{1,2}-[0-9]{1,2} [0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}\]\[tid:[0-9]+\] '
messages="$(cat "${files[@]}" | grep -cE "$prefix" || true)"
with_site="$(cat "${files[@]}" | grep -cE "$prefix\[[^]]*\]\[[^] ]* .* -?[0-9]+\] " || true)"
[ "$messages" -gt 0 ] || fail "no message in the files of $day"

rows="$(query "SELECT count(*) FROM all_logs WHERE log_format = 'zel_log'")"
other="$(query "SELECT count(*) FROM all_logs WHERE log_format <> 'zel_log'")"
sites="$(query "SELECT count(*) FROM zel_log WHERE file IS NOT NULL AND function IS NOT NULL AND line IS NOT NULL")"
levels="$(query "SELECT group_concat(level, ' ') FROM (SELECT log_level || '=' || count(*) AS level FROM all_logs WHERE log_format = 'zel_log' GROUP BY log_level ORDER BY log_level)")"
nlevels="$(query "SELECT count(DISTINCT log_level) FROM all_logs WHERE log_format = 'zel_log'")"
unordered="$(query "SELECT count(*) FROM (SELECT log_time, lag(log_time) OVER (ORDER BY log_line) AS before FROM all_logs) WHERE log_time < before")"

echo "docs-lnav: ${#files[@]} files, $messages messages ($with_site with a call site); lnav: $rows rows of zel_log, $other of other formats, $sites with a call site; levels: $levels"
[ "$other" -eq 0 ] || fail "$other rows were taken for another format than zel_log"
[ "$rows" -eq "$messages" ] || fail "$messages messages in the files but $rows rows parsed by zel_log"
[ "$sites" -eq "$with_site" ] || fail "$with_site messages with a call site but $sites rows with file, function and line"
[ "$nlevels" -ge 2 ] || fail "$nlevels level(s) recognised ($levels), at least 2 expected"
[ "$unordered" -eq 0 ] || fail "$unordered rows come before an earlier time"
echo "docs-lnav: ok"
