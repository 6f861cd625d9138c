"""A upsd of our own with dummy-ups drivers, for the NUT source's tests.

Everything lives in a temporary directory (configuration, driver sockets,
.dev files); upsd listens on a free loopback port. upsd and every driver run
in the foreground as our children and are stopped by their process ids.
"""
import os
import signal
import socket
import subprocess
import tempfile
import time
import unittest

DRIVERS = "/lib/nut"
UPSD = os.path.join(DRIVERS, "upsd")
DUMMY_UPS = os.path.join(DRIVERS, "dummy-ups")
SOURCE_DIR = os.path.dirname(os.path.abspath(__file__))
NUT_MAP = os.path.join(SOURCE_DIR, "..", "..", "daemon", "maps", "nut-ups-map.json")
DEMO_DEV = os.path.join(SOURCE_DIR, "..", "..", "daemon", "nut", "demo-ups.dev")
ADMIN, ADMIN_PASSWORD = "admin", "e2e-admin-secret"
STARTUP_LIMIT_S = 10.0


def demo_dev():
    with open(DEMO_DEV, encoding="utf-8") as f:
        return f.read()


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Upsd:
    """upsd on 127.0.0.1:<free port> serving one dummy-ups per UPS.

    upses: {name: (file name, contents)}; a name ending in .seq makes the
    driver play the file in a loop (TIMER lines), .dev reads it once and
    again whenever the file changes.
    """

    def __init__(self, upses):
        self._dir = tempfile.TemporaryDirectory(prefix="tarsel-nut-")
        self.etc = os.path.join(self._dir.name, "etc")
        self.state = os.path.join(self._dir.name, "state")
        os.makedirs(self.etc)
        os.makedirs(self.state, mode=0o700)
        self.port = free_port()
        self.env = dict(os.environ, NUT_CONFPATH=self.etc, NUT_STATEPATH=self.state)
        # As root, NUT would switch to its own user, which cannot reach this
        # directory: stay who we are.
        self._user = ["-u", "root"] if os.geteuid() == 0 else []
        self.upses = dict(upses)
        self.drivers = {}
        self.upsd = None
        for file_name, contents in self.upses.values():
            self.write_file(file_name, contents)
        self.write_ups_conf(self.upses)
        with open(os.path.join(self.etc, "upsd.conf"), "w", encoding="utf-8") as conf:
            conf.write(f"LISTEN 127.0.0.1 {self.port}\nSTATEPATH {self.state}\n")
        with open(os.path.join(self.etc, "upsd.users"), "w", encoding="utf-8") as users:
            users.write(f"[{ADMIN}]\n    password = {ADMIN_PASSWORD}\n"
                        "    actions = SET\n    instcmds = ALL\n")
        os.chmod(os.path.join(self.etc, "upsd.users"), 0o600)
        try:
            for name in self.upses:
                self.start_driver(name)
            self.start_upsd()
        except Exception:
            self.stop()
            raise

    def write_ups_conf(self, upses):
        with open(os.path.join(self.etc, "ups.conf"), "w", encoding="utf-8") as conf:
            for name, (file_name, _) in upses.items():
                conf.write(f"[{name}]\n    driver = dummy-ups\n    port = {file_name}\n")

    def reload_upsd(self, upses):
        """upsd serves only these UPSes from now on (its configuration reloaded)."""
        self.write_ups_conf(upses)
        os.kill(self.upsd.pid, signal.SIGHUP)

    def write_file(self, file_name, contents):
        path = os.path.join(self.etc, file_name)
        with open(path, "w", encoding="utf-8") as f:
            f.write(contents)
        # dummy-ups reads a .dev again when its time stamp moves: make sure
        # it does even within the file system's time resolution.
        now = time.time()
        os.utime(path, (now, now))

    def start_driver(self, name):
        self.drivers[name] = subprocess.Popen(
            [DUMMY_UPS, "-a", name, "-F", "-i", "1"] + self._user, env=self.env,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        socket_prefix = os.path.join(self.state, "dummy-ups-" + name)
        self._wait(lambda: os.path.exists(socket_prefix), "dummy-ups for " + name)

    def start_upsd(self, wait=True):
        self.upsd = subprocess.Popen([UPSD, "-F"] + self._user, env=self.env,
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        if not wait:
            return
        # dummy-ups hands its variables over a little at a time: wait until
        # the last of every file (all of them have a device.serial) is there.
        for name in self.upses:
            self._wait(lambda: self.upsc(name, "device.serial") is not None, "upsd with " + name)

    def stop_driver(self, name):
        self._stop(self.drivers.pop(name))

    def stop_upsd(self):
        self._stop(self.upsd)
        self.upsd = None

    def pause_upsd(self):
        os.kill(self.upsd.pid, signal.SIGSTOP)

    def resume_upsd(self):
        os.kill(self.upsd.pid, signal.SIGCONT)

    def upsc(self, ups, variable):
        """The variable's value as upsc gives it; None when upsc fails."""
        result = subprocess.run(["upsc", f"{ups}@127.0.0.1:{self.port}", variable],
                                env=self.env, capture_output=True, text=True, timeout=10)
        return result.stdout.strip() if result.returncode == 0 else None

    def upsrw(self, ups, variable, value, user=ADMIN, password=ADMIN_PASSWORD):
        """Sets a variable as an administrator would; True when upsd took it."""
        result = subprocess.run(["upsrw", "-s", f"{variable}={value}", "-u", user, "-p", password,
                                 f"{ups}@127.0.0.1:{self.port}"],
                                env=self.env, capture_output=True, text=True, timeout=10)
        return result.returncode == 0 and "OK" in result.stdout + result.stderr

    def endpoint(self, ups):
        return f"{ups}@127.0.0.1:{self.port}"

    def stop(self):
        for name in list(self.drivers):
            self.stop_driver(name)
        if self.upsd is not None:
            self.resume_upsd()
            self.stop_upsd()
        self._dir.cleanup()

    @staticmethod
    def _stop(process):
        if process.poll() is None:
            os.kill(process.pid, signal.SIGTERM)
        try:
            process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            os.kill(process.pid, signal.SIGKILL)
            process.wait()

    def _wait(self, condition, what):
        deadline = time.monotonic() + STARTUP_LIMIT_S
        while time.monotonic() < deadline:
            if condition():
                return
            time.sleep(0.1)
        raise RuntimeError(what + " did not come up")

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.stop()


class GatewayWithUpsdTest(unittest.TestCase):
    """A test case that may start a upsd, a daemon and one client of it: what it
    started is stopped after each test, the client first, upsd last."""

    def setUp(self):
        self.upsd = None
        self.daemon = None
        self.client = None

    def tearDown(self):
        if self.client is not None:
            self.client.close()
        if self.daemon is not None and self.daemon.alive():
            self.daemon.stop()
        if self.upsd is not None:
            self.upsd.stop()
