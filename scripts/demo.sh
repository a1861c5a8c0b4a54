#!/usr/bin/env bash
# A host doing a real login against a local identity provider: installs what is missing,
# builds libqxss and the demo host, starts the provider on loopback, writes a configuration
# file for it and runs examples/demo_host.c.
#
#   scripts/demo.sh [--valgrind]
#
# --valgrind runs the host under valgrind's memcheck: any memory error, and any block definitely
# lost, fails the run (exit status 99). Blocks still reachable at exit are not errors: the
# library's process-wide objects are meant to live until the process ends.
set -euo pipefail
cd "$(dirname "$0")/.."
runner=()
if [ "${1:-}" = "--valgrind" ]; then
    command -v valgrind >/dev/null || { echo "demo.sh: valgrind is not installed" >&2; exit 77; }
    runner=(valgrind --tool=memcheck --error-exitcode=99 --leak-check=full
        --errors-for-leak-kinds=definite --show-leak-kinds=definite --num-callers=30)
fi
scripts/install-deps.sh

build=build-demo
etc="$PWD/$build/etc"
cmake -S . -B "$build" -DQXSS_TESTS=OFF -DQXSS_BENCH=OFF -DQXSS_SECOND_CONFIG_DIR="$etc" >/dev/null
cmake --build "$build" -j"$(nproc)" --target demo_host
mkdir -p "$etc"

out=$(mktemp)
# The provider ends when its input ends. Its input is a pipe that this shell holds open, so it
# waits without reading anything (a stream of /dev/zero kept it busy reading) and goes away
# with this script however the script ends.
keep=$(mktemp -u)
mkfifo "$keep"
exec 3<>"$keep"
(cd tests/servers && exec node provider.js 0 >"$out" 2>/dev/null <"$keep") &
provider=$!
trap 'kill $provider 2>/dev/null || true; rm -f "$out" "$keep"' EXIT
for _ in $(seq 100); do grep -q READY "$out" && break; sleep 0.1; done
base=$(awk '/READY/ {print $2}' "$out")
echo "local provider at $base"

cat >"$etc/sso.cfg" <<CFG
[
  {
    "name": "Demo", "desc": "Local demo provider", "type": "OAuth", "provider": "keycloak",
    "config": {
      "idp_domain": "$base",
      "client_id": "qxss-client",
      "client_secret": "qxss-secret",
      "redirect_uris": ["http://127.0.0.1:18080/cb"],
      "qx_user_type": "local",
      "qx_refresh": true
    }
  }
]
CFG
cd "$build"
${runner[@]+"${runner[@]}"} ./demo_host "node $PWD/../tests/servers/login.js"
