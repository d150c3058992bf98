#!/usr/bin/env bash
# Prints the size of the test suite against the size of the code it tests, in non-blank lines.
# Tests: every source under tests/ that a ctest test compiles or runs (the gtest files, the
# soak, the command-line and install checks, their support), not tests/data, nor the fuzz
# targets and benchmarks, which ctest does not run. Code: src/, include/, service/ and tools/,
# the service's load benchmark aside.
#   --max R  fail when the ratio is above R (the house rule is about a third)
#   --list   print each counted test file with its lines
set -euo pipefail
cd "$(dirname "$0")/.."
test_files() {
  git ls-files -- 'tests/*.cpp' 'tests/*.h' 'tests/*.sh' \
    ':!tests/data/*' ':!tests/fuzz/*' ':!tests/bench/*'
}
code_files() {
  git ls-files -- 'src/*.cpp' 'src/*.h' 'include/*.h' 'service/*.cpp' 'service/*.h' \
    'tools/*.cpp' 'tools/*.h' ':!service/bench/*'
}
lines() { grep -c -v '^[[:space:]]*$' "$1" || true; }
count() { while read -r f; do lines "$f"; done | awk '{ s += $1 } END { print s + 0 }'; }
if [ "${1:-}" = --list ]; then
  test_files | while read -r f; do printf '%6d %s\n' "$(lines "$f")" "$f"; done
fi
tests=$(test_files | count)
code=$(code_files | count)
ratio=$(awk -v t="$tests" -v c="$code" 'BEGIN { printf "%.3f", t / c }')
echo "test-ratio: $tests test lines, $code code lines, ratio $ratio"
if [ "${1:-}" = --max ]; then
  awk -v r="$ratio" -v m="$2" 'BEGIN { exit !(r <= m) }' || {
    echo "test-ratio: above the limit $2" >&2
    exit 1
  }
fi
