#!/usr/bin/env bash
# tools/release.sh PROGRAM [arguments...]
# Installs what is missing, builds in Release and runs one of the host
# programs (qlarrun, qlarview, qlarprobe) from the repository's root.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
program="${1:?usage: tools/release.sh PROGRAM [arguments...]}"
shift
"$root/tools/deps.sh"
"$root/tools/build.sh" "$root/build/release" -DCMAKE_BUILD_TYPE=Release -DQLAR_BUILD_TESTS=OFF
cd "$root"
exec "$root/build/release/bin/$program" "$@"
