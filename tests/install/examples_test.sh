#!/usr/bin/env bash
# Runs the built examples against a daemon on a bus of their own: echo server
# and client (replies, and the time-out for a missing pump), the system queries,
# and an event publisher with a subscriber. Every program is started with the
# bus's start argument on its command line; every background process is
# stopped by its pid.
#
#   examples_test.sh DAEMON EXAMPLES_DIR
set -euo pipefail

daemon=$1 examples=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/ulmarcomms-examples.XXXXXX")
pids=()

cleanup() {
  for pid in "${pids[@]}"; do
    if kill -0 "$pid" 2>/dev/null; then
      kill "$pid" 2>/dev/null || true
      wait "$pid" 2>/dev/null || true
    fi
  done
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  for f in "$work"/*.log; do [ -f "$f" ] && { echo "--- $f"; cat "$f"; } >&2; done
  exit 1
}

# Waits (up to 30 s) until the command succeeds.
wait_until() {
  local what=$1 deadline=$((SECONDS + 30))
  shift
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $deadline ] || fail "timed out waiting for $what"
    sleep 0.1
  done
}

# Stops a background process by its pid and checks that it ended cleanly.
stop() {
  local pid=$1 name=$2 status=0
  kill "$pid" 2>/dev/null || true
  wait "$pid" || status=$?
  [ "$status" -eq 0 ] || fail "$name ended with status $status"
}

in_table() { "$examples/system_query" -s "$arg" ViewSystemRouterRoutingTable | grep -q "@$1,"; }

bus="ulmarcomms-examples-$$-$RANDOM"
arg="ulmar.systemrouter.pipe.name=$bus"
"$daemon" --set "$arg" >"$work/daemon.log" 2>&1 &
daemon_pid=$!
pids+=("$daemon_pid")
# The daemon says so once its start-up has returned.
wait_until "the daemon" grep -q 'service running on' "$work/daemon.log"

echo "== system_query"
"$examples/system_query" -s "$arg" >"$work/query.out" 2>"$work/query.log" || fail "system_query"
grep -qx "name=$(hostname)" "$work/query.out" || fail "SystemInfo names no host: $(cat "$work/query.out")"
grep -q '^# System Routing Table' "$work/query.out" || fail "no routing table"
grep -q '@system,quendrelis.ulmar.comms.system$' "$work/query.out" || fail "the table lacks the system endpoint"
status=0
"$examples/system_query" -s "$arg" NoSuchQuery >/dev/null 2>"$work/unknown.log" || status=$?
[ "$status" -eq 1 ] && grep -q 'error 1002' "$work/unknown.log" || fail "an unknown query did not end in error 1002"

echo "== echo_server and echo_client"
"$examples/echo_server" -s "$arg" >"$work/server.out" 2>"$work/server.log" &
server_pid=$!
pids+=("$server_pid")
wait_until "the echo server's pump" in_table echo
[ "$("$examples/echo_client" -s "$arg" 'hello, bus')" = 'hello, bus' ] || fail "echo_client got no echo"
"$examples/system_query" -s "$arg" -a inters=example.echo '#AdsSupIs' >"$work/ads.out" || fail "#AdsSupIs"
grep -qx "example.echo,$(hostname)@echo" "$work/ads.out" || fail "#AdsSupIs answered: $(cat "$work/ads.out")"
[ "$("$examples/echo_client" -s "$arg" second)" = second ] || fail "second echo"
stop "$server_pid" echo_server
grep -qx 'answered 2' "$work/server.out" || fail "echo_server answered: $(cat "$work/server.out")"
status=0
# A local sender hears nothing back from a missing pump: the client's own
# time-out ends the wait.
"$examples/echo_client" -s "$arg" -w 1 -t nosuchpump hello >/dev/null 2>"$work/missing.log" || status=$?
[ "$status" -eq 3 ] && grep -q 'no answer from nosuchpump' "$work/missing.log" || fail "a missing pump: status $status"

echo "== event_publisher and event_subscriber"
"$examples/event_publisher" -s "$arg" -i 100 -c 600 >"$work/publisher.out" 2>"$work/publisher.log" &
publisher_pid=$!
pids+=("$publisher_pid")
wait_until "the publisher's pump" in_table weather
"$examples/event_subscriber" -s "$arg" -c 3 >"$work/subscriber.out" 2>"$work/subscriber.log" || fail "event_subscriber"
[ "$(grep -c '^event [0-9]* from .*@weather: [0-9.]* C$' "$work/subscriber.out")" -eq 3 ] ||
  fail "the subscriber printed: $(cat "$work/subscriber.out")"
stop "$publisher_pid" event_publisher
grep -q '^published [0-9]' "$work/publisher.out" || fail "the publisher did not report"

stop "$daemon_pid" ulmarcommsd
echo "examples test passed"
