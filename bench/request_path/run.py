#!/usr/bin/env python3
"""Request-path benchmark: tarsel-modbusd against a static libmodbus server and
a loopback echo floor, driven by one libmodbus client.

Every server answers the same requests at the same addresses (the daemon serves
its built-in UPS map). Rounds are interleaved (each round runs every server
once, in a rotating order) so that whatever else the machine does falls on all
of them alike; the median of the rounds is reported with the ratio to the
static server. Placements: "same" pins server and client to one core (the
card's case: one core does everything), "cross" puts them on two.

With --callgrind the servers also run under valgrind's callgrind, and the
instructions they execute per request (idle time subtracted) are reported,
with the cost per served register taken from the difference between the
125-register and the 2-register reads.

Usage: bench/request_path/run.py [--build build/bench] [--rounds 7]
       [--requests 20000] [--placement same|cross|both] [--callgrind]
"""
import argparse
import json
import os
import re
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

REQUESTS = [  # name, function, address, quantity
    ("FC3, 2 registers", 3, 0, 2),
    ("FC3, 10 registers", 3, 0, 10),
    ("FC3, 125 registers", 3, 0, 125),
    ("FC4, 125 registers", 4, 0, 125),
    ("FC1, 16 coils", 1, 0, 16),
]


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Server:
    """One server process, pinned to a core, stopped by its process id."""

    def __init__(self, name, command, port, core, wrapper=()):
        self.name, self.port = name, port
        self.process = subprocess.Popen(
            ["taskset", "-c", str(core), *wrapper, *command],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(timeout=60)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()


def load(client, port, request, count, core):
    """Runs the load client; requests per second, or None when it failed."""
    _, function, address, quantity = request
    result = subprocess.run(
        ["taskset", "-c", str(core), client, str(port), str(function), str(address),
         str(quantity), str(count)], capture_output=True, text=True, timeout=600)
    match = re.search(r"per_second ([0-9.]+)", result.stdout)
    return float(match.group(1)) if result.returncode == 0 and match else None


def wait_served(client, port, deadline_seconds):
    """Waits until every request kind is answered (the daemon's map opens a
    few seconds after start, once the simulated UPS is detected)."""
    deadline = time.monotonic() + deadline_seconds
    while time.monotonic() < deadline:
        if all(load(client, port, request, 1, 0) for request in REQUESTS):
            return True
        time.sleep(0.25)
    return False


def dense_map(path):
    """A map with an entry on every address the requests read: 125 holding and
    125 input registers (one-register numbers over the simulated UPS's
    channels, many entries per channel as a real map has) and 16 coils, so
    that the cost per served register is measured on registers that are
    served, not on holes."""
    numbers = [("float16", "Input.L1.Voltage", {"multiplier": 10}),
               ("float16", "Input.Frequency", {"multiplier": 10}),
               ("uint16", "Battery.Charge", {}),
               ("uint16", "Output.Load", {}),
               ("int16", "Battery.TemperatureC", {})]
    entries = []
    for table in ("holding-registers", "input-registers"):
        for address in range(125):
            encoder, channel, options = numbers[address % len(numbers)]
            entries.append({"name": f"{table}.{address}", "table": table, "address": address,
                            "encoder": encoder, "source": {"device": 2, "channel": channel},
                            **options})
    for address in range(16):
        entries.append({"name": f"coil.{address}", "table": "coils", "address": address,
                        "encoder": "boolean",
                        "source": {"device": 2, "path": [address % 2], "channel": "Outlet.Switch.On"}})
    with open(path, "w") as out:
        json.dump({"description": "request-path benchmark: every read address served",
                   "unavailable": {"mode": "sentinel", "word": 65535}, "entries": entries}, out)


def start_servers(build, core, map_file, wrapper=()):
    map_options = ["--map", map_file] if map_file else []
    programs = {
        "tarsel-modbusd": lambda port: [os.path.join(build, "daemon", "tarsel-modbusd"),
                                        "--port", str(port), *map_options],
        "static libmodbus": lambda port: [os.path.join(build, "bench", "bench_static_server"),
                                          str(port)],
        "echo floor": lambda port: [os.path.join(build, "bench", "bench_echo_floor"), str(port)],
    }
    servers = []
    for name, command in programs.items():
        port = free_port()
        servers.append(Server(name, command(port), port, core, wrapper))
    return servers


def throughput(args, client):
    placements = ["same", "cross"] if args.placement == "both" else [args.placement]
    servers = start_servers(args.build, core=0, map_file=args.map_file)
    try:
        for server in servers:
            if not wait_served(client, server.port, 30):
                sys.exit(f"request-path: {server.name} does not answer every request")
        for placement in placements:
            client_core = 0 if placement == "same" else 1
            print(f"\n## Throughput, {placement}-core placement (median of {args.rounds} "
                  f"rounds of {args.requests} requests, requests/s)\n")
            print("| request | " + " | ".join(s.name for s in servers) +
                  " | tarsel / static | floor / static |")
            print("|---|" + "---|" * (len(servers) + 2))
            for request in REQUESTS:
                rates = {s.name: [] for s in servers}
                for round_index in range(args.rounds):
                    order = servers[round_index % len(servers):] + servers[:round_index % len(servers)]
                    for server in order:
                        rate = load(client, server.port, request, args.requests, client_core)
                        if rate is None:
                            sys.exit(f"request-path: {server.name} failed {request[0]}")
                        rates[server.name].append(rate)
                median = {name: statistics.median(values) for name, values in rates.items()}
                static = median["static libmodbus"]
                print(f"| {request[0]} | " +
                      " | ".join(f"{median[s.name] / 1000:.1f}k" for s in servers) +
                      f" | {median['tarsel-modbusd'] / static:.2f} | "
                      f"{median['echo floor'] / static:.2f} |", flush=True)
    finally:
        for server in servers:
            server.stop()


def callgrind_instructions(out_file):
    with open(out_file) as dump:
        for line in dump:
            if line.startswith(("summary:", "totals:")):
                return int(line.split()[1])
    raise RuntimeError(f"no totals in {out_file}")


# How long a dump asked of callgrind may take to appear.
DUMP_WAIT_SECONDS = 60


def new_dump(workdir, before, pid):
    """The dump of process `pid` that is not among the names `before`; None
    while there is none. Callgrind names a process's dumps callgrind.out.<pid>
    and callgrind.out.<pid>.<n>."""
    own = f"callgrind.out.{pid}"
    fresh = [name for name in os.listdir(workdir)
             if name not in before and (name == own or name.startswith(own + "."))]
    if len(fresh) > 1:
        raise RuntimeError(f"more than one new dump of process {pid}: {sorted(fresh)}")
    return os.path.join(workdir, fresh[0]) if fresh else None


def measured_instructions(server, client, request, count, workdir):
    """Instructions the server executes for `count` requests, less what it
    executes idle over the same time."""
    pid = server.process.pid

    def window(action):
        subprocess.run(["callgrind_control", "--zero", str(pid)], check=True, capture_output=True)
        started = time.monotonic()
        action()
        elapsed = time.monotonic() - started
        # The window's own dump, told apart by name from every dump before it
        # and from other processes' dumps.
        before = set(os.listdir(workdir))
        subprocess.run(["callgrind_control", "--dump", str(pid)], check=True,
                       capture_output=True)
        deadline = time.monotonic() + DUMP_WAIT_SECONDS
        while True:
            dump = new_dump(workdir, before, pid)
            if dump is not None:
                try:
                    return callgrind_instructions(dump), elapsed
                except RuntimeError:
                    pass  # still being written
            if time.monotonic() >= deadline:
                raise RuntimeError(f"callgrind wrote no whole dump of process {pid} "
                                   f"within {DUMP_WAIT_SECONDS} s")
            time.sleep(0.1)

    busy, elapsed = window(lambda: load(client, server.port, request, count, 1))
    idle, _ = window(lambda: time.sleep(elapsed))
    return max(busy - idle, 0) / count


def callgrind(args, client):
    print(f"\n## Server instructions per request (callgrind, {args.callgrind_requests} requests, "
          "idle subtracted)\n")
    with tempfile.TemporaryDirectory() as workdir:
        wrapper = ("valgrind", "--tool=callgrind", f"--callgrind-out-file={workdir}/callgrind.out.%p")
        started = start_servers(args.build, core=0, map_file=args.map_file, wrapper=wrapper)
        # The echo floor does no work worth counting; it is stopped at once
        # rather than left running.
        for server in started:
            if server.name == "echo floor":
                server.stop()
        servers = [s for s in started if s.name != "echo floor"]
        try:
            for server in servers:
                if not wait_served(client, server.port, 120):
                    sys.exit(f"request-path: {server.name} does not answer under callgrind")
            print("| request | " + " | ".join(s.name for s in servers) + " |")
            print("|---|" + "---|" * len(servers))
            per_request = {}
            for request in REQUESTS:
                load(client, servers[0].port, request, 100, 1)  # warm-up
                row = []
                for server in servers:
                    value = measured_instructions(server, client, request, args.callgrind_requests,
                                                  workdir)
                    per_request[(server.name, request[0])] = value
                    row.append(f"{value:,.0f}")
                print(f"| {request[0]} | " + " | ".join(row) + " |", flush=True)
            print("\nPer served register (FC3 125 less FC3 2, over 123 registers): " + ", ".join(
                f"{s.name} {(per_request[(s.name, 'FC3, 125 registers')] - per_request[(s.name, 'FC3, 2 registers')]) / 123:,.0f}"
                for s in servers))
        finally:
            for server in servers:
                server.stop()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/bench")
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--requests", type=int, default=20000)
    parser.add_argument("--placement", choices=["same", "cross", "both"], default="both")
    parser.add_argument("--callgrind", action="store_true")
    parser.add_argument("--callgrind-requests", type=int, default=2000)
    parser.add_argument("--map", choices=["dense", "shipped"], default="dense",
                        help="the daemon's map: every read address served (default), or the "
                             "built-in UPS map with its holes")
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as workdir:
        args.map_file = None
        if args.map == "dense":
            args.map_file = os.path.join(workdir, "dense-map.json")
            dense_map(args.map_file)
        print(f"# Request path: tarsel-modbusd ({args.map} map) against a static libmodbus server")
        run(args)


def run(args):
    client = os.path.join(args.build, "bench", "bench_load_client")
    if args.rounds > 0:
        throughput(args, client)
    if args.callgrind:
        callgrind(args, client)


if __name__ == "__main__":
    main()
