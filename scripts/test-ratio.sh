#!/usr/bin/env bash
# Prints the size of the test suite against the size of the code it tests, in non-blank lines:
# the gtest sources and tests/support against src/, include/, service/ and tools/.
# With --max R it fails when the ratio is above R (the house rule is about a third).
set -euo pipefail
cd "$(dirname "$0")/.."
count() { git ls-files -z "$@" | xargs -0 -r cat | grep -c -v '^[[:space:]]*$' || true; }
tests=$(count 'tests/*Test.cpp' 'tests/support/*')
code=$(count 'src/*.cpp' 'src/*.h' 'include/*.h' 'service/*.cpp' 'service/*.h' 'tools/*.cpp' 'tools/*.h')
ratio=$(awk -v t="$tests" -v c="$code" 'BEGIN { printf "%.3f", t / c }')
echo "test-ratio: $tests test lines, $code code lines, ratio $ratio"
if [ "${1:-}" = --max ]; then
  awk -v r="$ratio" -v m="$2" 'BEGIN { exit !(r <= m) }' || {
    echo "test-ratio: above the limit $2" >&2
    exit 1
  }
fi
