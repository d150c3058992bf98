#!/usr/bin/env bash
# From a fresh clone to a scored drive on a map: installs what the library and the tool need,
# builds only those (release), replays an example drive on the tool's in-process reference
# service, prints the report and writes the map.
#   bash scripts/demo.sh [DRIVE.kvd]     default: examples/drives/city-aggressive.kvd
# The map lands in build/demo/map.svg (open it in a browser); the JSON report beside it.
set -euo pipefail
cd "$(dirname "$0")/.."
drive=${1:-examples/drives/city-aggressive.kvd}

bash scripts/install-deps.sh --tool
launcher=()
if command -v ccache >/dev/null 2>&1; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
echo "== building the library and the tool (release)" >&2
cmake -S . -B build/demo -DCMAKE_BUILD_TYPE=Release -DKESTRELVUE_TESTS=OFF "${launcher[@]}" >/dev/null
cmake --build build/demo --target kestrelvue-cli -j"$(nproc)" >build/demo-build.log 2>&1 || {
  tail -40 build/demo-build.log >&2
  exit 1
}

truth=()
[ -f "${drive%.kvd}.truth" ] && truth=(--truth "${drive%.kvd}.truth")
echo "== replaying $drive" >&2
build/demo/tools/kestrelvue replay "$drive" "${truth[@]}" --map build/demo/map.svg
echo "== the map: build/demo/map.svg" >&2
