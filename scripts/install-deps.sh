#!/usr/bin/env bash
# Installs what building and testing libqxss needs on Debian 12, when it is missing.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(cmake g++ make pkg-config binutils libcurl4-openssl-dev libjsoncpp-dev libssl-dev
          libgtest-dev libgmock-dev)
# Building and checking the Debian packages (tests/tools/packages.sh, lintian.sh).
packages+=(dpkg-dev lintian)
# The example web application and its browser test (headless, driven by puppeteer-core).
packages+=(libmicrohttpd-dev chromium)
# The example behind a load balancer (scripts/cluster.sh) and its browser test.
packages+=(haproxy)
# The login benchmark's charts.
packages+=(gnuplot-nox)
# The layout check of the test command (scripts/check-format.sh).
packages+=(clang-format)
scripts/install-packages.sh "${packages[@]}"

# The local identity provider, failure server and proxy that the tests start.
if [ -x scripts/install-test-deps.sh ]; then
    scripts/install-test-deps.sh
fi
