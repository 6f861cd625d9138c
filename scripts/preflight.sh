#!/usr/bin/env bash
# Checks that every tool, header and Python module a job uses is there, and
# names the Debian package of each one that is not, one line each, before a
# build or a suite fails on it half-way.
#   scripts/preflight.sh run     what building and running tarsel-modbusd needs
#   scripts/preflight.sh test    what the test suites build, import or run (default)
# Exits 1 when anything is missing. PREFLIGHT_PYTHON names the interpreter the
# end-to-end tests use (default /usr/bin/python3, as in tests/e2e).
set -uo pipefail

set_name="${1:-test}"
python="${PREFLIGHT_PYTHON:-/usr/bin/python3}"
missing=0

report() { # what, package
    echo "preflight: missing $1 (Debian package: $2)"
    missing=$((missing + 1))
}
need_command() { # command, package
    command -v "$1" >/dev/null 2>&1 || report "command '$1'" "$2"
}
need_file() { # path, package
    [ -e "$1" ] || report "$1" "$2"
}

# Python modules the end-to-end harness imports. A module that is there but
# fails to import one of its own dependencies is reported by that
# dependency's package.
python_package() {
    case "$1" in
    pymodbus) echo python3-pymodbus ;;
    serial_asyncio) echo python3-serial-asyncio ;;
    serial) echo python3-serial ;;
    cryptography) echo python3-cryptography ;;
    prometheus_client) echo python3-prometheus-client ;;
    *) echo "unknown: the one providing Python module '$1'" ;;
    esac
}
need_python_module() { # module
    local module="$1" absent
    if [ ! -x "$python" ]; then
        return # reported once as a missing command
    fi
    absent=$("$python" - "$module" 2>/dev/null <<'PY'
import importlib, sys
try:
    importlib.import_module(sys.argv[1])
except ModuleNotFoundError as error:
    print(error.name or sys.argv[1])
except Exception as error:
    print(sys.argv[1])
PY
    )
    [ -z "$absent" ] && return
    report "Python module '${absent%%.*}' (imported through '$module')" "$(python_package "${absent%%.*}")"
}

# libFuzzer's runtime comes with clang's runtime libraries, in a folder named
# after clang's version.
need_libfuzzer() {
    local found=(/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-*.a)
    [ -e "${found[0]}" ] || report "libFuzzer (libclang_rt.fuzzer)" libclang-rt-14-dev
}

run_checks() {
    need_command c++ build-essential
    need_command make build-essential
    need_command cmake cmake
    need_command pkg-config pkg-config
    need_file /usr/include/modbus/modbus.h libmodbus-dev
    need_file /usr/include/nlohmann/json.hpp nlohmann-json3-dev
    need_file /usr/include/simdjson.h libsimdjson-dev
    need_file /usr/include/upsclient.h libupsclient-dev
    need_file /usr/include/openssl/ssl.h libssl-dev
    need_file /usr/include/CLI/CLI.hpp libcli11-dev
    need_file /usr/include/mimalloc.h libmimalloc-dev
}

test_checks() {
    run_checks
    need_command git git
    need_file /usr/include/gtest/gtest.h libgtest-dev
    need_file /usr/include/gmock/gmock.h libgmock-dev
    need_file /usr/src/googletest/CMakeLists.txt googletest
    need_file /usr/include/benchmark/benchmark.h libbenchmark-dev
    need_command clang-format clang-format
    need_command openssl openssl
    need_command clang clang
    need_command clang++ clang
    need_libfuzzer
    need_command arm-linux-gnueabihf-g++ g++-arm-linux-gnueabihf
    need_command qemu-arm qemu-user
    need_command mbpoll mbpoll
    need_command strace strace
    need_file /lib/nut/upsd nut-server
    need_file /lib/nut/dummy-ups nut-server
    need_command upsc nut-client
    need_command upsrw nut-client
    need_command upscmd nut-client
    need_command dpkg-deb dpkg
    need_command readelf binutils
    need_command lintian lintian
    need_command dpkg-shlibdeps dpkg-dev
    need_command systemd-analyze systemd
    need_command man man-db
    need_command gzip gzip
    [ -x "$python" ] || report "Python interpreter $python" python3
    need_python_module pymodbus.client
    need_python_module pymodbus.payload
    need_python_module pymodbus.constants
    # read_device_information lives in pymodbus's extended (repl) client.
    need_python_module pymodbus.repl.client.mclient
    need_python_module cryptography.x509
    # The metrics page is checked with a Prometheus text parser of its own.
    need_python_module prometheus_client.parser
}

case "$set_name" in
run) run_checks ;;
test) test_checks ;;
*)
    echo "preflight: unknown set '$set_name' (run or test)" >&2
    exit 2
    ;;
esac

if [ "$missing" -gt 0 ]; then
    echo "preflight: $missing missing; install with: sudo apt-get install --no-install-recommends <package>" >&2
    exit 1
fi
echo "preflight: everything the $set_name job needs is there"
