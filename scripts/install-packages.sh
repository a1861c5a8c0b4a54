#!/usr/bin/env bash
# Installs those of the Debian packages named as arguments that are not installed yet (with
# sudo unless run as root). Shared by install-deps.sh and fuzz.sh.
set -euo pipefail

missing=()
for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
        missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "install-packages: installing ${missing[*]}"
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    $sudo apt-get update
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
fi
