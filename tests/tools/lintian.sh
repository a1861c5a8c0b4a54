#!/usr/bin/env bash
# Runs lintian on the packages that packages.sh left in <dir>; any error or warning fails.
#   lintian.sh <dir>
set -euo pipefail
dir=${1:?usage: lintian.sh <directory with the .deb files>}
if ! command -v lintian >/dev/null; then
    echo "SKIPPED: lintian is not installed (scripts/install-deps.sh installs it on Debian)"
    exit 77
fi
shopt -s nullglob
debs=("$dir"/*.deb)
[ ${#debs[@]} -gt 0 ] || {
    echo "FAILED: no packages in $dir (packages.sh makes them)"
    exit 1
}
# A build tree configured with the default prefix (/usr/local) installs its libraries in lib/,
# so its packages put qxss.pc outside the multiarch directory; a tree configured with
# -DCMAKE_INSTALL_PREFIX=/usr for packaging does not.
suppressed=pkg-config-unavailable-for-cross-compilation
log=$(mktemp)
trap 'rm -f "$log"' EXIT
status=0
lintian --pedantic --fail-on error,warning --suppress-tags "$suppressed" "${debs[@]}" >"$log" 2>&1 ||
    status=$?
grep -v '^running with root privileges is not recommended!$' "$log" || true
[ "$status" -eq 0 ] || {
    echo "FAILED: lintian found problems in ${debs[*]##*/}"
    exit 1
}
echo "lintian: no error or warning in ${debs[*]##*/}"
