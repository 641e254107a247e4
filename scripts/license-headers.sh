#!/usr/bin/env bash
# Every source file of the project starts with the line
#   SPDX-License-Identifier: MIT
# as a comment (after a script's #! line). Without arguments this checks the
# tracked files and lists each one that lacks it; with --fix it adds the line
# where it is missing.
set -euo pipefail
cd "$(dirname "$0")/.."

fix=0
[ "${1:-}" = "--fix" ] && fix=1

tag='SPDX-License-Identifier: MIT'
missing=0
while IFS= read -r file; do
  case "$file" in
    *.cpp | *.h | *.c) comment="// $tag" ;;
    *.sh | *.py | *.cmake | *.in | */CMakeLists.txt | CMakeLists.txt | .ci/run) comment="# $tag" ;;
    *) continue ;;
  esac
  # Templates whose first line is read by a tool stay as they are.
  case "$file" in
    cmake/debian/* | cmake/zel.pc.in | fuzz/corpus/*) continue ;;
  esac
  head -n 3 "$file" | grep -qF "$tag" && continue
  if [ "$fix" -eq 0 ]; then
    echo "license-headers: $file has no '$tag' line" >&2
    missing=1
    continue
  fi
  # C and C++ files get a blank line after it, so that the line stays a
  # comment of its own (the API reference takes a header's first comment
  # block as the file's documentation).
  blank=""
  case "$comment" in //*) blank=$'\n' ;; esac
  if head -n 1 "$file" | grep -q '^#!'; then
    { head -n 1 "$file"; echo "$comment"; tail -n +2 "$file"; } >"$file.spdx"
  else
    { printf '%s\n%s' "$comment" "$blank"; cat "$file"; } >"$file.spdx"
  fi
  chmod --reference="$file" "$file.spdx"
  mv "$file.spdx" "$file"
done < <(git ls-files)
exit "$missing"
