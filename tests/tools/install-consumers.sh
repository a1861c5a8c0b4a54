#!/usr/bin/env bash
# Installs a build tree into a temporary prefix, checks what landed there, and builds and runs
# both example hosts against that installation: examples/consumer-cmake through
# find_package(qxss), examples/consumer-pkgconfig through pkg-config.
#   install-consumers.sh <build dir> <source dir>
set -euo pipefail
build=${1:?usage: install-consumers.sh <build dir> <source dir>}
source=${2:?usage: install-consumers.sh <build dir> <source dir>}
for tool in cmake make pkg-config cc c++; do
    if ! command -v "$tool" >/dev/null; then
        echo "SKIPPED: $tool is not installed (scripts/install-deps.sh installs it)"
        exit 77
    fi
done
work=$(mktemp -d "${TMPDIR:-/tmp}/qxss-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() {
    echo "FAILED: $*"
    exit 1
}

cmake --install "$build" --prefix "$prefix" >"$work/install.log" || {
    cat "$work/install.log"
    fail "cmake --install"
}
pc=$(find "$prefix" -name qxss.pc)
[ -n "$pc" ] || fail "no qxss.pc installed"
libdir=$(dirname "$(dirname "$pc")")
echo "installed into $prefix (libraries in ${libdir#"$prefix"/})"

# The library with its SONAME links, and the rest of the installation.
[ -f "$libdir/libqxss.so.1.0.0" ] && [ ! -L "$libdir/libqxss.so.1.0.0" ] || fail "libqxss.so.1.0.0"
[ "$(readlink "$libdir/libqxss.so.1")" = libqxss.so.1.0.0 ] || fail "libqxss.so.1 link"
[ "$(readlink "$libdir/libqxss.so")" = libqxss.so.1 ] || fail "libqxss.so link"
[ "$(objdump -p "$libdir/libqxss.so.1.0.0" | awk '/SONAME/ {print $2}')" = libqxss.so.1 ] ||
    fail "SONAME"
cmp -s "$source/worker/libqxss.h" "$prefix/include/libqxss.h" || fail "include/libqxss.h"
for file in "$libdir/cmake/qxss/qxss-config.cmake" "$libdir/cmake/qxss/qxss-config-version.cmake" \
    "$libdir/cmake/qxss/qxss-targets.cmake" "$prefix/bin/qxss-check" \
    "$prefix/share/man/man3/libqxss.3.gz" "$prefix/share/man/man5/sso.cfg.5.gz" \
    "$prefix/share/man/man1/qxss-check.1.gz"; do
    [ -f "$file" ] || fail "missing ${file#"$prefix"/}"
done
for page in "$prefix"/share/man/man*/*.gz; do
    gzip -t "$page" || fail "$page is not gzip"
done
[ ! -e "$prefix/share/doc" ] || fail "package-only files in a plain installation"
grep -qx "prefix=$prefix" "$pc" || fail "qxss.pc names another prefix: $(grep '^prefix=' "$pc")"
[[ "$("$prefix/bin/qxss-check" --version)" == "qxss-check "* ]] || fail "qxss-check --version"

run_consumer() {
    local name=$1 program=$2
    local output
    output=$(LD_LIBRARY_PATH=$libdir "$program") || {
        echo "$output"
        fail "$name consumer exited non-zero"
    }
    echo "$output" | sed "s/^/  $name: /"
    grep -qx 'qxss consumer: ok' <<<"$output" || fail "$name consumer"
    # The consumer must have run on the installed library, not on the build tree's.
    local linked
    linked=$(LD_LIBRARY_PATH=$libdir ldd "$program")
    grep -q "libqxss.so.1 => $libdir/libqxss.so.1 " <<<"$linked" ||
        fail "$name consumer is not linked to the installed library"
}

# CMake: find_package(qxss) with the prefix on CMAKE_PREFIX_PATH.
cmake -S "$source/examples/consumer-cmake" -B "$work/cmake-build" \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" \
    >"$work/cmake.log" 2>&1 || {
    cat "$work/cmake.log"
    fail "configuring the CMake consumer"
}
cmake --build "$work/cmake-build" >>"$work/cmake.log" 2>&1 || {
    cat "$work/cmake.log"
    fail "building the CMake consumer"
}
run_consumer cmake "$work/cmake-build/qxss_consumer"

# pkg-config: the example's Makefile with PKG_CONFIG_PATH pointing into the prefix.
[ "$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --modversion qxss)" = "$(sed -n 's/^Version: //p' "$pc")" ] ||
    fail "pkg-config --modversion"
cp -r "$source/examples/consumer-pkgconfig" "$work/pkgconfig-build"
make -s -C "$work/pkgconfig-build" PKG_CONFIG_PATH="$libdir/pkgconfig" >"$work/make.log" 2>&1 || {
    cat "$work/make.log"
    fail "building the pkg-config consumer"
}
run_consumer pkg-config "$work/pkgconfig-build/qxss_consumer"
echo "install-consumers: both consumers built and ran against the installation"
