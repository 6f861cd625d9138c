"""A scenario file an integrator writes, played by tarsel-modbusd.

Whatever the file asks for, the daemon goes on answering clients and stops
promptly on SIGTERM; what it cannot play is refused at start, and by
--check, naming the file and the place."""
import json
import os
import signal
import subprocess
import tempfile
import time
import unittest

from harness import DAEMON, Daemon, running_ups

BAD_CONFIGURATION = 2
OPERATING_STATUS = 61  # input register of the UPS's operating status


def read_status(client):
    try:
        answer = client.read_input_registers(OPERATING_STATUS, count=1, slave=1)
    except TypeError:  # pymodbus 3.10 and later name it device_id
        answer = client.read_input_registers(OPERATING_STATUS, count=1, device_id=1)
    return None if answer.isError() else answer.registers


class ScenarioTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory(prefix="tarsel-scenario-")
        self.addCleanup(self.dir.cleanup)

    def write(self, scenario):
        path = os.path.join(self.dir.name, "scenario.json")
        with open(path, "w", encoding="utf-8") as f:
            json.dump(scenario, f)
        return path

    def test_a_step_of_a_billion_runs_leaves_clients_answered_and_sigterm_prompt(self):
        # Played in one go, the runs held the loop for minutes: no answer, and
        # a SIGTERM heard only at their end.
        flood = {"at": 0.2, "times": 1000000000, "do": "set-channel", "device": 2,
                 "channel": "Battery.Charge", "values": [{"uint32": 99}, {"uint32": 98}]}
        daemon = Daemon(None, running_ups(events=[flood]), verbose=False)
        with daemon:
            time.sleep(0.5)
            client = daemon.client()
            try:
                started = time.monotonic()
                self.assertEqual(read_status(client), [16])
                self.assertLess(time.monotonic() - started, 1.0)
            finally:
                client.close()
            started = time.monotonic()
            os.kill(daemon.process.pid, signal.SIGTERM)
            try:
                daemon.process.wait(timeout=3)
            except subprocess.TimeoutExpired:
                pass
            stopped_after = time.monotonic() - started
            status, log = daemon.stop()
        self.assertLess(stopped_after, 3.0)
        self.assertEqual(status, 0, log[-2000:])

    def test_a_period_too_short_to_play_is_refused_at_start_and_by_check(self):
        # An "every" of 1e-300 never moved the event's time on: the daemon
        # played it for ever and no longer heard SIGTERM or --run-seconds.
        path = self.write({"events": [{"at": 0.1, "every": 1e-300, "do": "log", "text": "x"}]})
        for args in (("--port", "0", "--run-seconds", "1"), ("--check",)):
            with self.subTest(args=args):
                out = subprocess.run([DAEMON, "--scenario", path, *args], capture_output=True,
                                     text=True, timeout=10, stdin=subprocess.DEVNULL)
                self.assertEqual(out.returncode, BAD_CONFIGURATION, out.stderr[-2000:])
                self.assertIn('the scenario "%s" cannot be played:' % path, out.stderr)
                self.assertIn("events[0].every: expected 0 or at least 0.001 seconds, got 1e-300",
                              out.stderr)
                self.assertNotIn("listening on", out.stderr)

    def test_devices_given_one_id_twice_are_refused_at_start_and_by_check(self):
        # --check called this valid; the daemon then stopped with status 1 and
        # "device id 2 is in use", naming neither the file nor the device.
        path = self.write({"devices": [{"id": 2, "name": "UPS"}, {"id": 2, "name": "Other"}]})
        for args in (("--port", "0", "--run-seconds", "1"), ("--check",)):
            with self.subTest(args=args):
                out = subprocess.run([DAEMON, "--scenario", path, *args], capture_output=True,
                                     text=True, timeout=10, stdin=subprocess.DEVNULL)
                self.assertEqual(out.returncode, BAD_CONFIGURATION, out.stderr[-2000:])
                self.assertIn('the scenario "%s" cannot be played:' % path, out.stderr)
                self.assertIn("devices[1].id: device id 2 is that of devices[0] already",
                              out.stderr)


    def test_an_id_the_store_gave_a_device_already_is_refused_at_start_and_by_check(self):
        # The first device, without an id, gets id 1 from the store; the
        # second asks for 1. The daemon stopped with status 1 and "device id 1
        # is in use" after --check had called the file valid.
        path = self.write({"devices": [{"name": "A"}, {"id": 1, "name": "B"}]})
        for args in (("--port", "0", "--run-seconds", "1"), ("--check",),
                     ("--describe=csv",)):
            with self.subTest(args=args):
                out = subprocess.run([DAEMON, "--scenario", path, *args], capture_output=True,
                                     text=True, timeout=10, stdin=subprocess.DEVNULL)
                self.assertEqual(out.returncode, BAD_CONFIGURATION, out.stderr[-2000:])
                self.assertIn('the scenario "%s" cannot be played:' % path, out.stderr)
                self.assertIn("error:   devices[1]: device id 1 is in use", out.stderr)
                self.assertNotIn("listening on", out.stderr)

if __name__ == "__main__":
    unittest.main()
