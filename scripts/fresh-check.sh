#!/usr/bin/env bash
# Proves that the README's two set-up commands work on a fresh Debian 12
# machine: makes a clean Debian 12 root (apt, git and sudo, nothing else),
# clones the committed tree (HEAD) into it, and, as an ordinary user with sudo,
# runs exactly what the README says:
#   scripts/run.sh          bounded here with --run-seconds 5
#   scripts/test.sh
# then removes one package the end-to-end tests need and checks that the
# preflight stops, naming it. Uncommitted changes are not part of the check.
#
# Usage: scripts/fresh-check.sh [--keep]      (--keep leaves the root for a look)
# Needs root (uses sudo otherwise), mmdebstrap (installed when missing) and
# Debian's package mirror. Takes a few GiB under /var/tmp while it runs.
set -euo pipefail
cd "$(dirname "$0")/.."
repo="$PWD"

keep=0
[ "${1:-}" = "--keep" ] && keep=1

if [ "$(id -u)" -ne 0 ]; then
    exec sudo "$0" "$@"
fi
if ! command -v mmdebstrap >/dev/null; then
    apt-get update -qq || echo "fresh-check: apt-get update reported errors" >&2
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends mmdebstrap >/dev/null
fi

root="$(mktemp -d /var/tmp/tarsel-fresh.XXXXXX)"
user=tester
mounted=()

# Every exit path leaves no mount behind; the root goes too unless --keep.
cleanup() {
    local status=$?
    for ((i = ${#mounted[@]} - 1; i >= 0; i--)); do
        umount "${mounted[i]}" 2>/dev/null || umount -l "${mounted[i]}" 2>/dev/null || true
    done
    if [ "$keep" -eq 1 ]; then
        echo "fresh-check: root kept at $root"
    else
        # Only remove it when nothing is mounted below it any more.
        if ! grep -q " $root/" /proc/self/mounts; then
            rm -rf --one-file-system "$root"
        else
            echo "fresh-check: mounts left below $root; not removed" >&2
        fi
    fi
    exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

phase_start=$SECONDS
phase() {
    echo "== fresh-check: $1 ($((SECONDS - phase_start)) s so far)"
}

phase "making a clean Debian 12 root in $root"
mmdebstrap --quiet --variant=apt --include=git,sudo,passwd \
    --customize-hook="chroot \"\$1\" useradd --create-home --shell /bin/bash $user" \
    --customize-hook="echo '$user ALL=(ALL) NOPASSWD: ALL' > \"\$1/etc/sudoers.d/$user\"" \
    bookworm "$root"
# What any installed machine has: name resolution and its own host name.
cp /etc/resolv.conf "$root/etc/resolv.conf"
hostname >"$root/etc/hostname"
printf '127.0.0.1\tlocalhost\n127.0.1.1\t%s\n' "$(hostname)" >"$root/etc/hosts"

bind_mount() { # source, target below the root
    mount --bind "$1" "$root$2"
    mounted+=("$root$2")
}
bind_mount /proc /proc
bind_mount /sys /sys
bind_mount /dev /dev
bind_mount /dev/pts /dev/pts

phase "cloning the committed tree ($(git -C "$repo" rev-parse --short HEAD))"
git clone --quiet --no-hardlinks "$repo" "$root/home/$user/tarsel"
chroot "$root" chown -R "$user:$user" "/home/$user/tarsel"

as_user() { # command line, run in the clone by the user's login shell
    chroot "$root" runuser --login "$user" --command "cd ~/tarsel && $1"
}

phase "the main job: scripts/run.sh --run-seconds 5"
as_user "scripts/run.sh --run-seconds 5"

phase "every test: scripts/test.sh"
as_user "scripts/test.sh"

phase "the preflight names a package that went missing"
as_user "sudo apt-get remove -y -qq python3-serial-asyncio >/dev/null"
if output=$(as_user "scripts/preflight.sh test"); then
    echo "fresh-check: the preflight passed without python3-serial-asyncio" >&2
    exit 1
fi
echo "$output"
echo "$output" | grep -q "^preflight: missing .*(Debian package: python3-serial-asyncio)$"

phase "passed"
