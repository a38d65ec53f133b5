#!/usr/bin/env bash
# Smoke test of ulmarcomms-bench: a short run against a private daemon must
# produce every figure for the bus and the relay (both one-way senders, both
# pipelined senders, the daemon's and the relay's CPU per message), the
# large-table comparison, many pairs and the event fan-out, lose no one-way
# message or event and keep them in order; and scripts/bench-chart must draw
# the run. Speed is never judged here.
#
#   bench_smoke.sh BENCH DAEMON
set -euo pipefail
bench=$1
daemon=$2
chart="$(dirname "$0")/../../scripts/bench-chart"
out=$(mktemp)
svg=$(mktemp)
trap 'rm -f "$out" "$svg"' EXIT

"$bench" --daemon "$daemon" --requests 300 --warmup 30 --messages 3000 --window 16 \
  --table 50 --pairs-apps 1,3 --fanout-apps 3 --fanout-listeners 4 --fanout-events 20 --json >"$out"
"$chart" "$out" "$svg"

python3 - "$out" "$svg" <<'PY'
import json, math, sys
report = json.load(open(sys.argv[1]))
svg = open(sys.argv[2]).read()
rates = ["oneway_msgs_per_s", "oneway_unwindowed_msgs_per_s", "pipelined_req_per_s"]
latencies = ["rtt_p50_us", "rtt_p99_us", "rtt_p999_us", "rtt_max_us"]
cpu = ["daemon_cpu_us_per_msg_" + n for n in ("rtt", "oneway", "oneway_unwindowed", "pipelined")]
bus_only = {
    "pipelined_callback_req_per_s": "positive",
    "daemon_cpu_us_per_msg_pipelined_callback": "non-negative",
    "oneway_unwindowed_refused": "non-negative",
    "pairs_1_req_per_s": "positive", "pairs_3_req_per_s": "positive",
    "pairs_1_rtt_p50_us": "positive", "pairs_3_rtt_p50_us": "positive",
    "pairs_1_scaling": "positive", "pairs_3_scaling": "positive",
    "fanout_listeners": "positive", "fanout_first_event_all_us": "positive",
    "fanout_deliveries_per_s": "positive", "fanout_publish_refused": "non-negative",
}
for key in ("rtt_p50_us", "rtt_p99_us", "oneway_msgs_per_s", "oneway_unwindowed_msgs_per_s"):
    for table in ("10", "50", "ratio"):
        bus_only[f"table_{table}_{key}"] = "positive"
failures = []

def check(side, values, key, kind):
    value = values.get(key)
    if value is None or not math.isfinite(value) or value < 0 or (kind == "positive" and value == 0):
        failures.append(f"{side} {key} = {value!r}")

for side in ("bus", "relay"):
    values = report[side]
    for key in latencies + rates:
        check(side, values, key, "positive")
    # CPU time is read in clock ticks: a short run may see none.
    for key in cpu:
        check(side, values, key, "non-negative")
    for prefix in ("oneway", "oneway_unwindowed"):
        if values.get(prefix + "_lost") != 0:
            failures.append(f"{side} lost {values.get(prefix + '_lost')} {prefix} messages")
        if values.get(prefix + "_in_order") != 1:
            failures.append(f"{side} delivered {prefix} messages out of order")
    if not values["rtt_p50_us"] <= values["rtt_p99_us"] <= values["rtt_p999_us"] <= values["rtt_max_us"]:
        failures.append(f"{side} percentiles are not ordered: {values}")
bus = report["bus"]
for key, kind in bus_only.items():
    check("bus", bus, key, kind)
if bus.get("fanout_listeners") != 12:
    failures.append(f"fan-out reached {bus.get('fanout_listeners')} listeners, not 12")
if bus.get("table_50_lost") != 0 or bus.get("table_50_in_order") != 1:
    failures.append(f"with a table of 50 the bus lost {bus.get('table_50_lost')} one-way messages")
if bus.get("fanout_lost") != 0 or bus.get("fanout_in_order") != 1:
    failures.append(f"fan-out lost {bus.get('fanout_lost')} events (in order: {bus.get('fanout_in_order')})")
if report["bus"]["frame_bytes"] != report["relay"]["frame_bytes"]:
    failures.append("the relay did not send frames of the bus's size")
for key in latencies + rates + ["pipelined_callback_req_per_s"]:
    if key not in report["ratio"]:
        failures.append(f"ratio {key} missing")
for label in ("one-way, unwindowed", "pipelined, one thread", "pipelined, from callback"):
    if label not in svg:
        failures.append(f"the chart has no bar for {label}")
if failures:
    print("\n".join(failures))
    sys.exit(1)
print("ulmarcomms-bench smoke: every figure present, nothing lost, in order, chart drawn")
PY
