#!/usr/bin/env bash
# Prepares the armhf sysroot of the cross build: Debian's armhf libmodbus
# (runtime and development package) unpacked into a directory of the build
# tree. Nothing armhf is installed on the machine: the packages are only
# downloaded, which needs the armhf architecture in dpkg's list and apt's
# package lists for it. The C and C++ runtime come from the cross toolchain
# (/usr/arm-linux-gnueabihf) and are not copied.
#
# Usage: scripts/armhf-sysroot.sh [SYSROOT]     (default: build/arm/sysroot)
# Idempotent: does nothing when the sysroot is complete.
set -euo pipefail
cd "$(dirname "$0")/.."

sysroot="${1:-build/arm/sysroot}"
packages=(libmodbus5:armhf libmodbus-dev:armhf)
stamp="$sysroot/.complete"
multiarch="usr/lib/arm-linux-gnueabihf"

if [ -f "$stamp" ] && [ -f "$sysroot/$multiarch/pkgconfig/libmodbus.pc" ]; then
    exit 0
fi

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"

# apt only knows armhf packages once the architecture is added and the lists
# are fetched; both are done at most once per machine.
if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    echo "armhf-sysroot: adding the armhf architecture to dpkg (for downloads only)"
    $sudo dpkg --add-architecture armhf
fi
known() { apt-cache show "${packages[@]}" >/dev/null 2>&1; }
if ! known; then
    echo "armhf-sysroot: fetching the package lists"
    # A list of some other suite failing to download (a mirror in sync) does
    # not matter as long as the packages needed here become known; a mirror
    # caught in the middle of a sync is asked again a little later.
    for attempt in 1 2 3; do
        $sudo apt-get update -qq || echo "armhf-sysroot: apt-get update reported errors" >&2
        known && break
        if [ "$attempt" -lt 3 ]; then
            echo "armhf-sysroot: ${packages[*]} still unknown; asking again in 20 s" >&2
            sleep 20
        fi
    done
    if ! known; then
        echo "armhf-sysroot: apt does not know ${packages[*]}" >&2
        exit 1
    fi
fi

downloads="$sysroot.debs"
rm -rf "$sysroot" "$downloads"
mkdir -p "$sysroot" "$downloads"
# apt's sandbox user must be able to write where the packages land.
chmod 0777 "$downloads"
(cd "$downloads" && apt-get download -qq "${packages[@]}" 2>&1 | grep -v "unsandboxed" || true)

count=0
for deb in "$downloads"/*.deb; do
    [ -e "$deb" ] || break
    dpkg-deb -x "$deb" "$sysroot"
    echo "armhf-sysroot: unpacked $(dpkg-deb -f "$deb" Package) $(dpkg-deb -f "$deb" Version)"
    count=$((count + 1))
done
if [ "$count" -ne "${#packages[@]}" ]; then
    echo "armhf-sysroot: expected ${#packages[@]} packages, got $count" >&2
    exit 1
fi

# The development link is absolute in the package; make it relative so that
# it resolves inside the sysroot.
for link in "$sysroot/$multiarch"/*.so; do
    [ -L "$link" ] || continue
    target="$(readlink "$link")"
    case "$target" in
    /*) ln -sfn "$(basename "$target")" "$link" ;;
    esac
done

rm -rf "$downloads"
touch "$stamp"
echo "armhf-sysroot: ready in $sysroot"
