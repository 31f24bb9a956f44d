#!/usr/bin/env bash
# The whole test suite, twice: a plain build, then an AddressSanitizer +
# UndefinedBehaviorSanitizer build in which any report fails the run.
# Installs what is missing first. Exit status 0 only when both pass.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/tools/deps.sh"

export QT_QPA_PLATFORM=offscreen
# Kernels run OpenMP loops inside nodes that already have a thread each; on
# a busy two-core machine spinning OpenMP threads only steal time.
export OMP_WAIT_POLICY="${OMP_WAIT_POLICY:-passive}"
jobs="$(nproc)"
status=0

echo "== plain build"
"$root/tools/build.sh" "$root/build/test-plain" -DCMAKE_BUILD_TYPE=RelWithDebInfo
ctest --test-dir "$root/build/test-plain" --output-on-failure -j"$jobs" || status=1

echo "== sanitizer build (ASan + UBSan)"
"$root/tools/build.sh" "$root/build/test-asan" -DCMAKE_BUILD_TYPE=Debug -DQLAR_SANITIZE=ON
export ASAN_OPTIONS="detect_leaks=1:halt_on_error=1:abort_on_error=1:detect_stack_use_after_return=1:strict_init_order=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export LSAN_OPTIONS="suppressions=$root/tools/lsan.supp:print_suppressions=0"
ctest --test-dir "$root/build/test-asan" --output-on-failure -j"$jobs" || status=1

[ $status -eq 0 ] && echo "== all tests passed (plain and sanitizer builds)" || echo "== tests FAILED" >&2
exit $status
