#!/usr/bin/env bash
# Installs what is missing, builds libqxss twice (plain, and with AddressSanitizer +
# UndefinedBehaviorSanitizer) and runs the whole test suite in both builds.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

run_suite() {
    local dir=$1
    shift
    cmake -S . -B "$dir" "$@"
    cmake --build "$dir" -j"$(nproc)"
    ctest --test-dir "$dir" --output-on-failure
}

run_suite build
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    run_suite build-asan -DQXSS_SANITIZE=ON -DQXSS_BENCH=OFF
echo "test.sh: all tests passed in both builds"
