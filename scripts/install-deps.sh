#!/usr/bin/env bash
# Installs the Debian 12 packages a job needs; only what is missing.
#   scripts/install-deps.sh run     what building and running tarsel-modbusd needs
#   scripts/install-deps.sh test    everything the test suites build, import or run
#                                   (also the default)
#   scripts/install-deps.sh SET extra-package ...
# Packages are installed without their Recommends, so every package the code
# really uses is named here, even where another package only recommends it
# (pymodbus's client imports serial_asyncio, which python3-pymodbus only
# recommends). scripts/preflight.sh checks the result.
set -euo pipefail

set_name="${1:-test}"
[ $# -gt 0 ] && shift

run_packages=(
    build-essential cmake pkg-config
    libmodbus-dev nlohmann-json3-dev libsimdjson-dev libssl-dev
    libupsclient-dev libcli11-dev libmimalloc-dev
)
test_packages=(
    "${run_packages[@]}"
    git openssl
    libgtest-dev libgmock-dev googletest libbenchmark-dev
    python3 python3-pymodbus python3-serial-asyncio python3-cryptography
    python3-prometheus-client mbpoll
    nut-server nut-client
    clang-format clang libclang-rt-14-dev
    g++-arm-linux-gnueabihf qemu-user
    lintian dpkg-dev systemd man-db strace
)

case "$set_name" in
run) packages=("${run_packages[@]}" "$@") ;;
test) packages=("${test_packages[@]}" "$@") ;;
*)
    echo "install-deps: unknown set '$set_name' (run or test)" >&2
    exit 2
    ;;
esac

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
