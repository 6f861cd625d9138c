"""Writes going back to a UPS of Network UPS Tools: SET VAR and INSTCMD
through a upsd and dummy-ups of our own on loopback, pymodbus as the Modbus
client, upsc and upscmd as NUT's own view of what happened.

upsd, its drivers and the daemon are stopped by their process ids.
"""
import json
import os
import socket
import struct
import subprocess
import tempfile
import threading
import time
import unittest

from pymodbus.client import ModbusTcpClient

from harness import DAEMON, Daemon
from nut_harness import ADMIN, ADMIN_PASSWORD, NUT_MAP, Upsd, demo_dev

POLL_S = 0.5
SERVED_LIMIT_S = POLL_S + 1.0
# The daemon answers a write whose outcome upsd has not given within 5 s
# with 0x0B; its loop notices within half a second; slack for a loaded
# machine.
WRITE_BOUND_S = 5.0
WRITE_LIMIT_S = WRITE_BOUND_S + 0.5 + 2.0
UNIT = 1
OPERATING_STATUS, CHARGE = 67, 60
# Holding registers and coils of the shipped map.
CHARGE_LOW, DEVICE_LOCATION = 0, 8
BEEPER_DISABLE, LOAD_OFF = 3, 5


def words_of(text, size):
    raw = text.encode("ascii").ljust(size * 2, b"\0")
    return [raw[i] << 8 | raw[i + 1] for i in range(0, size * 2, 2)]


class NutWritesTest(unittest.TestCase):
    def setUp(self):
        self.upsd = None
        self.daemon = None
        self.clients = []
        self.dir = tempfile.TemporaryDirectory(prefix="tarsel-nut-writes-")

    def tearDown(self):
        for client in self.clients:
            client.close()
        if self.daemon is not None and self.daemon.alive():
            self.daemon.stop()
        if self.upsd is not None:
            self.upsd.stop()
        self.dir.cleanup()

    def credentials(self, password=ADMIN_PASSWORD, mode=0o600):
        path = os.path.join(self.dir.name, "nut-credentials")
        with open(path, "w", encoding="utf-8") as f:
            f.write(f"# the daemon's upsd user\nusername = {ADMIN}\npassword = {password}\n")
        os.chmod(path, mode)
        return path

    def start(self, upses=None, args=(), password=ADMIN_PASSWORD, writes=True, per_ups=None):
        """per_ups: {name: options given right after that UPS's --nut}."""
        self.upsd = Upsd(upses or {"bench": ("bench.dev", demo_dev())})
        command = ["--map", NUT_MAP, "--nut-interval", str(POLL_S)]
        for name in self.upsd.upses:
            command += ["--nut", self.upsd.endpoint(name)] + (per_ups or {}).get(name, [])
        if writes:
            command += ["--nut-writes", "--nut-credentials", self.credentials(password)]
        command += list(args)
        self.daemon = Daemon(args=command)
        self.client = self.connect()
        self.wait_until(lambda: self.input_registers(OPERATING_STATUS, 1) == [16], 10.0,
                        "the map never opened")

    def connect(self, timeout=3):
        client = ModbusTcpClient("127.0.0.1", port=self.daemon.port, timeout=timeout)
        self.assertTrue(client.connect())
        self.clients.append(client)
        return client

    def input_registers(self, address, count, unit=UNIT, client=None):
        response = (client or self.client).read_input_registers(address, count, slave=unit)
        return None if response.isError() else list(response.registers)

    def holding(self, address, count=1, unit=UNIT):
        response = self.client.read_holding_registers(address, count, slave=unit)
        return None if response.isError() else list(response.registers)

    def wait_until(self, condition, limit_s, message):
        deadline = time.monotonic() + limit_s
        while time.monotonic() < deadline:
            if condition():
                return
            time.sleep(0.05)
        self.assertTrue(condition(), message + "\n" + "\n".join(self.daemon.log_lines[-20:]))

    def test_a_register_write_reaches_upsd_and_is_served_back(self):
        audit = os.path.join(self.dir.name, "audit.log")
        self.start(args=["--audit-log", audit])
        self.assertEqual(self.holding(CHARGE_LOW), [20])
        answer = self.client.write_register(CHARGE_LOW, 30, slave=UNIT)
        self.assertFalse(answer.isError(), str(answer))
        self.assertEqual(self.upsd.upsc("bench", "battery.charge.low"), "30")
        self.wait_until(lambda: self.holding(CHARGE_LOW) == [30], SERVED_LIMIT_S,
                        "the new value was not served back")
        with open(audit, encoding="utf-8") as f:
            lines = f.read()
        self.assertIn('write "battery.charge.low" holding-registers 0: [0x0014] -> [0x001E]: '
                      'done (SET VAR battery.charge.low "30": upsd tracked it to SUCCESS); '
                      'client=127.0.0.1:', lines)
        self.assertNotIn(ADMIN_PASSWORD, "\n".join(self.daemon.log_lines) + lines)

    def test_a_client_that_ends_its_side_after_a_write_still_gets_its_answer(self):
        self.start()
        # FC6 to the low-charge setting, then a read of it, then the end of
        # the client's stream: both answers must still come, in order.
        write = struct.pack(">HHHBBHH", 1, 0, 6, UNIT, 6, CHARGE_LOW, 35)
        read = struct.pack(">HHHBBHH", 2, 0, 6, UNIT, 3, CHARGE_LOW, 1)
        with socket.create_connection(("127.0.0.1", self.daemon.port), timeout=10) as one_shot:
            one_shot.sendall(write + read)
            one_shot.shutdown(socket.SHUT_WR)  # done sending, still reading
            received = b""
            deadline = time.monotonic() + WRITE_LIMIT_S
            while time.monotonic() < deadline:
                chunk = one_shot.recv(4096)
                if not chunk:
                    break  # the daemon closes after the last answer
                received += chunk
        self.assertEqual(received[:12], write, "the write's answer echoes the request")
        self.assertEqual(struct.unpack(">HHHBBBH", received[12:]), (2, 0, 5, UNIT, 3, 2, 20),
                         "the read pipelined behind the write answers the value from before it")
        self.assertEqual(self.upsd.upsc("bench", "battery.charge.low"), "35")
        self.assertTrue(self.daemon.alive())

    def test_a_text_write_reaches_upsd(self):
        self.start({"bench": ("bench.dev", demo_dev() + "device.location: Lab\n")})
        answer = self.client.write_registers(DEVICE_LOCATION, words_of("Rack 4, row B", 16),
                                             slave=UNIT)
        self.assertFalse(answer.isError(), str(answer))
        self.assertEqual(self.upsd.upsc("bench", "device.location"), "Rack 4, row B")

    def test_an_instant_command_is_answered_as_upsd_answers(self):
        self.start()
        # What upsd makes of load.off on this driver, as NUT's own client
        # sees it when it waits for the outcome.
        upscmd = subprocess.run(["upscmd", "-w", "-u", ADMIN, "-p", ADMIN_PASSWORD,
                                 self.upsd.endpoint("bench"), "load.off"], env=self.upsd.env,
                                capture_output=True, text=True, timeout=20)
        tracked = (upscmd.stdout + upscmd.stderr).strip()
        answer = self.client.write_coil(LOAD_OFF, True, slave=UNIT)
        if tracked == "OK" or tracked.endswith("SUCCESS"):
            self.assertFalse(answer.isError(), str(answer))
        else:
            self.assertTrue(tracked.startswith("ERR "), tracked)
            self.assertEqual(answer.exception_code, 0x04, str(answer))
            self.assertTrue(self.daemon.wait_for_log(
                "failed (INSTCMD load.off: upsd tracked it to " + tracked + ")", 2.0))
        # Written OFF, a command coil asks for nothing and gets a plain answer.
        self.assertFalse(self.client.write_coil(LOAD_OFF, False, slave=UNIT).isError())
        # A command upsd does not offer has no channel: unavailable, refused.
        self.assertEqual(self.client.read_coils(BEEPER_DISABLE, 1, slave=UNIT).bits[0], False)
        refused = self.client.write_coil(BEEPER_DISABLE, True, slave=UNIT)
        self.assertEqual(refused.exception_code, 0x04, str(refused))

    def test_wrong_credentials_are_refused_with_illegal_function(self):
        self.start(password="not-the-password")
        refused = self.client.write_register(CHARGE_LOW, 30, slave=UNIT)
        self.assertTrue(refused.isError())
        self.assertEqual(refused.exception_code, 0x01)
        # upsd's word, and where to look: the credentials file or upsd.users.
        self.assertTrue(self.daemon.wait_for_log(
            "ERR ACCESS-DENIED: the user or password of --nut-credentials is wrong", 2.0))
        self.assertEqual(self.upsd.upsc("bench", "battery.charge.low"), "20")
        self.assertNotIn("not-the-password", "\n".join(self.daemon.log_lines))

    def test_writes_are_refused_with_illegal_function_unless_enabled(self):
        self.start(writes=False)
        refused = self.client.write_register(CHARGE_LOW, 30, slave=UNIT)
        self.assertEqual(refused.exception_code, 0x01)
        refused = self.client.write_coil(LOAD_OFF, True, slave=UNIT)
        self.assertEqual(refused.exception_code, 0x01)
        time.sleep(SERVED_LIMIT_S)
        self.assertEqual(self.upsd.upsc("bench", "battery.charge.low"), "20")

    def test_a_credentials_file_others_may_read_stops_the_daemon_at_start(self):
        path = self.credentials(mode=0o644)
        result = subprocess.run([DAEMON, "--port", "0", "--run-seconds", "5", "--map", NUT_MAP,
                                 "--nut", "bench@127.0.0.1:1", "--nut-writes",
                                 "--nut-credentials", path],
                                capture_output=True, text=True, timeout=20)
        self.assertEqual(result.returncode, 2, result.stderr)
        self.assertIn("is open to its group or others (mode 0644)", result.stderr)
        self.assertNotIn(ADMIN_PASSWORD, result.stderr)

    def write_in_background(self, outcome):
        """Writes the low-charge setting on a client of its own, on a thread
        of its own; `outcome` gets the answer and how long it took."""
        writer = self.connect(timeout=WRITE_LIMIT_S + 5)

        def write():
            asked = time.monotonic()
            outcome["answer"] = writer.write_register(CHARGE_LOW, 33, slave=UNIT)
            outcome["took"] = time.monotonic() - asked

        thread = threading.Thread(target=write)
        thread.start()
        return thread

    def test_a_write_to_a_stopped_upsd_gets_0x0b_in_time_while_others_are_served(self):
        self.start()
        reader = self.connect()
        outcome = {}
        self.upsd.pause_upsd()
        try:
            thread = self.write_in_background(outcome)
            slowest = 0.0
            reads = 0
            while thread.is_alive() and reads < 10000:
                asked = time.monotonic()
                self.assertIsNotNone(self.input_registers(CHARGE, 1, client=reader))
                slowest = max(slowest, time.monotonic() - asked)
                reads += 1
                time.sleep(0.05)
            thread.join(WRITE_LIMIT_S + 5)
        finally:
            self.upsd.resume_upsd()
        self.assertEqual(outcome["answer"].exception_code, 0x0B, str(outcome["answer"]))
        self.assertLess(outcome["took"], WRITE_LIMIT_S)
        # It did wait for upsd: 3.5 s of the daemon's NUT exchange, or the
        # 5 s of the answer when the poller was busy with a poll that hung.
        self.assertGreaterEqual(outcome["took"], 3.0)
        self.assertGreater(reads, 10)
        self.assertLess(slowest, 0.5, "a read waited for the write to the stopped upsd")
        self.assertTrue(self.daemon.wait_for_log("no outcome", 2.0))
        self.assertTrue(self.daemon.alive())

    def test_upsd_restarted_during_a_write_gets_0x0b_and_the_ups_comes_back(self):
        self.start()
        outcome = {}
        # upsd stops answering with the write under way, then goes and comes
        # back (a restart) before the write's bound is over.
        self.upsd.pause_upsd()
        thread = self.write_in_background(outcome)
        time.sleep(1.0)
        self.upsd.resume_upsd()
        self.upsd.stop_upsd()
        # Not waiting for the UPS's data here: the driver may be gone before
        # it is all there (below).
        self.upsd.start_upsd(wait=False)
        thread.join(WRITE_LIMIT_S + 5)
        self.assertEqual(outcome["answer"].exception_code, 0x0B, str(outcome["answer"]))
        self.assertLess(outcome["took"], WRITE_LIMIT_S)
        self.assertTrue(self.daemon.wait_for_log("no outcome", 2.0))

        # Debian's dummy-ups 2.8.0 aborts on a SET that reaches it through a
        # restarted upsd, which the write does when the poller takes it up
        # after the restart, at any moment of it: the driver is started
        # again whenever it is gone, as its service manager would.
        def back():
            if self.upsd.drivers["bench"].poll() is not None:
                self.upsd.stop_driver("bench")
                self.upsd.start_driver("bench")
            return self.input_registers(CHARGE, 1) == [100]

        self.wait_until(back, 20.0, "the UPS did not come back after upsd's restart")
        self.assertTrue(self.daemon.alive())

    def test_two_upses_with_two_maps(self):
        own_map = {"entries": [
            {"name": "charge", "table": "input-registers", "address": 0, "encoder": "uint16",
             "source": {"device": 2, "channel": "battery.charge"}},
            {"name": "operating-status", "table": "input-registers", "address": 1,
             "encoder": "uint16",
             "source": {"device": 2, "channel": "PowerDistribution.Status.OperatingStatus"}},
            {"name": "charge.low", "table": "holding-registers", "address": 7, "encoder": "uint16",
             "source": {"device": 2, "channel": "battery.charge.low"}}]}
        map_path = os.path.join(self.dir.name, "second-map.json")
        with open(map_path, "w", encoding="utf-8") as f:
            json.dump(own_map, f)
        second = demo_dev().replace("battery.charge: 100", "battery.charge: 42")
        self.start({"first": ("first.dev", demo_dev()), "second": ("second.dev", second)},
                   per_ups={"second": ["--nut-map", map_path]})
        self.wait_until(lambda: self.input_registers(0, 2, unit=2) == [42, 16], SERVED_LIMIT_S + 2,
                        "the second UPS is not served with its own map")
        self.assertEqual(self.input_registers(CHARGE, 1, unit=1), [100])
        self.assertIsNone(self.input_registers(CHARGE, 1, unit=2), "the shared map on unit 2")
        answer = self.client.write_register(7, 15, slave=2)
        self.assertFalse(answer.isError(), str(answer))
        self.assertEqual(self.upsd.upsc("second", "battery.charge.low"), "15")
        self.assertEqual(self.upsd.upsc("first", "battery.charge.low"), "20")


if __name__ == "__main__":
    unittest.main()
