#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Usage: bash scripts/need.sh <debian-package>...
# Installs, with apt-get, those of the given Debian 12 packages that are not
# installed yet. Run as root (or with sudo available).
set -euo pipefail

missing=()
for p in "$@"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  # Several scripts may install at once (stages run side by side by hand):
  # wait for the package lock instead of failing on it.
  lock=(-o DPkg::Lock::Timeout=900)
  $sudo apt-get "${lock[@]}" update -qq
  $sudo apt-get "${lock[@]}" install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
