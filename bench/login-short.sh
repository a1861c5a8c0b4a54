#!/usr/bin/env bash
# ctest's run of the login benchmark in its short mode (a few logins of each kind), so that it
# cannot rot: it must run, end with its RESULT line and write its CSV, and its PNG where gnuplot
# is installed. No figure is judged here; the machine's load decides them. The HTTPS phases run
# under scripts/with-test-ca.sh; where that cannot make its namespace, the benchmark runs
# without them.
#   login-short.sh <bench_login> <output folder>
set -euo pipefail
program=$1
out=$2
here=$(cd "$(dirname "$0")" && pwd)
rm -rf "$out"
mkdir -p "$out"
status=0
"$here/../scripts/with-test-ca.sh" --new -- "$program" --short --out "$out" >"$out/output.txt" ||
    status=$?
if [ "$status" -eq 77 ]; then
    "$program" --short --out "$out" >"$out/output.txt" || status=$?
fi
cat "$out/output.txt"
[ "$status" -eq 0 ] || [ "$status" -eq 77 ] || exit "$status"
tail -n 1 "$out/output.txt" | grep -Eq '^RESULT p50_library_ms=[0-9.]+ p50_bare_ms=[0-9.]+ p50_peer_ms=[0-9.]+ rate_library=[0-9.]+ rate_bare=[0-9.]+ rate_peer=[0-9.]+ p50_library_tls_ms=[0-9.]+ p50_library_revoke_tls_ms=[0-9.]+ rate_library_tls=[0-9.]+ rate_bare_tls=[0-9.]+ cpu_us_library_tls=[0-9]+ cpu_us_bare_tls=[0-9]+ burst_1500_ok=[0-9]+$'
test "$(head -n 1 "$out/login.csv")" = "phase,transport,client,delay_ms,index,latency_ms"
test "$(wc -l < "$out/login.csv")" -gt 1
if command -v gnuplot >/dev/null 2>&1; then
    test -s "$out/login.png"
fi
