#!/usr/bin/env bash
# Builds the fuzz targets of tests/fuzz with clang and libFuzzer (AddressSanitizer and
# UndefinedBehaviorSanitizer on) into build-fuzz, runs each for SECONDS (default 60), and prints
# one line per target: executions, coverage, crashes. Exits non-zero when any target crashed.
#
#   scripts/fuzz.sh [SECONDS]
#
# QXSS_FUZZ_JOBS targets run side by side (default 2). Each target starts from its seeds in
# tests/fuzz/corpus/<target> and grows a working corpus in build-fuzz/corpus/<target>, kept
# between runs; crash inputs land in build-fuzz/crashes/<target>/ and logs in build-fuzz/logs/.
# A crash input belongs in tests/fuzz/corpus/<target>/ once the bug is fixed, so that the test
# suite replays it from then on.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
jobs=${QXSS_FUZZ_JOBS:-2}
build=build-fuzz

packages=(cmake make pkg-config clang-14 libclang-rt-14-dev libfuzzer-14-dev
          libcurl4-openssl-dev libjsoncpp-dev libssl-dev)
scripts/install-packages.sh "${packages[@]}"

targets=()
for seeds in tests/fuzz/corpus/*/; do
    targets+=("$(basename "$seeds")")
done

cmake -S . -B "$build" -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
    -DQXSS_FUZZ=ON -DQXSS_TESTS=OFF -DQXSS_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build" -j"$(nproc)" --target "${targets[@]/#/fuzz_}"

run_target() {
    local target=$1
    local corpus=$build/corpus/$target crashes=$build/crashes/$target
    mkdir -p "$corpus" "$crashes"
    rm -f "$crashes"/*
    # Each input must finish in 60 seconds (generous: a loaded machine stalls a target for seconds
    # at a time); the process stays under 2 GB.
    "$build/tests/fuzz/fuzz_$target" "$corpus" "tests/fuzz/corpus/$target" \
        -max_total_time="$seconds" -timeout=60 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$crashes/" >"$build/logs/$target.log" 2>&1 || true
}

mkdir -p "$build/logs"
for target in "${targets[@]}"; do
    while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do
        wait -n || true
    done
    echo "fuzz.sh: running $target for $seconds seconds"
    run_target "$target" &
done
wait

failed=0
for target in "${targets[@]}"; do
    log=$build/logs/$target.log
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    coverage=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1 | cut -d' ' -f2)
    crashes=$(find "$build/crashes/$target" -type f | wc -l)
    if [ -z "$executions" ]; then
        # No final statistics: the target died before or outside a run.
        crashes=$((crashes > 0 ? crashes : 1))
    fi
    printf 'fuzz: %-13s executions %10s  coverage %6s  crashes %s\n' \
        "$target" "${executions:-?}" "${coverage:-?}" "$crashes"
    if [ "$crashes" -gt 0 ]; then
        failed=1
        echo "fuzz: $target: see $log and $build/crashes/$target/" >&2
    fi
done
exit $failed
