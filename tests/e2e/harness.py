"""Starts tarsel-modbusd for one test and stops it again, by its process id.

Every daemon listens on loopback only, on a port the kernel picks (--port 0,
read back from the log), and carries --run-seconds as a safety net; the test
stops it itself with SIGTERM and checks that it stopped cleanly.
"""
import copy
import json
import os
import queue
import signal
import subprocess
import tempfile
import threading
import time

from pymodbus.client import ModbusTcpClient

DAEMON = os.environ.get("TARSEL_MODBUSD", "tarsel-modbusd")
SOURCE_DIR = os.path.dirname(os.path.abspath(__file__))
SHIPPED_MAP = os.path.join(SOURCE_DIR, "..", "..", "daemon", "maps", "ups-map.json")
SHIPPED_SCENARIO = os.path.join(SOURCE_DIR, "..", "..", "daemon", "scenarios", "ups-scenario.json")
UPS = 2
STARTUP_LIMIT_S = 10.0
SAFETY_RUN_S = 60


def shipped_map():
    with open(SHIPPED_MAP, encoding="utf-8") as f:
        return json.load(f)


def shipped_scenario():
    with open(SHIPPED_SCENARIO, encoding="utf-8") as f:
        return json.load(f)


def running_ups(channels=None, events=None):
    """The shipped scenario's UPS, present and running from the start."""
    scenario = shipped_scenario()
    detected = [e for e in scenario["events"] if e["do"] == "add-device" and e["at"] == 2][0]
    ups = copy.deepcopy(detected["device"])
    ups["channels"]["PowerDistribution.Status.OperatingStatus"] = {"uint32": 16}
    ups["channels"].update(channels or {})
    return {"devices": scenario["devices"] + [ups], "events": events or []}


def poll_until(condition, attempts=100, interval=0.05):
    """Asks condition() at most `attempts` times; returns its last answer."""
    result = None
    for _ in range(attempts):
        result = condition()
        if result:
            return result
        time.sleep(interval)
    return result


class Daemon:
    """One tarsel-modbusd process with its own files and a free port."""

    def __init__(self, map_json=None, scenario_json=None, args=(), verbose=True, wrapper=(),
                 env=None):
        """wrapper: a command the daemon runs under (strace, say); its own
        output must not go to stderr, which carries the daemon's log. env: the
        daemon's environment, when not this process's."""
        self._dir = tempfile.TemporaryDirectory(prefix="tarsel-e2e-")
        command = [*wrapper, DAEMON, "--port", "0", "--run-seconds", str(SAFETY_RUN_S)]
        if verbose:
            command.append("--verbose")
        if map_json is not None:
            command += ["--map", self._write("map.json", map_json)]
        if scenario_json is not None:
            command += ["--scenario", self._write("scenario.json", scenario_json)]
        command += list(args)
        self.log_lines = []
        self._lines = queue.Queue()
        self.process = subprocess.Popen(command, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.PIPE, text=True, env=env)
        # The log is read on a thread of its own so that waiting for a line
        # can be bounded; the thread ends when the daemon closes its stderr.
        self._reader = threading.Thread(target=self._read_log, daemon=True)
        self._reader.start()
        self.port = self._wait_for_port()

    def _read_log(self):
        for line in self.process.stderr:
            self._lines.put(line.rstrip("\n"))
        self._lines.put(None)

    def _write(self, name, content):
        path = os.path.join(self._dir.name, name)
        with open(path, "w", encoding="utf-8") as f:
            f.write(content if isinstance(content, str) else json.dumps(content))
        return path

    def _read_line(self, timeout):
        """The next log line, or None at the end of the log or after timeout seconds."""
        try:
            line = self._lines.get(timeout=max(timeout, 0))
        except queue.Empty:
            return None
        if line is not None:
            self.log_lines.append(line)
        return line

    def _wait_for_port(self):
        deadline = time.monotonic() + STARTUP_LIMIT_S
        while time.monotonic() < deadline:
            line = self._read_line(deadline - time.monotonic())
            if not line:
                break
            if "listening on 127.0.0.1:" in line:
                return int(line.rsplit(":", 1)[1].split()[0])
        self.stop()
        raise RuntimeError("the daemon did not start:\n" + "\n".join(self.log_lines))

    def drain_log(self):
        """Reads every log line waiting now; returns how many bytes they hold."""
        size = 0
        while (line := self._read_line(0)) is not None:
            size += len(line) + 1
        return size

    def wait_for_log(self, text, limit_s=10.0):
        """Reads the log until a line holds text, for at most limit_s seconds."""
        if any(text in line for line in self.log_lines):
            return True
        deadline = time.monotonic() + limit_s
        while time.monotonic() < deadline:
            line = self._read_line(deadline - time.monotonic())
            if not line:
                return False
            if text in line:
                return True
        return False

    def client(self):
        client = ModbusTcpClient("127.0.0.1", port=self.port, timeout=3)
        assert client.connect(), "cannot connect to the daemon"
        return client

    def alive(self):
        return self.process.poll() is None

    def stop(self):
        """SIGTERM to our daemon's pid; returns its exit status and the whole log."""
        if self.process.poll() is None:
            os.kill(self.process.pid, signal.SIGTERM)
        try:
            self.process.wait(timeout=15)
        except subprocess.TimeoutExpired:
            os.kill(self.process.pid, signal.SIGKILL)
            self.process.wait()
        self._reader.join(timeout=10)
        while self._read_line(0) is not None:
            pass
        self.process.stderr.close()
        self._dir.cleanup()
        return self.process.returncode, "\n".join(self.log_lines)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        if self.process.poll() is None:
            self.stop()
