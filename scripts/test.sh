#!/usr/bin/env bash
# The test command: installs what is missing, builds the default and the
# sanitizer presets and runs every test in both, then runs each fuzz target
# for a bounded time (FUZZ_SECONDS, default 60). A run that finds no test
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

echo "=== fuzz: each target for ${FUZZ_SECONDS:-60} s"
scripts/fuzz.sh
