#!/usr/bin/env bash
# The project's test command: install what is missing, build, run the whole suite, then the
# suite again under AddressSanitizer + UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/release -j"$jobs"
ctest --test-dir build/release --output-on-failure -j"$jobs"
if [ "${KESTRELVUE_SKIP_SANITIZERS:-0}" != 1 ]; then
  cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=Debug -DKESTRELVUE_ASAN=ON >/dev/null
  cmake --build build/asan -j"$jobs"
  ctest --test-dir build/asan --output-on-failure -j"$jobs"
fi
