#!/usr/bin/env bash
# Fails when a C or C++ file of the tree differs from what clang-format makes of it with the
# tree's .clang-format, and names the files (`clang-format -i FILE` mends one). Files of
# git's index only, so that build folders and node_modules stay out; the fuzz corpora are data.
#   scripts/check-format.sh [FILE...]     default: every tracked .c .h .cpp
set -euo pipefail
cd "$(dirname "$0")/.."
command -v clang-format >/dev/null || { echo "check-format: clang-format is not installed"; exit 77; }
if [ $# -gt 0 ]; then
    files=("$@")
else
    if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
        mapfile -t files < <(git ls-files '*.c' '*.h' '*.cpp' ':!:tests/fuzz/corpus/*')
    else
        # An unpacked source archive: every such file outside build folders and node_modules.
        mapfile -t files < <(find . \( -name 'build*' -o -name node_modules -o -path ./tests/fuzz/corpus \) \
            -prune -o \( -name '*.c' -o -name '*.h' -o -name '*.cpp' \) -type f -print | sed 's|^\./||' | sort)
    fi
fi
differ=()
for file in "${files[@]}"; do
    if ! clang-format --style=file "$file" | cmp -s - "$file"; then
        differ+=("$file")
    fi
done
if [ ${#differ[@]} -gt 0 ]; then
    echo "check-format: ${#differ[@]} of ${#files[@]} files differ from clang-format's layout:"
    printf '  %s\n' "${differ[@]}"
    exit 1
fi
echo "check-format: ${#files[@]} files as clang-format lays them out"
