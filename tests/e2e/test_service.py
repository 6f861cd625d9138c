"""tarsel-modbusd as a service: its settings and secrets files, readiness
reported to systemd (sd_notify) and log lines for the journal."""
import json
import os
import signal
import socket
import subprocess
import tempfile
import unittest

from harness import DAEMON, Daemon, STARTUP_LIMIT_S, running_ups


def write(directory, name, content, mode=0o644):
    path = os.path.join(directory, name)
    with open(path, "w", encoding="utf-8") as f:
        f.write(content if isinstance(content, str) else json.dumps(content))
    os.chmod(path, mode)
    return path


def run(*args, env=None, timeout=30):
    return subprocess.run([DAEMON, *args], capture_output=True, text=True, timeout=timeout,
                          env=env)


class ServiceTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory(prefix="tarsel-service-")
        self.addCleanup(self.dir.cleanup)

    def read_model(self, args):
        """Starts the daemon over a running UPS with args; the answer to a
        read of unit 7's first input registers, and the daemon's port."""
        with Daemon(scenario_json=running_ups(), args=args) as daemon:
            self.assertTrue(daemon.wait_for_log("(unit id 7)"))
            client = daemon.client()
            answer = client.read_input_registers(0, 16, slave=7)
            client.close()
            status, _ = daemon.stop()
        self.assertEqual(status, 0)
        return answer, daemon.port

    def test_settings_file_configures_the_daemon_and_the_command_line_overrides_it(self):
        settings = write(self.dir.name, "settings.json",
                         {"port": 502, "unit-id": 7, "allow-read": ["none"]})
        # The harness adds --port 0: the file's 502 gives way.
        refused, port = self.read_model(("--config", settings))
        self.assertNotEqual(port, 502)
        self.assertTrue(refused.isError())
        answer, _ = self.read_model(("--config", settings, "--allow-read", "any"))
        self.assertFalse(answer.isError(), answer)
        model = b"".join(r.to_bytes(2, "big") for r in answer.registers)
        self.assertEqual(model.rstrip(b"\0"), b"Simulated UPS 3000 RT")

    def test_sighup_reads_the_settings_file_again(self):
        settings = write(self.dir.name, "settings.json", {"unit-id": 7})
        with Daemon(scenario_json=running_ups(), args=("--config", settings)) as daemon:
            self.assertTrue(daemon.wait_for_log("(unit id 7)"))
            write(self.dir.name, "settings.json", {"unit-id": 8})
            os.kill(daemon.process.pid, signal.SIGHUP)
            self.assertTrue(daemon.wait_for_log("reload applied"), "\n".join(daemon.log_lines))
            client = daemon.client()
            answer = client.read_input_registers(0, 16, slave=8)
            client.close()
            write(self.dir.name, "settings.json", {"unit-id": 300})
            os.kill(daemon.process.pid, signal.SIGHUP)
            self.assertTrue(daemon.wait_for_log("reload refused"), "\n".join(daemon.log_lines))
            status, log = daemon.stop()
        self.assertFalse(answer.isError(), answer)
        self.assertIn("unit-id: expected an integer from 1 to 247, got 300", log)
        self.assertEqual(status, 0)

    def test_bad_settings_file_is_refused_with_every_error_listed(self):
        settings = write(self.dir.name, "settings.json",
                         {"port": 70000, "listen": 1, "frobnicate": True, "check": True})
        out = run("--config", settings, "--run-seconds", "5")
        self.assertEqual(out.returncode, 2)
        lines = out.stderr.splitlines()
        self.assertEqual(lines, [
            "tarsel-modbusd: %s: check: a command-line option, not a setting" % settings,
            "tarsel-modbusd: %s: frobnicate: unknown setting" % settings,
            "tarsel-modbusd: %s: listen: expected a string, got 1" % settings,
            "tarsel-modbusd: %s: port: expected an integer from 0 to 65535, got 70000" % settings,
        ])

    def test_check_validates_the_settings_file(self):
        settings = write(self.dir.name, "settings.json", {"scenario": "none", "unit-id": 3})
        out = run("--config", settings, "--check")
        self.assertEqual(out.returncode, 0, out.stderr)
        self.assertIn("scenario: none", out.stderr)

    def test_secrets_file_others_may_read_is_refused(self):
        secrets = write(self.dir.name, "secrets.json", {"tls-key": "server.key"}, 0o640)
        settings = write(self.dir.name, "settings.json", {"secrets": secrets})
        out = run("--config", settings, "--run-seconds", "5")
        self.assertEqual(out.returncode, 2)
        self.assertEqual(out.stderr,
                         "tarsel-modbusd: secrets file: \"%s\" is open to its group or others "
                         "(mode 0640); it holds a secret: chmod 600 it and try again\n" % secrets)

    def test_readiness_is_reported_to_systemd_once_listening(self):
        path = os.path.join(self.dir.name, "notify")
        notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        notify.bind(path)
        notify.settimeout(STARTUP_LIMIT_S)
        self.addCleanup(notify.close)
        os.environ["NOTIFY_SOCKET"] = path
        try:
            daemon = Daemon(args=("--scenario", "none"))
        finally:
            del os.environ["NOTIFY_SOCKET"]
        with daemon:
            ready = notify.recv(4096).decode().split("\n")
            # Sent after the listener was opened: a client gets in at once.
            client = daemon.client()
            client.close()
            status, _ = daemon.stop()
        self.assertIn("READY=1", ready)
        self.assertIn("STATUS=serving unit id 1 on 127.0.0.1:%d" % daemon.port, ready)
        self.assertEqual(notify.recv(4096).decode(), "STOPPING=1")
        self.assertEqual(status, 0)

    def test_a_daemon_without_nut_maps_neither_nuts_client_nor_nss_nor_libsystemd(self):
        # Readiness goes out through a socket of the daemon's own, and NUT's
        # client library (with the NSS it is built with) is loaded for --nut
        # only: none of them costs resident memory in a plain daemon.
        with Daemon(args=("--scenario", "none")) as daemon:
            with open("/proc/%d/maps" % daemon.process.pid, encoding="utf-8") as f:
                mapped = {os.path.basename(line.split()[-1]) for line in f
                          if line.split()[-1].startswith("/")}
            status, _ = daemon.stop()
        self.assertEqual(status, 0)
        self.assertTrue(any(name.startswith("libmodbus.so") for name in mapped), mapped)
        for library in ("libupsclient.so", "libnss3.so", "libnspr4.so", "libsystemd.so",
                        "libgcrypt.so", "libzstd.so", "liblzma.so", "liblz4.so", "libcap.so"):
            self.assertFalse(any(name.startswith(library) for name in mapped),
                             "%s is mapped: %s" % (library, sorted(mapped)))

    def run_with_stderr_as(self, journal_stream_of_stderr):
        """Runs --check with stderr on a file, JOURNAL_STREAM naming that file
        or another one; returns the log."""
        log_path = os.path.join(self.dir.name, "log")
        other = os.path.join(self.dir.name, "other")
        open(other, "w").close()
        with open(log_path, "w", encoding="utf-8") as log:
            named = os.fstat(log.fileno()) if journal_stream_of_stderr else os.stat(other)
            env = dict(os.environ, JOURNAL_STREAM="%d:%d" % (named.st_dev, named.st_ino))
            status = subprocess.run([DAEMON, "--check", "--scenario", "none"], stderr=log,
                                    env=env, timeout=30).returncode
        self.assertEqual(status, 0)
        with open(log_path, encoding="utf-8") as f:
            return f.read()

    def test_log_lines_carry_journal_priorities_when_stderr_is_the_journal(self):
        log = self.run_with_stderr_as(True)
        lines = log.splitlines()
        self.assertIn("<6>scenario: none", lines)
        self.assertTrue(all(line[:3] in ("<3>", "<4>", "<6>", "<7>") for line in lines), log)
        self.assertNotIn("tarsel-modbusd:", log)

    def test_log_stays_plain_when_journal_stream_names_another_file(self):
        log = self.run_with_stderr_as(False)
        self.assertIn("tarsel-modbusd: scenario: none\n", log)
        self.assertNotIn("<6>", log)

    def test_log_format_journal_is_taken_when_asked_for(self):
        out = run("--check", "--scenario", "none", "--log-format", "journal",
                  env={k: v for k, v in os.environ.items() if k != "JOURNAL_STREAM"})
        self.assertEqual(out.returncode, 0)
        self.assertIn("<6>scenario: none\n", out.stderr)


if __name__ == "__main__":
    unittest.main()
