#!/usr/bin/env bash
# Installs what is missing, builds libqxss twice (plain, and with AddressSanitizer +
# UndefinedBehaviorSanitizer) and runs the whole test suite in both builds: the test programs
# side by side (one per core), each with its tests in a shuffled order. The shuffle seed is
# QXSS_TEST_SEED when set, else a new one; it is printed, so that an order that failed can be
# run again. The layout of every C and C++ file is checked first, since it takes a second.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/check-format.sh

jobs=$(nproc)
seed=${QXSS_TEST_SEED:-$((RANDOM % 99999 + 1))}
echo "test.sh: shuffle seed $seed (QXSS_TEST_SEED=$seed repeats this order)"

run_suite() {
    local dir=$1
    shift
    cmake -S . -B "$dir" "$@"
    cmake --build "$dir" -j"$jobs"
    GTEST_RANDOM_SEED=$seed ctest --test-dir "$dir" --output-on-failure -j"$jobs"
}

run_suite build -DQXSS_WERROR=ON
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    run_suite build-asan -DQXSS_WERROR=ON -DQXSS_SANITIZE=ON -DQXSS_BENCH=OFF
echo "test.sh: all tests passed in both builds (shuffle seed $seed)"
