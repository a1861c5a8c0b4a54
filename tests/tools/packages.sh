#!/usr/bin/env bash
# Builds the Debian packages of a build tree with CPack and checks them: names, contents,
# control files and dependencies (dpkg-deb); that every dependency is met by this Debian
# system; that both example hosts build and run against the unpacked packages; and that the
# packages install into and purge cleanly from a throw-away dpkg root.
#   packages.sh <build dir> <source dir> <output dir>
# The .deb files stay in <output dir> for the lintian check.
set -euo pipefail
build=${1:?usage: packages.sh <build dir> <source dir> <output dir>}
source=${2:?usage: packages.sh <build dir> <source dir> <output dir>}
out=${3:?usage: packages.sh <build dir> <source dir> <output dir>}
for tool in cpack dpkg dpkg-deb dpkg-shlibdeps dpkg-query cmake make pkg-config; do
    if ! command -v "$tool" >/dev/null; then
        echo "SKIPPED: $tool is not installed (scripts/install-deps.sh installs dpkg-dev)"
        exit 77
    fi
done
work=$(mktemp -d "${TMPDIR:-/tmp}/qxss-packages.XXXXXX")
trap 'rm -rf "$work"' EXIT
fail() {
    echo "FAILED: $*"
    exit 1
}

rm -rf "$out"
mkdir -p "$out"
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$out" >"$work/cpack.log" 2>&1 || {
    cat "$work/cpack.log"
    fail "cpack"
}
rm -rf "$out/_CPack_Packages"
version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$build/CPackConfig.cmake")
arch=$(dpkg --print-architecture)
runtime=$out/libqxss1_${version}_${arch}.deb
dev=$out/libqxss-dev_${version}_${arch}.deb
tools=$out/qxss-tools_${version}_${arch}.deb
for deb in "$runtime" "$dev" "$tools"; do
    [ -f "$deb" ] || fail "no $(basename "$deb") among: $(ls "$out")"
done
[ "$(ls "$out"/*.deb | wc -l)" -eq 3 ] || fail "more packages than expected: $(ls "$out")"
echo "built $(cd "$out" && echo *.deb)"

field() { dpkg-deb --field "$1" "$2"; }
contents() { dpkg-deb --contents "$1" | awk '{ print $6 $7 $8 }' | sed 's|^\./|/|'; }
has() {
    local deb=$1 pattern=$2
    grep -qE "^${pattern}\$" <<<"$(contents "$deb")" || fail "$(basename "$deb") lacks $pattern"
}
lacks() {
    local deb=$1 pattern=$2
    ! grep -qE "${pattern}" <<<"$(contents "$deb")" || fail "$(basename "$deb") holds $pattern"
}
# The package names in Depends, one a line.
depended() { field "$1" Depends | tr ',' '\n' | sed 's/^ *//; s/ .*//'; }
depends_on() {
    local deb=$1 package=$2
    grep -qxF "$package" <<<"$(depended "$deb")" ||
        fail "$(basename "$deb") does not depend on $package: $(field "$deb" Depends)"
}

# Control fields.
for deb in "$runtime" "$dev" "$tools"; do
    [ "$(field "$deb" Version)" = "$version" ] || fail "$(basename "$deb") version"
    [ "$(field "$deb" Architecture)" = "$arch" ] || fail "$(basename "$deb") architecture"
    [ -n "$(field "$deb" Maintainer)" ] || fail "$(basename "$deb") has no maintainer"
    has "$deb" "/usr/share/doc/$(field "$deb" Package)/copyright"
    has "$deb" "/usr/share/doc/$(field "$deb" Package)/changelog.gz"
done
[ "$(field "$runtime" Section)" = libs ] || fail "libqxss1 section"
[ "$(field "$dev" Section)" = libdevel ] || fail "libqxss-dev section"

# The runtime package: the library and its SONAME link, shlibs and the ldconfig trigger, and
# dependencies computed from the binary.
libdir=$(contents "$runtime" | sed -n 's|^\(/usr/lib.*\)/libqxss\.so\.1\.0\.0$|\1|p')
[ -n "$libdir" ] || fail "libqxss1 holds no libqxss.so.1.0.0"
has "$runtime" "$libdir/libqxss.so.1->libqxss.so.1.0.0"
lacks "$runtime" "libqxss\.so(->|\$)|/include/|/bin/"
dpkg-deb --ctrl-tarfile "$runtime" | tar -x -C "$work" ./shlibs ./triggers
[ "$(cat "$work/shlibs")" = "libqxss 1 libqxss1 (>= $version)" ] || fail "shlibs: $(cat "$work/shlibs")"
grep -qx 'activate-noawait ldconfig' "$work/triggers" || fail "no ldconfig trigger"
for package in libc6 libcurl4 libjsoncpp25 libssl3 libstdc++6; do
    depends_on "$runtime" "$package"
done

# The development package: header, linker name, pkg-config, CMake package, libqxss(3).
has "$dev" "/usr/include/libqxss.h"
has "$dev" "$libdir/libqxss.so->libqxss.so.1"
has "$dev" "$libdir/pkgconfig/qxss.pc"
has "$dev" "$libdir/cmake/qxss/qxss-config.cmake"
has "$dev" "$libdir/cmake/qxss/qxss-targets.cmake"
has "$dev" "/usr/share/man/man3/libqxss.3.gz"
lacks "$dev" "/libqxss\.so\.1"
[ "$(field "$dev" Depends)" = "libqxss1 (= $version)" ] || fail "libqxss-dev Depends: $(field "$dev" Depends)"

# The tools package: qxss-check carries the core itself, so it needs no libqxss1.
has "$tools" "/usr/bin/qxss-check"
has "$tools" "/usr/share/man/man1/qxss-check.1.gz"
has "$tools" "/usr/share/man/man5/sso.cfg.5.gz"
lacks "$tools" "libqxss\.so"
for package in libc6 libcurl4 libjsoncpp25 libssl3; do
    depends_on "$tools" "$package"
done
! grep -qxF libqxss1 <<<"$(depended "$tools")" || fail "qxss-tools depends on libqxss1"

# Every dependency is met by this system's installed packages, as apt-get would need them to be
# on a Debian of this release.
for deb in "$runtime" "$tools"; do
    IFS=',' read -ra wants <<<"$(field "$deb" Depends)"
    for want in "${wants[@]}"; do
        want=${want# }
        name=${want%% *}
        installed=$(dpkg-query -W -f='${Version}' "$name" 2>/dev/null) ||
            fail "$(basename "$deb") needs $name, which this system does not have"
        if [[ "$want" =~ \((..?)\ (.*)\)$ ]]; then
            dpkg --compare-versions "$installed" "${BASH_REMATCH[1]}" "${BASH_REMATCH[2]}" ||
                fail "$(basename "$deb") needs $want; this system has $installed"
        fi
    done
done
echo "contents, control files and dependencies as expected (Depends: $(field "$runtime" Depends))"

# Both example hosts against the unpacked packages. The files say /usr; pkg-config's
# --define-prefix and CMake's relocatable package find them where they are.
root=$work/unpacked
for deb in "$runtime" "$dev" "$tools"; do
    dpkg-deb --extract "$deb" "$root"
done
cmake -S "$source/examples/consumer-cmake" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$root/usr" \
    >"$work/consumer.log" 2>&1 && cmake --build "$work/cmake-build" >>"$work/consumer.log" 2>&1 || {
    cat "$work/consumer.log"
    fail "building the CMake consumer against the packages"
}
cp -r "$source/examples/consumer-pkgconfig" "$work/pkgconfig-build"
make -s -C "$work/pkgconfig-build" PKG_CONFIG="pkg-config --define-prefix" \
    PKG_CONFIG_PATH="$root$libdir/pkgconfig" >>"$work/consumer.log" 2>&1 || {
    cat "$work/consumer.log"
    fail "building the pkg-config consumer against the packages"
}
for program in "$work/cmake-build/qxss_consumer" "$work/pkgconfig-build/qxss_consumer"; do
    output=$(LD_LIBRARY_PATH=$root$libdir "$program") || fail "$program: $output"
    grep -qx 'qxss consumer: ok' <<<"$output" || fail "$program: $output"
done
[[ "$("$root/usr/bin/qxss-check" --version)" == "qxss-check $version" ]] || fail "qxss-check --version"
echo "both consumers built and ran against the unpacked packages"

# Install and purge with dpkg in a throw-away root. Dependencies are checked above against
# this system; the root itself is empty, so dpkg is told not to look for them there.
dpkgroot=$work/root
mkdir -p "$dpkgroot/var/lib/dpkg/info" "$dpkgroot/var/lib/dpkg/updates" "$dpkgroot/var/lib/dpkg/triggers"
: >"$dpkgroot/var/lib/dpkg/status"
: >"$dpkgroot/var/lib/dpkg/available"
dpkg_root() {
    dpkg --root="$dpkgroot" --force-not-root --force-script-chrootless --force-depends \
        --log=/dev/null "$@" >>"$work/dpkg.log" 2>&1 || {
        cat "$work/dpkg.log"
        fail "dpkg $*"
    }
}
dpkg_root --install "$runtime" "$dev" "$tools"
for package in libqxss1 libqxss-dev qxss-tools; do
    [ "$(dpkg-query --admindir="$dpkgroot/var/lib/dpkg" -W -f='${Status}' "$package")" = "install ok installed" ] ||
        fail "$package is not installed in the throw-away root"
done
[ -x "$dpkgroot/usr/bin/qxss-check" ] || fail "qxss-check not installed by dpkg"
dpkg_root --purge qxss-tools libqxss-dev libqxss1
left=$(cd "$dpkgroot" && find . -mindepth 1 -not -path './var' -not -path './var/lib' -not -path './var/lib/dpkg' -not -path './var/lib/dpkg/*')
[ -z "$left" ] || fail "left behind after purge: $left"
echo "packages: installed into and purged from a throw-away dpkg root without leftovers"
