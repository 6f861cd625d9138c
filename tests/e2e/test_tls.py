"""Modbus/TCP Security: tarsel-modbusd's TLS listener with client
certificates, tried with pymodbus's ModbusTlsClient and openssl s_client
against certificates made for each test."""
import os
import socket
import ssl
import struct
import subprocess
import tempfile
import time
import unittest

from pymodbus.client import ModbusTlsClient
from pymodbus.framer.socket_framer import ModbusSocketFramer

from harness import Daemon, poll_until, running_ups
from test_observe import get, http_port, samples
from tls_certs import make_certificates

LOCATION = 20
READ_STATUS = bytes.fromhex("000100000006" "0104" "003d" "0001")  # FC4, register 61


class TlsClient(ModbusTlsClient):
    """pymodbus's TLS client, reading its answer with blocking reads.

    Its own recv() waits with select() on the socket between reads; bytes
    that TLS already decrypted into its buffer do not make the socket
    readable, so the rest of an answer read in two parts is never seen."""

    def recv(self, size):
        self.socket.settimeout(self.params.timeout)
        data = b""
        try:
            while size and len(data) < size:
                chunk = self.socket.recv(size - len(data))
                if not chunk:
                    break
                data += chunk
        except (socket.timeout, ssl.SSLError):
            pass
        return data


def resident_kib(pid):
    with open("/proc/%d/status" % pid, encoding="utf-8") as f:
        return next(int(line.split()[1]) for line in f if line.startswith("VmRSS:"))


def text_registers(text, size=16):
    return list(struct.unpack(">%dH" % size, text.ljust(size * 2, b"\0")))


class TlsTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory(prefix="tarsel-tls-")
        self.files = make_certificates(self.dir.name)
        self.start_daemon()
        self.clients = []

    def start_daemon(self, env=None, args=()):
        cert, key = self.files["server"]
        self.daemon = Daemon(None, running_ups(), (
            "--tls-port", "0", "--tls-cert", cert, "--tls-key", key,
            "--tls-ca", self.files["ca"][0],
            "--tls-role", "operator=read-write", "--tls-role", "viewer=read-only", *args),
                             env=env)
        self.assertTrue(self.daemon.wait_for_log("Modbus/TCP Security (TLS) on 127.0.0.1:"))
        line = [l for l in self.daemon.log_lines if "Modbus/TCP Security (TLS) on" in l][0]
        self.tls_port = int(line.rsplit(":", 1)[1])

    def tearDown(self):
        for client in self.clients:
            client.close()
        if self.daemon.alive():
            self.daemon.stop()
        self.dir.cleanup()

    def tls_client(self, name):
        cert, key = self.files[name]
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.minimum_version = ssl.TLSVersion.TLSv1_2
        context.load_verify_locations(self.files["ca"][0])
        context.check_hostname = False
        context.load_cert_chain(cert, key)
        # Modbus/TCP Security keeps the MBAP header inside TLS.
        client = TlsClient("127.0.0.1", port=self.tls_port, sslctx=context,
                                 framer=ModbusSocketFramer, timeout=3)
        self.clients.append(client)
        return client

    def s_client(self, name=None, ca="ca"):
        """openssl s_client sends one FC4 read of the operating status and
        waits up to 3 s for its 11-byte answer; returns stdout and stderr."""
        command = ["openssl", "s_client", "-connect", "127.0.0.1:%d" % self.tls_port,
                   "-CAfile", self.files[ca][0], "-quiet"]
        if name:
            command += ["-cert", self.files[name][0], "-key", self.files[name][1]]
        process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE)
        try:
            process.stdin.write(READ_STATUS)
            process.stdin.flush()
        except BrokenPipeError:
            pass
        out = b""
        deadline = time.monotonic() + 3
        os.set_blocking(process.stdout.fileno(), False)
        while len(out) < 11 and time.monotonic() < deadline and process.poll() is None:
            chunk = process.stdout.read(64)
            out += chunk or b""
            time.sleep(0.02)
        if process.poll() is None:
            process.kill()
        rest, err = process.communicate(timeout=5)
        return out + (rest or b""), err.decode(errors="replace")

    def test_read_write_role_writes_and_reads_back(self):
        client = self.tls_client("operator")
        self.assertTrue(client.connect())
        written = client.write_registers(LOCATION, text_registers(b"Secure rack"), slave=1)
        self.assertFalse(written.isError(), str(written))
        read = client.read_holding_registers(LOCATION, 16, slave=1)
        self.assertEqual(read.registers, text_registers(b"Secure rack"))
        _, log = self.daemon.stop()
        self.assertIn('certificate "/CN=operator", role "operator" (read-write)', log)
        # Who wrote: the certificate, after the address it came from.
        self.assertRegex(log, r'write "ups\.location" holding-registers 20: "[^"]*" -> '
                              r'"Secure rack": written; client=127\.0\.0\.1:\d+ '
                              r'certificate="/CN=operator" role="operator" unit=1 function=16 ')

    def test_read_only_role_reads_but_a_write_is_illegal_function(self):
        client = self.tls_client("viewer")
        self.assertTrue(client.connect())
        before = client.read_holding_registers(LOCATION, 16, slave=1)
        self.assertFalse(before.isError(), str(before))
        refused = client.write_registers(LOCATION, text_registers(b"Viewer was here"), slave=1)
        self.assertTrue(refused.isError(), str(refused))
        self.assertEqual(refused.exception_code, 0x01)
        after = client.read_holding_registers(LOCATION, 16, slave=1)
        self.assertEqual(after.registers, before.registers)
        _, log = self.daemon.stop()
        self.assertIn("refused (the client's role is read-only)", log)

    def test_s_client_with_a_role_gets_its_answer(self):
        out, err = self.s_client("viewer")
        self.assertEqual(out, bytes.fromhex("00010000000501040200") + b"\x10", err)

    def test_no_client_certificate_is_refused(self):
        out, err = self.s_client(None)
        self.assertEqual(out, b"", err)
        self.assertTrue(self.daemon.wait_for_log(
            "TLS handshake failed: error:0A0000C7:SSL routines::peer did not return a certificate"))

    def test_a_certificate_from_another_ca_is_refused(self):
        out, err = self.s_client("wrong-ca")
        self.assertEqual(out, b"", err)
        self.assertTrue(self.daemon.wait_for_log(
            "TLS handshake failed: unable to get local issuer certificate"))

    def test_an_expired_certificate_is_refused(self):
        out, err = self.s_client("expired")
        self.assertEqual(out, b"", err)
        self.assertTrue(self.daemon.wait_for_log("TLS handshake failed: certificate has expired"))

    def test_strangers_failing_their_handshakes_do_not_hide_the_first_expired_certificate(self):
        for _ in range(12):
            with socket.create_connection(("127.0.0.1", self.tls_port), timeout=5) as raw:
                raw.sendall(b"GET / HTTP/1.0\r\n\r\n")
                raw.settimeout(5)
                try:
                    while raw.recv(1024):
                        pass
                except OSError:
                    pass
        self.s_client("expired")
        self.assertTrue(self.daemon.wait_for_log("TLS handshake failed: certificate has expired"),
                        "\n".join(self.daemon.log_lines))

    def test_a_certificate_without_a_configured_role_is_closed(self):
        for name in ("no-role", "unknown-role"):
            out, err = self.s_client(name)
            self.assertEqual(out, b"", name + ": " + err)
        _, log = self.daemon.stop()
        self.assertIn('certificate "/CN=no-role", role (none): no access configured', log)
        self.assertIn('certificate "/CN=unknown-role", role "intruder": no access configured', log)

    def test_a_client_the_daemon_closes_hears_a_close_notify_not_a_cut_connection(self):
        cert, key = self.files["unknown-role"]
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.load_verify_locations(self.files["ca"][0])
        context.check_hostname = False
        context.load_cert_chain(cert, key)
        # Python may set OpenSSL's option that takes a cut for a close_notify.
        context.options &= ~getattr(ssl, "OP_IGNORE_UNEXPECTED_EOF", 0)
        with socket.create_connection(("127.0.0.1", self.tls_port), timeout=5) as raw:
            # Without ragged EOFs suppressed, recv() gives b"" only after a
            # close_notify and raises SSLEOFError when the connection is cut.
            with context.wrap_socket(raw, suppress_ragged_eofs=False) as tls:
                self.assertEqual(tls.recv(16), b"")
        self.assertTrue(self.daemon.wait_for_log('role "intruder": no access configured'))

    def test_metrics_count_tls_clients_and_why_the_daemon_closed_them(self):
        self.daemon.stop()
        self.start_daemon(args=["--http-listen", "127.0.0.1:0"])
        port = http_port(self.daemon)
        client = self.tls_client("operator")
        self.assertTrue(client.connect())
        self.assertFalse(client.read_holding_registers(LOCATION, 16, slave=1).isError())
        client.close()
        self.assertEqual(self.s_client("wrong-ca")[0], b"")
        self.assertEqual(self.s_client("no-role")[0], b"")
        closed = 'tarsel_modbusd_connections_closed_total{reason="%s"}'
        values = {}

        def settled():
            values.update(samples(get(port, "/metrics")[1]))
            return values["tarsel_modbusd_clients"] == 0
        self.assertTrue(poll_until(settled, attempts=60, interval=0.05))
        self.assertEqual(values['tarsel_modbusd_connections_accepted_total{listener="tls"}'], 3)
        self.assertEqual(values['tarsel_modbusd_connections_accepted_total{listener="plain"}'], 0)
        self.assertEqual(values[closed % "tls_handshake"], 1)
        self.assertEqual(values[closed % "tls_role"], 1)
        self.assertEqual(values[closed % "peer_closed"], 1)
        # Modbus bytes, not TLS records: the operator's read and its answer.
        self.assertEqual(values["tarsel_modbusd_received_bytes_total"], 12)
        self.assertEqual(values["tarsel_modbusd_sent_bytes_total"], 9 + 32)

    def test_tls_1_1_is_refused(self):
        done = subprocess.run(
            ["openssl", "s_client", "-connect", "127.0.0.1:%d" % self.tls_port, "-tls1_1",
             "-cert", self.files["operator"][0], "-key", self.files["operator"][1], "-quiet"],
            input=b"", capture_output=True, timeout=10)
        self.assertNotEqual(done.returncode, 0)
        self.assertTrue(self.daemon.wait_for_log("TLS handshake failed: error:0A000102:SSL "
                                                 "routines::unsupported protocol"))

    def test_plain_modbus_tcp_is_still_served_next_to_tls(self):
        client = self.daemon.client()
        self.assertEqual(client.read_input_registers(61, 1, slave=1).registers, [16])
        client.close()

    def test_a_client_sending_without_pause_is_not_read_far_ahead_of_its_answers(self):
        # A client with a valid certificate writes requests for 3 s as fast
        # as TLS takes them and reads no answer. The daemon must read it no
        # further ahead of its answers than a plain client (a few kilobytes),
        # not hold everything sent in memory. Built with AddressSanitizer, the
        # daemon would hold back what it frees for a while (its quarantine),
        # which would count here as memory kept: it holds back nothing.
        self.daemon.stop()
        asan = ":".join(filter(None, (os.environ.get("ASAN_OPTIONS"), "quarantine_size_mb=0")))
        self.start_daemon(env=dict(os.environ, ASAN_OPTIONS=asan))
        pid = self.daemon.process.pid
        before = resident_kib(pid)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.load_verify_locations(self.files["ca"][0])
        context.check_hostname = False
        context.load_cert_chain(*self.files["operator"])
        requests = READ_STATUS * 5000
        sent, peak = 0, before
        with socket.create_connection(("127.0.0.1", self.tls_port), timeout=10) as raw:
            with context.wrap_socket(raw) as tls:
                tls.settimeout(0.2)
                deadline = time.monotonic() + 3
                try:
                    while time.monotonic() < deadline:
                        try:
                            sent += tls.send(requests)
                        except socket.timeout:
                            pass
                        peak = max(peak, resident_kib(pid))
                except (ConnectionError, ssl.SSLError):
                    pass  # closed: it reads none of its answers
        self.assertGreater(sent, 0)
        self.assertLess(peak - before, 16 * 1024,
                        "resident memory grew from %d KiB to %d KiB; %d bytes sent"
                        % (before, peak, sent))
        # Served as before.
        client = self.daemon.client()
        self.assertEqual(client.read_input_registers(61, 1, slave=1).registers, [16])
        client.close()


if __name__ == "__main__":
    unittest.main()
