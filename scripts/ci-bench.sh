#!/usr/bin/env bash
# Placeholder until this stage is written.
set -euo pipefail
echo "bench: not written yet" >&2
exit 1
