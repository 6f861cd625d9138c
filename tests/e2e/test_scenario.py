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

from harness import DAEMON, Daemon, poll_until, running_ups

BAD_CONFIGURATION = 2
OPERATING_STATUS = 61  # input register of the UPS's operating status
BATTERY_CHARGE = 50  # input register, uint16
LOW_BATTERY_WARNING = 12  # holding register, a numeric string


def read_status(client):
    answer = client.read_input_registers(OPERATING_STATUS, 1, slave=1)
    return None if answer.isError() else answer.registers


def run_daemon(*args):
    """tarsel-modbusd run to its end with `args`: its exit status and what it printed."""
    return subprocess.run([DAEMON, *args], capture_output=True, text=True, timeout=10,
                          stdin=subprocess.DEVNULL)


def read(client, address):
    """The input register's value, or the exception code as a string."""
    answer = client.read_input_registers(address, 1, slave=1)
    return "exception %d" % answer.exception_code if answer.isError() else answer.registers[0]


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
                out = run_daemon("--scenario", path, *args)
                self.assertEqual(out.returncode, BAD_CONFIGURATION, out.stderr[-2000:])
                self.assertIn('the scenario "%s" cannot be played:' % path, out.stderr)
                self.assertIn("events[0].every: expected 0 or at least 0.001 seconds, got 1e-300",
                              out.stderr)
                self.assertNotIn("listening on", out.stderr)

    def test_a_scenario_that_never_names_the_operating_status_is_warned_about(self):
        # Valid, and played, but the availability check never sees the UPS:
        # the map would stay unavailable with no word why.
        ups = running_ups()["devices"][-1]
        del ups["channels"]["PowerDistribution.Status.OperatingStatus"]
        path = self.write({"devices": [ups]})
        warning = ('warning: scenario: no device and no event names the channel '
                   '"PowerDistribution.Status.OperatingStatus", whose value 16 on device 2 '
                   'tells that the UPS is there: the map will never be served')
        for args in (("--port", "0", "--run-seconds", "0.5"), ("--check",)):
            with self.subTest(args=args):
                out = run_daemon("--scenario", path, *args)
                self.assertEqual(out.returncode, 0, out.stderr[-2000:])
                self.assertIn(warning, out.stderr)
        shipped = run_daemon("--check")
        self.assertEqual(shipped.returncode, 0, shipped.stderr[-2000:])
        self.assertNotIn("the map will never be served", shipped.stderr)

    def test_devices_given_one_id_twice_are_refused_at_start_and_by_check(self):
        # --check called this valid; the daemon then stopped with status 1 and
        # "device id 2 is in use", naming neither the file nor the device.
        path = self.write({"devices": [{"id": 2, "name": "UPS"}, {"id": 2, "name": "Other"}]})
        for args in (("--port", "0", "--run-seconds", "1"), ("--check",)):
            with self.subTest(args=args):
                out = run_daemon("--scenario", path, *args)
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
                out = run_daemon("--scenario", path, *args)
                self.assertEqual(out.returncode, BAD_CONFIGURATION, out.stderr[-2000:])
                self.assertIn('the scenario "%s" cannot be played:' % path, out.stderr)
                self.assertIn("error:   devices[1]: device id 1 is in use", out.stderr)
                self.assertNotIn("listening on", out.stderr)

    def test_a_ups_that_leaves_and_comes_back_is_served_again_and_its_changes_pushed(self):
        ups = running_ups()["devices"][-1]
        events = [{"at": 1, "do": "remove-device", "device": 2},
                  {"at": 2, "do": "add-device", "device": ups},
                  {"at": 3, "do": "set-channel", "device": 2, "channel": "Battery.Charge",
                   "value": {"uint32": 77}}]
        daemon = Daemon(None, running_ups(events=events), verbose=False)
        with daemon:
            client = daemon.client()
            try:
                self.assertEqual(read(client, BATTERY_CHARGE), 100)
                # Gone: each entry reads its unavailable value (the gate, once
                # open, stays open) and a write is refused.
                self.assertTrue(poll_until(lambda: read(client, BATTERY_CHARGE) == 0xFFFF,
                                           attempts=60))
                self.assertEqual(read(client, OPERATING_STATUS), 0xFFFF)
                answer = client.write_register(LOW_BATTERY_WARNING, 25, slave=1)
                self.assertTrue(answer.isError())
                self.assertEqual(answer.exception_code, 4)
                # Back: served again, and a later change reaches the client.
                self.assertTrue(poll_until(lambda: read(client, BATTERY_CHARGE) == 100,
                                           attempts=60))
                self.assertEqual(read(client, OPERATING_STATUS), 16)
                self.assertFalse(client.write_register(LOW_BATTERY_WARNING, 25, slave=1).isError())
                self.assertTrue(poll_until(lambda: read(client, BATTERY_CHARGE) == 77,
                                           attempts=60))
            finally:
                client.close()
            status, log = daemon.stop()
        self.assertEqual(status, 0, log[-2000:])
        self.assertIn("stopped; data-store subscriptions still open: 0", log)

    def test_describe_at_plays_the_runs_due_up_to_n_seconds_and_not_one_more(self):
        # The 16th run of a repeat every 0.1 s from 0 is due at 1.5 s. Added
        # up run by run, its time was 1.5000000000000002: --describe-at 1.5
        # left it out.
        charge = {"at": 0, "every": 0.1, "do": "set-channel", "device": 2,
                  "channel": "Battery.Charge", "values": [{"uint32": n} for n in range(1, 21)]}
        path = self.write(running_ups(events=[charge]))
        for seconds, value in (("1.4999", "15"), ("1.5", "16")):
            with self.subTest(seconds=seconds):
                out = run_daemon("--scenario", path, "--describe=json", "--describe-at", seconds)
                self.assertEqual(out.returncode, 0, out.stderr[-2000:])
                entries = json.loads(out.stdout)["entries"]
                entry = [e for e in entries if e["name"] == "battery.charge"][0]
                self.assertEqual(entry["value"], value)


if __name__ == "__main__":
    unittest.main()
