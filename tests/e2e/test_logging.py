"""What clients can do to tarsel-modbusd's log: neither forge lines with the
strings they write nor flood it by repeating themselves."""
import struct
import unittest

from harness import Daemon, running_ups

LOCATION = 20  # ups.location, a 16-register string
# 31 bytes: what one 16-register string takes, with its zero end.
FORGED = b"\ntarsel-modbusd: error: F\x1b[31m"


def string_registers(text, size=16):
    padded = text.ljust(size * 2, b"\0")
    return list(struct.unpack(">%dH" % size, padded))


class LoggingTest(unittest.TestCase):
    def setUp(self):
        self.daemon = Daemon(None, running_ups())
        self.client = self.daemon.client()

    def tearDown(self):
        self.client.close()
        if self.daemon.alive():
            self.daemon.stop()

    def write_location(self, text):
        response = self.client.write_registers(LOCATION, string_registers(text), slave=1)
        self.assertFalse(response.isError(), str(response))

    def test_a_string_with_a_newline_and_ansi_escapes_cannot_forge_a_log_line(self):
        self.write_location(FORGED)
        self.assertTrue(self.daemon.wait_for_log("error: F"))
        _, log = self.daemon.stop()
        forged = [l for l in log.splitlines() if l.startswith("tarsel-modbusd: error: F")]
        self.assertEqual(forged, [])
        self.assertNotIn("\x1b", log)
        self.assertIn('-> "\\ntarsel-modbusd: error: F\\x1B[31m"', log)

    def test_a_client_changing_a_string_over_and_over_costs_a_bounded_number_of_lines(self):
        for i in range(200):
            self.write_location(b"Rack %d" % i)
        _, log = self.daemon.stop()
        changes = [l for l in log.splitlines()
                   if l.startswith('tarsel-modbusd: holding-registers 20 "ups.location": ')]
        self.assertEqual(len(changes), 10, "\n".join(changes))
        # The minute is not over: what was held back is summarised later, not lost silently.
        self.assertNotIn('more "changes of ups.location"', log)



if __name__ == "__main__":
    unittest.main()
