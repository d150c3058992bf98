#!/usr/bin/env bash
# The project's test command: installs missing Debian packages, builds, runs the whole suite, then
# the suite again under AddressSanitizer + UndefinedBehaviorSanitizer.
#   KESTRELVUE_SKIP_SANITIZERS=1  skip the sanitizer run
#   KESTRELVUE_TSAN=1             also run the suite under ThreadSanitizer
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)
launcher=()
if command -v ccache >/dev/null 2>&1; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:detect_stack_use_after_return=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}

# Configures, builds and runs one configuration in build/<name>.
suite() {
  local name=$1
  shift
  echo "== $name"
  cmake -S . -B "build/$name" "${launcher[@]}" "$@" >/dev/null
  cmake --build "build/$name" -j"$jobs"
  # A hung test fails after five minutes instead of stalling the run.
  ctest --test-dir "build/$name" --output-on-failure -j"$jobs" --timeout 300
}

suite release -DCMAKE_BUILD_TYPE=RelWithDebInfo
if [ "${KESTRELVUE_SKIP_SANITIZERS:-0}" != 1 ]; then
  suite asan -DCMAKE_BUILD_TYPE=Debug -DKESTRELVUE_ASAN=ON
fi
if [ "${KESTRELVUE_TSAN:-0}" = 1 ]; then
  suite tsan -DCMAKE_BUILD_TYPE=Debug -DKESTRELVUE_TSAN=ON
fi
