#!/usr/bin/env bash
# Runs clang-tidy with the tree's .clang-tidy over the library's sources (the files the core
# is built from, as the compile database of a build folder of its own lists them); any finding
# fails it. Apart from scripts/test.sh, because it costs as much as a build.
#   scripts/clang-tidy.sh [FILE...]     default: every source of the core
set -euo pipefail
cd "$(dirname "$0")/.."
build=build-tidy
command -v clang-tidy >/dev/null || { echo "clang-tidy: not installed (Debian: clang-tidy)"; exit 77; }
cmake -S . -B "$build" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DQXSS_TESTS=OFF -DQXSS_BENCH=OFF \
    >/dev/null
if [ $# -gt 0 ]; then
    files=("$@")
else
    mapfile -t files < <(git ls-files 'platform/*.cpp' 'support/*.cpp' 'transport/*.cpp' \
        'server/*.cpp' 'actions/*.cpp' 'client/*.cpp' 'worker/*.cpp')
fi
status=0
for file in "${files[@]}"; do
    clang-tidy -p "$build" --quiet "$file" || status=1
done
if [ $status -ne 0 ]; then
    echo "clang-tidy: findings above"
else
    echo "clang-tidy: ${#files[@]} files, no findings"
fi
exit $status
