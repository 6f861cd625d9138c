"""The health and metrics endpoint under abuse, end to end: odd requests get
their refusals, and clients that are slow, flood, send too much, pipeline or
never read cost the Modbus clients nothing they would notice.

Raw sockets on loopback make the HTTP requests, pymodbus the Modbus ones;
every abusing client works within a bounded time on a thread of its own.
"""
import socket
import statistics
import threading
import time
import unittest

from harness import Daemon, running_ups
from test_observe import HTTP_ARGS, http_port

# How long the abuse goes on, and what Modbus clients may see meanwhile on a
# shared machine: an answer within a few milliseconds as a rule, and never
# one that waited for an HTTP client.
ABUSE_S = 6.0
MAX_MODBUS_LATENCY_S = 1.0
MEDIAN_MODBUS_LATENCY_S = 0.05


def raw_exchange(port, request, half_close=False, limit_s=10.0):
    """What the server sends until it closes, for request sent in one go."""
    with socket.create_connection(("127.0.0.1", port), timeout=limit_s) as sock:
        sock.sendall(request)
        if half_close:
            sock.shutdown(socket.SHUT_WR)
        answer = b""
        while True:
            chunk = sock.recv(65536)
            if not chunk:
                return answer
            answer += chunk


def status_of(answer):
    return answer.split(b"\r\n", 1)[0].decode()


class Abuser(threading.Thread):
    """Runs `work(stop)` on its own thread; errors of the socket are the abuse's
    business, anything else fails the test."""

    def __init__(self, work):
        super().__init__(daemon=True)
        self.work = work
        self.stop = threading.Event()
        self.failure = None

    def run(self):
        try:
            self.work(self.stop)
        except OSError:
            pass
        except Exception as error:  # pylint: disable=broad-except
            self.failure = error


class HttpAbuseTest(unittest.TestCase):
    def setUp(self):
        self.daemon = Daemon(None, running_ups(), args=HTTP_ARGS, verbose=False)
        self.port = http_port(self.daemon)
        self.client = self.daemon.client()

    def tearDown(self):
        self.client.close()
        if self.daemon.alive():
            self.daemon.stop()

    def test_odd_requests_get_their_refusals_and_good_ones_their_page(self):
        cases = [
            (b"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n", "HTTP/1.1 200 OK"),
            (b"GET /metrics?x=1 HTTP/1.1\r\n\r\n", "HTTP/1.1 200 OK"),
            (b"GET http://127.0.0.1/healthz HTTP/1.0\r\n\r\n", "HTTP/1.1 200 OK"),
            (b"GET //metrics HTTP/1.1\r\n\r\n", "HTTP/1.1 404 Not Found"),
            (b"GET /%6detrics HTTP/1.1\r\n\r\n", "HTTP/1.1 404 Not Found"),
            (b"POST /metrics HTTP/1.1\r\nContent-Length: 2\r\n\r\nab",
             "HTTP/1.1 405 Method Not Allowed"),
            (b"OPTIONS * HTTP/1.1\r\n\r\n", "HTTP/1.1 405 Method Not Allowed"),
            (b"PUT /metrics HTTP/1.1\r\n\r\n", "HTTP/1.1 405 Method Not Allowed"),
            # Methods are case-sensitive: "get" is not GET but a method none knows.
            (b"get /metrics HTTP/1.1\r\n\r\n", "HTTP/1.1 501 Not Implemented"),
            (b"BREW /pot HTTP/1.1\r\n\r\n", "HTTP/1.1 501 Not Implemented"),
            (b"GET /metrics HTTP/2.0\r\n\r\n", "HTTP/1.1 505 HTTP Version Not Supported"),
            (b"GET /metrics\r\n\r\n", "HTTP/1.1 400 Bad Request"),
            (b"GET /metrics HTTP/1.1\r\nX-No-Colon\r\n\r\n", "HTTP/1.1 400 Bad Request"),
            (b"GET /" + b"a" * 8000 + b" HTTP/1.1\r\n\r\n",
             "HTTP/1.1 431 Request Header Fields Too Large"),
        ]
        for request, status in cases:
            with self.subTest(request=request[:40]):
                answer = raw_exchange(self.port, request)
                self.assertEqual(status_of(answer), status, answer[:200])
                self.assertIn(b"\r\nConnection: close\r\n", answer)
                if " 405 " in status:
                    self.assertIn(b"\r\nAllow: GET, HEAD\r\n", answer)

    def test_pipelined_requests_get_one_answer_and_the_connection_closes(self):
        answer = raw_exchange(self.port, b"GET /healthz HTTP/1.1\r\n\r\n"
                                         b"GET /metrics HTTP/1.1\r\n\r\n")
        self.assertEqual(answer.count(b"HTTP/1.1 "), 1, answer)
        self.assertTrue(answer.startswith(b"HTTP/1.1 200 OK\r\n"))
        self.assertIn(b'"status":"ok"', answer)

    def test_a_client_that_half_closes_after_its_request_still_gets_its_answer(self):
        answer = raw_exchange(self.port, b"GET /metrics HTTP/1.0\r\n\r\n", half_close=True)
        self.assertTrue(answer.startswith(b"HTTP/1.1 200 OK\r\n"), answer[:200])
        self.assertIn(b"\ntarsel_modbusd_clients 1\n", answer)

    def test_a_keep_alive_client_gets_one_answer_and_the_connection_closes(self):
        answer = raw_exchange(self.port, b"GET /healthz HTTP/1.1\r\nConnection: keep-alive\r\n\r\n")
        self.assertTrue(answer.startswith(b"HTTP/1.1 200 OK\r\n"))
        self.assertIn(b"\r\nConnection: close\r\n", answer)
        body = answer.split(b"\r\n\r\n", 1)[1]
        length = int(answer.split(b"Content-Length: ", 1)[1].split(b"\r\n", 1)[0])
        self.assertEqual(len(body), length)

    def hold_every_place(self, request):
        """Eight clients (every place the endpoint has) that sent `request`
        and then neither read nor close."""
        held = [socket.create_connection(("127.0.0.1", self.port), timeout=5) for _ in range(8)]
        for sock in held:
            self.addCleanup(sock.close)
            sock.sendall(request)
        return held

    def test_a_scrape_is_answered_while_answered_clients_that_never_close_hold_every_place(self):
        self.hold_every_place(b"GET /metrics HTTP/1.1\r\n\r\n")
        time.sleep(0.3)  # all eight answered
        self.assertEqual(status_of(raw_exchange(self.port, b"GET /healthz HTTP/1.1\r\n\r\n")),
                         "HTTP/1.1 200 OK")

    def test_a_scrape_is_answered_while_slow_clients_hold_every_place(self):
        self.hold_every_place(b"GET /metrics HTTP/1.1\r\nX-Slow: ")
        time.sleep(1.2)  # slow for over a second
        self.assertEqual(status_of(raw_exchange(self.port, b"GET /healthz HTTP/1.1\r\n\r\n")),
                         "HTTP/1.1 200 OK")

    def test_modbus_clients_are_answered_promptly_while_the_endpoint_is_abused(self):
        port = self.port
        deadline = time.monotonic() + ABUSE_S

        def dripping(start, piece, every):
            """A client that sends `start`, then `piece` every `every` seconds."""
            def drip(stop):
                with socket.create_connection(("127.0.0.1", port), timeout=2) as sock:
                    sock.sendall(start)
                    while not stop.is_set() and time.monotonic() < deadline:
                        sock.sendall(piece)
                        stop.wait(every)
            return drip

        byte_a_second = dripping(b"GET /metrics HTTP/1.1\r\nX: ", b"a", 1.0)
        never_ending_header = dripping(b"GET /metrics HTTP/1.1\r\n", b"X-A: b\r\n", 0.05)

        def huge_request_line(stop):
            while not stop.is_set() and time.monotonic() < deadline:
                with socket.create_connection(("127.0.0.1", port), timeout=2) as sock:
                    sock.sendall(b"GET /" + b"x" * (1 << 20))
                stop.wait(0.1)

        def never_reads(stop):
            while not stop.is_set() and time.monotonic() < deadline:
                with socket.create_connection(("127.0.0.1", port), timeout=2) as sock:
                    sock.sendall(b"GET /metrics HTTP/1.1\r\n\r\n")
                    stop.wait(1.0)

        def connection_flood(stop):
            while not stop.is_set() and time.monotonic() < deadline:
                socket.create_connection(("127.0.0.1", port), timeout=2).close()

        abusers = [Abuser(byte_a_second) for _ in range(3)]
        abusers += [Abuser(never_ending_header), Abuser(huge_request_line), Abuser(never_reads),
                    Abuser(connection_flood)]
        for abuser in abusers:
            abuser.start()
        latencies = []
        try:
            while time.monotonic() < deadline:
                started = time.monotonic()
                response = self.client.read_holding_registers(0, 2, slave=1)
                latencies.append(time.monotonic() - started)
                self.assertFalse(response.isError(), str(response))
                time.sleep(0.01)
        finally:
            for abuser in abusers:
                abuser.stop.set()
            for abuser in abusers:
                abuser.join(timeout=10)
        for abuser in abusers:
            self.assertFalse(abuser.is_alive(), "an abusing client did not end")
            self.assertIsNone(abuser.failure)
        self.assertGreater(len(latencies), 50)
        self.assertLess(max(latencies), MAX_MODBUS_LATENCY_S, sorted(latencies)[-5:])
        self.assertLess(statistics.median(latencies), MEDIAN_MODBUS_LATENCY_S)
        # Once the abuse ends, the endpoint serves again (the slow clients'
        # slots free within the request timeout).
        served = False
        for _ in range(40):
            try:
                if status_of(raw_exchange(self.port, b"GET /healthz HTTP/1.1\r\n\r\n")) \
                        == "HTTP/1.1 200 OK":
                    served = True
                    break
            except OSError:
                pass
            time.sleep(0.25)
        self.assertTrue(served, "the endpoint did not serve again after the abuse")
        self.assertTrue(self.daemon.alive())


if __name__ == "__main__":
    unittest.main()
