#!/usr/bin/env bash
# The test command: installs what is missing, builds the default and the
# sanitizer presets and runs every test in both. A run that finds no test
# fails.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

jobs=$(nproc 2>/dev/null || echo 2)
for preset in default asan; do
    echo "=== ${preset}: configure and build"
    cmake --preset "$preset"
    cmake --build --preset "$preset" -j "$jobs"
    echo "=== ${preset}: test"
    ctest --preset "$preset" --no-tests=error -j "$jobs"
done
