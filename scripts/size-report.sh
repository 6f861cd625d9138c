#!/usr/bin/env bash
# Size report of the shared library of a build tree: the stripped size (what
# goes on the card), the sizes of its sections, and the count of exported
# symbols (the library's ABI surface; everything not marked for export is
# hidden).
#
# Usage: scripts/size-report.sh [BUILD_DIR]     (default: build/arm)
set -euo pipefail
cd "$(dirname "$0")/.."

build="${1:-build/arm}"
library="$(readlink -f "$build/libtarsel_modbus.so")"
if [ ! -f "$library" ]; then
    echo "size-report: no libtarsel_modbus.so in $build" >&2
    exit 1
fi

# The binutils of the library's machine: the cross ones for ARM.
prefix=""
if readelf -h "$library" | grep -q "Machine:.*ARM"; then
    prefix="arm-linux-gnueabihf-"
fi
machine="$(readelf -h "$library" | sed -n 's/^ *Machine: *//p')"

stripped="$(mktemp)"
trap 'rm -f "$stripped"' EXIT
"${prefix}strip" --strip-unneeded -o "$stripped" "$library"

bytes() { stat -c %s "$1"; }
# Defined dynamic symbols of global or weak binding: what a program can link against.
exported="$("${prefix}nm" -D --defined-only "$library" | awk '$2 ~ /^[A-Za-z]$/ && $2 !~ /^[a-z]$/ || $2 == "w" || $2 == "v" || $2 == "u" {print $3}')"
exported_count="$(printf '%s\n' "$exported" | grep -c . || true)"
in_namespace="$(printf '%s\n' "$exported" | "${prefix}c++filt" | grep -c '^\(typeinfo\( name\)\? for \|vtable for \)\?modbus::' || true)"

echo "== size report: $(basename "$library") ($machine)"
printf '  %-34s %10s bytes\n' "as built:" "$(bytes "$library")"
printf '  %-34s %10s bytes\n' "stripped:" "$(bytes "$stripped")"
"${prefix}size" -A "$stripped" | awk '$1 ~ /^\.(text|rodata|data|data\.rel\.ro|bss|dynsym|dynstr|eh_frame|ARM\.exidx|ARM\.extab)$/ {
    printf "  %-34s %10s bytes\n", "  " $1 ":", $2 }'
printf '  %-34s %10s\n' "exported symbols:" "$exported_count"
printf '  %-34s %10s\n' "  of them in namespace modbus:" "$in_namespace"
