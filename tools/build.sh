#!/usr/bin/env bash
# tools/build.sh <build-dir> [extra cmake arguments...]
# Configures (once) and builds the project in <build-dir>.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
dir="$1"; shift
cmake -S "$root" -B "$dir" -G Ninja "$@" >/dev/null
cmake --build "$dir" -j"$(nproc)"
