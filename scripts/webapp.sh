#!/usr/bin/env bash
# The example web application (examples/webapp) against a local identity provider: installs
# what is missing, builds libqxss and the application, starts the provider on loopback, writes
# a configuration file for it and serves the application until Ctrl-C. Open the address it
# prints and sign in as alice (or bob, user01 .. user10) with any password.
#   QXSS_WEBAPP_PORT   the application's port (default 18300)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

build=build-webapp
etc="$PWD/$build/etc"
port=${QXSS_WEBAPP_PORT:-18300}
cmake -S . -B "$build" -DQXSS_TESTS=OFF -DQXSS_BENCH=OFF -DQXSS_SECOND_CONFIG_DIR="$etc" >/dev/null
cmake --build "$build" -j"$(nproc)" --target qxss-webapp
mkdir -p "$etc"

# The provider ends when its standard input does: the write end of this FIFO stays open in
# this script and then in the application, so the provider ends with them, however they end.
run=$(mktemp -d)
trap 'kill ${provider:-} 2>/dev/null || true; rm -rf "$run"' EXIT
mkfifo "$run/keep"
(cd tests/servers && exec node provider.js 0 >"$run/provider.out" 2>/dev/null <"$run/keep") &
provider=$!
exec 3>"$run/keep"
for _ in $(seq 100); do grep -q READY "$run/provider.out" && break; sleep 0.1; done
base=$(awk '/READY/ {print $2}' "$run/provider.out")
[ -n "$base" ] || { echo "webapp.sh: the local provider did not start" >&2; exit 1; }
echo "local provider at $base"

cat >"$etc/sso.cfg" <<CFG
[
  {
    "name": "Local provider", "desc": "The local demo provider", "type": "OAuth", "provider": "keycloak",
    "config": {
      "idp_domain": "$base",
      "client_id": "qxss-webapp",
      "client_secret": "webapp-secret",
      "redirect_uris": ["http://127.0.0.1:$port/cb"],
      "qx_user_type": "local",
      "qx_refresh": true,
      "qx_refresh_lifetime": 3600
    }
  }
]
CFG
echo "open http://127.0.0.1:$port/ and sign in as alice with any password (Ctrl-C stops)"
echo "library log: $build/webapp-library.log"
# The application takes this shell's place and inherits the FIFO's write end: signals reach it
# directly, and the provider ends when it does.
trap - EXIT
rm -rf "$run"
exec "$build/examples/webapp/qxss-webapp" --port "$port" --log "$build/webapp-library.log"
