#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then builds and runs a host program against it
# twice: through find_package(kestrelvue) and through pkg-config.
set -euo pipefail
build=$1
source=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
cmake -S "$source" -B "$scratch/cmake-build" -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/cmake-build" >/dev/null
"$scratch/cmake-build/consumer"
libdir=$(find "$scratch/prefix" -name kestrelvue.pc -printf '%h\n' | head -1)
flags=$(PKG_CONFIG_PATH="$libdir" pkg-config --cflags --libs kestrelvue)
# shellcheck disable=SC2086
${CXX:-c++} -std=c++20 "$source/main.cpp" -o "$scratch/pc-consumer" $flags
"$scratch/pc-consumer"
echo "find_package and pkg-config consumers both built and ran"
