"""Who may read and write through tarsel-modbusd, tried from two loopback
addresses: 127.0.0.1 and 127.0.0.2 (also loopback on Linux)."""
import socket
import struct
import unittest

from pymodbus.client import ModbusTcpClient

from harness import Daemon, running_ups, shipped_map

LOCATION, CONTACT = 20, 36  # 16-register strings in holding registers
LABEL = 60  # an 8-register string over a channel
OUTLET1_SWITCH = 0


def text_registers(text, size=16):
    return list(struct.unpack(">%dH" % size, text.ljust(size * 2, b"\0")))


class AccessTest(unittest.TestCase):
    def setUp(self):
        self.daemon = None
        self.clients = []

    def tearDown(self):
        for client in self.clients:
            client.close()
        if self.daemon and self.daemon.alive():
            self.daemon.stop()

    def start(self, *args, map_json=None):
        self.daemon = Daemon(map_json, running_ups(), args)

    def client_from(self, source):
        client = ModbusTcpClient("127.0.0.1", port=self.daemon.port, timeout=3,
                                 source_address=(source, 0))
        self.assertTrue(client.connect())
        self.clients.append(client)
        return client

    def exception_of(self, response):
        self.assertTrue(response.isError(), str(response))
        return response.exception_code

    def location(self, client):
        return client.read_holding_registers(LOCATION, 16, slave=1).registers

    def test_a_write_from_an_address_not_allowed_is_refused_and_audited(self):
        self.start("--allow-write", "127.0.0.1")
        local, other = self.client_from("127.0.0.1"), self.client_from("127.0.0.2")
        before = self.location(other)  # reading is open to both
        refused = other.write_registers(LOCATION, text_registers(b"Stranger"), slave=1)
        self.assertEqual(self.exception_of(refused), 0x01)
        self.assertEqual(self.location(local), before)
        self.assertFalse(local.write_registers(LOCATION, text_registers(b"Rack 9"),
                                               slave=1).isError())
        self.assertEqual(self.location(other), text_registers(b"Rack 9"))
        _, log = self.daemon.stop()
        self.assertRegex(log, r'warning: write to holding-registers 20: refused \(not allowed for '
                              r'this client\); client=127\.0\.0\.2:\d+ unit=1 function=16 '
                              r'address=20')
        self.assertRegex(log, r'tarsel-modbusd: write "ups\.location" holding-registers 20: "[^"]*" '
                              r'-> "Rack 9": written; client=127\.0\.0\.1:\d+ unit=1 function=16 '
                              r'address=20')

    def test_an_address_that_may_neither_read_nor_write_is_not_served_at_all(self):
        self.start("--allow-read", "127.0.0.1", "--allow-write", "127.0.0.1")
        sock = socket.socket()
        sock.bind(("127.0.0.2", 0))
        sock.settimeout(3)
        sock.connect(("127.0.0.1", self.daemon.port))
        sock.sendall(bytes.fromhex("000100000006010400000001"))
        try:
            self.assertEqual(sock.recv(64), b"")
        except ConnectionResetError:
            pass
        sock.close()
        self.assertFalse(self.client_from("127.0.0.1").read_input_registers(61, 1,
                                                                           slave=1).isError())
        _, log = self.daemon.stop()
        self.assertRegex(log, r"client 127\.0\.0\.2:\d+: may neither read nor write here; "
                              r"connection refused")

    def test_table_lists_let_an_address_write_one_table_only(self):
        self.start("--allow-write", "127.0.0.1", "--allow-write", "coils=127.0.0.2")
        other = self.client_from("127.0.0.2")
        self.assertFalse(other.write_coil(OUTLET1_SWITCH, False, slave=1).isError())
        self.assertEqual(other.read_coils(OUTLET1_SWITCH, 1, slave=1).bits[0], False)
        refused = other.write_registers(CONTACT, text_registers(b"x"), slave=1)
        self.assertEqual(self.exception_of(refused), 0x01)
        local = self.client_from("127.0.0.1")
        self.assertEqual(self.exception_of(local.write_coil(OUTLET1_SWITCH, True, slave=1)), 0x01)

    def test_entry_lists_in_the_map_narrow_who_may_write_that_entry(self):
        ups_map = shipped_map()
        for entry in ups_map["entries"]:
            if entry["name"] == "ups.location":
                entry["allowWrite"] = ["127.0.0.1"]
        self.start(map_json=ups_map)  # the default: writes from 127.0.0.0/8
        other = self.client_from("127.0.0.2")
        refused = other.write_registers(LOCATION, text_registers(b"Stranger"), slave=1)
        self.assertEqual(self.exception_of(refused), 0x01)
        # Another entry, over a channel: a write of one device attribute may
        # leave the device's other attribute entries unavailable (the
        # library's device accessor), which is not what this test is about.
        self.assertFalse(other.write_registers(LABEL, text_registers(b"Ops", 8),
                                               slave=1).isError())
        local = self.client_from("127.0.0.1")
        self.assertFalse(local.write_registers(LOCATION, text_registers(b"Here"),
                                               slave=1).isError())
        _, log = self.daemon.stop()
        self.assertRegex(log, r'warning: write "ups\.location" holding-registers 20: "[^"]*" -> '
                              r'"Stranger": refused \(entry not allowed for this client\); '
                              r'client=127\.0\.0\.2:')
        self.assertRegex(log, r'write "config\.label" holding-registers 60: "[^"]*" -> "Ops": '
                              r'written; client=127\.0\.0\.2:')


if __name__ == "__main__":
    unittest.main()
