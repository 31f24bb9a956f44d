#!/usr/bin/env bash
# The main job on its built-in default: installs what is missing, builds in
# Release and runs the command-line host over the synthetic Bayer camera.
# Results go to out/default (relative to the repository).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/tools/deps.sh"
"$root/tools/build.sh" "$root/build/release" -DCMAKE_BUILD_TYPE=Release -DQLAR_BUILD_TESTS=OFF
cd "$root"
# Nodes already run on threads of their own; spinning OpenMP threads would
# only steal the cores they need.
export OMP_WAIT_POLICY="${OMP_WAIT_POLICY:-passive}"
exec "$root/build/release/bin/qlarrun" "$@"
