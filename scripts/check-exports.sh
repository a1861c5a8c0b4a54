#!/usr/bin/env bash
# Fails when the shared library's dynamic symbol table defines anything beyond the names that
# the version script worker/libqxss.map exports (the public interface of worker/libqxss.h), or
# lacks one of them. The map is the one list: the linker and this check read the same file.
set -euo pipefail
library=${1:?usage: check-exports.sh path/to/libqxss.so [path/to/libqxss.map]}
map=${2:-$(dirname "$0")/../worker/libqxss.map}
# The names between "global:" and "local:", one a line, without their ";".
listed=$(sed -n '/global:/,/local:/p' "$map" | sed -e '/global:/d' -e '/local:/d' \
    -e 's/[[:space:];]//g' -e '/^$/d' | sort -u)
if [ -z "$listed" ]; then
    echo "no exported names found in $map"
    exit 1
fi
defined=$(nm -D --defined-only "$library" | awk '{print $3}' | grep -v '^$' | sort -u)
extra=$(comm -13 <(printf '%s\n' "$listed") <(printf '%s\n' "$defined"))
missing=$(comm -23 <(printf '%s\n' "$listed") <(printf '%s\n' "$defined"))
echo "exported: $(printf '%s ' $defined)"
if [ -n "$extra" ]; then
    echo "unexpected exports (not in $map):"
    printf '  %s\n' $extra
    exit 1
fi
if [ -n "$missing" ]; then
    echo "names in $map that the library does not define:"
    printf '  %s\n' $missing
    exit 1
fi
soname=$(objdump -p "$library" | awk '/SONAME/ {print $2}')
case "$soname" in
    libqxss.so.[0-9]*) echo "SONAME $soname" ;;
    *) echo "missing or unversioned SONAME: '$soname'"; exit 1 ;;
esac
