"""Floats and 32-bit integers in the wire layouts a map names, read and
written back by pymodbus, decoded with its own BinaryPayloadDecoder.

Every float and 32-bit entry of the shipped UPS map must decode (ABCD) to the
value the scenario set, and the same registers written back must read back
the same value; a generated map does the same in all four layouts; entries
whose value is missing read as their type's not-implemented value.
"""
import math
import struct
import unittest

from pymodbus.payload import BinaryPayloadBuilder, BinaryPayloadDecoder

from harness import UPS, Daemon, running_ups, shipped_map
from test_pymodbus import pymodbus_orders

LAYOUTS = ["ABCD", "CDAB", "BADC", "DCBA"]
THIRTY_TWO_BIT = ("float32", "int32", "uint32")


def as_float32(value):
    """The value as a float32 holds it."""
    return struct.unpack(">f", struct.pack(">f", value))[0]


def decode(registers, kind, layout):
    decoder = BinaryPayloadDecoder.fromRegisters(registers, *pymodbus_orders(layout))
    return {"float32": decoder.decode_32bit_float, "int32": decoder.decode_32bit_int,
            "uint32": decoder.decode_32bit_uint}[kind]()


def encode(value, kind, layout):
    byteorder, wordorder = pymodbus_orders(layout)
    builder = BinaryPayloadBuilder(byteorder=byteorder, wordorder=wordorder)
    {"float32": builder.add_32bit_float, "int32": builder.add_32bit_int,
     "uint32": builder.add_32bit_uint}[kind](value)
    return builder.to_registers()


def scenario_value(scenario, source):
    """What the scenario's UPS holds for a source of the map."""
    ups = [d for d in scenario["devices"] if d.get("id") == UPS or d["name"] == "UPS"][-1]
    data = source.get("data", "value")
    if data.startswith("alarm-threshold-") and data[-1].isdigit():
        return ups["alarms"][source["channel"]]["thresholds"][int(data[-1])]
    value = ups["channels"][source["channel"]]
    return list(value.values())[0] if isinstance(value, dict) else value


def thirty_two_bit_entries(ups_map):
    """(entry, kind, layout) of every float and 32-bit entry of a map."""
    found = []
    for entry in ups_map["entries"]:
        if entry["encoder"] in THIRTY_TWO_BIT:
            found.append((entry, entry["encoder"], entry.get("layout", "ABCD")))
        elif entry.get("function") == "kilo-counter32":
            found.append((entry, "uint32", "ABCD"))
    return found


class WireLayoutTest(unittest.TestCase):
    def setUp(self):
        self.daemon = None
        self.client = None

    def tearDown(self):
        if self.client is not None:
            self.client.close()
        if self.daemon is not None:
            status, log = self.daemon.stop()
            self.assertEqual(status, 0, log)

    def start(self, map_json, scenario_json):
        self.daemon = Daemon(map_json, scenario_json)
        self.client = self.daemon.client()

    def read(self, entry, count=2):
        read = (self.client.read_holding_registers if entry["table"] == "holding-registers"
                else self.client.read_input_registers)
        response = read(entry["address"], count, slave=1)
        self.assertFalse(response.isError(), "%s: %s" % (entry["name"], response))
        return list(response.registers)

    def write(self, entry, registers):
        response = self.client.write_registers(entry["address"], registers, slave=1)
        self.assertFalse(response.isError(), "%s: %s" % (entry["name"], response))

    def assert_value(self, kind, actual, expected, message):
        if kind == "float32":
            self.assertEqual(actual, as_float32(expected), message)
        else:
            self.assertEqual(actual, expected, message)

    def test_every_float_and_32_bit_entry_of_the_shipped_map_reads_and_writes_back(self):
        ups_map = shipped_map()
        scenario = running_ups()
        entries = thirty_two_bit_entries(ups_map)
        self.assertGreaterEqual(len(entries), 9)
        self.assertEqual({layout for _, _, layout in entries}, {"ABCD"})
        self.start(ups_map, scenario)
        writable = 0
        for entry, kind, layout in entries:
            if entry.get("function") == "kilo-counter32":
                kwh, wh = (scenario_value(scenario, s) for s in entry["sources"])
                expected = kwh * 1000 + wh
            else:
                expected = scenario_value(scenario, entry["source"])
            registers = self.read(entry)
            self.assert_value(kind, decode(registers, kind, layout), expected, entry["name"])
            if entry["table"] != "holding-registers":
                continue
            writable += 1
            self.write(entry, registers)
            back = self.read(entry)
            self.assertEqual(back, registers, entry["name"])
            self.assert_value(kind, decode(back, kind, layout), expected, entry["name"])
        self.assertGreaterEqual(writable, 5)

    def test_every_layout_reads_and_writes_back_what_pymodbus_encodes(self):
        entries = []
        for i, layout in enumerate(LAYOUTS):
            for j, (kind, channel) in enumerate((("float32", "F"), ("int32", "I"),
                                                  ("uint32", "U"))):
                entries.append({"name": "%s-%s" % (kind, layout), "table": "holding-registers",
                                "address": 10 * j + 2 * i, "encoder": kind, "layout": layout,
                                "source": {"device": UPS, "channel": channel}})
        scenario = running_ups({"F": {"float": 230.1}, "I": {"int32": -120},
                                "U": {"uint32": 86400}})
        self.start({"entries": entries}, scenario)
        first = {"float32": 230.1, "int32": -120, "uint32": 86400}
        second = {"float32": -0.001, "int32": -2147483647, "uint32": 4000000000}
        for entry in entries:
            kind, layout = entry["encoder"], entry["layout"]
            registers = self.read(entry)
            self.assertEqual(registers, encode(first[kind], kind, layout), entry["name"])
            self.assert_value(kind, decode(registers, kind, layout), first[kind], entry["name"])
            self.write(entry, registers)
            self.assertEqual(self.read(entry), registers, entry["name"])
        for entry in entries:
            kind, layout = entry["encoder"], entry["layout"]
            self.write(entry, encode(second[kind], kind, layout))
            # Every layout's entry over the same channel serves the new value.
            for other in entries:
                if other["encoder"] == kind:
                    self.assert_value(kind, decode(self.read(other), kind, other["layout"]),
                                      second[kind], entry["name"] + " -> " + other["name"])
            self.write(entry, encode(first[kind], kind, layout))

    def test_missing_values_read_as_their_types_not_implemented_value(self):
        missing = {"device": UPS, "channel": "NoSuchChannel"}
        entries = [
            {"name": "int16", "address": 0, "encoder": "int16"},
            {"name": "uint16", "address": 1, "encoder": "uint16"},
            {"name": "int32", "address": 2, "encoder": "int32", "layout": "ABCD"},
            {"name": "uint32", "address": 4, "encoder": "uint32", "layout": "CDAB"},
            {"name": "float32", "address": 6, "encoder": "float32", "layout": "ABCD"},
            {"name": "float32-dcba", "address": 8, "encoder": "float32", "layout": "DCBA"},
            {"name": "string", "address": 10, "encoder": "string", "size": 4},
        ]
        for entry in entries:
            entry.update({"table": "input-registers", "source": missing})
        entries.append({"name": "flag", "table": "discrete-inputs", "address": 0,
                        "encoder": "boolean", "source": missing})
        self.start({"unavailable": {"mode": "not-implemented"}, "entries": entries},
                   running_ups())
        response = self.client.read_input_registers(0, 14, slave=1)
        self.assertFalse(response.isError(), str(response))
        regs = response.registers
        decoder = lambda r, layout="ABCD": BinaryPayloadDecoder.fromRegisters(
            r, *pymodbus_orders(layout))
        self.assertEqual(decoder(regs[0:1]).decode_16bit_int(), -0x8000)
        self.assertEqual(decoder(regs[1:2]).decode_16bit_uint(), 0xFFFF)
        self.assertEqual(decoder(regs[2:4]).decode_32bit_int(), -0x80000000)
        self.assertEqual(decoder(regs[4:6], "CDAB").decode_32bit_uint(), 0xFFFFFFFF)
        self.assertEqual(regs[6:8], [0x7FC0, 0x0000])
        self.assertTrue(math.isnan(decoder(regs[6:8]).decode_32bit_float()))
        self.assertTrue(math.isnan(decoder(regs[8:10], "DCBA").decode_32bit_float()))
        self.assertEqual(decoder(regs[10:14]).decode_string(8), b"\0" * 8)
        flag = self.client.read_discrete_inputs(0, 1, slave=1)
        self.assertFalse(flag.isError(), str(flag))
        self.assertEqual(flag.bits[0], False)


if __name__ == "__main__":
    unittest.main()
