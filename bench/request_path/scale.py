#!/usr/bin/env python3
"""Scale benchmark: how tarsel-modbusd's start-up, shutdown, memory and
throughput grow with the size of its map.

For each size N it generates a UPS with N channels (device 2, served from the
first second on) and a map of N one-register holding registers, one per
channel, from address 0 on, then measures:
  start-up   from the process's start until a read of the map is answered
  RSS        resident memory once serving (VmRSS)
  throughput FC3 2 and FC3 125 registers (median of interleaved rounds)
  shutdown   from SIGTERM to the process's exit
and, for start-up and shutdown, the CPU time the daemon itself used (user and
system, from /proc and wait4), which a loaded machine does not inflate as much.
It prints the throughput on the largest map as a ratio of that on the
smallest. With --callgrind it instead runs the daemon under valgrind's
callgrind and prints the instructions it executes from its start until a read
is answered, and from SIGTERM to its exit: figures that the machine's load
does not change.

Usage: bench/request_path/scale.py [--build build/bench] [--sizes 125,5000,10000]
       [--callgrind]
"""
import argparse
import json
import os
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

STATUS_AVAILABLE = 16


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def write_world(directory, size):
    """A scenario with one UPS of `size` channels and a map over them."""
    channels = {f"Sensor.{i}": {"float": float(i % 500) / 10} for i in range(size)}
    channels["PowerDistribution.Status.OperatingStatus"] = {"uint32": STATUS_AVAILABLE}
    scenario = {"description": f"scale benchmark: a UPS with {size} channels",
                "devices": [{"id": 2, "name": "UPS", "channels": channels}],
                "events": []}
    entries = []
    for i in range(size):
        entries.append({"name": f"sensor.{i}", "table": "holding-registers", "address": i,
                        "encoder": "float16", "multiplier": 10,
                        "source": {"device": 2, "channel": f"Sensor.{i}"}})
    register_map = {"description": f"scale benchmark: {size} entries",
                    "unavailable": {"mode": "sentinel", "word": 65535}, "entries": entries}
    paths = (os.path.join(directory, f"scenario-{size}.json"),
             os.path.join(directory, f"map-{size}.json"))
    for path, content in zip(paths, (scenario, register_map)):
        with open(path, "w") as out:
            json.dump(content, out)
    return paths


def load(client, port, quantity, count):
    result = subprocess.run(["taskset", "-c", "1", client, str(port), "3", "0", str(quantity),
                             str(count)], capture_output=True, text=True, timeout=600)
    if result.returncode != 0:
        return None
    return float(result.stdout.split("per_second")[1])


def wait_until_served(daemon, client, port, limit_s, pause_s, what):
    """Asks for a read until one is answered; exits naming `what` when the
    daemon ends first or limit_s seconds pass."""
    deadline = time.monotonic() + limit_s
    while load(client, port, 2, 1) is None:
        if time.monotonic() > deadline or daemon.poll() is not None:
            sys.exit(f"{what} was not served")
        time.sleep(pause_s)


def cpu_seconds(pid):
    """User and system CPU time the process has used so far: unlike the wall
    clock, it does not grow with what else the machine runs."""
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def resident_kib(pid):
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def measure(args, client, size, directory):
    scenario, register_map = write_world(directory, size)
    port = free_port()
    started = time.monotonic()
    daemon = subprocess.Popen(
        ["taskset", "-c", "0", os.path.join(args.build, "daemon", "tarsel-modbusd"),
         "--map", register_map, "--scenario", scenario, "--port", str(port)],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_until_served(daemon, client, port, 120, 0.005, f"scale: the {size}-entry map")
        startup = time.monotonic() - started
        startup_cpu = cpu_seconds(daemon.pid)
        rss = resident_kib(daemon.pid)
        rates = {2: [], 125: []}
        for _ in range(args.rounds):
            for quantity in rates:
                rates[quantity].append(load(client, port, quantity, args.requests))
        serving_cpu = cpu_seconds(daemon.pid)
        stopping = time.monotonic()
        daemon.send_signal(signal.SIGTERM)
        _, status, usage = os.wait4(daemon.pid, 0)
        daemon.returncode = os.waitstatus_to_exitcode(status)
        shutdown = time.monotonic() - stopping
        shutdown_cpu = max(usage.ru_utime + usage.ru_stime - serving_cpu, 0.0)
    finally:
        if daemon.poll() is None:
            daemon.kill()
            daemon.wait()
    return {"startup": startup, "shutdown": shutdown, "rss": rss,
            "startup_cpu": startup_cpu, "shutdown_cpu": shutdown_cpu,
            "fc3x2": statistics.median(rates[2]), "fc3x125": statistics.median(rates[125])}


def callgrind_totals(path):
    with open(path) as dump:
        for line in dump:
            if line.startswith(("summary:", "totals:")):
                return int(line.split()[1])
    raise RuntimeError(f"no totals in {path}")


def measure_instructions(args, client, size, directory):
    """Instructions from the start until a read is answered (the first read
    included), and from SIGTERM to the exit."""
    scenario, register_map = write_world(directory, size)
    port = free_port()
    out = os.path.join(directory, f"callgrind-{size}")
    daemon = subprocess.Popen(
        ["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}",
         os.path.join(args.build, "daemon", "tarsel-modbusd"),
         "--map", register_map, "--scenario", scenario, "--port", str(port)],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_until_served(daemon, client, port, 600, 0.05,
                          f"scale: the {size}-entry map under callgrind")
        # The dump ends the start-up's count; zeroing starts the shutdown's.
        subprocess.run(["callgrind_control", "--dump=startup", str(daemon.pid)], check=True,
                       capture_output=True)
        subprocess.run(["callgrind_control", "--zero", str(daemon.pid)], check=True,
                       capture_output=True)
        daemon.send_signal(signal.SIGTERM)
        daemon.wait(timeout=600)
    finally:
        if daemon.poll() is None:
            daemon.kill()
            daemon.wait()
    return callgrind_totals(out + ".1"), callgrind_totals(out)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/bench")
    parser.add_argument("--sizes", default="125,5000,10000")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--requests", type=int, default=5000)
    parser.add_argument("--callgrind", action="store_true")
    args = parser.parse_args()
    client = os.path.join(args.build, "bench", "bench_load_client")
    sizes = [int(size) for size in args.sizes.split(",")]
    if args.callgrind:
        print("| entries | start-up instructions | shutdown instructions |")
        print("|---|---|---|")
        with tempfile.TemporaryDirectory() as directory:
            for size in sizes:
                startup, shutdown = measure_instructions(args, client, size, directory)
                print(f"| {size} | {startup / 1e6:.1f} M | {shutdown / 1e6:.1f} M |", flush=True)
        return
    print(f"load average {os.getloadavg()[0]:.1f} at the start (wall-clock figures grow with it; "
          "CPU figures are the daemon's own user and system time)\n")
    print("| entries | start-up | start-up CPU | shutdown | shutdown CPU | RSS | FC3 x2 | FC3 x125 |")
    print("|---|---|---|---|---|---|---|---|")
    results = {}
    with tempfile.TemporaryDirectory() as directory:
        for size in sizes:
            result = measure(args, client, size, directory)
            results[size] = result
            print(f"| {size} | {result['startup'] * 1000:.0f} ms | {result['startup_cpu'] * 1000:.0f} ms"
                  f" | {result['shutdown'] * 1000:.0f} ms | {result['shutdown_cpu'] * 1000:.0f} ms"
                  f" | {result['rss'] / 1024:.1f} MiB | {result['fc3x2'] / 1000:.1f}k/s"
                  f" | {result['fc3x125'] / 1000:.1f}k/s |", flush=True)
    smallest, largest = results[min(sizes)], results[max(sizes)]
    print(f"\nThroughput on {max(sizes)} entries as a ratio of {min(sizes)}: "
          f"FC3 x2 {largest['fc3x2'] / smallest['fc3x2']:.2f}, "
          f"FC3 x125 {largest['fc3x125'] / smallest['fc3x125']:.2f}")


if __name__ == "__main__":
    main()
