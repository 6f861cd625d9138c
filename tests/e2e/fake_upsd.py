"""A scripted upsd on loopback, for what the real one never does: answers
that trickle in, lists that never end, lines no upsd would send.

It speaks just enough of NUT's network protocol for the daemon's poller:
each request line is handed to a script (a function of the line) whose answer
is sent back. A script answers with bytes, with a list of (bytes, seconds to
wait before them) to send a little at a time, with SILENT (no answer, the
connection stays open), with CLOSE (the connection is closed at once) or
RESET (it is reset); CLOSE and RESET may also end a list, in place of bytes.

Everything runs on threads of this process; every wait is bounded and stop()
ends them all.
"""
import socket
import struct
import threading
import time

SILENT = object()
CLOSE = object()
RESET = object()  # the connection is reset (RST) at once
STEP_S = 0.1  # how often a thread looks whether it is to stop


def quoted(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def list_answer(ups, kind, lines):
    """BEGIN LIST <kind> <ups>, each line, END LIST <kind> <ups>."""
    body = "".join(line + "\n" for line in lines)
    return (f"BEGIN LIST {kind} {ups}\n{body}END LIST {kind} {ups}\n").encode("utf-8")


def var_lines(ups, variables):
    return [f"VAR {ups} {name} {quoted(value)}" for name, value in variables.items()]


def serving(ups, variables, commands=()):
    """The script of a upsd serving one UPS with these variables and commands."""

    def answer(line):
        words = line.split()
        if words[:2] == ["LIST", "VAR"] and words[2:] == [ups]:
            return list_answer(ups, "VAR", var_lines(ups, variables()))
        if words[:2] == ["LIST", "CMD"] and words[2:] == [ups]:
            return list_answer(ups, "CMD", [f"CMD {ups} {c}" for c in commands])
        if words[:1] == ["LIST"]:
            return b"ERR UNKNOWN-UPS\n"
        return b"ERR UNKNOWN-COMMAND\n"

    return answer


class FakeUpsd:
    """Listens on 127.0.0.1 at `port` (0: a free one); `script` answers each
    request."""

    def __init__(self, script, port=0):
        self.script = script
        self.requests = []  # every request line, in order
        self.connections = 0
        self._stop = threading.Event()
        self._lock = threading.Lock()
        self._listener = socket.socket()
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._listener.bind(("127.0.0.1", port))
        self._listener.listen(16)
        self._listener.settimeout(STEP_S)
        self.port = self._listener.getsockname()[1]
        self._threads = [threading.Thread(target=self._accept, daemon=True)]
        self._threads[0].start()

    def endpoint(self, ups):
        return f"{ups}@127.0.0.1:{self.port}"

    def _accept(self):
        while not self._stop.is_set():
            try:
                connection, _ = self._listener.accept()
            except socket.timeout:
                continue
            except OSError:
                return
            with self._lock:
                self.connections += 1
                thread = threading.Thread(target=self._serve, args=(connection,), daemon=True)
                self._threads.append(thread)
            thread.start()

    def _serve(self, connection):
        connection.settimeout(STEP_S)
        pending = b""
        with connection:
            while not self._stop.is_set():
                try:
                    received = connection.recv(4096)
                except socket.timeout:
                    continue
                except OSError:
                    return
                if not received:
                    return
                pending += received
                while b"\n" in pending:
                    line, pending = pending.split(b"\n", 1)
                    request = line.decode("utf-8", "replace").strip()
                    with self._lock:
                        self.requests.append(request)
                    if not self._send(connection, self.script(request)):
                        return

    def _send(self, connection, answer):
        """False when the connection is to end."""
        if answer is SILENT:
            return True
        if answer in (CLOSE, RESET):
            return self._end(connection, answer)
        chunks = [(answer, 0.0)] if isinstance(answer, (bytes, bytearray)) else answer
        try:
            for data, delay in chunks:
                if self._stop.wait(delay):
                    return False
                if data in (CLOSE, RESET):
                    return self._end(connection, data)
                connection.sendall(data)
        except OSError:
            return False
        return True

    @staticmethod
    def _end(connection, how):
        """Ends the connection as `how` says; False, as the connection ends."""
        if how is RESET:
            # A zero linger time makes the close a reset.
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        return False

    def requests_of(self, prefix):
        with self._lock:
            return [r for r in self.requests if r.startswith(prefix)]

    def stop(self):
        self._stop.set()
        self._listener.close()
        for thread in list(self._threads):
            thread.join(timeout=10)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.stop()


def trickled(data, seconds_per_byte):
    """data, one byte at a time."""
    return [(data[i:i + 1], seconds_per_byte) for i in range(len(data))]


def wait_until(condition, limit_s, step_s=0.05):
    """Asks condition() until it holds or limit_s passed; its last answer."""
    deadline = time.monotonic() + limit_s
    while True:
        result = condition()
        if result or time.monotonic() >= deadline:
            return result
        time.sleep(step_s)
