#!/usr/bin/env python3
"""Soak test of tarsel-modbusd (not part of CI): 8 clients of mixed reads
and writes for N minutes while the shipped scenario plays, then the daemon's
resident memory, open descriptors and log size at start and end, and the
number of failed requests, which must be 0.

    tests/e2e/soak.py --minutes 30 [--daemon build/host/daemon/tarsel-modbusd]
"""
import argparse
import os
import random
import struct
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

CLIENTS = 8
CONTACT, SHUTDOWN_DELAY, BEEPER = 36, 8, 3


def text_registers(text, size=16):
    return list(struct.unpack(">%dH" % size, text.ljust(size * 2, b"\0")))


def process_figures(pid):
    with open("/proc/%d/status" % pid) as f:
        rss = next(int(l.split()[1]) for l in f if l.startswith("VmRSS:"))
    return rss, len(os.listdir("/proc/%d/fd" % pid))


class Worker(threading.Thread):
    """One client: a random mix of block reads and writes, back to back."""

    def __init__(self, daemon, index, until):
        super().__init__(daemon=True)
        self.client = daemon.client()
        self.random = random.Random(index)
        self.index = index
        self.until = until
        self.requests = 0
        self.failures = []

    def request(self):
        c, r = self.client, self.random.random()
        if r < 0.25:
            return c.read_input_registers(0, 16, slave=1)
        if r < 0.40:
            return c.read_input_registers(120, 6, slave=1)
        if r < 0.55:
            return c.read_holding_registers(0, 16, slave=1)
        if r < 0.65:
            return c.read_coils(0, 7, slave=1)
        if r < 0.75:
            return c.read_discrete_inputs(8, 6, slave=1)
        if r < 0.85:
            text = b"client %d #%d" % (self.index, self.requests)
            return c.write_registers(CONTACT, text_registers(text), slave=1)
        if r < 0.95:
            return c.write_coil(BEEPER, self.random.random() < 0.5, slave=1)
        return c.write_registers(SHUTDOWN_DELAY, [0, self.random.randrange(1, 600)], slave=1)

    def run(self):
        while time.monotonic() < self.until:
            try:
                response = self.request()
                if response.isError():
                    self.failures.append(str(response))
            except Exception as error:  # any failure counts, whatever its kind
                self.failures.append(repr(error))
            self.requests += 1
        self.client.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--minutes", type=float, default=10)
    parser.add_argument("--daemon", default=os.path.join(HERE, "..", "..", "build", "host",
                                                         "daemon", "tarsel-modbusd"))
    options = parser.parse_args()
    os.environ.setdefault("TARSEL_MODBUSD", os.path.abspath(options.daemon))
    from harness import SHIPPED_SCENARIO, Daemon, poll_until

    seconds = options.minutes * 60
    daemon = Daemon(args=("--scenario", SHIPPED_SCENARIO, "--run-seconds", str(seconds + 120)),
                    verbose=False)
    probe = daemon.client()
    if not poll_until(lambda: not probe.read_input_registers(61, 1, slave=1).isError(),
                      attempts=100, interval=0.1):
        sys.exit("the UPS map never became available")
    probe.close()
    log_size = daemon.drain_log() + sum(len(l) + 1 for l in daemon.log_lines[:-1])
    start = process_figures(daemon.process.pid) + (log_size,)
    until = time.monotonic() + seconds
    workers = [Worker(daemon, i, until) for i in range(CLIENTS)]
    for worker in workers:
        worker.start()
    while any(worker.is_alive() for worker in workers):
        log_size += daemon.drain_log()
        time.sleep(1)
    for worker in workers:
        worker.join()
    log_size += daemon.drain_log()
    end = process_figures(daemon.process.pid) + (log_size,)
    status, _ = daemon.stop()

    requests = sum(w.requests for w in workers)
    failures = [f for w in workers for f in w.failures]
    print("soak: %d clients, %.1f min, scenario playing" % (CLIENTS, options.minutes))
    print("                 start        end")
    print("RSS (KiB)   %10d %10d" % (start[0], end[0]))
    print("open fds    %10d %10d" % (start[1], end[1]))
    print("log (bytes) %10d %10d" % (start[2], end[2]))
    print("requests: %d (%.0f/s), failed: %d; daemon exit status %d"
          % (requests, requests / seconds, len(failures), status))
    for failure in failures[:10]:
        print("  " + failure)
    sys.exit(0 if not failures and status == 0 and end[1] <= start[1] else 1)


if __name__ == "__main__":
    main()
