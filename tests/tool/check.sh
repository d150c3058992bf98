#!/usr/bin/env bash
# The kestrelvue command line as a person uses it: a simulated drive replayed with --json and
# --map, the JSON and the SVG read back, and mistakes refused with the documented exit codes.
set -euo pipefail
tool=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

"$tool" simulate --seconds 240 --seed 4 --spacing 15 -o drive.kvd --truth truth.txt \
  --start 2026-11-25T07:10:00Z
"$tool" replay drive.kvd --truth truth.txt --json --map map.svg >report.json 2>log.txt
python3 - <<'PY'
import json, xml.etree.ElementTree as ET
r = json.load(open("report.json"))
for key in ("score", "distance_m", "duration_s", "start", "end", "kinds", "samples",
            "bulks_uploaded", "uploads_retried", "failure", "truth", "route", "events", "fix_gaps"):
    assert key in r, key
assert r["start_time"] == "2026-11-25T07:10:00Z", r["start_time"]
events = r["events"]
assert events and all(e["time"] >= r["start_time"] and e["samples"] >= 1 for e in events), events
for kind, line in r["kinds"].items():
    assert line["events"] == sum(1 for e in events if e["kind"] == kind), (kind, line)
    assert line["samples"] >= line["events"], (kind, line)
assert r["uploaded"] and r["failure"] is None and r["records"] == r["records_confirmed"], r
assert set(r["kinds"]) == {"braking", "acceleration", "cornering", "elevating", "lane-change",
                           "fuel"}, r["kinds"]
svg = ET.parse("map.svg").getroot()
ns = "{http://www.w3.org/2000/svg}"
classes = [e.get("class", "") for e in svg.iter()]
markers = [e for e in svg.iter() if e.get("class", "").startswith("fault ")]
assert len(markers) == len(events), (len(markers), len(events))
assert all(m.find(ns + "title") is not None for m in markers)
assert {"route", "start", "end", "legend", "scale"} <= set(classes), classes
PY

"$tool" simulate --seconds 120 --seed 5 -o short.kvd

# The phone stood up in its holder and turned: --align auto finds the mounting (what the aligned
# drive then detects is the replay tests').
"$tool" simulate --seconds 240 --seed 4 --spacing 15 -o mounted.kvd --mount 70,5,-120
"$tool" replay mounted.kvd --align auto --json 2>/dev/null | python3 -c 'import json, sys
m = json.load(sys.stdin)["mounting_deg"]
assert abs(m["pitch"] - 70) < 3 and abs(m["yaw"] + 120) < 5, m'

expect() {  # expect CODE TEXT COMMAND...: exit code CODE, and TEXT in what it printed
  local code=$1 text=$2 got=0
  shift 2
  "$@" >err.txt 2>&1 || got=$?
  if [ "$got" != "$code" ] || ! grep -q -- "$text" err.txt; then
    echo "FAIL: $* exited $got (expected $code with '$text'):" >&2
    cat err.txt >&2
    exit 1
  fi
}
expect 2 "sever" "$tool" replay drive.kvd --sever http://127.0.0.1:1
expect 2 "bulk" "$tool" replay drive.kvd --bulk 0
printf 'fix 0 41 29 1 0 5\nfix 1 95 29 1 0 5\n' >bad.kvd
expect 1 "line 2: latitude" "$tool" replay bad.kvd
expect 2 "at least 1, got 'abc'" "$tool" replay drive.kvd --user abc
expect 2 "at least 1, got '0'" "$tool" replay drive.kvd --user 0
expect 2 "did you mean 'replay'" "$tool" repaly drive.kvd
expect 2 "holds no outbox" "$tool" outbox .
# Kept in the outbox's store for later is not a failure; a second drive into the same store
# counts only its own records, not the first one's sent again.
for run in 1 2; do
  expect 0 "0 delivered, 241 kept for later, 0 lost" "$tool" replay short.kvd \
    --server http://127.0.0.1:1 --outbox ob --timeout 5
done
expect 1 "482 records and 2 trips waiting" "$tool" outbox ob --server http://127.0.0.1:1 --wait 1
expect 2 "PITCH,ROLL,YAW" "$tool" replay drive.kvd --align 10,20
expect 2 "PITCH,ROLL,YAW" "$tool" record --align 1,2 --seconds 1 --no-outbox
expect 1 "no map: the trip was not uploaded" "$tool" replay drive.kvd --server http://127.0.0.1:1 \
  --timeout 5 --map nothing.svg
grep -q "did not answer" err.txt && [ ! -e nothing.svg ]
echo "tool check: passed"
