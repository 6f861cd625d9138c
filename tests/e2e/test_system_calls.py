"""What a request costs tarsel-modbusd in system calls, counted by strace.

On the card one core runs the clients' connections and the daemon alike, so
every system call a request takes is time a client waits. A read is answered
with three: poll() says the socket is readable, one recv() takes the request,
one send() answers it.
"""
import os
import re
import signal
import subprocess
import tempfile
import unittest

from harness import DAEMON, Daemon, poll_until, running_ups

REQUESTS = 300
# Under AddressSanitizer every allocation goes through the sanitizer's own
# allocator, which maps and gives back memory as its quarantine turns over:
# its calls, not the daemon's. Its leak check cannot run under strace.
SANITIZER_CALLS = {"mmap", "munmap", "madvise", "mprotect"}


def traced_environment():
    environment = dict(os.environ)
    environment["ASAN_OPTIONS"] = environment.get("ASAN_OPTIONS", "") + ":detect_leaks=0"
    return environment


def sanitized(program):
    """True when the program is built with the sanitizers' runtimes."""
    linked = subprocess.run(["ldd", program], capture_output=True, text=True).stdout
    return "libasan" in linked or "libubsan" in linked


LINE = re.compile(r"^(\d+)\s+(\w+)\((.*)\)\s+=\s+(-?\d+)")


def read_lines(path):
    with open(path, encoding="utf-8") as trace:
        return trace.read().splitlines()


def calls_on_connection(lines):
    """Every system call between the daemon's accept of the first client and
    the recv that finds it gone, as (name, arguments, result); poll()s that
    timed out (the loop's own timers) are left out, and so is the accept that
    finds no second client. Where the daemon may open more than 1024
    descriptors it moves the client's above them as it accepts it (F_DUPFD,
    then a close of the first): that is part of the accept, and the client
    is the moved descriptor from then on."""
    calls, socket, accepted = [], None, None
    for line in lines:
        match = LINE.match(line)
        if match is None:
            continue
        _, name, arguments, result = match.groups()
        if socket is None:
            if name == "accept4" and int(result) >= 0:
                socket = accepted = result
            continue
        if accepted is not None:
            if name == "fcntl" and arguments.startswith(accepted + ", F_DUPFD_CLOEXEC"):
                if int(result) >= 0:
                    socket = result
                continue
            if name == "close" and arguments == accepted and socket != accepted:
                accepted = None
                continue
            accepted = None
        if name == "recvfrom" and arguments.startswith(socket + ",") and result == "0":
            return calls
        if (name == "poll" and result == "0") or (name == "accept4" and result == "-1"):
            continue
        calls.append((name, arguments, int(result)))
    return None


class SystemCallsTest(unittest.TestCase):
    def test_a_read_costs_one_poll_one_recv_and_one_send(self):
        with tempfile.TemporaryDirectory(prefix="tarsel-strace-") as directory:
            trace = os.path.join(directory, "trace")
            daemon = Daemon(scenario_json=running_ups(), verbose=False,
                            wrapper=["strace", "-f", "-qq", "-o", trace],
                            env=traced_environment())
            try:
                client = daemon.client()
                for _ in range(REQUESTS):
                    self.assertFalse(client.read_holding_registers(0, count=2, slave=1).isError())
                client.close()
                # strace writes a line when the call returns: the daemon's
                # recv() of the end of stream shows that every answer was sent.
                lines = poll_until(lambda: (lambda got: got if calls_on_connection(got) is not None
                                            else None)(read_lines(trace)))
                self.assertIsNotNone(lines, "the trace never showed the client leaving")
                daemon_pid = int(LINE.match(next(l for l in lines if LINE.match(l))).group(1))
            finally:
                if "daemon_pid" in locals():
                    os.kill(daemon_pid, signal.SIGTERM)
                status, log = daemon.stop()
            self.assertEqual(status, 0, log)
        calls = calls_on_connection(lines)
        # Every call the daemon made while the client was there, whatever it
        # is: a call more per request (a clock, a lock, the allocator asking
        # the kernel for memory) shows here as a name or a count too many.
        ignored = SANITIZER_CALLS if sanitized(DAEMON) else set()
        counts = {}
        for name, _, _ in calls:
            if name not in ignored:
                counts[name] = counts.get(name, 0) + 1
        # One poll() more: the one that wakes for the client's hang-up.
        self.assertEqual(counts, {"poll": REQUESTS + 1, "recvfrom": REQUESTS, "sendto": REQUESTS},
                         "\n".join(f"{name}({arguments}) = {result}"
                                   for name, arguments, result in calls[:12]))


if __name__ == "__main__":
    unittest.main()
