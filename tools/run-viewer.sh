#!/usr/bin/env bash
# The live viewer: installs what is missing (Aravis and its tools among
# them), builds in Release and starts qlarview, on the synthetic Bayer camera
# unless the arguments say otherwise. --camera, --chain and the input
# options mean what they mean to qlarrun (qlarview --help).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/tools/deps.sh"
"$root/tools/build.sh" "$root/build/release" -DCMAKE_BUILD_TYPE=Release -DQLAR_BUILD_TESTS=OFF
cd "$root"
export OMP_WAIT_POLICY="${OMP_WAIT_POLICY:-passive}"
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ] && [ -z "${QT_QPA_PLATFORM:-}" ]; then
    echo "run-viewer: no display; start it from a desktop session, or under xvfb-run" >&2
    exit 1
fi
exec "$root/build/release/bin/qlarview" "$@"
