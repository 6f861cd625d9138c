#!/usr/bin/env bash
# Builds and runs every test. Installs what it needs first.
#   scripts/test.sh              the host suite, warnings as errors
#   scripts/test.sh --sanitize   the host suite under AddressSanitizer + UBSan
set -euo pipefail
cd "$(dirname "$0")/.."

mode="host"
[ "${1:-}" = "--sanitize" ] && mode="sanitize"

scripts/install-deps.sh
jobs=$(nproc)

case "$mode" in
host)
    cmake -S . -B build/host -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARSEL_MODBUS_WERROR=ON >/dev/null
    cmake --build build/host -j "$jobs"
    ctest --test-dir build/host -j "$jobs" --output-on-failure
    ;;
sanitize)
    cmake -S . -B build/sanitize -DCMAKE_BUILD_TYPE=Debug -DTARSEL_MODBUS_WERROR=ON \
        -DTARSEL_MODBUS_SANITIZE=ON >/dev/null
    cmake --build build/sanitize -j "$jobs"
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        ctest --test-dir build/sanitize -j "$jobs" --output-on-failure
    ;;
esac
