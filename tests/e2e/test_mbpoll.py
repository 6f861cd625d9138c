"""tarsel-modbusd read by mbpoll, a second client we did not write."""
import re
import subprocess
import unittest

from harness import Daemon, running_ups
from test_pymodbus import float_layouts, library_float_map

# mbpoll's two word orders for 32-bit floats, by the byte layout they expect.
MBPOLL_FLOAT_FLAGS = {"CDAB": [], "ABCD": ["-B"]}


def mbpoll(port, *args):
    command = ["mbpoll", "-m", "tcp", "-p", str(port), "-a", "1", "-0", "-1", "-o", "3",
               *args, "127.0.0.1"]
    out = subprocess.run(command, capture_output=True, text=True, timeout=30)
    values = dict(re.findall(r"^\[(\d+)\]:\s+(\S+)$", out.stdout, re.MULTILINE))
    return out.returncode, {int(k): v for k, v in values.items()}, out.stdout


class MbpollTest(unittest.TestCase):
    def setUp(self):
        self.daemon = Daemon(map_json=library_float_map(), scenario_json=running_ups())

    def tearDown(self):
        status, log = self.daemon.stop()
        self.assertEqual(status, 0, log)

    def test_mbpoll_reads_the_shipped_maps_floats_big_endian_with_flag_b(self):
        for table, address, expected in (("4", 0, 10.0), ("4", 2, 20.0), ("3", 40, 230.1)):
            status, values, out = mbpoll(self.daemon.port, "-t", table + ":float", "-B", "-r",
                                         str(address))
            self.assertEqual(status, 0, out)
            self.assertAlmostEqual(float(values[address]), expected, places=3, msg=out)

    def test_mbpoll_reads_a_library_float_in_each_byte_order(self):
        layouts = float_layouts()
        for address, byte_order, expected in ((100, 0, 10.0), (102, 1, 20.0)):
            flags = MBPOLL_FLOAT_FLAGS[layouts[byte_order]["readLayout"]]
            status, values, out = mbpoll(self.daemon.port, "-t", "4:float", "-r", str(address),
                                         *flags)
            self.assertEqual(status, 0, out)
            self.assertAlmostEqual(float(values[address]), expected, msg=out)

    def test_mbpoll_reads_a_coil(self):
        status, values, out = mbpoll(self.daemon.port, "-t", "0", "-r", "3", "-c", "2")
        self.assertEqual(status, 0, out)
        self.assertEqual(values, {3: "1", 4: "1"}, out)


if __name__ == "__main__":
    unittest.main()
