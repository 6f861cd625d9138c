"""tarsel-modbusd keeps serving while clients misbehave.

Clients that never read their answers, stay idle, stop half-way through a
frame or connect and disconnect in bursts must not keep a well-behaved
client from being answered, nor keep the daemon from stopping.
"""
import os
import signal
import socket
import struct
import threading
import time
import unittest

from harness import Daemon, running_ups

# FC3, 125 registers from 0: the largest answer for a 12-byte request.
BIG_READ = bytes.fromhex("00020000000601030000007d")
HEALTHY_LIMIT_S = 0.2


def read_frame(sock):
    """One whole answer frame from a blocking socket."""
    header = b""
    while len(header) < 6:
        chunk = sock.recv(6 - len(header))
        if not chunk:
            raise ConnectionError("closed")
        header += chunk
    rest = b""
    (length,) = struct.unpack(">H", header[4:6])
    while len(rest) < length:
        chunk = sock.recv(length - len(rest))
        if not chunk:
            raise ConnectionError("closed")
        rest += chunk
    return header + rest


def closed_by_peer(sock, limit_s):
    """True when the daemon closes the socket within limit_s seconds."""
    sock.settimeout(limit_s)
    try:
        while True:
            if not sock.recv(4096):
                return True
    except socket.timeout:
        return False
    except ConnectionResetError:
        return True


class NonReader:
    """A client that pipelines big reads and never reads an answer."""

    def __init__(self, port):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        # A small receive window: the daemon's answers pile up sooner.
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        self.sock.connect(("127.0.0.1", port))
        self.sock.settimeout(0.2)
        self.sent = 0
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._send, daemon=True)
        self._thread.start()

    def _send(self):
        burst = BIG_READ * 64
        while not self._stop.is_set():
            try:
                self.sock.sendall(burst)
                self.sent += 64
            except socket.timeout:
                continue  # the daemon does not take more now; try again
            except OSError:
                return  # the daemon closed us

    def close(self):
        self._stop.set()
        self._thread.join(timeout=5)
        self.sock.close()


class AvailabilityTest(unittest.TestCase):
    def setUp(self):
        self.daemon = None
        self.sockets = []

    def tearDown(self):
        for sock in self.sockets:
            sock.close()
        if self.daemon and self.daemon.alive():
            self.daemon.stop()

    def start(self, *args):
        self.daemon = Daemon(None, running_ups(), args)
        return self.daemon

    def connect(self, port=None):
        sock = socket.create_connection(("127.0.0.1", port or self.daemon.port), timeout=3)
        self.sockets.append(sock)
        return sock

    def healthy_round_trip(self, sock, transaction):
        """Seconds for one FC4 read of the operating status; checks the answer."""
        started = time.monotonic()
        sock.sendall(struct.pack(">HHHBBHH", transaction, 0, 6, 1, 4, 61, 1))
        answer = read_frame(sock)
        elapsed = time.monotonic() - started
        self.assertEqual(answer, struct.pack(">HHHBBBH", transaction, 0, 5, 1, 4, 2, 16))
        return elapsed

    def test_a_client_that_never_reads_does_not_stall_a_healthy_one_and_is_dropped(self):
        daemon = self.start()
        healthy = self.connect()
        non_reader = NonReader(daemon.port)
        try:
            slowest = 0.0
            deadline = time.monotonic() + 4.0
            transaction = 0
            while time.monotonic() < deadline:
                transaction += 1
                slowest = max(slowest, self.healthy_round_trip(healthy, transaction))
                time.sleep(0.02)
            self.assertLess(slowest, HEALTHY_LIMIT_S)
            self.assertGreater(non_reader.sent, 20000)  # far more than one queue of answers
            self.assertTrue(daemon.wait_for_log("does not read its answers", limit_s=5))
        finally:
            non_reader.close()
        self.assertLess(self.healthy_round_trip(healthy, 1), HEALTHY_LIMIT_S)
        _, log = daemon.stop()
        self.assertEqual(log.count("does not read its answers"), 1, log)

    def test_sigterm_stops_the_daemon_within_3_s_with_a_non_reading_client_attached(self):
        daemon = self.start()
        non_reader = NonReader(daemon.port)
        try:
            time.sleep(1.0)  # long enough for its answers to fill every buffer
            started = time.monotonic()
            os.kill(daemon.process.pid, signal.SIGTERM)
            try:
                daemon.process.wait(timeout=3)
            except Exception:
                pass
            stopped_after = time.monotonic() - started
        finally:
            non_reader.close()
        status, log = daemon.stop()
        self.assertLess(stopped_after, 3.0)
        self.assertEqual(status, 0, log)

    def test_64_idle_and_half_frame_clients_do_not_lock_out_a_new_one(self):
        daemon = self.start()
        for i in range(70):
            sock = self.connect()
            if i % 2:
                sock.sendall(bytes.fromhex("000100000006"))  # a header, then silence
        time.sleep(1.2)  # every one of them quiet for more than a second
        newcomer = self.connect()
        self.assertLess(self.healthy_round_trip(newcomer, 7), HEALTHY_LIMIT_S)
        _, log = daemon.stop()
        self.assertIn("closed to make room for a new client", log)

    def test_idle_and_half_frame_clients_are_closed_after_their_timeouts(self):
        daemon = self.start("--idle-timeout", "1.5", "--frame-timeout", "0.5")
        idle = self.connect()
        half = self.connect()
        half.sendall(bytes.fromhex("000100000006"))
        polling = self.connect()
        started = time.monotonic()
        self.assertTrue(closed_by_peer(half, 1.5))
        self.assertLess(time.monotonic() - started, 1.5)
        # A client that asks more often than the idle timeout stays connected.
        for transaction in range(8):
            self.healthy_round_trip(polling, transaction)
            time.sleep(0.3)
        self.assertTrue(closed_by_peer(idle, 1.5))
        self.assertLess(self.healthy_round_trip(polling, 99), HEALTHY_LIMIT_S)
        _, log = daemon.stop()
        self.assertIn("sent no complete frame in 0.5 s; connection closed", log)
        self.assertIn("idle for 1.5 s; connection closed", log)

    def test_max_clients_refuses_a_new_client_only_while_every_one_is_busy(self):
        daemon = self.start("--max-clients", "2")
        first, second = self.connect(), self.connect()
        self.healthy_round_trip(first, 1)
        self.healthy_round_trip(second, 2)
        third = self.connect()  # both others were heard from just now
        self.assertTrue(closed_by_peer(third, 2))
        time.sleep(1.2)
        self.healthy_round_trip(second, 3)
        fourth = self.connect()  # `first` is quiet now: it makes room
        self.assertLess(self.healthy_round_trip(fourth, 4), HEALTHY_LIMIT_S)
        self.assertTrue(closed_by_peer(first, 2))
        _, log = daemon.stop()
        self.assertIn("none idle; connection refused", log)

    def test_connection_bursts_are_accepted_without_syn_retry_stalls(self):
        daemon = self.start()
        slowest = 0.0
        for _ in range(5):
            burst = []
            for _ in range(60):
                started = time.monotonic()
                burst.append(socket.create_connection(("127.0.0.1", daemon.port), timeout=3))
                slowest = max(slowest, time.monotonic() - started)
            for transaction, sock in enumerate(burst):
                self.assertLess(self.healthy_round_trip(sock, transaction), 0.5)
            for sock in burst:
                sock.close()
        self.assertLess(slowest, 0.5)

    def test_every_function_code_gets_a_well_formed_exception_or_a_closed_connection(self):
        daemon = self.start()
        sock = self.connect()
        for function in (0x00, 0x07, 0x7F):
            sock.sendall(struct.pack(">HHHBB", function, 0, 2, 1, function))
            self.assertEqual(read_frame(sock),
                             struct.pack(">HHHBBB", function, 0, 3, 1, function | 0x80, 0x01))
        # Read Device Identification is served; without its MEI type it is malformed.
        sock.sendall(struct.pack(">HHHBB", 0x2B, 0, 2, 1, 0x2B))
        self.assertEqual(read_frame(sock), struct.pack(">HHHBBB", 0x2B, 0, 3, 1, 0xAB, 0x03))
        for function in (0x80, 0x81, 0xFF):
            sock = self.connect()
            sock.sendall(bytes.fromhex("000100000006") + bytes([1, function]) + b"\0\0\0\0")
            self.assertTrue(closed_by_peer(sock, 2), hex(function))
        self.assertLess(self.healthy_round_trip(self.connect(), 5), HEALTHY_LIMIT_S)
        _, log = daemon.stop()
        self.assertIn("sent function code 129, which has no Modbus answer; connection closed", log)


if __name__ == "__main__":
    unittest.main()
