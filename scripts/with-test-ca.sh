#!/usr/bin/env bash
# Runs a command in a world where the system trusts a test CA, without changing the machine:
#   scripts/with-test-ca.sh CA_PEM -- COMMAND...
#   scripts/with-test-ca.sh --new -- COMMAND...   (a fresh CA by tests/servers/make-test-ca.sh)
# COMMAND runs in a private mount namespace (util-linux unshare -m, mounts private) in which a
# copy of /etc/ssl/certs/ca-certificates.crt with CA_PEM appended is bind-mounted over that
# path. The machine's real bundle is never written, and the mount ends with the namespace.
# COMMAND gets in its environment:
#   QXSS_TEST_CA_BUNDLE  the writable file mounted over the system bundle: a test may change it
#                        in place (append to it, or truncate and write it; never replace it by
#                        a rename, which the mount would not follow)
#   QXSS_TEST_CA_DIR     the directory of CA_PEM (with --new: the whole world that
#                        make-test-ca.sh wrote: server.pem, other-host.pem, untrusted.pem...)
#   NODE_EXTRA_CA_CERTS  CA_PEM, for node, which does not read the system bundle
# The exit status is COMMAND's. Where no namespace can be made (not root, no unshare, no
# permission), it says why on stderr and exits 77, the code ctest counts as a skip.
set -euo pipefail

system_bundle=/etc/ssl/certs/ca-certificates.crt
here=$(cd "$(dirname "$0")" && pwd)

usage() {
    echo "usage: $0 CA_PEM|--new -- COMMAND..." >&2
    exit 2
}
skip() {
    echo "with-test-ca: SKIPPED: $*" >&2
    exit 77
}

[ $# -ge 3 ] && [ "$2" = "--" ] || usage
ca=$1
shift 2

if [ "$(id -u)" -ne 0 ]; then
    skip "a private mount namespace needs root (unshare -m); running as $(id -un)"
fi
command -v unshare >/dev/null 2>&1 || skip "util-linux unshare is not installed"
[ -f "$system_bundle" ] || skip "$system_bundle is missing (package ca-certificates)"
if ! unshare -m --propagation private true 2>/dev/null; then
    skip "unshare -m is refused here (no CAP_SYS_ADMIN in this container?)"
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/qxss-with-ca-XXXXXX")
trap 'rm -rf "$work"' EXIT
if [ "$ca" = "--new" ]; then
    "$here/../tests/servers/make-test-ca.sh" "$work/ca" >/dev/null
    ca=$work/ca/ca.pem
fi
[ -f "$ca" ] || usage
ca=$(cd "$(dirname "$ca")" && pwd)/$(basename "$ca")

bundle=$work/ca-certificates.crt
cat "$system_bundle" >"$bundle"
printf '\n' >>"$bundle"
cat "$ca" >>"$bundle"
chmod 644 "$bundle"

export QXSS_TEST_CA_BUNDLE=$bundle
export QXSS_TEST_CA_DIR=$(dirname "$ca")
export NODE_EXTRA_CA_CERTS=$ca

# Not exec: the trap removes the work directory once the command has ended.
set +e
unshare -m --propagation private -- /bin/sh -c '
    mount --bind "$QXSS_TEST_CA_BUNDLE" '"$system_bundle"' || exit 77
    exec "$@"' with-test-ca "$@"
status=$?
set -e
exit $status
