#!/usr/bin/env bash
# The example web application (examples/webapp) as a site runs it past one machine, all on
# loopback: a local identity provider, three instances of the application with the same
# sso.cfg, HAProxy in front of them (cookie-based affinity, health checks on /healthz), and the
# node-role service (qxss-node-service), whose configuration directory holds no sso.cfg. Prints
# the address to open; Ctrl-C stops everything it started, and so does the end of its lifetime.
# docs/deployment.md explains the set-up.
#   QXSS_CLUSTER_PORT      the balancer's port (default 18400); its statistics on the next one
#   QXSS_CLUSTER_LIFETIME  seconds after which everything stops by itself (default 3600)
#   QXSS_CLUSTER_LOGS      folder for the logs (default build-cluster/cluster-logs)
#   QXSS_CLUSTER_WEBAPP, QXSS_CLUSTER_NODE  already built programs (the test build's
#                          qxss-webapp-test and qxss-node-service-test): nothing is installed
#                          or built then
# The programs are the test build's: one hook lets each process take its configuration
# directory from QXSS_WEBAPP_CONFIG_DIR, so that on one machine the three instances share a
# directory with sso.cfg and the node service has one without. On real machines each process
# has /usr/QX/etc of its own and runs the ordinary programs.
set -euo pipefail
cd "$(dirname "$0")/.."

port=${QXSS_CLUSTER_PORT:-18400}
stats_port=$((port + 1))
lifetime=${QXSS_CLUSTER_LIFETIME:-3600}
instances=(web1 web2 web3)

if [ -z "${QXSS_CLUSTER_WEBAPP:-}" ]; then
    scripts/install-deps.sh
    build=build-cluster
    cmake -S . -B "$build" -DQXSS_BENCH=OFF >/dev/null
    cmake --build "$build" -j"$(nproc)" --target qxss-webapp-test qxss-node-service-test
    webapp="$PWD/$build/tests/qxss-webapp-test"
    node_service="$PWD/$build/tests/qxss-node-service-test"
    logs=${QXSS_CLUSTER_LOGS:-$PWD/$build/cluster-logs}
else
    webapp=$QXSS_CLUSTER_WEBAPP
    node_service=${QXSS_CLUSTER_NODE:?QXSS_CLUSTER_NODE names the node service program}
    logs=${QXSS_CLUSTER_LOGS:-$(mktemp -d)}
fi
haproxy=$(command -v haproxy || echo /usr/sbin/haproxy)
[ -x "$haproxy" ] || { echo "cluster.sh: HAProxy is not installed (Debian package haproxy)" >&2; exit 1; }
mkdir -p "$logs"

run=$(mktemp -d)
pids=()
stop() {
    trap - EXIT INT TERM
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
    done
    for pid in "${pids[@]}"; do
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$run"
}
trap stop EXIT
trap 'echo "cluster: stopping"; exit 0' INT TERM

# Waits (at most 30 s) for a line matching $2 in file $1 and prints it.
ready() {
    for _ in $(seq 300); do
        if grep -q -m1 -E "$2" "$1" 2>/dev/null; then
            grep -m1 -E "$2" "$1"
            return 0
        fi
        sleep 0.1
    done
    echo "cluster.sh: no '$2' in $1 after 30 s:" >&2
    cat "$1" >&2
    return 1
}

# The provider ends when its standard input does, so it also ends if this script is killed.
mkfifo "$run/keep"
(cd tests/servers && exec node provider.js 0 >"$run/provider.out" 2>"$logs/provider.err" <"$run/keep") &
pids+=($!)
exec 3>"$run/keep"
base=$(ready "$run/provider.out" '^READY ' | awk '{print $2}')
echo "cluster: provider at $base"

# The secret that the instances and the node service share; only this user can read it.
(umask 077 && head -c 32 /dev/urandom | base64 | tr -d '\n/+=' >"$run/node-secret" && echo >>"$run/node-secret")

# The node: a configuration directory of its own, without sso.cfg.
mkdir "$run/etc-node" "$run/etc-server"
QXSS_WEBAPP_CONFIG_DIR="$run/etc-node" "$node_service" --port 0 --secret-file "$run/node-secret" \
    --log "$logs/node-service-library.log" >"$run/node.out" 2>"$logs/node-service.err" <&- 3>&- &
pids+=($!)
node_pid=$!
node_url=$(ready "$run/node.out" 'listening on' | awk '{print $NF}')
echo "cluster: node service at $node_url (pid $node_pid)"

# One sso.cfg for every instance: the redirect URI is the balancer's address, and the balancer
# sends the browser's return to the instance that started its login.
site="http://127.0.0.1:$port"
cat >"$run/etc-server/sso.cfg" <<CFG
[
  {
    "name": "Local provider", "desc": "The local demo provider", "type": "OAuth", "provider": "keycloak",
    "config": {
      "idp_domain": "$base",
      "client_id": "qxss-webapp",
      "client_secret": "webapp-secret",
      "redirect_uris": ["$site/cb"],
      "qx_user_type": "local",
      "qx_refresh": true,
      "qx_refresh_lifetime": 3600
    }
  }
]
CFG

servers=""
for name in "${instances[@]}"; do
    QXSS_WEBAPP_CONFIG_DIR="$run/etc-server" "$webapp" --port 0 \
        --public-origin "$site" --trusted-proxy 127.0.0.1 \
        --node-service "$node_url" --node-secret-file "$run/node-secret" \
        --log "$logs/$name-library.log" >"$run/$name.out" 2>"$logs/$name.err" <&- 3>&- &
    pids+=($!)
    pid=$!
    address=$(ready "$run/$name.out" 'listening on' | awk '{print $NF}')
    echo "cluster: instance $name at $address (pid $pid)"
    instance_port=${address##*:}
    instance_port=${instance_port%/}
    servers+="    server $name 127.0.0.1:$instance_port check cookie $name"$'\n'
done

# Affinity: the first answer sets a cookie naming the instance, and every later request of that
# browser goes there, since the pending login and the refresh record live in that process
# alone. An instance whose /healthz fails twice is taken out; its users go to another one
# (redispatch), which does not know them and shows the sign-in page.
cat >"$run/haproxy.cfg" <<CFG
global
    maxconn 2000

defaults
    mode http
    timeout connect 2s
    timeout client 30s
    timeout server 30s
    retries 2
    option redispatch
    option forwardfor

frontend site
    bind 127.0.0.1:$port
    default_backend instances

backend instances
    balance roundrobin
    cookie qxss_instance insert indirect nocache httponly
    option httpchk
    http-check send meth GET uri /healthz
    http-check expect status 200
    default-server inter 500ms fall 2 rise 2
$servers
listen statistics
    bind 127.0.0.1:$stats_port
    stats enable
    stats uri /
    stats refresh 2s
    stats show-legends
CFG
cp "$run/haproxy.cfg" "$logs/haproxy.cfg"
"$haproxy" -db -f "$run/haproxy.cfg" >"$logs/haproxy.out" 2>&1 <&- 3>&- &
pids+=($!)
haproxy_pid=$!
echo "cluster: HAProxy (pid $haproxy_pid) statistics at http://127.0.0.1:$stats_port/"

# The address is worth printing once HAProxy's health checks found every instance up.
statistics() {
    exec 5<>"/dev/tcp/127.0.0.1/$stats_port" || return 1
    printf 'GET /;csv HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n' >&5
    cat <&5
    exec 5<&-
}
up=0
for _ in $(seq 100); do
    if ! kill -0 "$haproxy_pid" 2>/dev/null; then
        echo "cluster.sh: HAProxy ended (ports $port and $stats_port free?):" >&2
        cat "$logs/haproxy.out" >&2
        exit 1
    fi
    up=$(statistics 2>/dev/null | grep -c '^instances,web[0-9]*,.*,UP' || true)
    [ "$up" -eq ${#instances[@]} ] && break
    sleep 0.2
done
if [ "$up" -ne ${#instances[@]} ]; then
    echo "cluster.sh: HAProxy sees $up of ${#instances[@]} instances up" >&2
    exit 1
fi
echo "cluster: logs in $logs"
echo "cluster: open $site/ and sign in as alice (or bob, user01 .. user10) with any password;" \
    "Ctrl-C stops everything"

# Tell when a process ends (an instance that dies is the point of the exercise), until the
# lifetime is over.
declare -A reported
for ((second = 0; second < lifetime; ++second)); do
    sleep 1 &
    wait $! || true
    for pid in "${pids[@]}"; do
        if [ -z "${reported[$pid]:-}" ] && ! kill -0 "$pid" 2>/dev/null; then
            reported[$pid]=1
            echo "cluster: process $pid ended"
        fi
    done
done
echo "cluster: lifetime of $lifetime s over, stopping"
