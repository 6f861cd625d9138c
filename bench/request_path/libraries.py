#!/usr/bin/env python3
"""Resident memory of a serving tarsel-modbusd by mapping: starts the daemon
on the scale benchmark's map of each size, waits until a read is answered,
then prints /proc/PID/smaps_rollup's Rss, Anonymous and file-backed totals
and the resident KiB of every file mapped (the executable and each shared
library), largest first.

Usage: bench/request_path/libraries.py [--daemon build/bench/daemon/tarsel-modbusd]
       [--client build/bench/bench/bench_load_client] [--sizes 125,10000]
"""
import argparse
import collections
import os
import signal
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from scale import free_port, wait_until_served, write_world  # noqa: E402


def rollup(pid):
    fields = {}
    with open(f"/proc/{pid}/smaps_rollup") as f:
        for line in f:
            parts = line.split()
            if len(parts) >= 2 and parts[0].endswith(":") and parts[1].isdigit():
                fields[parts[0][:-1]] = int(parts[1])
    return fields


def per_file(pid):
    """Resident KiB of each mapped file, all its mappings together."""
    sizes = collections.Counter()
    current = None
    with open(f"/proc/{pid}/smaps") as f:
        for line in f:
            first = line.split()[0]
            if not first.endswith(":"):
                parts = line.split(None, 5)
                current = parts[5].strip() if len(parts) == 6 else None
                if current is not None and not current.startswith("/"):
                    current = None
            elif first == "Rss:" and current is not None:
                sizes[current] += int(line.split()[1])
    return sizes


def measure(daemon_path, client, size, directory):
    scenario, register_map = write_world(directory, size)
    port = free_port()
    daemon = subprocess.Popen([daemon_path, "--map", register_map, "--scenario", scenario,
                               "--port", str(port)],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_until_served(daemon, client, port, 120, 0.01, f"libraries: the {size}-entry map")
        return rollup(daemon.pid), per_file(daemon.pid)
    finally:
        daemon.send_signal(signal.SIGTERM)
        try:
            daemon.wait(timeout=60)
        except subprocess.TimeoutExpired:
            daemon.kill()
            daemon.wait()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--daemon", default="build/bench/daemon/tarsel-modbusd")
    parser.add_argument("--client", default="build/bench/bench/bench_load_client")
    parser.add_argument("--sizes", default="125,10000")
    args = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="tarsel-libraries-") as directory:
        for size in (int(s) for s in args.sizes.split(",")):
            totals, files = measure(args.daemon, args.client, size, directory)
            file_backed = sum(files.values())
            print(f"{size} entries: Rss {totals['Rss']} KiB, Anonymous {totals['Anonymous']} KiB, "
                  f"file-backed {file_backed} KiB in {len(files)} files")
            for path, kib in files.most_common():
                print(f"  {kib:6d} KiB  {os.path.basename(path)}")


if __name__ == "__main__":
    main()
