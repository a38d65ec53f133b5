#!/usr/bin/env bash
# Installs the build into a temporary prefix, checks what landed there, builds
# the installed examples outside the tree with find_package(UlmarComms) and one
# of them with pkg-config, and runs them against a daemon started from that
# prefix on a bus of their own: the system queries, echo server and client
# (replies, and the time-out for a missing pump), and an event publisher with
# a subscriber (the C++ layer). Every background process is stopped by its
# pid. Skips (exit 77) only when the daemon is not built yet.
#
#   install_test.sh BUILD_DIR LIBDIR DOCDIR C_COMPILER CXX_COMPILER [SANITIZE]
set -euo pipefail

build=$1 libdir=$2 docdir=$3 cc=$4 cxx=$5 sanitize=${6:-}
# The cache holds OFF (the option's false value) when no sanitizer is chosen.
case "$sanitize" in OFF | FALSE | NO | 0) sanitize= ;; esac
work=$(mktemp -d "${TMPDIR:-/tmp}/ulmarcomms-install.XXXXXX")
prefix=$work/prefix
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

echo "== install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.out" || { cat "$work/install.out"; fail "cmake --install"; }

echo "== layout"
lib=$prefix/$libdir
[ -f "$lib/libulmarcomms.so.1.0.0" ] && [ ! -L "$lib/libulmarcomms.so.1.0.0" ] || fail "no libulmarcomms.so.1.0.0"
[ "$(readlink "$lib/libulmarcomms.so.1")" = libulmarcomms.so.1.0.0 ] || fail "libulmarcomms.so.1 is not a link to the library"
[ "$(readlink "$lib/libulmarcomms.so")" = libulmarcomms.so.1 ] || fail "libulmarcomms.so is not a link to .so.1"
soname=$(readelf -d "$lib/libulmarcomms.so.1.0.0" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[ "$soname" = libulmarcomms.so.1 ] || fail "SONAME is '$soname'"
for f in include/ulmarcomms.h include/ulmarcomms.hpp \
         "$libdir/cmake/UlmarComms/UlmarCommsConfig.cmake" \
         "$libdir/cmake/UlmarComms/UlmarCommsConfigVersion.cmake" \
         "$libdir/cmake/UlmarComms/UlmarCommsTargets.cmake" \
         "$libdir/pkgconfig/ulmarcomms.pc" lib/systemd/system/ulmarcommsd.service \
         lib/sysusers.d/ulmarcomms.conf "$docdir/security.md" "$docdir/user-guide.md" \
         "$docdir/examples/CMakeLists.txt" "$docdir/examples/event_subscriber.cpp"; do
  [ -f "$prefix/$f" ] || fail "missing $f"
done
# Only the C interface leaves the library.
foreign=$(nm -D --defined-only "$lib/libulmarcomms.so.1.0.0" | awk '$2 ~ /^[TWDBR]$/ && $3 !~ /^UlmarComms/ {print $3}')
[ -z "$foreign" ] || fail "exported symbols outside the C interface: $foreign"
grep -qx "ExecStart=$prefix/bin/ulmarcommsd" "$prefix/lib/systemd/system/ulmarcommsd.service" ||
  fail "the unit does not start $prefix/bin/ulmarcommsd"
export PKG_CONFIG_PATH=$lib/pkgconfig
[ "$(pkg-config --modversion ulmarcomms)" = 1.0.0 ] || fail "pkg-config version"
[ "$(pkg-config --variable=libdir ulmarcomms)" = "$lib" ] || fail "pkg-config libdir"

daemon=$prefix/bin/ulmarcommsd
if [ ! -x "$daemon" ]; then
  echo "SKIP: $daemon is not installed (the daemon is not built yet); layout checks passed"
  exit 77
fi

echo "== installed tools and exports"
[ -x "$prefix/bin/ulmarcomms" ] || fail "the command-line tool ulmarcomms is not installed"
exports=$(nm -D --defined-only "$lib/libulmarcomms.so.1.0.0" | awk '$2 == "T" && $3 ~ /^UlmarComms/' | wc -l)
[ "$exports" -eq 43 ] || fail "$exports exported functions, expected 43"
if command -v systemd-analyze >/dev/null; then
  unit=$prefix/lib/systemd/system/ulmarcommsd.service
  systemd-analyze verify "$unit" || fail "systemd-analyze verify"
  # The sandbox must keep the unit's exposure at 2.5 or lower.
  systemd-analyze security --offline=yes --threshold=25 "$unit" >"$work/security.log" 2>&1 ||
    fail "the unit's exposure is above 2.5: $(tail -n 1 "$work/security.log")"
fi

# Sanitized builds: the examples must carry the same runtime as the library.
flags=()
[ -z "$sanitize" ] || flags=("-fsanitize=$sanitize")

echo "== the installed examples build against the installed package"
cmake -S "$prefix/$docdir/examples" -B "$work/examples-build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_FLAGS="${flags[*]:-}" -DCMAKE_CXX_FLAGS="${flags[*]:-}" -DCMAKE_EXE_LINKER_FLAGS="${flags[*]:-}" \
  >"$work/examples.out" 2>&1 && cmake --build "$work/examples-build" >>"$work/examples.out" 2>&1 ||
  { cat "$work/examples.out"; fail "installed examples"; }
examples=$work/examples-build
[ -x "$examples/event_subscriber" ] || fail "no event_subscriber built from the installed examples"

echo "== same-major version check refuses 2.0"
mkdir -p "$work/v2"
printf 'cmake_minimum_required(VERSION 3.16)\nproject(v2 LANGUAGES NONE)\nfind_package(UlmarComms 2 REQUIRED)\n' >"$work/v2/CMakeLists.txt"
if cmake -S "$work/v2" -B "$work/v2/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null 2>&1; then
  fail "find_package(UlmarComms 2) accepted version 1.0.0"
fi

echo "== an example built with pkg-config"
# shellcheck disable=SC2046
"$cc" "${flags[@]}" -Wall -Wextra -o "$work/system_query-pc" "$prefix/$docdir/examples/system_query.c" \
  $(pkg-config --cflags --libs ulmarcomms) -Wl,-rpath,"$(pkg-config --variable=libdir ulmarcomms)" -pthread ||
  fail "pkg-config build"

echo "== run against the installed daemon"
bus="ulmarcomms-install-$$-$RANDOM"
arg="ulmar.systemrouter.pipe.name=$bus"
"$daemon" --set "$arg" >"$work/daemon.log" 2>&1 &
daemon_pid=$!
pids+=("$daemon_pid")
# The daemon says so once its start-up has returned.
wait_until "the daemon" grep -q 'service running on' "$work/daemon.log"
in_table() { "$examples/system_query" -s "$arg" ViewSystemRouterRoutingTable | grep -q "@$1,"; }

echo "== system_query"
"$work/system_query-pc" -s "$arg" SystemInfo >"$work/pc.out" 2>"$work/pc.log" || fail "pkg-config build of system_query"
grep -qx "name=$(hostname)" "$work/pc.out" || fail "the pkg-config build names no host: $(cat "$work/pc.out")"
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
echo "install test passed"
