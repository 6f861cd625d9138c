#!/usr/bin/env bash
# Fuzzes the daemon with libFuzzer: the request handler (frames against the
# shipped map), the map loader and the scenario loader (arbitrary JSON).
#   scripts/fuzz.sh              20 s per target, the bounded run of CI
#   scripts/fuzz.sh 3600         an hour per target
#   scripts/fuzz.sh 600 map_loader   one target
# Each target starts from its checked-in seed corpus (tests/fuzz/corpus/),
# copied into build/fuzz/corpus/ so that what it learns stays out of the
# tree; crashes go to build/fuzz/findings/<target>/. Exits non-zero on any
# finding.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-20}"
shift || true
targets=("${@:-request_handler map_loader scenario_loader}")
targets=(${targets[*]})
build=build/fuzz
sanitizers="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all"
# The sanitizers check every access themselves; the release hardening
# (checked string functions, canaries) would only hide faults from them.

scripts/install-deps.sh
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_C_FLAGS="$sanitizers" -DCMAKE_CXX_FLAGS="$sanitizers" \
    -DTARSEL_MODBUS_FUZZ=ON -DTARSEL_MODBUS_INSTALL=OFF -DTARSEL_MODBUS_BUILD_EXAMPLES=OFF \
    -DTARSEL_MODBUS_HARDENING=OFF \
    >/dev/null
cmake --build "$build" -j "$(nproc)" --target $(printf 'fuzz_%s ' "${targets[@]}")

status=0
for target in "${targets[@]}"; do
    corpus="$build/corpus/$target"
    findings="$build/findings/$target"
    mkdir -p "$corpus" "$findings"
    cp -n tests/fuzz/corpus/"$target"/* "$corpus"/
    log="$build/$target.log"
    echo "== fuzz_$target: $seconds s"
    if ! ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
        "$build/tests/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 \
        -rss_limit_mb=2048 -max_len=4096 -print_final_stats=1 \
        -artifact_prefix="$findings/" "$corpus" >"$log" 2>&1; then
        status=1
        echo "fuzz_$target: FINDING (see $log and $findings/)"
        tail -40 "$log"
    fi
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo "?")
    echo "fuzz_$target: $runs executions, corpus $(ls "$corpus" | wc -l) inputs"
done
exit $status
