#!/usr/bin/env bash
# Builds tarsel-modbusd and starts it with the shipped UPS map and scenario,
# listening on 127.0.0.1:1502. Extra arguments go to the daemon, e.g.
#   scripts/run.sh --verbose --run-seconds 60
#   scripts/run.sh --describe
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build/host -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/host -j "$(nproc)" --target tarsel-modbusd
exec build/host/daemon/tarsel-modbusd "$@"
