#!/usr/bin/env bash
# Smoke test of ulmarcomms-bench: a short run against a private daemon must
# produce every figure for the bus and the relay, lose no one-way message and
# keep them in order. Speed is never judged here.
#
#   bench_smoke.sh BENCH DAEMON
set -euo pipefail
bench=$1
daemon=$2
out=$(mktemp)
trap 'rm -f "$out"' EXIT

"$bench" --daemon "$daemon" --requests 300 --warmup 30 --messages 3000 --window 16 --json >"$out"

python3 - "$out" <<'PY'
import json, math, sys
report = json.load(open(sys.argv[1]))
figures = ["rtt_p50_us", "rtt_p99_us", "rtt_p999_us", "rtt_max_us",
           "oneway_msgs_per_s", "pipelined_req_per_s"]
failures = []
for side in ("bus", "relay"):
    values = report[side]
    for key in figures:
        value = values.get(key)
        if value is None or not math.isfinite(value) or value <= 0:
            failures.append(f"{side} {key} = {value!r}")
    if values.get("oneway_lost") != 0:
        failures.append(f"{side} lost {values.get('oneway_lost')} one-way messages")
    if values.get("oneway_in_order") != 1:
        failures.append(f"{side} delivered one-way messages out of order")
    if not values["rtt_p50_us"] <= values["rtt_p99_us"] <= values["rtt_p999_us"] <= values["rtt_max_us"]:
        failures.append(f"{side} percentiles are not ordered: {values}")
if report["bus"]["frame_bytes"] != report["relay"]["frame_bytes"]:
    failures.append("the relay did not send frames of the bus's size")
for key in figures:
    if key not in report["ratio"]:
        failures.append(f"ratio {key} missing")
if failures:
    print("\n".join(failures))
    sys.exit(1)
print("ulmarcomms-bench smoke: every figure present, nothing lost, in order")
PY
