#!/usr/bin/env bash
# Installs the build into a temporary prefix, checks what landed there, builds
# a consumer outside the tree with find_package(UlmarComms) and with
# pkg-config, and runs both against a daemon started from that prefix on a bus
# of its own. Skips (exit 77) only when the daemon is not built yet.
#
#   install_test.sh BUILD_DIR CONSUMER_SRC LIBDIR DOCDIR C_COMPILER CXX_COMPILER [SANITIZE]
set -euo pipefail

build=$1 consumer_src=$2 libdir=$3 docdir=$4 cc=$5 cxx=$6 sanitize=${7:-}
# The cache holds OFF (the option's false value) when no sanitizer is chosen.
case "$sanitize" in OFF | FALSE | NO | 0) sanitize= ;; esac
work=$(mktemp -d "${TMPDIR:-/tmp}/ulmarcomms-install.XXXXXX")
prefix=$work/prefix
daemon_pid=

cleanup() {
  if [ -n "$daemon_pid" ] && kill -0 "$daemon_pid" 2>/dev/null; then
    kill "$daemon_pid" 2>/dev/null || true
    wait "$daemon_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }

echo "== install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail "cmake --install"; }

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
         "$docdir/user-guide.md" "$docdir/examples/CMakeLists.txt" "$docdir/examples/event_subscriber.cpp"; do
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
  systemd-analyze verify "$prefix/lib/systemd/system/ulmarcommsd.service" || fail "systemd-analyze verify"
fi

# Sanitized builds: the consumer must carry the same runtime as the library.
flags=()
[ -z "$sanitize" ] || flags=("-fsanitize=$sanitize")

echo "== consumer with find_package(UlmarComms)"
cmake -S "$consumer_src" -B "$work/cmake-build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_FLAGS="${flags[*]:-}" -DCMAKE_CXX_FLAGS="${flags[*]:-}" -DCMAKE_EXE_LINKER_FLAGS="${flags[*]:-}" \
  >"$work/consumer-configure.log" 2>&1 || { cat "$work/consumer-configure.log"; fail "consumer configure"; }
cmake --build "$work/cmake-build" >"$work/consumer-build.log" 2>&1 || { cat "$work/consumer-build.log"; fail "consumer build"; }

echo "== the installed examples build against the installed package"
cmake -S "$prefix/$docdir/examples" -B "$work/examples-build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_FLAGS="${flags[*]:-}" -DCMAKE_CXX_FLAGS="${flags[*]:-}" -DCMAKE_EXE_LINKER_FLAGS="${flags[*]:-}" \
  >"$work/examples.log" 2>&1 && cmake --build "$work/examples-build" >>"$work/examples.log" 2>&1 ||
  { cat "$work/examples.log"; fail "installed examples"; }
[ -x "$work/examples-build/event_subscriber" ] || fail "no event_subscriber built from the installed examples"

echo "== same-major version check refuses 2.0"
mkdir -p "$work/v2"
printf 'cmake_minimum_required(VERSION 3.16)\nproject(v2 LANGUAGES NONE)\nfind_package(UlmarComms 2 REQUIRED)\n' >"$work/v2/CMakeLists.txt"
if cmake -S "$work/v2" -B "$work/v2/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null 2>&1; then
  fail "find_package(UlmarComms 2) accepted version 1.0.0"
fi

echo "== consumer with pkg-config"
# shellcheck disable=SC2046
"$cc" "${flags[@]}" -Wall -Wextra -o "$work/consumer-pc" "$consumer_src/consumer.c" \
  $(pkg-config --cflags --libs ulmarcomms) -Wl,-rpath,"$(pkg-config --variable=libdir ulmarcomms)" -pthread ||
  fail "pkg-config build"

echo "== run against the installed daemon"
bus="ulmarcomms-install-$$-$RANDOM"
arg="ulmar.systemrouter.pipe.name=$bus"
"$daemon" --set "$arg" >"$work/daemon.log" 2>&1 &
daemon_pid=$!

# The daemon says so once its start-up has returned.
deadline=$((SECONDS + 30))
until grep -q 'service running on' "$work/daemon.log"; do
  kill -0 "$daemon_pid" 2>/dev/null || { cat "$work/daemon.log"; fail "the daemon exited"; }
  [ $SECONDS -lt $deadline ] || { cat "$work/daemon.log"; fail "the daemon did not start"; }
  sleep 0.1
done
"$work/consumer-pc" "$arg" >"$work/pc.out" || { cat "$work/daemon.log"; fail "pkg-config consumer failed"; }
grep -q '^name=' "$work/pc.out" || fail "pkg-config consumer printed no host"
"$work/cmake-build/consumer" "$arg" >"$work/c.out" || fail "find_package consumer (C) failed"
"$work/cmake-build/consumer_cpp" "$arg" >"$work/cpp.out" || fail "find_package consumer (C++) failed"
cat "$work/pc.out" "$work/cpp.out"

echo "== stop the daemon"
kill "$daemon_pid"
status=0
wait "$daemon_pid" || status=$?
daemon_pid=
[ "$status" -eq 0 ] || { cat "$work/daemon.log"; fail "the daemon ended with status $status"; }
echo "install test passed"
