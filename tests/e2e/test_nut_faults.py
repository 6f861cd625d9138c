"""tarsel-modbusd against a upsd that misbehaves as the real one never does
(fake_upsd: a scripted upsd on loopback), pymodbus as the Modbus client.

Whatever upsd does, the daemon keeps answering promptly, keeps its memory
bounded, shows the UPS as unavailable while its data cannot be trusted, says
so once in its log and recovers on its own.
"""
import itertools
import os
import resource
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

from pymodbus.client import ModbusTcpClient
from pymodbus.exceptions import ConnectionException

from fake_upsd import (CLOSE, RESET, SILENT, FakeUpsd, list_answer, serving, trickled, var_lines,
                       wait_until)
from harness import DAEMON, Daemon
from nut_harness import NUT_MAP

POLL_S = 0.5
UNIT = 1
CHARGE, OPERATING_STATUS = 60, 67
UINT16_NOT_IMPLEMENTED = 0xFFFF
# The daemon's bound on a whole poll (7 s), a poll interval and slack for a
# loaded machine.
POLL_BOUND_S = 7.0
FAULT_LIMIT_S = POLL_BOUND_S + POLL_S + 3.0
# A Modbus answer never waits for upsd.
ANSWER_LIMIT_S = 0.5
# A write's exchange with upsd is bounded by 3.5 s, and interrupted a second
# later when upsd trickles its answers past that; the client's answer waits
# 5 s at most.
WRITE_INTERRUPTED_S = 4.5
WRITE_ANSWER_BOUND_S = 5.0
CHARGE_LOW = 0  # holding register of the shipped NUT map
TRACKING_ID = "1bf52d9a-1111-2222-3333-444455556666"


def sanitized(program):
    """True when the program is built with a sanitizer's runtime, whose
    shadow memory grows its resident size with whatever it touches."""
    linked = subprocess.run(["ldd", program], capture_output=True, text=True).stdout
    return any(runtime in linked for runtime in ("libasan", "libtsan", "libubsan"))


def rss_kib(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    raise RuntimeError("no VmRSS")


def connecting_to(port):
    """True while a TCP connect to 127.0.0.1:port waits for its SYN to be
    answered (/proc/net/tcp state 02, SYN_SENT)."""
    remote = f"0100007F:{port:04X}"
    with open("/proc/net/tcp", encoding="ascii") as table:
        next(table)
        return any(fields[2] == remote and fields[3] == "02"
                   for fields in (line.split() for line in table))


class Script:
    """The fake upsd's script: a healthy UPS until a test makes LIST VAR
    misbehave with `misbehave(answer)`, a function of nothing."""

    def __init__(self, variables):
        self.variables = dict(variables)
        self.misbehaving = None
        self.commands_answer = None  # LIST CMD misbehaving, a function of nothing
        # How upsd answers SET VAR and GET TRACKING (functions of nothing).
        self.set_answer = lambda: f"OK TRACKING {TRACKING_ID}\n".encode("ascii")
        self.tracking_answer = lambda: b"SUCCESS\n"
        self._healthy = serving("ups", lambda: self.variables)

    def __call__(self, line):
        if self.misbehaving is not None and line.startswith("LIST VAR"):
            return self.misbehaving()
        if self.commands_answer is not None and line.startswith("LIST CMD"):
            return self.commands_answer()
        words = line.split()
        if words[:1] in (["USERNAME"], ["PASSWORD"]) or words == ["SET", "TRACKING", "ON"]:
            return b"OK\n"
        if words[:2] == ["SET", "VAR"]:
            return self.set_answer()
        if words[:2] == ["GET", "TRACKING"]:
            return self.tracking_answer()
        return self._healthy(line)


class NutFaultsTest(unittest.TestCase):
    def setUp(self):
        self.script = Script({"battery.charge": "100", "ups.status": "OL",
                              "device.model": "Fake", "battery.charge.low": "20"})
        self.upsd = FakeUpsd(self.script)
        self.daemon = None
        self.client = None
        self.writer = None
        self.dir = tempfile.TemporaryDirectory(prefix="tarsel-nut-faults-")

    def tearDown(self):
        for client in (self.client, self.writer):
            if client is not None:
                client.close()
        if self.daemon is not None and self.daemon.alive():
            self.daemon.stop()
        self.upsd.stop()
        self.dir.cleanup()

    def start(self, writes=False, env=None, served=True):
        args = ["--map", NUT_MAP, "--nut-interval", str(POLL_S), "--nut",
                self.upsd.endpoint("ups")]
        if writes:
            credentials = os.path.join(self.dir.name, "credentials")
            with open(credentials, "w", encoding="utf-8") as f:
                f.write("username = gateway\npassword = secret\n")
            os.chmod(credentials, 0o600)
            args += ["--nut-writes", "--nut-credentials", credentials]
        self.daemon = Daemon(args=args, verbose=False, env=env)
        self.client = self.daemon.client()
        if served:
            self.assertTrue(wait_until(lambda: self.charge() == [100], 10.0),
                            "the UPS was never served\n" + self.log())

    def charge(self):
        """battery.charge as served, or None for an exception; asserts that
        the answer came promptly."""
        asked = time.monotonic()
        response = self.client.read_input_registers(CHARGE, 1, slave=UNIT)
        self.assertLess(time.monotonic() - asked, ANSWER_LIMIT_S, "a Modbus answer waited")
        return None if response.isError() else list(response.registers)

    def log(self):
        return "\n".join(self.daemon.log_lines[-20:])

    def write_in_background(self):
        """Writes 30 to battery.charge.low on a client of its own; the answer
        and how long it took land in the dictionary returned."""
        self.writer = ModbusTcpClient("127.0.0.1", port=self.daemon.port, timeout=20)
        self.assertTrue(self.writer.connect())
        outcome = {}

        def write():
            asked = time.monotonic()
            try:
                outcome["answer"] = self.writer.write_register(CHARGE_LOW, 30, slave=UNIT)
            except ConnectionException as error:  # the daemon stopped meanwhile
                outcome["answer"] = error
            outcome["took"] = time.monotonic() - asked

        outcome["thread"] = threading.Thread(target=write)
        outcome["thread"].start()
        return outcome

    def test_a_upsd_that_trickles_its_answer_reads_as_unavailable_within_the_poll_bound(self):
        self.start()
        # A byte every 0.2 s: the answer would take half a minute, each byte
        # well within NUT's library's wait for the next one.
        self.script.misbehaving = lambda: trickled(
            list_answer("ups", "VAR", var_lines("ups", self.script.variables)), 0.2)
        self.script.variables["battery.charge"] = "50"
        self.assertTrue(wait_until(lambda: self.charge() == [UINT16_NOT_IMPLEMENTED],
                                   FAULT_LIMIT_S),
                        "the UPS's old values stayed served while upsd trickled\n" + self.log())
        self.assertTrue(self.daemon.wait_for_log("no whole answer within 7 s", 2.0), self.log())
        self.script.misbehaving = None
        self.assertTrue(wait_until(lambda: self.charge() == [50], FAULT_LIMIT_S),
                        "the UPS did not come back once upsd answered again\n" + self.log())
        self.daemon.drain_log()
        unreachable = [line for line in self.daemon.log_lines if "upsd unreachable" in line]
        self.assertEqual(len(unreachable), 1, "said once:\n" + "\n".join(unreachable))

    def test_sigterm_stops_the_daemon_at_once_while_upsd_trickles(self):
        self.start()
        self.script.misbehaving = lambda: trickled(
            list_answer("ups", "VAR", var_lines("ups", self.script.variables)), 0.5)
        count = len(self.upsd.requests_of("LIST VAR"))
        self.assertTrue(wait_until(lambda: len(self.upsd.requests_of("LIST VAR")) > count, 5.0))
        time.sleep(1.0)  # well inside the trickled answer
        self.client.close()
        self.client = None
        asked = time.monotonic()
        status, log = self.daemon.stop()
        took = time.monotonic() - asked
        self.assertEqual(status, 0, log)
        self.assertLess(took, 2.0, "SIGTERM waited for upsd")

    def test_a_list_that_never_ends_keeps_memory_bounded_and_reads_as_unavailable(self):
        # AddressSanitizer keeps freed blocks aside (256 MiB by default) to
        # catch uses after free: each poll's 10,000 freed lines would count
        # as growth. A small quarantine lets what is freed be reused, as
        # without the sanitizer.
        env = dict(os.environ)
        env["ASAN_OPTIONS"] = ":".join(
            option for option in (os.environ.get("ASAN_OPTIONS"), "quarantine_size_mb=4") if option)
        self.start(env=env)

        def endless():
            yield b"BEGIN LIST VAR ups\n", 0.0
            for i in itertools.count():
                lines = "".join(f'VAR ups x.{i}.{j} "{"v" * 200}"\n' for j in range(100))
                yield lines.encode("ascii"), 0.0

        self.script.misbehaving = endless
        before = rss_kib(self.daemon.process.pid)
        highest = before
        deadline = time.monotonic() + FAULT_LIMIT_S + 5.0
        unavailable = False
        while time.monotonic() < deadline:
            unavailable = unavailable or self.charge() == [UINT16_NOT_IMPLEMENTED]
            highest = max(highest, rss_kib(self.daemon.process.pid))
            time.sleep(0.2)
        self.assertTrue(unavailable, "a UPS whose list never ends stayed served\n" + self.log())
        # 10,000 variables of a few hundred bytes: a few MiB at most (four
        # times that under a sanitizer); without a bound it grew by more
        # than 20 MiB a second.
        allowed = 16 * 1024 * (4 if sanitized(DAEMON) else 1)
        self.assertLess(highest - before, allowed, f"RSS grew from {before} KiB to {highest} KiB")
        self.assertTrue(self.daemon.wait_for_log("upsd listed more than 10000 variables", 2.0),
                        self.log())
        self.script.misbehaving = None
        self.assertTrue(wait_until(lambda: self.charge() == [100], FAULT_LIMIT_S),
                        "the UPS did not come back\n" + self.log())

    def test_a_upsd_that_closes_or_resets_in_mid_list_reads_as_unavailable_and_comes_back(self):
        self.start()
        for end in (CLOSE, RESET):
            self.script.misbehaving = lambda end=end: [
                (b'BEGIN LIST VAR ups\nVAR ups battery.charge "1', 0.0), (end, 0.0)]
            self.assertTrue(wait_until(lambda: self.charge() == [UINT16_NOT_IMPLEMENTED],
                                       FAULT_LIMIT_S), self.log())
            self.script.misbehaving = None
            self.assertTrue(wait_until(lambda: self.charge() == [100], FAULT_LIMIT_S), self.log())
        self.daemon.drain_log()
        lost = [line for line in self.daemon.log_lines if "upsd unreachable" in line]
        self.assertEqual(len(lost), 2, "\n".join(lost))

    def test_an_error_inside_a_list_is_said_once_and_not_taken_for_the_next_answer(self):
        self.start()
        # upsd never sends anything after an ERR; had the daemon kept the
        # connection, the rest would be read as the answer to its next LIST
        # VAR (a protocol error), and the state would flap every poll.
        self.script.misbehaving = lambda: (b'BEGIN LIST VAR ups\nVAR ups battery.charge "18"\n'
                                           b'ERR DATA-STALE\nVAR ups ups.status "OL"\n'
                                           b'END LIST VAR ups\n')
        self.assertTrue(wait_until(lambda: self.charge() == [UINT16_NOT_IMPLEMENTED],
                                   FAULT_LIMIT_S), self.log())
        polls = len(self.upsd.requests_of("LIST VAR"))
        self.assertTrue(wait_until(lambda: len(self.upsd.requests_of("LIST VAR")) >= polls + 6,
                                   10.0), "the daemon stopped polling")
        self.assertEqual(self.charge(), [UINT16_NOT_IMPLEMENTED])
        self.daemon.drain_log()
        changes = [line for line in self.daemon.log_lines
                   if " stale: " in line or "upsd unreachable" in line]
        self.assertEqual(len(changes), 1, "\n".join(changes))
        self.assertIn("stale: Data stale", changes[0])
        self.script.misbehaving = None
        self.assertTrue(wait_until(lambda: self.charge() == [100], FAULT_LIMIT_S), self.log())

    def assertSaidOnce(self, text):
        self.daemon.drain_log()
        said = [line for line in self.daemon.log_lines if text in line]
        self.assertEqual(len(said), 1, "\n".join(self.daemon.log_lines[-30:]))

    def test_a_variable_list_ended_as_another_upss_is_not_taken_for_this_upss(self):
        self.start()
        # NUT's client library takes any END LIST for the end of the list it
        # asked for: these lines could be another UPS's.
        self.script.misbehaving = lambda: (b'BEGIN LIST VAR ups\nVAR ups battery.charge "18"\n'
                                           b'END LIST VAR other\n')
        self.assertTrue(wait_until(lambda: self.charge() == [UINT16_NOT_IMPLEMENTED],
                                   FAULT_LIMIT_S), self.log())
        polls = len(self.upsd.requests_of("LIST VAR"))
        self.assertTrue(wait_until(lambda: len(self.upsd.requests_of("LIST VAR")) >= polls + 3,
                                   FAULT_LIMIT_S), self.log())
        self.assertEqual(self.charge(), [UINT16_NOT_IMPLEMENTED])
        self.script.misbehaving = None
        self.assertTrue(wait_until(lambda: self.charge() == [100], FAULT_LIMIT_S), self.log())
        self.assertSaidOnce('upsd unreachable: upsd ended the list of "ups" with '
                            '"END LIST VAR other"')

    def test_a_command_list_ended_as_another_upss_is_not_taken_for_this_upss(self):
        self.script.commands_answer = lambda: (b'BEGIN LIST CMD ups\nCMD ups beeper.off\n'
                                               b'END LIST CMD other\n')
        self.start(served=False)
        self.assertTrue(wait_until(lambda: len(self.upsd.requests_of("LIST CMD")) >= 3, 10.0),
                        self.log())
        self.assertNotEqual(self.charge(), [100])
        self.script.commands_answer = None
        self.assertTrue(wait_until(lambda: self.charge() == [100], FAULT_LIMIT_S), self.log())
        self.assertSaidOnce('upsd unreachable: upsd ended the list of "ups" with '
                            '"END LIST CMD other"')

    def test_sigterm_during_a_connect_that_then_succeeds_stops_without_polling_on(self):
        # A upsd whose queue of connections waiting to be accepted is full:
        # the kernel drops the poller's first SYN and sends it again a second
        # later. SIGTERM comes meanwhile; then a place is freed, the connect
        # succeeds, and upsd never answers. The stop must not go on to poll
        # through the new connection (that costs the library's 5 s wait for
        # an answer).
        self.upsd.stop()
        listener = socket.socket()
        self.addCleanup(listener.close)
        listener.bind(("127.0.0.1", 0))
        listener.listen(0)  # room for one connection waiting to be accepted
        port = listener.getsockname()[1]
        filler = socket.create_connection(("127.0.0.1", port), timeout=5)
        self.addCleanup(filler.close)
        self.daemon = Daemon(args=["--map", NUT_MAP, "--nut-interval", str(POLL_S), "--nut",
                                   f"ups@127.0.0.1:{port}"],
                             verbose=False)
        self.assertTrue(wait_until(lambda: connecting_to(port), 5.0),
                        "the poller's connect never waited\n" + self.log())

        def free_a_place():
            time.sleep(0.3)  # SIGTERM is in by now
            accepted, _ = listener.accept()
            self.addCleanup(accepted.close)

        freeing = threading.Thread(target=free_a_place)
        freeing.start()
        asked = time.monotonic()
        status, log = self.daemon.stop()
        took = time.monotonic() - asked
        freeing.join(timeout=10)
        self.assertEqual(status, 0, log)
        self.assertLess(took, 3.5, "SIGTERM waited for a poll over the new connection\n" + log)

    def test_a_write_whose_answer_trickles_is_interrupted_and_polls_go_on(self):
        self.start(writes=True)
        self.script.set_answer = lambda: trickled(
            f"OK TRACKING {TRACKING_ID}\n".encode("ascii"), 1.0)
        self.script.variables["battery.charge"] = "50"
        polls = len(self.upsd.requests_of("LIST VAR"))
        outcome = self.write_in_background()
        outcome["thread"].join(WRITE_ANSWER_BOUND_S + 5.0)
        self.assertEqual(outcome["answer"].exception_code, 0x0B, str(outcome["answer"]))
        self.assertLess(outcome["took"], WRITE_ANSWER_BOUND_S)
        self.assertTrue(self.daemon.wait_for_log("the exchange outlived its bound", 2.0),
                        self.log())
        # The poller is free again: polls go on and the new value is served.
        self.assertTrue(wait_until(lambda: self.charge() == [50], 3.0), self.log())
        self.assertGreater(len(self.upsd.requests_of("LIST VAR")), polls)

    def test_sigterm_stops_the_daemon_at_once_during_a_write_upsd_trickles(self):
        self.start(writes=True)
        self.script.set_answer = lambda: trickled(
            f"OK TRACKING {TRACKING_ID}\n".encode("ascii"), 1.0)
        self.write_in_background()
        self.assertTrue(wait_until(lambda: self.upsd.requests_of("SET VAR"), 5.0))
        time.sleep(1.0)
        self.client.close()
        self.client = None
        asked = time.monotonic()
        status, log = self.daemon.stop()
        self.assertEqual(status, 0, log)
        self.assertLess(time.monotonic() - asked, 2.0, "SIGTERM waited for the write")

    def test_a_write_whose_tracking_never_ends_gets_0x0b_within_the_bound(self):
        self.start(writes=True)
        self.script.tracking_answer = lambda: b"PENDING\n"
        outcome = self.write_in_background()
        outcome["thread"].join(WRITE_ANSWER_BOUND_S + 5.0)
        self.assertEqual(outcome["answer"].exception_code, 0x0B, str(outcome["answer"]))
        self.assertLess(outcome["took"], WRITE_ANSWER_BOUND_S)
        self.assertTrue(self.daemon.wait_for_log("upsd still tracks it as PENDING", 2.0),
                        self.log())
        self.assertTrue(wait_until(lambda: self.charge() == [100], 3.0), self.log())

    def test_a_write_upsd_never_answers_gets_0x0b_and_polls_go_on(self):
        self.start(writes=True)
        self.script.set_answer = lambda: SILENT
        outcome = self.write_in_background()
        outcome["thread"].join(WRITE_ANSWER_BOUND_S + 5.0)
        self.assertEqual(outcome["answer"].exception_code, 0x0B, str(outcome["answer"]))
        self.assertLess(outcome["took"], WRITE_ANSWER_BOUND_S + 0.5)
        polls = len(self.upsd.requests_of("LIST VAR"))
        self.assertTrue(wait_until(lambda: len(self.upsd.requests_of("LIST VAR")) > polls + 2,
                                   5.0), "polls did not go on after the write")
        self.assertEqual(self.charge(), [100])

    def test_a_hung_ups_does_not_hold_up_a_fine_one(self):
        fine = Script({"battery.charge": "90", "ups.status": "OL", "device.model": "Fine"})
        with FakeUpsd(fine) as other:
            self.daemon = Daemon(args=["--map", NUT_MAP, "--nut-interval", str(POLL_S),
                                       "--nut", self.upsd.endpoint("ups"),
                                       "--nut", other.endpoint("ups")], verbose=False)
            self.client = self.daemon.client()
            self.assertTrue(wait_until(lambda: self.charge() == [100], 10.0), self.log())
            self.assertTrue(wait_until(lambda: self.charge_of(2) == [90], 10.0), self.log())
            # The first upsd trickles, then falls silent; the second goes on.
            self.script.misbehaving = lambda: trickled(b"BEGIN LIST VAR ups\n", 0.5)
            for charge in ("80", "70", "60"):
                fine.variables["battery.charge"] = charge
                changed = time.monotonic()
                self.assertTrue(wait_until(lambda: self.charge_of(2) == [int(charge)],
                                           POLL_S + 1.5),
                                "the fine UPS was not served fresh\n" + self.log())
                self.assertLess(time.monotonic() - changed, POLL_S + 1.5)
                time.sleep(1.5)
            self.assertTrue(wait_until(lambda: self.charge() == [UINT16_NOT_IMPLEMENTED],
                                       FAULT_LIMIT_S), self.log())
            self.assertEqual(self.charge_of(2), [60])
            self.client.close()
            self.client = None
            asked = time.monotonic()
            status, log = self.daemon.stop()
            self.assertEqual(status, 0, log)
            self.assertLess(time.monotonic() - asked, 2.0, "SIGTERM waited for the hung upsd")

    def test_a_reload_while_upsd_trickles_a_poll_and_a_write_is_applied_at_once(self):
        self.start(writes=True)
        self.script.misbehaving = lambda: trickled(
            list_answer("ups", "VAR", var_lines("ups", self.script.variables)), 0.5)
        self.script.set_answer = lambda: trickled(
            f"OK TRACKING {TRACKING_ID}\n".encode("ascii"), 1.0)
        time.sleep(1.0)  # a poll trickles now
        outcome = self.write_in_background()
        self.assertTrue(wait_until(lambda: self.upsd.requests_of("SET VAR"), 10.0))
        asked = time.monotonic()
        os.kill(self.daemon.process.pid, signal.SIGHUP)
        self.assertTrue(self.daemon.wait_for_log("reload applied", 3.0), self.log())
        self.assertLess(time.monotonic() - asked, 1.0, "the reload waited for upsd")
        self.assertIsNotNone(self.charge())
        outcome["thread"].join(WRITE_ANSWER_BOUND_S + 5.0)
        self.assertEqual(outcome["answer"].exception_code, 0x0B, str(outcome["answer"]))
        self.script.misbehaving = None
        self.script.set_answer = lambda: f"OK TRACKING {TRACKING_ID}\n".encode("ascii")
        self.assertTrue(wait_until(lambda: self.charge() == [100], FAULT_LIMIT_S), self.log())

    def test_a_upsd_reached_while_over_a_thousand_clients_are_connected_is_served(self):
        # NUT's library waits on its socket with select(), which knows
        # descriptors below 1024 only: with that many clients connected and
        # room for more descriptors, the poller's next connection to upsd
        # must still get a low one.
        clients = 1100
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        wanted = clients + 512
        if soft < wanted:
            if hard != resource.RLIM_INFINITY and hard < wanted:
                self.skipTest(f"needs {wanted} descriptors, the hard limit is {hard}")
            resource.setrlimit(resource.RLIMIT_NOFILE, (wanted, hard))
            self.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, (soft, hard))
        self.upsd.stop()
        port = self.upsd.port  # nothing listens there now: upsd is unreachable
        self.daemon = Daemon(args=["--map", NUT_MAP, "--nut-interval", "0.2", "--nut",
                                   f"ups@127.0.0.1:{port}", "--max-clients", str(clients + 100)],
                             verbose=False)
        self.assertTrue(self.daemon.wait_for_log("upsd unreachable", 5.0), self.log())
        # Before the crowd: pymodbus waits with select() too.
        self.client = self.daemon.client()
        sockets = []
        try:
            for _ in range(clients):
                sockets.append(socket.create_connection(("127.0.0.1", self.daemon.port),
                                                        timeout=5))
            time.sleep(1.0)  # the poller tries upsd again meanwhile
            self.assertTrue(self.daemon.alive(), self.log())
            self.upsd = FakeUpsd(self.script, port=port)
            self.assertTrue(wait_until(lambda: self.daemon.alive() and self.charge() == [100],
                                       FAULT_LIMIT_S),
                            "the UPS was not served\n" + self.log())
        finally:
            for connection in sockets:
                connection.close()
        self.assertTrue(self.daemon.alive(), self.log())

    def test_a_host_the_name_server_cannot_resolve_reads_as_unreachable_and_sigterm_stops(self):
        # NUT's library asks the name server again and again for as long as
        # it answers "try again": the daemon gets a name server of its own
        # that nobody runs (a private mount namespace over /etc/resolv.conf).
        if os.geteuid() != 0:
            self.skipTest("needs root for a mount namespace of its own")
        resolv = os.path.join(self.dir.name, "resolv.conf")
        with open(resolv, "w", encoding="ascii") as f:
            f.write("nameserver 127.0.0.2\noptions timeout:1 attempts:1\n")
        wrapper = os.path.join(self.dir.name, "own-resolver.sh")
        with open(wrapper, "w", encoding="ascii") as f:
            f.write(f'#!/bin/sh\nmount --bind "{resolv}" /etc/resolv.conf && exec "$@"\n')
        os.chmod(wrapper, 0o700)
        if subprocess.run(["unshare", "-m", wrapper, "true"], capture_output=True,
                          timeout=10).returncode != 0:
            self.skipTest("cannot make a mount namespace here")
        self.daemon = Daemon(args=["--map", NUT_MAP, "--nut-interval", str(POLL_S), "--nut",
                                   "ups@upsd.invalid"],
                             verbose=False, wrapper=["unshare", "-m", wrapper])
        self.assertTrue(self.daemon.wait_for_log("upsd unreachable: cannot resolve", 10.0),
                        self.log())
        asked = time.monotonic()
        status, log = self.daemon.stop()
        self.assertEqual(status, 0, log)
        self.assertLess(time.monotonic() - asked, 4.0, "SIGTERM waited for the name server")

    def charge_of(self, unit):
        response = self.client.read_input_registers(CHARGE, 1, slave=unit)
        return None if response.isError() else list(response.registers)


if __name__ == "__main__":
    unittest.main()
