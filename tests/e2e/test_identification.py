"""Read Device Identification and request checks with pymodbus as the client.

pymodbus's own read_device_information (its extended client) asks for the
basic and regular objects, in streams and one by one; raw frames check the
exceptions of requests that are illegal or malformed while the UPS map is not
available yet; the identity entries read again after an attribute write.
"""
import socket
import struct
import time
import unittest

from pymodbus.repl.client.mclient import ModbusTcpClient as ExtendedClient

from harness import Daemon, running_ups, shipped_map, shipped_scenario

BASIC, REGULAR, INDIVIDUAL = 0x01, 0x02, 0x04
REGULAR_CONFORMITY = 0x82
SENTINEL = 0xFFFF


def ups_attributes():
    """The attributes of the shipped scenario's UPS."""
    added = [e for e in shipped_scenario()["events"] if e["do"] == "add-device"][0]
    return added["device"]["attributes"]


def not_available_ups():
    """The UPS is there but not running: the map never becomes available."""
    return running_ups({"PowerDistribution.Status.OperatingStatus": {"uint32": 2}})


def exchange(sock, pdu, transaction=1):
    """Sends one request PDU to unit 1; returns the answer PDU."""
    sock.sendall(struct.pack(">HHHB", transaction, 0, len(pdu) + 1, 1) + pdu)
    header = b""
    while len(header) < 7:
        chunk = sock.recv(7 - len(header))
        if not chunk:
            raise ConnectionError("closed")
        header += chunk
    (length,) = struct.unpack(">H", header[4:6])
    body = b""
    while len(body) < length - 1:
        chunk = sock.recv(length - 1 - len(body))
        if not chunk:
            raise ConnectionError("closed")
        body += chunk
    return body


def exchange_all(sock, pdus):
    """Sends the request PDUs in one go; returns their answer PDUs in order."""
    sock.sendall(b"".join(struct.pack(">HHHB", transaction, 0, len(pdu) + 1, 1) + pdu
                          for transaction, pdu in enumerate(pdus, 1)))
    stream = sock.makefile("rb")
    answers = []
    for _ in pdus:
        header = stream.read(7)
        if len(header) < 7:
            raise ConnectionError("closed")
        (length,) = struct.unpack(">H", header[4:6])
        answers.append(stream.read(length - 1))
    return answers


def string_of(registers):
    """Registers of a string entry as text, up to the first zero byte."""
    raw = b"".join(struct.pack(">H", r) for r in registers)
    return raw.split(b"\0", 1)[0].decode()


class IdentificationTest(unittest.TestCase):
    def setUp(self):
        self.daemon = None
        self.clients = []

    def tearDown(self):
        for client in self.clients:
            client.close()
        if self.daemon and self.daemon.alive():
            self.daemon.stop()

    def start(self, scenario, map_json=None):
        self.daemon = Daemon(map_json, scenario)
        return self.daemon

    def identify(self, read_code, object_id=0):
        client = ExtendedClient(host="127.0.0.1", port=self.daemon.port, timeout=3)
        self.assertTrue(client.connect())
        self.clients.append(client)
        return client.read_device_information(read_code=read_code, object_id=object_id)

    def socket(self):
        sock = socket.create_connection(("127.0.0.1", self.daemon.port), timeout=3)
        self.clients.append(sock)
        return sock

    def test_basic_stream_answers_vendor_product_code_and_revision(self):
        self.start(running_ups())
        answer = self.identify(BASIC)
        self.assertEqual(answer["information"],
                         {0: b"Tarsel", 1: b"tarsel-modbusd", 2: b"1.0"})
        self.assertEqual(answer["conformity"], REGULAR_CONFORMITY)
        self.assertEqual(answer["more follows"], 0)

    def test_regular_stream_adds_product_model_and_application_names(self):
        self.start(running_ups())
        answer = self.identify(REGULAR)
        self.assertEqual(answer["information"], {
            0: b"Tarsel", 1: b"tarsel-modbusd", 2: b"1.0",
            4: b"tarsel-modbusd UPS gateway",
            5: ups_attributes()["model"].encode(),
            6: b"ups-map"})
        self.assertEqual(answer["object count"], 6)

    def test_individual_access_reads_one_object_and_refuses_an_unknown_one(self):
        self.start(running_ups())
        answer = self.identify(INDIVIDUAL, 5)
        self.assertEqual(answer["information"], {5: ups_attributes()["model"].encode()})
        self.assertEqual(self.identify(INDIVIDUAL, 2)["information"], {2: b"1.0"})
        self.assertEqual(self.identify(INDIVIDUAL, 3)["exception code"], 0x02)  # no VendorUrl

    def test_stream_from_an_object_starts_there(self):
        self.start(running_ups())
        answer = self.identify(REGULAR, 5)
        self.assertEqual(sorted(answer["information"]), [5, 6])

    def test_a_stream_that_does_not_fit_says_more_follows_and_where_to_go_on(self):
        ups_map = shipped_map()
        ups_map["identification"]["ProductName"] = {"text": "P" * 200}
        ups_map["identification"]["ModelName"] = {"text": "M" * 100}
        self.start(running_ups(), ups_map)
        first = self.identify(REGULAR)
        self.assertEqual(first["more follows"], 0xFF)
        self.assertEqual(first["next object id"], 5)
        self.assertEqual(sorted(first["information"]), [0, 1, 2, 4])
        self.assertEqual(first["information"][4], b"P" * 200)
        rest = self.identify(REGULAR, first["next object id"])
        self.assertEqual(rest["more follows"], 0)
        self.assertEqual(rest["information"], {5: b"M" * 100, 6: b"ups-map"})

    def test_identification_is_answered_while_the_map_is_not_available(self):
        self.start(not_available_ups())
        sock = self.socket()
        self.assertEqual(exchange(sock, struct.pack(">BHH", 4, 0, 16)), bytes([0x84, 0x0A]))
        answer = self.identify(REGULAR)
        self.assertEqual(answer["information"][0], b"Tarsel")
        self.assertEqual(answer["information"][5], ups_attributes()["model"].encode())

    def test_illegal_and_malformed_requests_get_their_own_exception_while_not_available(self):
        self.start(not_available_ups())
        sock = self.socket()
        cases = [
            (struct.pack(">BHH", 0x07, 0, 1), 0x01),              # no such function
            (bytes([0x2B, 0x0D, 0x01, 0x00]), 0x01),              # MEI type other than 14
            (bytes([0x2B, 0x0E, 0x03, 0x00]), 0x03),              # read code 3
            (struct.pack(">BHH", 3, 0, 0), 0x03),                 # quantity 0
            (struct.pack(">BHH", 3, 0, 126), 0x03),               # beyond 125
            (struct.pack(">BH", 3, 0), 0x03),                     # truncated
            (struct.pack(">BHH", 5, 0, 0x1234), 0x03),            # coil value
            (struct.pack(">BHHB", 16, 20, 2, 3) + b"\0" * 3, 0x03),  # byte count
            (struct.pack(">BHH", 3, 9000, 2), 0x02),              # no entry there
            (struct.pack(">BHH", 3, 65535, 2), 0x02),             # past 65535
            (struct.pack(">BHH", 4, 0, 16), 0x0A),                # well-formed, served data
        ]
        for transaction, (pdu, code) in enumerate(cases, 1):
            answer = exchange(sock, pdu, transaction)
            self.assertEqual(answer, bytes([pdu[0] | 0x80, code]), pdu.hex())

    def test_identity_entries_read_correctly_1_s_after_an_attribute_write(self):
        self.start(running_ups())
        attributes = ups_attributes()
        sock = self.socket()
        location = b"Hall 2".ljust(32, b"\0")
        write = struct.pack(">BHHB", 16, 20, 16, 32) + location
        self.assertEqual(exchange(sock, write), struct.pack(">BHH", 16, 20, 16))
        time.sleep(1.0)
        identity = {
            24: (4, attributes["firmware-version"]),
            28: (12, attributes["manufacturer"]),
            0: (16, attributes["model"]),
        }
        for address, (size, text) in identity.items():
            answer = exchange(sock, struct.pack(">BHH", 4, address, size))
            self.assertEqual(answer[0], 4, answer.hex())
            registers = struct.unpack(">%dH" % size, answer[2:])
            self.assertEqual(string_of(registers), text[:2 * size], address)
        answer = exchange(sock, struct.pack(">BHH", 4, 56, 1))
        self.assertEqual(answer, struct.pack(">BBH", 4, 2, int(attributes["nominal-power"])))
        answer = exchange(sock, struct.pack(">BHH", 3, 20, 16))
        self.assertEqual(answer[2:], location)
        status, log = self.daemon.stop()
        self.assertEqual(status, 0, log)
        # Which entries the library leaves unavailable depends on the order of
        # its registries; at least one was, and was rebuilt.
        self.assertIn("rebuilt after a change of its device", log)
        self.assertIn("data-store subscriptions still open: 0", log)

    def test_identity_entries_read_correctly_right_after_an_attribute_write(self):
        # Two writes in one go: the second changes the device again before
        # the loop may rebuild the entries the first one left gone (at most
        # twice a second); the reads behind them rebuild those entries.
        self.start(running_ups())
        attributes = ups_attributes()
        sock = self.socket()
        first = struct.pack(">BHHB", 16, 20, 16, 32) + b"Hall 3".ljust(32, b"\0")
        location = b"Hall 4".ljust(32, b"\0")
        second = struct.pack(">BHHB", 16, 20, 16, 32) + location
        read_back = struct.pack(">BHH", 3, 20, 16)
        identity = struct.pack(">BHH", 4, 0, 16)
        answers = exchange_all(sock, [first, second, read_back, identity])
        self.assertEqual(answers[0], struct.pack(">BHH", 16, 20, 16))
        self.assertEqual(answers[1], struct.pack(">BHH", 16, 20, 16))
        self.assertEqual(answers[2][2:], location)
        self.assertEqual(answers[3][0], 4, answers[3].hex())
        model = string_of(struct.unpack(">16H", answers[3][2:]))
        self.assertEqual(model, attributes["model"][:32])
        status, log = self.daemon.stop()
        self.assertEqual(status, 0, log)
        self.assertIn("data-store subscriptions still open: 0", log)


if __name__ == "__main__":
    unittest.main()
