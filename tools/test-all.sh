#!/usr/bin/env bash
# The whole test suite, twice: a plain build, then an AddressSanitizer +
# UndefinedBehaviorSanitizer build in which any report fails the run; then
# the chain's tests in a ThreadSanitizer build, and every fuzz target over
# its checked-in corpus and a bounded number of mutations.
# Installs what is missing first. Exit status 0 only when all pass.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/tools/deps.sh"

export QT_QPA_PLATFORM=offscreen
jobs="$(nproc)"
status=0

echo "== plain build"
"$root/tools/build.sh" "$root/build/test-plain" -DCMAKE_BUILD_TYPE=RelWithDebInfo
ctest --test-dir "$root/build/test-plain" --output-on-failure -j"$jobs" || status=1

echo "== plain build, narrower vector paths"
# The kernels with hand-written AVX-512 and AVX2 paths, run again with the
# machine's vector units capped, so every path is checked on any CI machine.
for cpu in avx2 sse2; do
    QLAR_CPU=$cpu ctest --test-dir "$root/build/test-plain" --output-on-failure -j"$jobs" \
        -R '^tst_(median_mosaic|median|histolut|lutinmap|rgbnir|mosaicfilter|imageaveraging|fft)$' || status=1
done

echo "== sanitizer build (ASan + UBSan)"
"$root/tools/build.sh" "$root/build/test-asan" -DCMAKE_BUILD_TYPE=Debug -DQLAR_SANITIZE=ON
export ASAN_OPTIONS="detect_leaks=1:halt_on_error=1:abort_on_error=1:detect_stack_use_after_return=1:strict_init_order=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export LSAN_OPTIONS="suppressions=$root/tools/lsan.supp:print_suppressions=0"
ctest --test-dir "$root/build/test-asan" --output-on-failure -j"$jobs" || status=1

echo "== thread sanitizer build (host layer: chain and threaded picture operations)"
# The chain's tests (restarts while frames flow, setters that restart from
# another thread, live sources that drop, nodes that throw) and the picture
# operations whose big pictures are shared out over the row scheduler.
cmake -S "$root" -B "$root/build/test-tsan" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQLAR_TSAN=ON \
    -DQLAR_BUILD_APPS=OFF >/dev/null
cmake --build "$root/build/test-tsan" --target tst_chain tst_picbufops tst_histolut tst_median_mosaic -j"$jobs"
TSAN_OPTIONS="halt_on_error=1:suppressions=$root/tools/tsan.supp" \
    ctest --test-dir "$root/build/test-tsan" --output-on-failure -R '^tst_(chain|picbufops|histolut|median_mosaic)$' || status=1

echo "== fuzz targets (clang, ASan + UBSan): checked-in corpus and bounded mutations"
bash "$root/tools/fuzz.sh" --runs 20000 || status=1

[ $status -eq 0 ] && echo "== all tests passed (plain, sanitizer and fuzz builds)" || echo "== tests FAILED" >&2
exit $status
