#!/usr/bin/env bash
# Builds tarsel-modbusd, prints the register-map description of the shipped UPS
# map (as it reads once the simulated UPS has been detected), then starts the
# daemon on the shipped map and scenario, listening on 127.0.0.1:1502, until
# interrupted. Extra arguments go to the daemon, e.g.
#   scripts/run.sh --verbose --run-seconds 60
#   scripts/run.sh --describe=csv
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh run
scripts/preflight.sh run >/dev/null
# A build tree of its own, without the test suite, so that serving needs only
# the run packages.
cmake -S . -B build/run -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARSEL_MODBUS_BUILD_TESTS=OFF \
    -DTARSEL_MODBUS_BUILD_EXAMPLES=OFF >/dev/null
cmake --build build/run -j "$(nproc)" --target tarsel-modbusd >/dev/null
daemon=build/run/daemon/tarsel-modbusd

for arg in "$@"; do
    case "$arg" in
    --describe* | --check | --help | -h) exec "$daemon" "$@" ;;
    esac
done
"$daemon" --describe --describe-at 4 "$@"
echo
exec "$daemon" "$@"
