# shellcheck shell=bash
# Simulated hosts for the benchmarks between hosts (sourced, bash). Each host
# is a network namespace plus a UTS namespace named after the host, in which
# an ulmarcommsd with network links runs; the hosts are joined either by one
# veth pair or by a bridge in a namespace of its own. Everything lives in
# namespaces made here, so no traffic leaves them. The namespaces are named
# "ulmbench<pid>-..." after the script, and the EXIT trap stops the daemons
# this script started (by pid) and removes its namespaces, also on failure.
#
# Needs root, ip(8), nsenter(1), unshare(1).

SIM_PREFIX="ulmbench$$"
SIM_NETNS=()              # namespaces to remove, in creation order
SIM_CHILDREN=()           # other background processes to end
declare -A SIM_DAEMON     # host -> daemon pid
declare -A SIM_PIPE       # host -> daemon pipe
declare -A SIM_ADDRESS    # host -> IPv4 address
SIM_LOGS="$(mktemp -d /tmp/ulmbench.XXXXXX)"
SIM_ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
# ULMARCOMMS_BUILD_DIR names a finished build to take the programs from (the
# tests do); without it they are built in build/default first.
SIM_BUILD_DIR="${ULMARCOMMS_BUILD_DIR:-$SIM_ROOT/build/default}"
SIM_DAEMON_BIN="$SIM_BUILD_DIR/tools/ulmarcommsd"
SIM_CLI_BIN="$SIM_BUILD_DIR/tools/ulmarcomms"
SIM_NETBENCH_BIN="$SIM_BUILD_DIR/bench/ulmarcomms-netbench"

sim_cleanup() {
  local status=$? host pid
  for pid in "${SIM_CHILDREN[@]}"; do
    kill -TERM "$pid" 2>/dev/null || true
  done
  for host in "${!SIM_DAEMON[@]}"; do
    pid="${SIM_DAEMON[$host]}"
    kill -TERM "$pid" 2>/dev/null || true
  done
  for host in "${!SIM_DAEMON[@]}"; do
    wait "${SIM_DAEMON[$host]}" 2>/dev/null || true
  done
  for ns in "${SIM_NETNS[@]}"; do
    ip netns del "$ns" 2>/dev/null || true
  done
  # A failed run keeps the daemons' logs: they say why a link ended.
  if [ "$status" -eq 0 ]; then
    rm -rf "$SIM_LOGS"
  else
    echo "$(basename "$0"): the daemons' logs are kept in $SIM_LOGS" >&2
  fi
}
trap sim_cleanup EXIT
trap 'exit 130' INT TERM

sim_fail() {
  echo "$(basename "$0"): $*" >&2
  exit 1
}

# Exits with 77 (skipped, for CTest) where hosts cannot be simulated.
sim_require_root() {
  local why=
  [ "$(id -u)" -eq 0 ] || why="needs root to create network namespaces"
  command -v nsenter >/dev/null && command -v unshare >/dev/null && command -v ip >/dev/null ||
    why="needs ip, nsenter and unshare"
  [ -z "$why" ] || { echo "$(basename "$0"): $why; skipped" >&2; exit 77; }
}

# Builds the targets named, and the daemon and the command-line tool, unless
# ULMARCOMMS_BUILD_DIR names a build.
sim_build() {
  [ -z "${ULMARCOMMS_BUILD_DIR:-}" ] || return 0
  cd "$SIM_ROOT" || exit 1
  [ -f build/default/build.ninja ] || cmake --preset default >/dev/null
  cmake --build --preset default -j2 --target ulmarcommsd ulmarcomms_cli "$@" >/dev/null
}

sim_netns_add() {
  ip netns add "$1" || sim_fail "cannot create network namespace $1"
  SIM_NETNS+=("$1")
  ip -n "$1" link set lo up
}

# sim_pair HOST_A ADDRESS_A HOST_B ADDRESS_B: two hosts joined by a veth pair.
sim_pair() {
  sim_netns_add "$SIM_PREFIX-$1"
  sim_netns_add "$SIM_PREFIX-$3"
  ip link add eth0 netns "$SIM_PREFIX-$1" type veth peer name eth0 netns "$SIM_PREFIX-$3" ||
    sim_fail "cannot create the veth pair"
  sim_address "$1" "$2"
  sim_address "$3" "$4"
}

# sim_bridge: the bridge the hosts of sim_on_bridge join.
sim_bridge() {
  sim_netns_add "$SIM_PREFIX-br"
  ip -n "$SIM_PREFIX-br" link add br0 type bridge || sim_fail "cannot create a bridge"
  ip -n "$SIM_PREFIX-br" link set br0 up
}

# sim_on_bridge HOST ADDRESS INDEX: a host on the bridge.
sim_on_bridge() {
  sim_netns_add "$SIM_PREFIX-$1"
  ip -n "$SIM_PREFIX-br" link add "p$3" type veth peer name eth0 netns "$SIM_PREFIX-$1" ||
    sim_fail "cannot wire $1"
  ip -n "$SIM_PREFIX-br" link set "p$3" master br0 up
  sim_address "$1" "$2"
}

sim_address() {
  SIM_ADDRESS[$1]="$2"
  ip -n "$SIM_PREFIX-$1" addr add "$2/24" brd + dev eth0
  ip -n "$SIM_PREFIX-$1" link set eth0 up
}

# sim_daemon HOST [SETTING...]: starts HOST's daemon with network links and
# discovery (plus the settings given, as --set KEY=VALUE) in a UTS namespace
# named HOST, and waits until it serves. ip, unshare and sh each exec the
# next, so $! is the daemon's own pid.
sim_daemon() {
  local host="$1" setting
  shift
  local args=(--set ulmar.networkrouter=1 --set ulmar.networkrouter.discovery=1
              --set "ulmar.systemrouter.pipe.name=$SIM_PREFIX$host")
  for setting in "$@"; do args+=(--set "$setting"); done
  ip netns exec "$SIM_PREFIX-$host" unshare --uts /bin/sh -c \
    'echo "$0" >/proc/sys/kernel/hostname && exec "$@"' "$host" "$SIM_DAEMON_BIN" "${args[@]}" \
    >"$SIM_LOGS/$host.log" 2>&1 &
  SIM_DAEMON[$host]=$!
  SIM_PIPE[$host]="$SIM_PREFIX$host"
  sim_await "daemon on $host" 20 grep -qs "service running" "$SIM_LOGS/$host.log"
}

# sim_await WHAT SECONDS COMMAND...: runs COMMAND every 20 ms until it
# succeeds; fails after SECONDS.
sim_await() {
  local what="$1" limit=$(( $(date +%s%N) + $2 * 1000000000 ))
  shift 2
  until "$@"; do
    [ "$(date +%s%N)" -lt "$limit" ] || sim_fail "$what: not within the deadline"
    sleep 0.02
  done
}

# sim_in HOST COMMAND...: runs COMMAND in HOST's network and UTS namespaces.
sim_in() {
  local host="$1"
  shift
  nsenter --net="/run/netns/$SIM_PREFIX-$host" --uts="/proc/${SIM_DAEMON[$host]}/ns/uts" -- "$@"
}

# sim_known HOST: the hosts HOST's daemon knows (itself included), one a line.
sim_known() {
  sim_in "$1" "$SIM_CLI_BIN" --set "ulmar.systemrouter.pipe.name=${SIM_PIPE[$1]}" --timeout 2000 hosts 2>/dev/null
}

# sim_knows_all HOST COUNT: whether HOST knows COUNT hosts, itself included.
sim_knows_all() {
  [ "$(sim_known "$1" | grep -c .)" -ge "$2" ]
}

# The load average now, as /proc/loadavg's first three fields.
sim_load() {
  cut -d' ' -f1-3 /proc/loadavg
}
