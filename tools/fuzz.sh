#!/usr/bin/env bash
# tools/fuzz.sh SECONDS        every fuzz target for SECONDS each; new inputs
#                              grow build/fuzz/corpus, findings land in
#                              build/fuzz/findings (check them in under
#                              tests/fuzz/corpus/<target> once fixed)
# tools/fuzz.sh --runs N       every target over its checked-in corpus and N
#                              mutations from a fixed seed: the test command's
#                              bounded run; any finding fails it
# Builds with clang, ASan and UBSan in build/fuzz first.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build/fuzz"
mode="${1:?usage: tools/fuzz.sh SECONDS | --runs N}"

CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQLAR_FUZZ=ON \
    -DQLAR_BUILD_TESTS=OFF -DQLAR_BUILD_APPS=ON >/dev/null
cmake --build "$build" -j"$(nproc)" --target fuzz_tiff fuzz_png fuzz_pnm fuzz_raw fuzz_chain fuzz_camera \
    fuzz_nodeoption fuzz_nodes

export ASAN_OPTIONS="detect_leaks=1:allocator_may_return_null=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export LSAN_OPTIONS="suppressions=$root/tools/lsan.supp:print_suppressions=0"
# A small file may cost a small multiple of what it claims, never gigabytes.
limits=(-rss_limit_mb=1024 -malloc_limit_mb=512 -timeout=30)
status=0
for target in tiff png pnm raw chain camera nodeoption nodes; do
    seeds="$root/tests/fuzz/corpus/$target"
    if [ "$mode" = "--runs" ]; then
        # New inputs go to a scratch folder, never into the checked-in seeds.
        scratch="$(mktemp -d)"
        echo "== fuzz_$target: ${2:?--runs needs a count} runs"
        "$build/bin/fuzz_$target" "${limits[@]}" -runs="$2" -seed=1 -artifact_prefix="$scratch/" \
            "$scratch" "$seeds" >"$scratch/log" 2>&1 || { tail -40 "$scratch/log"; status=1; }
        grep -E "^Done [0-9]+ runs" "$scratch/log" || true
        rm -rf "$scratch"
    else
        corpus="$build/corpus/$target"
        findings="$build/findings/$target"
        mkdir -p "$corpus" "$findings"
        echo "== fuzz_$target: $mode s"
        "$build/bin/fuzz_$target" "${limits[@]}" -max_total_time="$mode" -artifact_prefix="$findings/" \
            -print_final_stats=1 "$corpus" "$seeds" >"$build/findings/$target.log" 2>&1 || status=1
        grep -E "^#[0-9]+ +DONE|stat::number_of_executed_units|ERROR|SUMMARY" "$build/findings/$target.log" || true
    fi
done
exit $status
