#!/usr/bin/env bash
# Runs every libFuzzer target for a number of seconds each, starting from its checked-in seeds
# (tests/fuzz/corpus/<target>/), and prints executions, coverage and crashes per target. New
# inputs go to a scratch corpus, never into the repository; a crashing input is kept in
# build/fuzz-artifacts/<target>/ and the script fails.
#   scripts/fuzz.sh [SECONDS] [BUILD_DIR]     (defaults: 10 s, build/fuzz)
#   KESTRELVUE_FUZZ_SEED=N   libFuzzer's seed (default 1, so that a CI run can be repeated;
#                            0 picks a new one each run, for long runs)
set -uo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-10}
build=${2:-build/fuzz}
targets=("$build"/tests/fuzz/*Fuzz)
if [ ! -x "${targets[0]}" ]; then
  echo "fuzz.sh: no fuzz targets in $build/tests/fuzz (build with -DKESTRELVUE_FUZZERS=ON)" >&2
  exit 2
fi
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failed=0
printf '%-22s %12s %8s %8s %s\n' target executions cov features crashes
for target in "${targets[@]}"; do
  name=$(basename "$target")
  seeds=tests/fuzz/corpus/$name
  artifacts=$PWD/build/fuzz-artifacts/$name/
  mkdir -p "$scratch/$name" "$artifacts" "$seeds"
  log=$scratch/$name.log
  "$target" -max_total_time="$seconds" -seed="${KESTRELVUE_FUZZ_SEED:-1}" -print_final_stats=1 \
    -rss_limit_mb=2048 \
    -artifact_prefix="$artifacts" "$scratch/$name" "$seeds" >"$log" 2>&1
  status=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
  ft=$(grep -o 'ft: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
  crashes=0
  if [ "$status" != 0 ]; then
    crashes=$(find "$artifacts" -type f | wc -l)
    [ "$crashes" = 0 ] && crashes=1
    failed=1
    echo "---- $name failed (status $status); last lines:" >&2
    tail -30 "$log" >&2
  fi
  printf '%-22s %12s %8s %8s %s\n' "$name" "${runs:-?}" "${cov:-?}" "${ft:-?}" "$crashes"
done
exit "$failed"
