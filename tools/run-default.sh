#!/usr/bin/env bash
# The main job on its built-in default: installs what is missing, builds in
# Release and runs the command-line host over the synthetic Bayer camera.
# Results go to out/default (relative to the repository).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/tools/deps.sh"
"$root/tools/build.sh" "$root/build/release" -DCMAKE_BUILD_TYPE=Release -DQLAR_BUILD_TESTS=OFF
cd "$root"
exec "$root/build/release/bin/qlarrun" "$@"
