#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs what building and testing zel_utils needs on Debian 12, with
# apt-get, when it is missing. Run as root (or with sudo available). Stages
# with needs of their own (Windows, benchmarks, valgrind) install them in
# their scripts.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/need.sh \
  g++ cmake ninja-build pkg-config make \
  googletest libgtest-dev \
  libglib2.0-dev libjsoncpp-dev libcurl4-openssl-dev zlib1g-dev \
  faketime clang-format \
  clang libclang-rt-14-dev
