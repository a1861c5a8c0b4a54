#!/usr/bin/env bash
# Fails when the shared library's dynamic symbol table defines anything beyond the public
# interface declared in worker/libqxss.h.
set -euo pipefail
library=${1:?usage: check-exports.sh path/to/libqxss.so}
allowed='^(SsoInitialize|SsoDestroy|TimedOperations|loop|ticks|SsoGetUserLoginOptions|SsoGetUserSession|SsoLogin|SsoLoginUrl|SsoFreeString|SsoSetLogCallback)$'
defined=$(nm -D --defined-only "$library" | awk '{print $3}' | grep -v '^$' | sort -u)
extra=$(printf '%s\n' "$defined" | grep -v -E "$allowed" || true)
echo "exported: $(printf '%s ' $defined)"
if [ -n "$extra" ]; then
    echo "unexpected exports:"
    printf '  %s\n' $extra
    exit 1
fi
soname=$(objdump -p "$library" | awk '/SONAME/ {print $2}')
case "$soname" in
    libqxss.so.[0-9]*) echo "SONAME $soname" ;;
    *) echo "missing or unversioned SONAME: '$soname'"; exit 1 ;;
esac
