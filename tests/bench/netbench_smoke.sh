#!/usr/bin/env bash
# Smoke test of the bus between two simulated hosts: a short run of
# scripts/netbench (programs of the build tree, ULMARCOMMS_BUILD_DIR) must
# produce the latencies and rates of both roads, lose no one-way message and
# keep them in order. Speed is never judged here. Exits 77 (skipped) where
# network namespaces cannot be made.
#
#   netbench_smoke.sh NETBENCH_SCRIPT
set -euo pipefail
out=$(mktemp)
trap 'rm -f "$out"' EXIT

"$1" --runs 1 --requests 300 --warmup 30 --messages 3000 --window 16 --json >"$out"

python3 - "$out" <<'PY'
import json, math, sys
report = json.load(open(sys.argv[1]))
figures = ["rtt_p50_us", "rtt_p99_us", "rtt_p999_us", "rtt_max_us",
           "oneway_msgs_per_s", "oneway_unwindowed_msgs_per_s", "pipelined_req_per_s"]
failures = []
for side in ("bus", "relay"):
    values = report[side]
    for key in figures:
        value = values.get(key)
        if value is None or not math.isfinite(value) or value <= 0:
            failures.append(f"{side} {key} = {value!r}")
    for prefix in ("oneway", "oneway_unwindowed"):
        if values.get(prefix + "_lost") != 0 or values.get(prefix + "_in_order") != 1:
            failures.append(f"{side} {prefix}: lost {values.get(prefix + '_lost')}, "
                            f"in order {values.get(prefix + '_in_order')}")
    if not values["rtt_p50_us"] <= values["rtt_p99_us"] <= values["rtt_p999_us"] <= values["rtt_max_us"]:
        failures.append(f"{side} percentiles are not ordered: {values}")
if not report["bus"].get("pipelined_callback_req_per_s", 0) > 0:
    failures.append("bus pipelined_callback_req_per_s missing")
if report["bus"]["frame_bytes"] != report["relay"]["frame_bytes"]:
    failures.append("the relay did not send frames of the bus's size")
if failures:
    print("\n".join(failures))
    sys.exit(1)
print("ulmarcomms-netbench smoke: every figure of both roads present, nothing lost, in order")
PY
