#!/usr/bin/env bash
# Replay benchmarks of the kestrelvue tool, uploads to its in-process service included:
#   a simulated 10-hour drive at 2 samples/s, and a one-hour drive recorded at 100 samples/s.
# Prints the best and the median wall time of RUNS whole commands each (file reading included).
#   bash scripts/bench-replay.sh [TOOL] [RUNS]    default: build/demo/tools/kestrelvue, 5
set -euo pipefail
cd "$(dirname "$0")/.."
tool=${1:-build/demo/tools/kestrelvue}
runs=${2:-5}
[ -x "$tool" ] || { echo "bench-replay: no tool at $tool (bash scripts/demo.sh builds one)" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$tool" simulate --seconds 36000 --rate 2 --seed 7 -o "$work/ten-hours.kvd"
"$tool" simulate --seconds 3600 --rate 100 --seed 8 -o "$work/hour-at-100.kvd"
for name in ten-hours hour-at-100; do
  times=()
  for ((i = 0; i < runs; i++)); do
    start=$(date +%s.%N)
    "$tool" replay "$work/$name.kvd" --json >"$work/report.json" 2>/dev/null
    times+=("$(awk -v a="$start" -v b="$(date +%s.%N)" 'BEGIN { print b - a }')")
  done
  printf '%s\n' "${times[@]}" | sort -n | awk -v n="$name" -v r="$runs" \
    '{ t[NR] = $1 } END { printf "%-12s best %.3f s  median %.3f s  (%d runs)\n", n, t[1], t[int((r + 1) / 2)], r }'
done
