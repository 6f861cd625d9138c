"""What a newcomer meets when first starting tarsel-modbusd.

The mistakes (a file that is not there, an address that is no address, a
privileged port, files the daemon cannot use) must each stop the daemon
before it serves anything, with one line that names what to fix and the exit
status its unit relies on: 2 for a configuration a restart would not mend
(the unit does not restart after it). --check must find the same mistakes
before the service is enabled. And a start that is fine warns of nothing that
does not concern it."""
import json
import os
import subprocess
import tempfile
import unittest

from harness import DAEMON, running_ups, shipped_map
from tls_certs import make_certificates

BAD_CONFIGURATION = 2


def run(*args, user=None):
    """The daemon run to its end (it is bounded by --run-seconds)."""
    extra = {} if user is None else {"user": user, "group": user, "extra_groups": []}
    return subprocess.run([DAEMON, *args], capture_output=True, text=True, timeout=60,
                          stdin=subprocess.DEVNULL, **extra)


def serving(*args):
    """A daemon that would serve on a free loopback port for a second."""
    return run("--port", "0", "--run-seconds", "1", *args)


class StartupErrorsTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory(prefix="tarsel-startup-")
        self.addCleanup(self.dir.cleanup)

    def path(self, name):
        return os.path.join(self.dir.name, name)

    def assertRefusedBeforeServing(self, out, message):
        self.assertEqual(out.returncode, BAD_CONFIGURATION, out.stderr)
        self.assertIn(message, out.stderr)
        self.assertNotIn("listening on", out.stderr)

    def test_a_map_or_scenario_file_that_cannot_be_read_is_a_bad_configuration(self):
        missing = self.path("missing.json")
        for args, message in (
                (("--map", missing), '--map: cannot read "%s": No such file or directory' % missing),
                (("--map", self.dir.name), '--map: cannot read "%s": Is a directory' % self.dir.name),
                (("--scenario", missing),
                 '--scenario: cannot read "%s": No such file or directory' % missing)):
            with self.subTest(args=args):
                self.assertRefusedBeforeServing(serving(*args), message)
                self.assertRefusedBeforeServing(run("--check", *args), message)

    def test_a_file_larger_than_any_map_is_refused_without_reading_it_all(self):
        # /dev/zero never ends: read whole, it would take all the memory.
        too_large = '"/dev/zero" is larger than 64 MiB, more than any map, scenario or settings file'
        for args, message in ((("--map", "/dev/zero"), "--map: " + too_large),
                              (("--scenario", "/dev/zero"), "--scenario: " + too_large),
                              (("--config", "/dev/zero"), "settings file: " + too_large)):
            with self.subTest(args=args):
                self.assertRefusedBeforeServing(serving(*args), message)
                self.assertRefusedBeforeServing(run("--check", *args), message)

    def test_a_listen_address_that_is_no_ipv4_address_is_refused_by_check_and_at_start(self):
        message = '--listen expects an IPv4 address (such as 0.0.0.0 or 127.0.0.1), got "localhost"'
        self.assertRefusedBeforeServing(run("--check", "--listen", "localhost"), message)
        self.assertRefusedBeforeServing(serving("--listen", "localhost"), message)

    def test_a_tls_certificate_that_cannot_be_loaded_stops_the_daemon_before_anything_listens(self):
        files = make_certificates(self.dir.name)
        _, key = files["server"]
        missing = self.path("missing.pem")
        args = ("--tls-port", "0", "--tls-cert", missing, "--tls-key", key, "--tls-ca",
                files["ca"][0], "--tls-role", "operator=read-write")
        message = "TLS: cannot load the certificate %s: " % missing
        self.assertRefusedBeforeServing(serving(*args), message)
        self.assertRefusedBeforeServing(run("--check", *args), message)

    def test_check_refuses_nut_credentials_the_daemon_would_refuse_at_start(self):
        credentials = self.path("credentials")
        with open(credentials, "w", encoding="utf-8") as f:
            f.write("username = gateway\npassword = secret\n")
        os.chmod(credentials, 0o644)
        args = ("--nut", "ups@127.0.0.1:1", "--nut-writes", "--nut-credentials", credentials)
        out = run("--check", *args)
        self.assertRefusedBeforeServing(out, "--nut-credentials: ")
        self.assertIn("is open to its group or others (mode 0644)", out.stderr)
        os.chmod(credentials, 0o600)
        out = run("--check", *args)
        self.assertEqual(out.returncode, 0, out.stderr)

    def test_every_file_at_fault_is_listed_at_once_by_check_and_at_start(self):
        # A bad map must not hide a bad scenario, TLS certificate or NUT
        # credentials file: each would otherwise cost one more round of
        # fixing and checking.
        bad_map = self.path("map.json")
        with open(bad_map, "w", encoding="utf-8") as f:
            f.write('{"entries": [{"table": "coils"}]}')
        bad_scenario = self.path("scenario.json")
        with open(bad_scenario, "w", encoding="utf-8") as f:
            f.write('{"devices": 5}')
        files = make_certificates(self.dir.name)
        missing = self.path("missing.pem")
        tls = ("--tls-port", "0", "--tls-cert", missing, "--tls-key", files["server"][1],
               "--tls-ca", files["ca"][0], "--tls-role", "operator=read-write")
        expected = ('the register map "%s" cannot be served:' % bad_map,
                    'the scenario "%s" cannot be played:' % bad_scenario,
                    "TLS: cannot load the certificate %s: " % missing)
        args = ("--map", bad_map, "--scenario", bad_scenario, *tls)
        for out in (run("--check", *args), serving(*args)):
            for message in expected:
                self.assertRefusedBeforeServing(out, message)
        credentials = self.path("credentials")
        with open(credentials, "w", encoding="utf-8") as f:
            f.write("username = gateway\n")
        os.chmod(credentials, 0o600)
        out = run("--check", "--map", bad_map, *tls, "--nut", "ups@127.0.0.1:1", "--nut-writes",
                  "--nut-credentials", credentials)
        for message in (expected[0], expected[2], "--nut-credentials: "):
            self.assertRefusedBeforeServing(out, message)

    def test_an_audit_trail_that_cannot_be_opened_is_a_bad_configuration_naming_the_reason(self):
        trail = self.path("no-such-directory/audit.log")
        message = '--audit-log: cannot open the audit trail "%s": No such file or directory' % trail
        self.assertRefusedBeforeServing(serving("--audit-log", trail), message)
        self.assertRefusedBeforeServing(run("--check", "--audit-log", trail), message)

    def test_check_finds_an_audit_trail_that_can_be_opened_without_creating_it(self):
        # Created by a --check run as root, the trail could not be written
        # by the service's own user afterwards.
        trail = self.path("audit.log")
        out = run("--check", "--audit-log", trail)
        self.assertEqual(out.returncode, 0, out.stderr)
        self.assertFalse(os.path.exists(trail))

    def test_a_privileged_port_without_the_right_to_bind_it_says_what_gives_that_right(self):
        with open("/proc/sys/net/ipv4/ip_unprivileged_port_start", encoding="utf-8") as f:
            if int(f.read()) <= 502:
                self.skipTest("this host lets anyone bind port 502")
        # As root the daemon would bind it: run it as nobody then.
        user = 65534 if os.geteuid() == 0 else None
        try:
            out = run("--port", "502", "--run-seconds", "1", user=user)
        except PermissionError as error:
            self.skipTest("nobody cannot run the daemon from here: %s" % error)
        if user is not None and "tarsel-modbusd:" not in out.stderr:
            self.skipTest("nobody cannot run the daemon from here: %s" % out.stderr.strip())
        self.assertEqual(out.returncode, 1, out.stderr)
        self.assertIn("cannot listen on 127.0.0.1:502: Permission denied (a port below 1024 "
                      "needs root or CAP_NET_BIND_SERVICE", out.stderr)

    def test_a_bad_nut_ups_is_the_one_error_named(self):
        out = run("--nut", "@host")
        self.assertEqual(out.returncode, BAD_CONFIGURATION)
        self.assertEqual(out.stderr, 'tarsel-modbusd: --nut expects UPS[@HOST[:PORT]], got "@host"\n')

    def test_a_start_warns_about_the_float_layout_only_for_entries_that_use_it(self):
        # A map without the library's "float" encoder (the shipped ones)
        # starts without a warning: a present UPS leaves nothing to warn of.
        scenario = self.path("scenario.json")
        with open(scenario, "w", encoding="utf-8") as f:
            json.dump(running_ups(), f)
        out = run("--describe=json", "--scenario", scenario)
        self.assertEqual(out.returncode, 0, out.stderr)
        self.assertNotIn("warning:", out.stderr)
        # One that has one is warned about, by name, wherever this
        # libmodbus does not read back what it writes.
        layouts = json.loads(out.stdout)["floatLayout"]["layouts"]
        with_float = shipped_map()
        with_float["entries"].append(
            {"name": "card-float", "table": "holding-registers", "address": 100,
             "encoder": "float", "byteOrder": 0,
             "source": {"device": 2, "channel": "Battery.Charge"}})
        map_file = self.path("map.json")
        with open(map_file, "w", encoding="utf-8") as f:
            json.dump(with_float, f)
        out = run("--describe=json", "--scenario", scenario, "--map", map_file)
        self.assertEqual(out.returncode, 0, out.stderr)
        order0 = [layout for layout in layouts if layout["byteOrder"] == 0][0]
        warnings = [line for line in out.stderr.splitlines() if "warning:" in line]
        if order0["roundTrips"]:
            self.assertEqual(warnings, [])
        else:
            self.assertEqual(len(warnings), 1, out.stderr)
            self.assertIn('"card-float"', warnings[0])

    def test_version_names_the_program_and_its_version(self):
        out = run("--version")
        self.assertEqual(out.returncode, 0, out.stderr)
        self.assertRegex(out.stdout, r"^tarsel-modbusd \d+\.\d+\.\d+\n$")
        self.assertIn("--version", run("--help").stdout)


if __name__ == "__main__":
    unittest.main()
