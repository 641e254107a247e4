#!/usr/bin/env bash
# Installs what building and testing zel_utils needs on Debian 12, with
# apt-get, when it is missing. Run as root (or with sudo available).
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config make
  googletest libgtest-dev
  libglib2.0-dev libjsoncpp-dev libcurl4-openssl-dev
  faketime clang-format
  clang libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
