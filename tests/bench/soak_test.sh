#!/usr/bin/env bash
# The soak of ulmarcomms-bench against the daemon built here: under daemon
# restarts, application kills and a stalled consumer, no message posted
# outside a fault window may be lost and none duplicated, every fault must be
# recovered from, and the daemon must never end on its own. The figures'
# presence is checked too, so that a soak that did nothing cannot pass.
# Speed is not judged: the posted count only has to show that the load ran.
#
#   soak_test.sh BENCH DAEMON [--soak-* options]
set -euo pipefail
bench=$1
daemon=$2
shift 2
out=$(mktemp)
trap 'rm -f "$out"' EXIT

status=0
"$bench" --daemon "$daemon" --json "$@" >"$out" || status=$?
cat "$out"

python3 - "$out" "$status" "$@" <<'PY'
import json, sys
report = json.load(open(sys.argv[1]))
status = int(sys.argv[2])
args = sys.argv[3:]
def option(name, default):
    return int(args[args.index(name) + 1]) if name in args else default
seconds = option("--soak-seconds", 60)
rate = option("--soak-rate", 1200)
daemon_every = option("--soak-daemon-every", 20)
kill_every = option("--soak-kill-every", 15)
failures = []
if status != 0 or not report["passed"]:
    failures.append(f"the soak failed (status {status}): {report['failures']}")
outside = report["outside_windows"]
if outside["lost"] != 0 or outside["delivered"] != outside["sent"]:
    failures.append(f"lost outside the fault windows: {outside}")
if report["duplicates"] != 0:
    failures.append(f"{report['duplicates']} duplicates")
if report["daemon_deaths"] != 0:
    failures.append("the daemon ended on its own")
# Half the planned posts at least: the load really ran (not a speed check).
posted = outside["sent"] + report["inside_windows"]["sent"] + report["to_stalled_consumer"] + report["refused_posts"]
if posted < rate * seconds / 2:
    failures.append(f"only {posted} requests posted")
# Faults leave most of the run outside their windows, or the soak says little.
if outside["sent"] < posted / 3:
    failures.append(f"most requests fell inside fault windows: {outside['sent']} of {posted} outside")
restarts = report["daemon_restarts"]
if daemon_every == 0:
    if restarts:
        failures.append(f"daemon restarts that were not asked for: {restarts}")
elif len(restarts) < (seconds - 1) // daemon_every - 1 or not all(r["recovered"] for r in restarts):
    failures.append(f"daemon restarts: {restarts}")
elif {r["signal"] for r in restarts} != {"SIGTERM", "SIGKILL"}:
    failures.append(f"the daemon was not stopped both ways: {restarts}")
kills = report["app_kills"]
if not kills or len(kills) < (seconds - 1) // kill_every - 1 or not all(k["recovered"] for k in kills):
    failures.append(f"application kills: {kills}")
if report["to_stalled_consumer"] == 0:
    failures.append("nothing was sent to the stalled consumer")
rss = report["daemon_rss_kib"]
if not 0 < rss["min"] <= rss["median"] <= rss["max"] or not rss["samples"]:
    failures.append(f"resident memory figures: {rss}")
if failures:
    print("\n".join(failures))
    sys.exit(1)
print(f"soak: {outside['sent']} requests outside fault windows all delivered once; "
      f"{len(restarts)} daemon restarts and {len(kills)} application kills recovered")
PY
