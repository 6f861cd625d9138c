"""tarsel-modbusd serving a UPS of Network UPS Tools: a upsd and dummy-ups of
our own on loopback, pymodbus as the Modbus client.

The daemon polls every POLL_S; a change upsd has must be served within one
poll interval plus a second. upsd, its drivers and the daemon are stopped by
their process ids.
"""
import json
import struct
import time
import unittest

from pymodbus.constants import Endian
from pymodbus.payload import BinaryPayloadDecoder
from pymodbus.repl.client.mclient import ModbusTcpClient as ExtendedClient

from harness import Daemon
from nut_harness import NUT_MAP, GatewayWithUpsdTest, Upsd, demo_dev

POLL_S = 0.5
SERVED_LIMIT_S = POLL_S + 1.0
# How long NUT's client library waits for an answer from upsd before the
# daemon counts it as unreachable (5 s), plus a poll and some slack for a
# loaded machine.
FAULT_LIMIT_S = 5.0 + POLL_S + 3.0
# What unavailable entries read under the NUT map's not-implemented policy:
# a uint16 0xFFFF, a string all zero.
UINT16_NOT_IMPLEMENTED = 0xFFFF
STRING_NOT_IMPLEMENTED = [0, 0]
UNIT = 1  # the daemon's default; a test with --unit-id names its units

# Input registers and discrete inputs of the shipped NUT map.
NAME, MODEL, SERIAL, FIRMWARE, MFR, POWER_NOMINAL = 0, 8, 24, 32, 36, 48
INPUT_VOLTAGE, INPUT_FREQUENCY = 50, 52
OUTPUT_VOLTAGE = 53
LOAD, REALPOWER, CHARGE, RUNTIME = 57, 58, 60, 61
BATTERY_TEMPERATURE, UPS_TEMPERATURE, STATUS_WORD, OPERATING_STATUS = 64, 65, 66, 67
OUTLET1_STATUS, OUTLET2_STATUS = 106, 116
OUTLET1_DESC, OUTLET2_DESC = 100, 110
TOKENS = ["OL", "OB", "LB", "HB", "RB", "CHRG", "DISCHRG", "BYPASS", "CAL", "OFF", "OVER", "TRIM",
          "BOOST", "FSD"]


def text(registers):
    raw = b"".join(struct.pack(">H", r) for r in registers)
    return raw.split(b"\0", 1)[0].decode("ascii")


def big_endian(registers):
    """pymodbus's own decoder for the NUT map's one layout, ABCD."""
    return BinaryPayloadDecoder.fromRegisters(registers, byteorder=Endian.Big,
                                              wordorder=Endian.Big)


def dev_values():
    """The demo .dev file's variables."""
    values = {}
    for line in demo_dev().splitlines():
        name, colon, value = line.partition(":")
        if colon and not line.startswith("#"):
            values[name.strip()] = value.strip()
    return values


def signed(word):
    return word - 0x10000 if word & 0x8000 else word


def dev_without(lines_starting):
    return "".join(line + "\n" for line in demo_dev().splitlines()
                   if not line.startswith(tuple(lines_starting)))


class NutTest(GatewayWithUpsdTest):
    def start(self, upses, args=(), map_args=("--map", NUT_MAP)):
        self.upsd = Upsd(upses)
        nut_args = []
        for name in upses:
            nut_args += ["--nut", self.upsd.endpoint(name)]
        self.daemon = Daemon(args=[*map_args, "--nut-interval", str(POLL_S)] + nut_args +
                             list(args))
        self.client = self.daemon.client()
        first_unit = int(args[list(args).index("--unit-id") + 1]) if "--unit-id" in args else UNIT
        self.wait_until(lambda: self.registers(OPERATING_STATUS, 1, unit=first_unit) == [16], 10.0,
                        "the map never opened")

    def registers(self, address, count, unit=UNIT):
        """The registers, or None when the daemon answered with an exception."""
        response = self.client.read_input_registers(address, count, slave=unit)
        return None if response.isError() else list(response.registers)

    def discretes(self, count=len(TOKENS), unit=UNIT):
        response = self.client.read_discrete_inputs(0, count, slave=unit)
        self.assertFalse(response.isError(), str(response))
        return dict(zip(TOKENS, response.bits[:count]))

    def wait_until(self, condition, limit_s, message):
        deadline = time.monotonic() + limit_s
        while time.monotonic() < deadline:
            if condition():
                return time.monotonic()
            time.sleep(0.05)
        self.assertTrue(condition(), message + "\n" + "\n".join(self.daemon.log_lines[-20:]))
        return time.monotonic()

    def test_values_of_our_dev_file_are_served(self):
        self.start({"bench": ("bench.dev", demo_dev())})
        self.assertEqual(text(self.registers(NAME, 8)), "bench")
        self.assertEqual(text(self.registers(SERIAL, 8)), "DUMMY-0042")
        self.assertEqual(text(self.registers(FIRMWARE, 4)), "3.1.4")
        self.assertAlmostEqual(big_endian(self.registers(INPUT_VOLTAGE, 2)).decode_32bit_float(),
                               230.4, places=3)
        self.assertAlmostEqual(big_endian(self.registers(OUTPUT_VOLTAGE, 2)).decode_32bit_float(),
                               229.8, places=3)
        self.assertEqual(self.registers(INPUT_FREQUENCY, 1), [500])
        self.assertEqual(self.registers(LOAD, 1), [23])
        self.assertEqual(self.registers(REALPOWER, 2), [0, 312])
        self.assertEqual(self.registers(CHARGE, 1), [100])
        self.assertEqual(self.registers(RUNTIME, 2), [0, 2700])
        self.assertEqual(self.registers(BATTERY_TEMPERATURE, 1), [375])  # -2.5 C * 10 + 400
        self.assertEqual(signed(self.registers(UPS_TEMPERATURE, 1)[0]), 31)
        self.assertEqual(self.registers(OUTLET2_STATUS, 2)[0], ord("o") << 8 | ord("f"))
        status = self.discretes()
        self.assertEqual({t for t, on in status.items() if on}, {"OL", "CHRG"})
        self.assertEqual(self.registers(STATUS_WORD, 1), [1 << 0 | 1 << 5])
        self.assertEqual(self.listener_failures(), [], "after start")

    def test_without_a_map_the_built_in_nut_map_is_served(self):
        # The built-in map of the simulated UPS names no NUT variable: with
        # it, every entry of a UPS of --nut read as unavailable.
        self.start({"bench": ("bench.dev", demo_dev())}, map_args=())
        self.assertEqual(text(self.registers(NAME, 8)), "bench")
        self.assertAlmostEqual(big_endian(self.registers(INPUT_VOLTAGE, 2)).decode_32bit_float(),
                               230.4, places=3)
        self.assertEqual(self.registers(CHARGE, 1), [100])

    def test_nuts_client_library_is_loaded_for_nut(self):
        self.start({"bench": ("bench.dev", demo_dev())})
        with open("/proc/%d/maps" % self.daemon.process.pid, encoding="utf-8") as f:
            maps = f.read()
        self.assertIn("/libupsclient.so", maps)

    def test_every_line_on_stderr_is_the_daemons_own_log_line(self):
        # NUT's client library writes on stderr when it is initialised for
        # SSL, which the daemon never uses: a line outside the log format
        # that a journal shows without priority and integrators ask about.
        self.start({"bench": ("bench.dev", demo_dev())})
        self.assertEqual(text(self.registers(NAME, 8)), "bench")
        self.daemon.stop()
        strays = [line for line in self.daemon.log_lines if not line.startswith("tarsel-modbusd:")]
        self.assertEqual(strays, [], "\n".join(self.daemon.log_lines))

    def test_every_float_and_32_bit_entry_decodes_big_endian_to_the_dev_files_value(self):
        self.start({"bench": ("bench.dev", demo_dev())})
        with open(NUT_MAP, encoding="utf-8") as f:
            entries = [e for e in json.load(f)["entries"]
                       if e["encoder"] in ("float32", "int32", "uint32")]
        self.assertGreaterEqual(len(entries), 5)
        values = dev_values()
        for entry in entries:
            self.assertEqual(entry.get("layout"), "ABCD", entry["name"])
            decoder = big_endian(self.registers(entry["address"], 2))
            expected = values[entry["source"]["channel"]]
            if entry["encoder"] == "float32":
                served = decoder.decode_32bit_float()
                self.assertEqual(served, struct.unpack(">f", struct.pack(">f", float(expected)))[0],
                                 entry["name"])
            else:
                served = (decoder.decode_32bit_int() if entry["encoder"] == "int32"
                          else decoder.decode_32bit_uint())
                self.assertEqual(served, int(float(expected)), entry["name"])

    def test_sequence_changes_are_served_within_one_poll_interval_plus_a_second(self):
        sequence = dev_without(["battery.charge:"]) + "battery.charge: 100\nTIMER 3\n" + \
            "battery.charge: 80\nTIMER 3\nbattery.charge: 60\nTIMER 3\n"
        self.start({"seq": ("seq.seq", sequence)})
        seen = []
        last = None
        deadline = time.monotonic() + 14
        while len(seen) < 3 and time.monotonic() < deadline:
            value = self.upsd.upsc("seq", "battery.charge")
            if value is not None and value != last:
                changed = time.monotonic()
                last = value
                served = self.wait_until(lambda: self.registers(CHARGE, 1) == [int(value)],
                                         SERVED_LIMIT_S, "battery.charge " + value + " not served")
                seen.append((value, round(served - changed, 2)))
            time.sleep(0.05)
        self.assertGreaterEqual(len(seen), 3, seen)
        self.assertGreater(len({v for v, _ in seen}), 1, seen)

    def test_identity_stays_served_after_the_ups_changes_an_attribute(self):
        sequence = dev_without(["device.mfr:"]) + "device.mfr: Maker A\nTIMER 3\n" + \
            "device.mfr: Maker B\nTIMER 3\n"
        self.start({"seq": ("seq.seq", sequence)})
        # dummy-ups reports a model of its own before the file's: what upsd
        # says now is what must be served.
        identity = {SERIAL: (8, lambda: "DUMMY-0042"), FIRMWARE: (4, lambda: "3.1.4"),
                    MODEL: (16, lambda: self.upsd.upsc("seq", "device.model"))}
        for maker in ("Maker A", "Maker B"):
            self.wait_until(lambda: self.registers(MFR, 12) is not None
                            and text(self.registers(MFR, 12)) == maker, 8.0, maker + " not served")
            for address, (size, expected) in identity.items():
                self.wait_until(lambda: self.registers(address, size) is not None
                                and text(self.registers(address, size)) == expected(), 1.0,
                                "identity at %d not served again" % address)
            self.wait_until(lambda: self.registers(POWER_NOMINAL, 1) == [1500], 1.0,
                            "nominal power not served again")
        self.assertEqual(self.listener_failures(), [])

    def listener_failures(self):
        self.daemon.drain_log()
        return [line for line in self.daemon.log_lines if "a listener failed" in line]

    def test_no_listener_fails_when_identity_changes_and_a_rating_is_not_reported(self):
        # The shipped map reads outlet.count as a numeric string; this UPS
        # has no such variable, and its maker changes twice.
        sequence = dev_without(["device.mfr:", "outlet.count:"]) + \
            "device.mfr: Maker A\nTIMER 3\ndevice.mfr: Maker B\nTIMER 3\n"
        self.start({"seq": ("seq.seq", sequence)})
        for maker in ("Maker A", "Maker B"):
            self.wait_until(lambda: self.registers(MFR, 12) is not None
                            and text(self.registers(MFR, 12)) == maker, 8.0, maker + " not served")
        self.assertEqual(self.listener_failures(), [])

    def test_device_identification_names_the_gateway_and_the_ups_model(self):
        self.start({"bench": ("bench.dev", demo_dev())})
        client = ExtendedClient(host="127.0.0.1", port=self.daemon.port, timeout=3)
        self.assertTrue(client.connect())
        try:
            answer = client.read_device_information(read_code=0x02, object_id=0)
        finally:
            client.close()
        self.assertEqual(answer["information"][0], b"Tarsel")
        self.assertEqual(answer["information"][5], self.upsd.upsc("bench", "device.model").encode())
        self.assertEqual(answer["information"][6], b"nut-ups-map")

    def test_an_outlet_appears_and_disappears(self):
        self.start({"bench": ("bench.dev", dev_without(["outlet.2."]))})
        self.assertEqual(self.registers(OUTLET2_STATUS, 2), STRING_NOT_IMPLEMENTED)
        self.upsd.write_file("bench.dev", demo_dev())
        self.wait_until(lambda: self.registers(OUTLET2_STATUS, 2) == [ord("o") << 8 | ord("f"),
                                                                     ord("f") << 8],
                        5.0 + SERVED_LIMIT_S, "outlet.2 did not appear")
        for variable in ("id", "desc", "status", "switchable", "current"):
            self.assertTrue(self.upsd.upsrw("bench", f"outlet.2.{variable}", ""))
        self.wait_until(lambda: self.registers(OUTLET2_STATUS, 2) == STRING_NOT_IMPLEMENTED,
                        2.0 + SERVED_LIMIT_S, "outlet.2 did not disappear")
        self.assertTrue(self.daemon.alive())

    def test_an_outlet_before_another_keeps_its_place_while_it_is_gone_and_when_it_comes_back(self):
        # The entries of each outlet name its place among the UPS's
        # sub-devices: while outlet.1 is gone, outlet.2 stays at the second
        # place and nothing of it shows at the first; outlet.1 comes back to
        # its own place.
        self.start({"bench": ("bench.dev", demo_dev())})
        self.assertEqual(text(self.registers(OUTLET1_DESC, 6)), "Segment 1")
        for variable in ("id", "desc", "status", "switchable", "current"):
            self.assertTrue(self.upsd.upsrw("bench", f"outlet.1.{variable}", ""))
        self.wait_until(lambda: self.registers(OUTLET1_STATUS, 2) == STRING_NOT_IMPLEMENTED,
                        2.0 + SERVED_LIMIT_S, "outlet.1 did not disappear")
        self.assertEqual(text(self.registers(OUTLET1_DESC, 6)), "")
        self.assertEqual(text(self.registers(OUTLET2_DESC, 6)), "Segment 2")
        self.assertEqual(text(self.registers(OUTLET2_STATUS, 2)), "off")
        self.upsd.write_file("bench.dev", demo_dev())
        self.wait_until(lambda: text(self.registers(OUTLET1_STATUS, 2)) == "on",
                        5.0 + SERVED_LIMIT_S, "outlet.1 did not come back to its place")
        self.wait_until(lambda: text(self.registers(OUTLET1_DESC, 6)) == "Segment 1",
                        2.0, "outlet.1's description did not come back")
        self.assertEqual(text(self.registers(OUTLET2_DESC, 6)), "Segment 2")
        self.assertEqual(text(self.registers(OUTLET2_STATUS, 2)), "off")
        self.assertTrue(self.daemon.alive())

    def test_an_outlet_that_appears_after_a_higher_numbered_one_is_served_at_its_own_place(self):
        # The first poll sees outlet.2 only: it goes to the second place all
        # the same, and outlet.1 fills the first when it comes, so each
        # outlet's entries read that outlet's description.
        self.start({"bench": ("bench.dev", dev_without(["outlet.1."]))})
        self.assertEqual(text(self.registers(OUTLET2_DESC, 6)), "Segment 2")
        self.assertEqual(text(self.registers(OUTLET1_DESC, 6)), "")
        self.upsd.write_file("bench.dev", demo_dev())
        self.wait_until(lambda: text(self.registers(OUTLET1_DESC, 6)) == "Segment 1",
                        5.0 + SERVED_LIMIT_S, "outlet.1 is not served at its own place")
        self.assertEqual(text(self.registers(OUTLET2_DESC, 6)), "Segment 2")
        self.assertEqual(text(self.registers(OUTLET1_STATUS, 2)), "on")
        self.assertEqual(text(self.registers(OUTLET2_STATUS, 2)), "off")
        self.assertTrue(self.daemon.alive())

    def test_a_ups_that_comes_back_with_other_variables_and_outlets_is_served_as_it_is_now(self):
        self.start({"bench": ("bench.dev", demo_dev())})
        self.assertEqual(text(self.registers(OUTLET2_STATUS, 2)), "off")
        self.upsd.stop_driver("bench")
        self.wait_until(lambda: self.registers(CHARGE, 1) == [UINT16_NOT_IMPLEMENTED],
                        FAULT_LIMIT_S, "entries stayed available without the driver")
        other = dev_without(["outlet.2.", "outlet.1.status", "battery.charge:"])
        self.upsd.write_file("bench.dev", other + "battery.charge: 55\noutlet.1.status: off\n"
                             "outlet.3.desc: Third\noutlet.3.status: on\n")
        self.upsd.start_driver("bench")
        self.wait_until(lambda: self.registers(CHARGE, 1) == [55] and self.discretes()["OL"],
                        FAULT_LIMIT_S, "the UPS did not come back")
        self.wait_until(lambda: text(self.registers(OUTLET1_STATUS, 2)) == "off",
                        SERVED_LIMIT_S + 2, "outlet.1 is not served as it is now")
        self.assertEqual(self.registers(OUTLET2_STATUS, 2), STRING_NOT_IMPLEMENTED)
        # Back as it was: the outlet that went comes back too.
        self.upsd.stop_driver("bench")
        self.wait_until(lambda: self.registers(CHARGE, 1) == [UINT16_NOT_IMPLEMENTED],
                        FAULT_LIMIT_S, "entries stayed available without the driver")
        self.upsd.write_file("bench.dev", demo_dev())
        self.upsd.start_driver("bench")
        self.wait_until(lambda: self.registers(CHARGE, 1) == [100] and
                        text(self.registers(OUTLET2_STATUS, 2)) == "off",
                        FAULT_LIMIT_S, "outlet.2 did not come back with its UPS")
        self.assertEqual(text(self.registers(OUTLET1_STATUS, 2)), "on")
        self.assertTrue(self.daemon.alive())
        self.assertFalse([line for line in self.daemon.log_lines if "rebuilding" in line])

    def test_status_changes_move_the_status_discretes(self):
        self.start({"bench": ("bench.dev", demo_dev())})
        self.assertTrue(self.upsd.upsrw("bench", "ups.status", "OB DISCHRG LB"))
        self.wait_until(lambda: {t for t, on in self.discretes().items() if on} ==
                        {"OB", "DISCHRG", "LB"}, 2.0 + SERVED_LIMIT_S, "the discretes did not move")
        self.assertEqual(self.registers(STATUS_WORD, 1), [1 << 1 | 1 << 2 | 1 << 6])
        self.assertTrue(self.upsd.upsrw("bench", "ups.status", "OL"))
        self.wait_until(lambda: {t for t, on in self.discretes().items() if on} == {"OL"},
                        2.0 + SERVED_LIMIT_S, "the discretes did not move back")

    def test_upsd_killed_and_restarted_entries_go_unavailable_and_come_back(self):
        self.start({"bench": ("bench.dev", demo_dev())})
        pid = self.daemon.process.pid
        self.upsd.stop_upsd()
        self.wait_until(lambda: self.registers(CHARGE, 1) == [UINT16_NOT_IMPLEMENTED], FAULT_LIMIT_S,
                        "entries stayed available without upsd")
        self.assertTrue(self.daemon.wait_for_log("upsd unreachable", 1.0))
        self.upsd.start_upsd()
        self.wait_until(lambda: self.registers(CHARGE, 1) == [100], FAULT_LIMIT_S,
                        "entries did not come back with upsd")
        self.assertEqual(self.daemon.process.pid, pid)
        self.assertTrue(self.daemon.alive())

    def test_driver_stopped_entries_go_unavailable_and_come_back(self):
        self.start({"bench": ("bench.dev", demo_dev())})
        self.upsd.stop_driver("bench")
        self.wait_until(lambda: self.registers(CHARGE, 1) == [UINT16_NOT_IMPLEMENTED], FAULT_LIMIT_S,
                        "entries stayed available without the driver")
        self.assertEqual(self.discretes()["OL"], False)
        self.assertTrue(self.daemon.wait_for_log(" stale: ", 1.0))
        self.upsd.start_driver("bench")
        # A driver that has just started hands its variables over a few at a
        # time (ups.status last): wait for the whole picture.
        self.wait_until(lambda: self.registers(CHARGE, 1) == [100] and self.discretes()["OL"],
                        FAULT_LIMIT_S, "entries did not come back with the driver")

    def test_a_stopped_upsd_does_not_stall_modbus_clients(self):
        self.start({"bench": ("bench.dev", demo_dev())})
        self.upsd.pause_upsd()
        slowest = 0.0
        answers = set()
        try:
            # Ask all along the time upsd takes to count as unreachable, and
            # a second more once it does.
            deadline = time.monotonic() + FAULT_LIMIT_S
            while time.monotonic() < deadline:
                asked = time.monotonic()
                answers.add(tuple(self.registers(CHARGE, 1)))
                slowest = max(slowest, time.monotonic() - asked)
                if (UINT16_NOT_IMPLEMENTED,) in answers:
                    deadline = min(deadline, asked + 1.0)
                time.sleep(0.05)
        finally:
            self.upsd.resume_upsd()
        self.assertLess(slowest, 0.5, "a Modbus answer waited for the stopped upsd")
        self.assertIn((UINT16_NOT_IMPLEMENTED,), answers, "a hung upsd is to read as unavailable")
        self.wait_until(lambda: self.registers(CHARGE, 1) == [100], FAULT_LIMIT_S,
                        "entries did not come back once upsd ran again")

    def test_two_upses_under_two_unit_ids(self):
        second = demo_dev().replace("battery.charge: 100", "battery.charge: 42").replace(
            "DUMMY-0042", "DUMMY-0043")
        self.start({"first": ("first.dev", demo_dev()), "second": ("second.dev", second)},
                   args=["--unit-id", "5"])
        self.wait_until(lambda: self.registers(CHARGE, 1, unit=6) == [42], SERVED_LIMIT_S + 2,
                        "the second UPS is not served under unit id 6")
        self.assertEqual(self.registers(CHARGE, 1, unit=5), [100])
        self.assertEqual(text(self.registers(NAME, 8, unit=5)), "first")
        self.assertEqual(text(self.registers(NAME, 8, unit=6)), "second")
        self.assertEqual(text(self.registers(SERIAL, 8, unit=6)), "DUMMY-0043")
        self.assertIsNone(self.registers(CHARGE, 1, unit=7), "no third unit")
        self.assertTrue(self.upsd.upsrw("second", "ups.status", "OB"))
        self.wait_until(lambda: self.discretes(unit=6)["OB"], 2.0 + SERVED_LIMIT_S,
                        "the second UPS's status did not move")
        self.assertFalse(self.discretes(unit=5)["OB"])
        self.upsd.stop_driver("second")
        self.wait_until(lambda: self.registers(CHARGE, 1, unit=6) == [UINT16_NOT_IMPLEMENTED], FAULT_LIMIT_S,
                        "the second UPS stayed available without its driver")
        self.assertEqual(self.registers(CHARGE, 1, unit=5), [100])

    def test_writes_are_refused_while_writes_to_the_ups_are_off(self):
        # The shipped map's holding register 0 is battery.charge.low, coil 5
        # the command load.off; without --nut-writes neither reaches upsd.
        self.start({"bench": ("bench.dev", demo_dev())})
        self.assertEqual(self.client.read_holding_registers(0, 1, slave=UNIT).registers, [20])
        refused = self.client.write_register(0, 30, slave=UNIT)
        self.assertTrue(refused.isError())
        self.assertEqual(refused.exception_code, 1)
        refused = self.client.write_coil(5, True, slave=UNIT)
        self.assertEqual(refused.exception_code, 1)
        time.sleep(SERVED_LIMIT_S)
        self.assertEqual(self.upsd.upsc("bench", "battery.charge.low"), "20")
        self.assertEqual(self.client.read_holding_registers(0, 1, slave=UNIT).registers, [20])

    def test_a_ups_removed_from_upsd_goes_unavailable_and_comes_back(self):
        upses = {"first": ("first.dev", demo_dev()), "second": ("second.dev", demo_dev())}
        self.start(upses)
        self.wait_until(lambda: self.registers(CHARGE, 1, unit=2) == [100], SERVED_LIMIT_S + 2,
                        "the second UPS is not served")
        self.upsd.reload_upsd({"first": upses["first"]})
        self.wait_until(lambda: self.registers(CHARGE, 1, unit=2) == [UINT16_NOT_IMPLEMENTED], FAULT_LIMIT_S,
                        "the removed UPS stayed available")
        self.assertTrue(self.daemon.wait_for_log("unknown to upsd", 1.0))
        self.assertEqual(self.registers(CHARGE, 1, unit=1), [100])
        self.upsd.reload_upsd(upses)
        self.wait_until(lambda: self.registers(CHARGE, 1, unit=2) == [100], FAULT_LIMIT_S,
                        "the UPS did not come back with upsd's configuration")


if __name__ == "__main__":
    unittest.main()
