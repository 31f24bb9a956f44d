#!/usr/bin/env bash
# The main job on its built-in default: installs what is missing, builds in
# Release and runs the command-line host over the synthetic Bayer camera.
# Results go to out/default (relative to the repository).
exec "$(dirname "$0")/release.sh" qlarrun "$@"
