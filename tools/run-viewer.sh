#!/usr/bin/env bash
# The live viewer: installs what is missing (Aravis and its tools among
# them), builds in Release and starts qlarview, on the synthetic Bayer camera
# unless the arguments say otherwise. --camera, --chain and the input
# options mean what they mean to qlarrun (qlarview --help).
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ] && [ -z "${QT_QPA_PLATFORM:-}" ]; then
    echo "run-viewer: no display; start it from a desktop session, or under xvfb-run" >&2
    exit 1
fi
exec "$(dirname "$0")/release.sh" qlarview "$@"
