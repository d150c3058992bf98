#!/usr/bin/env bash
# Runs clang-tidy with the project's agreed checks (.clang-tidy) over the library, the service and
# the tools, using the compile commands of a build directory (default build/release). Any finding
# fails: the tree is kept clean.
#   bash scripts/tidy.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
if [ ! -f "$build/compile_commands.json" ]; then
  cmake -S . -B "$build" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
fi
runner=$(command -v run-clang-tidy || command -v run-clang-tidy-14)
out=$(mktemp)
trap 'rm -f "$out"' EXIT
"$runner" -p "$build" -j"$(nproc)" -quiet "$(pwd)/(src|service|tools)/.*\.cpp$" >"$out" 2>&1 || true
if grep -q "warning:\|error:" "$out"; then
  grep -A3 "warning:\|error:" "$out"
  echo "clang-tidy: findings above" >&2
  exit 1
fi
echo "clang-tidy: no findings"
