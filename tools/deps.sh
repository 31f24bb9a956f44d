#!/usr/bin/env bash
# Installs the Debian 12 packages the project builds with, only when one is
# missing, so that a machine that already has them sees no apt output.
set -euo pipefail

PACKAGES=(
    cmake ninja-build g++ pkg-config
    qt6-base-dev qt6-base-dev-tools libqt6opengl6-dev
    libqcustomplot-dev libqcustomplot2.1-qt6
    libfftw3-dev libtiff-dev libpng-dev
    libbenchmark-dev libopencv-dev
    python3
    # GenICam cameras for the viewer; its aravis-0.8.pc names libusb but the
    # -dev package does not depend on it. The tools bring the GigE Vision
    # camera simulator, Xvfb the real window the viewer's tests open.
    libaravis-dev libusb-1.0-0-dev aravis-tools xvfb xauth
    # libFuzzer targets: clang and its fuzzer and sanitizer runtimes.
    clang libclang-rt-14-dev
)

missing=()
for p in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "deps: need root (or sudo) to install: ${missing[*]}" >&2; exit 1; }
    SUDO="sudo"
fi
echo "deps: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
