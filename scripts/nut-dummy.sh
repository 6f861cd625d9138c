#!/usr/bin/env bash
# Starts a local upsd with the dummy-ups driver, so the NUT source of
# tarsel-modbusd can be tried without a UPS: everything (configuration,
# state, PID files) in a directory of its own, upsd on a loopback port.
#
#   scripts/nut-dummy.sh start [DIR] [PORT]   (default DIR build/nut-dummy, PORT 3493)
#   scripts/nut-dummy.sh stop  [DIR]
#
# The UPS is "dummy" with the values of daemon/nut/demo-ups.dev; edit the
# copy in DIR/etc/ (dummy-ups reads it again when it changes), or use upsrw
# and upscmd as the user "admin" with the password in DIR/etc/upsd.users.
# DIR/etc/tarsel-credentials (mode 600) names that user for the daemon's
# --nut-writes.
set -euo pipefail
cd "$(dirname "$0")/.."

action=${1:-start}
dir=$(realpath -m "${2:-build/nut-dummy}")
port=${3:-3493}
drivers=/lib/nut

for tool in "$drivers/dummy-ups" "$drivers/upsd" upsc; do
    if ! command -v "$tool" >/dev/null; then
        echo "nut-dummy: $tool is missing: apt-get install nut-server nut-client" >&2
        exit 1
    fi
done

# Run as the caller; when that is root, the NUT programs stay root instead
# of switching to the "nut" user, which could not read this directory.
user=$(id -un)
export NUT_CONFPATH=$dir/etc NUT_STATEPATH=$dir/state

stop() {
    for name in upsd dummy-ups-dummy; do
        local pidfile=$dir/state/$name.pid
        if [[ -f $pidfile ]]; then
            kill "$(cat "$pidfile")" 2>/dev/null || true
            rm -f "$pidfile"
        fi
    done
}

if [[ $action == stop ]]; then
    stop
    echo "nut-dummy: stopped"
    exit 0
fi

mkdir -p "$dir/etc" "$dir/state"
chmod 700 "$dir/state"
cp daemon/nut/demo-ups.dev "$dir/etc/dummy.dev"
cat > "$dir/etc/ups.conf" <<CONF
[dummy]
    driver = dummy-ups
    port = dummy.dev
    desc = "dummy-ups for tarsel-modbusd"
CONF
cat > "$dir/etc/upsd.conf" <<CONF
LISTEN 127.0.0.1 $port
STATEPATH $dir/state
CONF
cat > "$dir/etc/upsd.users" <<CONF
[admin]
    password = dummy-admin
    actions = SET
    instcmds = ALL
CONF
# Private from the start: no moment at which others could read it.
(umask 077 && cat > "$dir/etc/tarsel-credentials") <<CONF
# The upsd user tarsel-modbusd writes back as (--nut-credentials).
username = admin
password = dummy-admin
CONF
chmod 600 "$dir/etc/upsd.users" "$dir/etc/upsd.conf" "$dir/etc/tarsel-credentials"

stop
"$drivers/dummy-ups" -a dummy -u "$user"
"$drivers/upsd" -u "$user"
# The commands name a program that is there to run from the checkout: the
# one scripts/run.sh built, else that of the test build, else scripts/run.sh
# itself (which builds it and passes the options on).
daemon=scripts/run.sh
for built in build/run/daemon/tarsel-modbusd build/host/daemon/tarsel-modbusd; do
    if [[ -x $built ]]; then
        daemon=$built
        break
    fi
done
for _ in $(seq 50); do
    if upsc dummy@127.0.0.1:"$port" ups.status >/dev/null 2>&1; then
        echo "nut-dummy: upsd on 127.0.0.1:$port serves dummy (state in $dir)"
        echo "  $daemon --nut dummy@127.0.0.1:$port --map daemon/maps/nut-ups-map.json"
        echo "and, writing back to it:"
        echo "  $daemon --nut dummy@127.0.0.1:$port --map daemon/maps/nut-ups-map.json \\"
        echo "      --nut-writes --nut-credentials $dir/etc/tarsel-credentials"
        exit 0
    fi
    sleep 0.2
done
echo "nut-dummy: upsd did not come up; see its log above" >&2
exit 1
