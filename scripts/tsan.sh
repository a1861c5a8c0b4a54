#!/usr/bin/env bash
# Builds libqxss with ThreadSanitizer (QXSS_SANITIZE=thread) and runs the test programs where
# threads meet: the worker and its channel, the actions (host's thread against the worker's) and
# the transport with its flows. Any report fails the run. Kept out of scripts/test.sh, whose
# plain and AddressSanitizer builds already fill the time a CI run has; run it after changes to
# the worker, the transport or anything both threads touch.
#
#   scripts/tsan.sh [gtest filter]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

build=build-tsan
programs=(worker actions transport)
cmake -S . -B "$build" -DQXSS_SANITIZE=thread -DQXSS_WERROR=ON -DQXSS_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${programs[@]/#/test_}"

# halt_on_error: the first race fails the program, with both stacks in its output.
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/scripts/tsan.supp"
status=0
for program in "${programs[@]}"; do
    echo "tsan.sh: test_$program"
    "$build/tests/test_$program" --gtest_brief=1 --gtest_shuffle ${1:+--gtest_filter="$1"} ||
        status=1
done
[ $status -eq 0 ] && echo "tsan.sh: no data races reported" || echo "tsan.sh: FAILED" >&2
exit $status
