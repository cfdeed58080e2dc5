#!/usr/bin/env bash
# Installs what is missing, builds with warnings as errors and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-dependencies.sh test
build=${NORVANE_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNORVANE_CLOUD_WARNINGS_AS_ERRORS=ON >/dev/null
cmake --build "$build"
cd "$build"
ctest --output-on-failure -j2 --timeout 600
