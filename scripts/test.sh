#!/usr/bin/env bash
# Builds and runs every test. Installs what it needs first.
#   scripts/test.sh              the host suite, warnings as errors, then the
#                                armhf suite under qemu-arm and its size report
#   scripts/test.sh --sanitize   the host suite under AddressSanitizer + UBSan
#   scripts/test.sh --tsan       the tests that run threads (ctest label
#                                "threads": the host store, the library's
#                                connection, the NUT pollers, the NUT e2e
#                                tests) under ThreadSanitizer
#   scripts/test.sh --armhf      the armhf suite alone
#   scripts/test.sh --fma        the unit suite built with fused multiply-add
#                                enabled (x86-64 -mfma)
set -euo pipefail
cd "$(dirname "$0")/.."

mode="host"
[ "${1:-}" = "--sanitize" ] && mode="sanitize"
[ "${1:-}" = "--tsan" ] && mode="tsan"
[ "${1:-}" = "--armhf" ] && mode="armhf"
[ "${1:-}" = "--fma" ] && mode="fma"

scripts/install-deps.sh test
scripts/preflight.sh test
jobs=$(nproc)

# Runs one phase and prints its wall time.
phase() {
    local name="$1" start=$SECONDS
    shift
    echo "== $name"
    "$@"
    echo "== $name: $((SECONDS - start)) s"
}

# Sets `launcher` to the CMake options that compile through ccache, where
# it is installed (nothing otherwise).
launcher=()
use_ccache() {
    if command -v ccache >/dev/null; then
        launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
        export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=true
    fi
}

# The card's target: cross-built for 32-bit ARM (optimised, no debug info),
# every test run under qemu-arm, then the size of what goes on the card.
armhf_suite() {
    scripts/armhf-sysroot.sh build/arm/sysroot
    use_ccache
    cmake --preset arm "${launcher[@]}" >/dev/null
    cmake --build build/arm -j "$jobs"
    ctest --test-dir build/arm -j "$jobs" --output-on-failure
    scripts/size-report.sh build/arm
}

case "$mode" in
host)
    cmake -S . -B build/host -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARSEL_MODBUS_WERROR=ON \
        -DTARSEL_MODBUS_BUILD_BENCHMARKS=ON >/dev/null
    cmake --build build/host -j "$jobs"
    ctest --test-dir build/host -j "$jobs" --output-on-failure
    echo "== host suite: $SECONDS s"
    phase "armhf suite" armhf_suite
    # Both passed; check that they were the same unit tests.
    scripts/same-tests.py build/host build/arm
    ;;
armhf)
    phase "armhf suite" armhf_suite
    ;;
fma)
    # The unit suite with FMA instructions available to the compiler: the
    # golden rows must not change when products could be fused with sums.
    if ! grep -qw fma /proc/cpuinfo; then
        echo "this machine has no FMA: the --fma suite cannot run here" >&2
        exit 1
    fi
    cmake -S . -B build/fma -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARSEL_MODBUS_WERROR=ON \
        -DCMAKE_C_FLAGS=-mfma -DCMAKE_CXX_FLAGS=-mfma -DTARSEL_MODBUS_BUILD_DAEMON=OFF \
        -DTARSEL_MODBUS_BUILD_EXAMPLES=OFF -DTARSEL_MODBUS_INSTALL=OFF >/dev/null
    cmake --build build/fma -j "$jobs"
    ctest --test-dir build/fma -j "$jobs" --output-on-failure -E '^scripts\.'
    echo "== fma suite: $SECONDS s"
    ;;
tsan)
    # Only what runs threads is built and run: the rest of the suite is
    # single-threaded, and ThreadSanitizer makes every build and run slower.
    # Debug: a build from an empty cache takes half the time RelWithDebInfo
    # does, and the run is mostly the e2e tests waiting on upsd anyway.
    # Reports go to files, so that one from a daemon an e2e test started
    # (whose stderr is the test's to read) is seen too; any report fails.
    use_ccache
    cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=Debug -DTARSEL_MODBUS_WERROR=ON \
        -DTARSEL_MODBUS_SANITIZE_THREAD=ON -DTARSEL_MODBUS_BUILD_EXAMPLES=OFF \
        -DTARSEL_MODBUS_INSTALL=OFF "${launcher[@]}" >/dev/null
    cmake --build build/tsan -j "$jobs" --target tarsel_threaded_tests
    reports=build/tsan/tsan-reports
    rm -rf "$reports"
    mkdir -p "$reports"
    status=0
    TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:log_path=$PWD/$reports/report" \
        ctest --test-dir build/tsan -L threads -j "$jobs" --output-on-failure || status=$?
    if [ -n "$(ls -A "$reports")" ]; then
        cat "$reports"/* >&2
        echo "ThreadSanitizer reported the above" >&2
        status=1
    fi
    echo "== tsan suite: $SECONDS s"
    exit "$status"
    ;;
sanitize)
    cmake -S . -B build/sanitize -DCMAKE_BUILD_TYPE=Debug -DTARSEL_MODBUS_WERROR=ON \
        -DTARSEL_MODBUS_SANITIZE=ON >/dev/null
    cmake --build build/sanitize -j "$jobs"
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        ctest --test-dir build/sanitize -j "$jobs" --output-on-failure
    echo "== sanitize suite: $SECONDS s"
    ;;
esac
