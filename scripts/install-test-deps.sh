#!/usr/bin/env bash
# Installs what the tests' local servers need: Node.js with the packages of tests/servers (the
# identity provider), tinyproxy (the forward proxy) and openssl (certificates for TLS tests).
set -euo pipefail
cd "$(dirname "$0")/.."

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
missing=()
command -v node >/dev/null 2>&1 || missing+=(nodejs)
command -v npm >/dev/null 2>&1 || missing+=(npm)
command -v tinyproxy >/dev/null 2>&1 || missing+=(tinyproxy)
command -v openssl >/dev/null 2>&1 || missing+=(openssl)
[ -f /etc/ssl/certs/ca-certificates.crt ] || missing+=(ca-certificates)
if [ ${#missing[@]} -gt 0 ]; then
    echo "install-test-deps: installing ${missing[*]}"
    $sudo apt-get update
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
fi

cd tests/servers
if [ ! -d node_modules ] || [ package-lock.json -nt node_modules ]; then
    echo "install-test-deps: npm ci in tests/servers"
    npm ci --no-audit --no-fund
    touch node_modules
fi
