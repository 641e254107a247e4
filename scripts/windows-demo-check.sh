#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Usage: bash scripts/windows-demo-check.sh <zel_demo.exe> <work directory>
# Runs the Windows demonstration program under Wine (WINEPREFIX and a
# running server are the caller's, as in scripts/ci-windows.sh) writing
# under a fresh <work directory>, and checks what it printed, the log
# directory it chose and the files it left there.
set -euo pipefail
exe="$1"
work="$2"
rm -rf "$work"
mkdir -p "$work"
work="$(cd "$work" && pwd)"
out="$work.out"
fail() {
  echo "windows-demo: $*" >&2
  cat "$out" >&2
  exit 1
}
# The program takes its directory as a Windows path (Z: is the root).
wine "$exe" "$(winepath -w "$work")" >"$out" 2>&1 </dev/null || fail "exit status $?"
tr -d '\r' <"$out" >"$out.lf" && mv "$out.lf" "$out"

grep -q '^== zel_utils demonstration, writing under ' "$out" || fail "no heading"
grep -q '^   process zel_demo.exe in ' "$out" || fail "no process name"
grep -q '^   backend received 8 forwarded lines, the last:' "$out" || fail "backend count"
grep -q 'a synchronous closure returned: it saw 3 closures done before it' "$out" ||
  fail "worker"
grep -q '^  GetStringVal(camera, name)      = "front camera"' "$out" || fail "key file"
grep -q '^   zel_log_install_crash_handler() = 0: installed' "$out" || fail "crash drain"
grep -q '^   9 queued, 21 dropped at once' "$out" || fail "queue limit"
grep -q 'zel log: 21 lines dropped (queue full)$' "$out" || fail "no drop notice"
grep -q '^   after zel_set_log_retention(30, 0) and the next line, 20200101 is gone$' "$out" ||
  fail "retention"
grep -q '^   after Uninit() the receiver had 3 documents' "$out" || fail "HTTP delivery"
grep -q '^== done$' "$out" || fail "did not finish"

# The log directory: <work>/log/YYYYMMDD/ with the live file and the
# rotated files that the rotation part keeps (3 files in all); the earlier
# run's day directory that the demonstration made is gone (retention).
days=("$work"/log/*/)
[ ${#days[@]} -eq 1 ] && [ -d "${days[0]}" ] || fail "not one day directory under $work/log"
day="$(basename "${days[0]}")"
[[ "$day" =~ ^[0-9]{8}$ ]] || fail "day directory $day"
live=("${days[0]}"zel.log.zel_demo.exe.*.txt)
[ ${#live[@]} -eq 1 ] && [ -f "${live[0]}" ] || fail "no live file in ${days[0]}"
count="$(find "${days[0]}" -maxdepth 1 -type f -name 'zel.log.zel_demo.exe.*' | wc -l)"
[ "$count" -eq 3 ] || fail "$count log files, 3 expected"
[ ! -e "$work/log/20200101" ] || fail "retention left $work/log/20200101"
grep -q 'zel log: 21 lines dropped (queue full)' "${live[0]}" || fail "no drop notice in the live file"
# Lines are stored with Windows line ends.
grep -q $'\r$' "${live[0]}" || fail "the live file has no CRLF line ends"
grep -q 'Debug:' "${live[0]}" || fail "no log line in the live file"
# The configuration files and the trace documents.
[ -f "$work/device.conf" ] && [ -f "$work/client.ini" ] || fail "configuration files missing"
[ -s "$work/trace.jsonl" ] || fail "no trace documents"
grep -q '"event" : "attach"' "$work/trace.jsonl" || grep -q '"event"' "$work/trace.jsonl" ||
  fail "trace documents without events"
echo "windows-demo: output, $day/ with $count log files, configuration and trace files: ok"
