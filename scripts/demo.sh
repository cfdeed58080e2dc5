#!/usr/bin/env bash
# Installs what is missing, builds the norvane-cloud tool and runs its demo on the bundled samples.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-dependencies.sh demo
build=${NORVANE_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target norvane-cloud
exec "$build/tools/norvane-cloud" demo "$@"
