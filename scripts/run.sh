#!/usr/bin/env bash
# Builds the project and runs the main job. Installs what it needs first.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build/host -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/host -j "$(nproc)" --target serve_simulated_ups
exec build/host/examples/serve_simulated_ups "$@"
