#!/usr/bin/env bash
# Installs the Debian 12 packages the project needs; only what is missing.
# Usage: scripts/install-deps.sh [extra-package ...]
set -euo pipefail

packages=(
    build-essential cmake pkg-config git
    libmodbus-dev nlohmann-json3-dev libssl-dev openssl
    libgtest-dev libgmock-dev googletest libbenchmark-dev
    python3 python3-pymodbus python3-cryptography mbpoll
    clang-format clang libclang-rt-14-dev
    g++-arm-linux-gnueabihf qemu-user
    "$@"
)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
# A list that fails to download (a mirror in sync, a foreign architecture's
# list) need not stop the install: apt-get install fails if a package is
# really unavailable.
$sudo apt-get update -qq || echo "install-deps: apt-get update reported errors" >&2
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
