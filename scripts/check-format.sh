#!/usr/bin/env bash
# Fails when any C++ file in the repository differs from what clang-format makes of it.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -z '*.cpp' '*.h' '*.hpp' | xargs -0 -r clang-format --dry-run -Werror
echo "check-format: every C++ file is formatted"
