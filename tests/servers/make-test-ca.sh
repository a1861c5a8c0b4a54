#!/usr/bin/env bash
# Makes a throw-away certificate world for the HTTPS tests and benchmarks in OUTDIR:
#   ca.pem, ca.key                    a CA made now (valid two days), to be trusted for the run
#   server.pem, server.key            signed by it: localhost, 127.0.0.1, ::1
#   other-host.pem, other-host.key    signed by it, but for the name "other.test" only
#   untrusted-ca.pem                  a second CA that is never trusted
#   untrusted.pem, untrusted.key      signed by that one: localhost, 127.0.0.1
# Keys are P-256. Every run makes new keys, so no key outlives the run that trusted it.
#   tests/servers/make-test-ca.sh OUTDIR
set -euo pipefail

if [ $# -ne 1 ]; then
    echo "usage: $0 OUTDIR" >&2
    exit 2
fi
out=$1
mkdir -p "$out"
cd "$out"
work=$(mktemp -d "${TMPDIR:-/tmp}/qxss-ca-work-XXXXXX")
trap 'rm -rf "$work"' EXIT

# A unique name, so that two worlds made at the same time never look like one CA.
tag="$(date -u +%Y%m%dT%H%M%S)-$$-$RANDOM"

newCa() {  # name, subject
    openssl req -x509 -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 \
        -subj "$2" -keyout "$1.key" -out "$1.pem" \
        -addext "basicConstraints=critical,CA:TRUE" \
        -addext "keyUsage=critical,keyCertSign,cRLSign" \
        -addext "subjectKeyIdentifier=hash" >/dev/null 2>&1
}

leaf() {  # name, issuing CA, subjectAltName
    openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
        -subj "/CN=qxss test $1" -keyout "$1.key" -out "$work/$1.csr" >/dev/null 2>&1
    cat >"$work/$1.ext" <<EXT
basicConstraints=critical,CA:FALSE
keyUsage=critical,digitalSignature
extendedKeyUsage=serverAuth
subjectKeyIdentifier=hash
authorityKeyIdentifier=keyid
subjectAltName=$3
EXT
    openssl x509 -req -in "$work/$1.csr" -CA "$2.pem" -CAkey "$2.key" -set_serial "0x$(openssl rand -hex 8)" \
        -days 2 -extfile "$work/$1.ext" -out "$1.pem" >/dev/null 2>&1
}

newCa ca "/O=qxss tests/CN=qxss test CA $tag"
newCa untrusted-ca "/O=qxss tests/CN=qxss untrusted CA $tag"
leaf server ca "DNS:localhost,IP:127.0.0.1,IP:::1"
leaf other-host ca "DNS:other.test"
leaf untrusted untrusted-ca "DNS:localhost,IP:127.0.0.1"
# Nothing may ever trust the second CA: its key is not needed once its leaf is signed.
rm -f untrusted-ca.key
chmod 600 ./*.key

for name in server other-host; do
    openssl verify -CAfile ca.pem "$name.pem" >/dev/null
done
openssl verify -CAfile untrusted-ca.pem untrusted.pem >/dev/null
