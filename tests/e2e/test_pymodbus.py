"""tarsel-modbusd over loopback, with pymodbus as the independent client.

Values are decoded with pymodbus's BinaryPayloadDecoder, so word order,
scaling and strings are checked by code we did not write.
"""
import json
import socket
import struct
import subprocess
import unittest

from pymodbus.constants import Endian
from pymodbus.payload import BinaryPayloadBuilder, BinaryPayloadDecoder

from harness import (DAEMON, SHIPPED_SCENARIO, UPS, Daemon, poll_until, running_ups,
                     shipped_map)

BIG, LITTLE = Endian.Big, Endian.Little
SENTINEL = 0xFFFF
# What outlet 3's six input registers read while the outlet is absent, under
# the shipped map's not-implemented policy: its name (a string: all zero),
# its current (a one-register float: uint16, 0xFFFF) and power (int16, 0x8000).
OUTLET3_ABSENT = [0, 0, 0, 0, 0xFFFF, 0x8000]


def float_layouts():
    """The float layouts the daemon reports for byte orders 0 and 1."""
    out = subprocess.run([DAEMON, "--describe=json", "--scenario", "none"], check=True,
                         capture_output=True, text=True, timeout=30).stdout
    return {l["byteOrder"]: l for l in json.loads(out)["floatLayout"]["layouts"]}


def pymodbus_orders(layout):
    """The (byteorder, wordorder) under which pymodbus lays 12.5 out as `layout` names."""
    byte = {"A": 0x41, "B": 0x48, "C": 0x00, "D": 0x00}
    regs = [byte[layout[0]] << 8 | byte[layout[1]], byte[layout[2]] << 8 | byte[layout[3]]]
    for byteorder in (BIG, LITTLE):
        for wordorder in (BIG, LITTLE):
            builder = BinaryPayloadBuilder(byteorder=byteorder, wordorder=wordorder)
            builder.add_32bit_float(12.5)
            if builder.to_registers() == regs:
                return byteorder, wordorder
    raise AssertionError("no pymodbus layout for " + layout)


def library_float_map():
    """The shipped map plus two entries on the library's float encoder, byte
    orders 0 and 1, over the battery charge's first two thresholds (10, 20)."""
    ups_map = shipped_map()
    for byte_order, address, threshold in ((0, 100, "alarm-threshold-0"),
                                           (1, 102, "alarm-threshold-1")):
        ups_map["entries"].append({"name": "library-float-%d" % byte_order,
                                   "table": "holding-registers", "address": address,
                                   "encoder": "float", "byteOrder": byte_order,
                                   "source": {"device": UPS, "channel": "Battery.Charge",
                                              "data": threshold}})
    return ups_map


def decoder(registers, byteorder=BIG, wordorder=BIG):
    return BinaryPayloadDecoder.fromRegisters(registers, byteorder=byteorder, wordorder=wordorder)


def words(builder_calls, byteorder=BIG, wordorder=BIG):
    builder = BinaryPayloadBuilder(byteorder=byteorder, wordorder=wordorder)
    builder_calls(builder)
    return builder.to_registers()


class PymodbusTest(unittest.TestCase):
    def setUp(self):
        self.daemons = []
        self.clients = []

    def tearDown(self):
        for client in self.clients:
            client.close()
        for daemon in self.daemons:
            if daemon.alive():
                daemon.stop()

    def start(self, map_json=None, scenario_json=None, args=()):
        if scenario_json is None and "--scenario" not in args:
            scenario_json = running_ups({"Battery.TemperatureC": -5})
        daemon = Daemon(map_json, scenario_json, args)
        self.daemons.append(daemon)
        return daemon, self.connect(daemon)

    def connect(self, daemon):
        client = daemon.client()
        self.clients.append(client)
        return client

    def ok(self, response):
        self.assertFalse(response.isError(), str(response))
        return response

    def exception_of(self, response):
        self.assertTrue(response.isError(), str(response))
        return response.exception_code

    # ---- reads of every encoder ------------------------------------------

    def test_library_floats_decode_in_both_byte_orders_with_the_reported_layout(self):
        layouts = float_layouts()
        _, client = self.start(map_json=library_float_map())
        regs = self.ok(client.read_holding_registers(100, 4, slave=1)).registers
        self.assertAlmostEqual(decoder(regs[0:2], *pymodbus_orders(layouts[0]["readLayout"]))
                               .decode_32bit_float(), 10.0)
        self.assertAlmostEqual(decoder(regs[2:4], *pymodbus_orders(layouts[1]["readLayout"]))
                               .decode_32bit_float(), 20.0)

    def test_input_registers_decode_every_register_encoder(self):
        _, client = self.start()
        regs = self.ok(client.read_input_registers(40, 22, slave=1)).registers
        at = lambda address, count=1: regs[address - 40:address - 40 + count]
        # Every float and 32-bit value of the shipped map is ABCD: big-endian.
        self.assertAlmostEqual(decoder(at(40, 2)).decode_32bit_float(), 230.1, places=3)
        self.assertAlmostEqual(decoder(at(44, 2)).decode_32bit_float(), 229.8, places=3)
        self.assertEqual(decoder(at(42)).decode_16bit_int(), 500)  # 50.0 Hz x 10
        self.assertEqual(decoder(at(43)).decode_16bit_uint(), 3)  # 0 XOR 3
        self.assertEqual(decoder(at(46)).decode_16bit_int(), 42)  # 4.2 A x 10
        self.assertEqual(decoder(at(47, 2)).decode_32bit_uint(), 960)
        self.assertEqual(decoder(at(49)).decode_16bit_uint(), 32)
        self.assertEqual(decoder(at(50)).decode_16bit_uint(), 100)
        self.assertEqual(decoder(at(52, 2)).decode_32bit_int(), 3600)
        self.assertEqual(decoder(at(54)).decode_16bit_int(), -5)
        self.assertEqual(decoder(at(55)).decode_16bit_uint(), 655)  # 25.5 x 10 + 400
        self.assertEqual(decoder(at(56)).decode_16bit_uint(), 3000)  # the text "3000"
        self.assertEqual(at(58), [0])  # a hole in the map
        self.assertEqual(decoder(at(59)).decode_16bit_uint(), 0)  # default of a missing channel
        self.assertEqual(at(60), [0b01000])  # charging only
        self.assertEqual(at(61), [16])

    def test_strings_are_decoded_and_fitted_to_their_registers(self):
        _, client = self.start(scenario_json=running_ups())
        model = self.ok(client.read_input_registers(0, 16, slave=1)).registers
        self.assertEqual(decoder(model).decode_string(32),
                         b"Simulated UPS 3000 RT" + b"\0" * 11)
        outlet = self.ok(client.read_input_registers(100, 4, slave=1)).registers
        self.assertEqual(decoder(outlet).decode_string(8), b"OUT1\0\0\0\0")
        firmware = self.ok(client.read_input_registers(24, 4, slave=1)).registers
        self.assertEqual(decoder(firmware).decode_string(8), b"1.4.2\0\0\0")

    def test_long_text_is_cut_to_the_reserved_registers(self):
        scenario = running_ups()
        scenario["devices"][-1]["attributes"]["firmware-version"] = "1.4.2-build-20240517"
        _, client = self.start(scenario_json=scenario)
        firmware = self.ok(client.read_input_registers(24, 4, slave=1)).registers
        self.assertEqual(decoder(firmware).decode_string(8), b"1.4.2-bu")

    def test_coils_and_discrete_inputs_read_booleans_alarms_and_composites(self):
        _, client = self.start()
        coils = self.ok(client.read_coils(0, 10, slave=1)).bits[:10]
        # outlets 1, 2 on; outlet 3 absent (0); beeper; auto-restart (inverted);
        # alarm enabled; overload alarm flag; a hole; the two config bits
        self.assertEqual(coils, [True, True, False, True, True, True, True, False, True, False])
        inputs = self.ok(client.read_discrete_inputs(0, 21, slave=1)).bits[:21]
        self.assertEqual(inputs[0:5], [False, False, False, True, False])
        self.assertEqual(inputs[8:14], [False] * 6)
        self.assertEqual(inputs[16:21], [False, False, False, True, False])

    # ---- writes, read back through the store -----------------------------

    def test_write_single_register_is_read_back(self):
        _, client = self.start()
        self.ok(client.write_register(7, 3, slave=1))
        self.assertEqual(self.ok(client.read_holding_registers(7, 1, slave=1)).registers, [3])

    def test_write_32_bit_integers_and_floats_big_endian_is_read_back(self):
        _, client = self.start()
        self.ok(client.write_registers(0, words(lambda b: b.add_32bit_float(12.5)), slave=1))
        self.ok(client.write_registers(8, words(lambda b: b.add_32bit_int(-120)), slave=1))
        self.ok(client.write_registers(10, words(lambda b: b.add_32bit_uint(86400)), slave=1))
        regs = self.ok(client.read_holding_registers(0, 12, slave=1)).registers
        self.assertEqual(decoder(regs[0:2]).decode_32bit_float(), 12.5)
        self.assertEqual(decoder(regs[8:10]).decode_32bit_int(), -120)
        self.assertEqual(decoder(regs[10:12]).decode_32bit_uint(), 86400)

    def test_library_float_written_in_the_reported_write_layout_is_stored(self):
        layouts = float_layouts()
        _, client = self.start(map_json=library_float_map())
        for byte_order, address, value in ((0, 100, 12.5), (1, 102, 37.25)):
            layout = layouts[byte_order]
            regs = words(lambda b: b.add_32bit_float(value),
                         *pymodbus_orders(layout["writeLayout"]))
            self.ok(client.write_registers(address, regs, slave=1))
            back = self.ok(client.read_holding_registers(address, 2, slave=1)).registers
            self.assertEqual(decoder(back, *pymodbus_orders(layout["readLayout"]))
                             .decode_32bit_float(), value)

    def test_string_write_is_cut_at_the_first_zero_and_read_back(self):
        _, client = self.start()
        text = b"UPS-B\0\0\0" + b"\0" * 8
        regs = [struct.unpack(">H", text[i:i + 2])[0] for i in range(0, 16, 2)]
        self.ok(client.write_registers(60, regs, slave=1))
        back = self.ok(client.read_holding_registers(60, 8, slave=1)).registers
        self.assertEqual(decoder(back).decode_string(16), text)

    def test_numeric_string_and_counter_writes_are_read_back(self):
        _, client = self.start()
        self.ok(client.write_register(12, 15, slave=1))
        self.ok(client.write_registers(14, words(lambda b: b.add_32bit_uint(2000500)), slave=1))
        self.assertEqual(self.ok(client.read_holding_registers(12, 1, slave=1)).registers, [15])
        regs = self.ok(client.read_holding_registers(14, 2, slave=1)).registers
        self.assertEqual(decoder(regs).decode_32bit_uint(), 2000500)

    def test_battery_test_coil_reads_0_when_idle_and_only_a_1_requests_a_test(self):
        _, client = self.start()
        self.assertEqual(self.ok(client.read_coils(7, 1, slave=1)).bits[0], False)
        self.ok(client.write_coil(7, False, slave=1))
        self.assertEqual(self.ok(client.read_coils(7, 1, slave=1)).bits[0], False)
        self.ok(client.write_coil(7, True, slave=1))
        self.assertEqual(self.ok(client.read_coils(7, 1, slave=1)).bits[0], True)
        # The holding register that once held the request is no entry any more.
        self.assertEqual(self.exception_of(client.write_register(13, 1, slave=1)), 2)

    def test_single_and_multiple_coil_writes_are_read_back(self):
        _, client = self.start()
        self.ok(client.write_coil(3, False, slave=1))
        self.ok(client.write_coils(0, [False, True], slave=1))
        self.ok(client.write_coils(8, [False, True], slave=1))
        coils = self.ok(client.read_coils(0, 10, slave=1)).bits[:10]
        self.assertEqual(coils[0:2], [False, True])
        self.assertFalse(coils[3])
        self.assertEqual(coils[8:10], [False, True])
        self.assertFalse(coils[4])  # auto-restart is the inverse of the second config bit

    def test_each_outlet_switches_by_its_own_coil_while_another_is_absent(self):
        _, client = self.start()  # outlet 3 is absent
        self.ok(client.write_coils(0, [False, True], slave=1))
        self.assertEqual(self.ok(client.read_coils(0, 3, slave=1)).bits[:3], [False, True, False])
        self.ok(client.write_coil(0, True, slave=1))
        self.assertEqual(self.ok(client.read_coils(0, 2, slave=1)).bits[:2], [True, True])
        self.assertEqual(self.exception_of(client.write_coil(2, True, slave=1)), 4)

    # ---- exceptions ------------------------------------------------------

    def test_ranges_outside_or_inside_entries_are_illegal_data_address(self):
        _, client = self.start()
        self.assertEqual(self.exception_of(client.read_holding_registers(1000, 2, slave=1)), 2)
        self.assertEqual(self.exception_of(client.read_input_registers(41, 1, slave=1)), 2)
        self.assertEqual(self.exception_of(client.read_holding_registers(0, 1, slave=1)), 2)
        self.assertEqual(self.exception_of(client.write_register(1, 5, slave=1)), 2)

    def test_quantity_beyond_the_protocol_limit_is_illegal_data_value(self):
        _, client = self.start()
        self.assertEqual(self.exception_of(client.read_input_registers(0, 126, slave=1)), 3)

    def test_unsupported_function_is_illegal_function(self):
        _, client = self.start()
        self.assertEqual(self.exception_of(client.mask_write_register(7, 0xFFFF, 0, slave=1)), 1)

    def test_other_unit_id_is_refused_but_zero_is_served(self):
        _, client = self.start()
        self.assertEqual(self.exception_of(client.read_input_registers(61, 1, slave=5)), 0x0B)
        self.assertEqual(self.ok(client.read_input_registers(61, 1, slave=0)).registers, [16])

    def test_unavailable_values_read_as_each_types_not_implemented_value(self):
        _, client = self.start()
        regs = self.ok(client.read_input_registers(120, 6, slave=1)).registers
        self.assertEqual(regs, OUTLET3_ABSENT)
        self.assertEqual(decoder(regs[0:4]).decode_string(8), b"\0" * 8)
        self.assertEqual(decoder(regs[4:5]).decode_16bit_uint(), 0xFFFF)
        self.assertEqual(decoder(regs[5:6]).decode_16bit_int(), -0x8000)
        self.assertEqual(self.exception_of(client.write_coil(2, True, slave=1)), 4)

    def test_unavailable_value_reads_as_the_sentinel_of_the_policy(self):
        ups_map = shipped_map()
        ups_map["unavailable"] = {"mode": "sentinel", "word": SENTINEL}
        _, client = self.start(map_json=ups_map)
        self.assertEqual(self.ok(client.read_input_registers(120, 6, slave=1)).registers,
                         [SENTINEL] * 6)

    def test_unavailable_value_answers_the_exception_of_the_policy(self):
        ups_map = shipped_map()
        ups_map["unavailable"] = {"mode": "exception", "code": 11}
        _, client = self.start(map_json=ups_map)
        self.assertEqual(self.exception_of(client.read_input_registers(120, 4, slave=1)), 11)
        self.ok(client.read_input_registers(100, 4, slave=1))

    def test_encoder_that_throws_answers_server_device_failure_and_logs(self):
        daemon, client = self.start(
            scenario_json=running_ups({"Config.LowBatteryWarning": "twenty"}))
        self.assertEqual(self.exception_of(client.read_holding_registers(12, 1, slave=1)), 4)
        self.ok(client.read_holding_registers(10, 2, slave=1))
        _, log = daemon.stop()
        self.assertIn('"config.low-battery-warning": read failed: stoul', log)

    # ---- the scenario playing --------------------------------------------

    def test_gate_opens_when_the_scenario_detects_the_ups(self):
        daemon, client = self.start(args=("--scenario", SHIPPED_SCENARIO))
        self.assertEqual(self.exception_of(client.read_input_registers(61, 1, slave=1)), 0x0A)
        opened = poll_until(lambda: not client.read_input_registers(61, 1, slave=1).isError(),
                            attempts=100, interval=0.1)
        self.assertTrue(opened)
        self.assertEqual(self.ok(client.read_input_registers(61, 1, slave=1)).registers, [16])
        _, log = daemon.stop()
        self.assertEqual(log.count("UPS map is not yet available on your system!"), 1)
        self.assertIn("UPS map is available; serving it", log)

    def test_values_change_as_the_scenario_plays(self):
        events = [{"at": 0.2, "every": 0.2, "do": "set-channel", "device": UPS,
                   "channel": "Output.Load", "values": [{"uint32": 55}, {"uint32": 66}]}]
        _, client = self.start(scenario_json=running_ups(events=events))
        load = lambda: client.read_input_registers(49, 1, slave=1).registers[0]
        self.assertEqual(poll_until(lambda: load() == 55), True)
        self.assertEqual(poll_until(lambda: load() == 66), True)

    def test_outlet_appears_and_disappears(self):
        outlet = {"name": "Outlet 3", "attributes": {"name": "OUT3"},
                  "channels": {"Outlet.Switch.On": True, "Outlet.Current": {"float": 0.5},
                               "Outlet.Power": {"int32": 90}}}
        events = [{"at": 0.2, "do": "add-device", "parent": UPS, "parentChanged": False,
                   "device": outlet},
                  {"at": 0.3, "do": "notify-device", "device": UPS, "event": "created"},
                  {"at": 1.5, "do": "remove-device", "device": UPS, "path": [2]}]
        _, client = self.start(scenario_json=running_ups(events=events))
        outlet3 = lambda: client.read_input_registers(120, 6, slave=1).registers
        self.assertTrue(poll_until(lambda: outlet3() == [0x4F55, 0x5433, 0, 0, 50, 90]))
        self.assertTrue(poll_until(lambda: outlet3() == OUTLET3_ABSENT))

    def test_alarm_is_raised_and_cleared(self):
        events = [{"at": 0.2, "do": "raise-alarm", "device": UPS, "channel": "Battery.Charge",
                   "level": 7, "direction": False},
                  {"at": 1.0, "do": "clear-alarm", "device": UPS, "channel": "Battery.Charge"}]
        _, client = self.start(scenario_json=running_ups(events=events))
        alarms = lambda: client.read_discrete_inputs(8, 6, slave=1).bits[:6]
        self.assertTrue(poll_until(lambda: alarms() == [False, True, True, False, False, True]))
        self.assertTrue(poll_until(lambda: alarms() == [False] * 6))

    def test_attribute_change_reaches_the_push_image(self):
        events = [{"at": 0.2, "do": "set-attribute", "device": UPS, "attribute": "location",
                   "value": "Rack 9"}]
        daemon, _ = self.start(scenario_json=running_ups(events=events))
        pushed = 'push holding-registers 20 "ups.location" [0x5261 0x636B 0x2039 0x0000'
        self.assertTrue(daemon.wait_for_log(pushed))

    def test_entry_found_by_device_name_is_served_once_the_scenario_adds_its_device(self):
        ups_map = shipped_map()
        ups_map["entries"].append({"name": "bypass.model", "table": "input-registers",
                                   "address": 200, "encoder": "string", "size": 4,
                                   "source": {"device": "Bypass", "attribute": "model"}})
        scenario = running_ups()
        ups = scenario["devices"].pop()
        scenario["events"] = [{"at": 0.5, "do": "add-device", "device": ups}]
        daemon, client = self.start(map_json=ups_map, scenario_json=scenario)
        self.assertTrue(daemon.wait_for_log(
            'entries[0] "ups.model" cannot be built yet: no device named "UPS"'))
        model = lambda: client.read_input_registers(0, 16, slave=1)
        self.assertEqual(self.exception_of(model()), 0x0A)  # the UPS is not there yet
        served = poll_until(lambda: not model().isError()
                            and decoder(model().registers).decode_string(32)
                            == b"Simulated UPS 3000 RT" + b"\0" * 11)
        self.assertTrue(served)
        self.assertEqual(self.ok(client.read_input_registers(200, 4, slave=1)).registers,
                         [0] * 4)  # its device never comes: still pending, a string reads 0
        status, log = daemon.stop()
        self.assertEqual(status, 0, log)
        self.assertIn('entries[0] "ups.model" built; served from now on', log)
        self.assertIn("data-store subscriptions still open: 0", log)

    def test_entries_over_a_channel_that_held_a_text_serve_its_number_again(self):
        # A text where the entries expect a number (a UPS reporting "unknown"
        # for a while) once left them unavailable for good, and failed the
        # scenario step that stored it.
        probe = {"device": UPS, "channel": "Probe"}
        probe_map = {"entries": [
            {"name": "f", "table": "input-registers", "address": 0, "encoder": "float32",
             "source": probe},
            {"name": "i", "table": "input-registers", "address": 2, "encoder": "int16",
             "source": probe}]}
        scenario = running_ups({"Probe": 1.5}, events=[
            {"at": 0.3, "do": "set-channel", "device": UPS, "channel": "Probe",
             "value": "unknown"},
            {"at": 0.6, "do": "set-channel", "device": UPS, "channel": "Probe", "value": 2.5}])
        daemon, client = self.start(map_json=probe_map, scenario_json=scenario)
        expected = words(lambda b: (b.add_32bit_float(2.5), b.add_16bit_int(2)))
        served = poll_until(lambda: (lambda r: not r.isError() and r.registers == expected)(
            client.read_input_registers(0, 3, slave=1)), attempts=200)
        self.assertTrue(served, str(client.read_input_registers(0, 3, slave=1)))
        status, log = daemon.stop()
        self.assertEqual(status, 0, log)
        self.assertNotIn("scenario events[0] (set-channel)", log)  # the step did not fail

    # ---- robustness and shutdown -----------------------------------------

    def test_several_clients_are_served_at_once(self):
        daemon, first = self.start()
        others = [self.connect(daemon) for _ in range(3)]
        for round_ in range(3):
            for client in [first] + others:
                self.assertEqual(self.ok(client.read_input_registers(61, 1, slave=1)).registers,
                                 [16], round_)

    def test_malformed_frames_neither_crash_the_daemon_nor_stall_others(self):
        daemon, client = self.start()
        partial = socket.create_connection(("127.0.0.1", daemon.port), timeout=3)
        partial.sendall(b"\x00\x01\x00")  # a frame that never completes
        garbage = socket.create_connection(("127.0.0.1", daemon.port), timeout=3)
        garbage.sendall(b"\x00\x01\x00\x07\xff\xff\x01\x03\x00\x00")  # protocol 7, length 65535
        self.assertEqual(garbage.recv(16), b"")  # the daemon hangs up on it
        for _ in range(5):
            self.assertEqual(self.ok(client.read_input_registers(61, 1, slave=1)).registers, [16])
        partial.close()
        garbage.close()
        self.assertTrue(daemon.alive())

    def test_a_client_that_ends_its_side_after_pipelining_gets_every_answer(self):
        daemon, _ = self.start()
        requests = 200  # many turns' worth, below the 4 KiB read ahead
        pipelined = b"".join(struct.pack(">HHHBBHH", i, 0, 6, 1, 4, 61, 1) for i in range(requests))
        with socket.create_connection(("127.0.0.1", daemon.port), timeout=10) as one_shot:
            one_shot.sendall(pipelined)
            one_shot.shutdown(socket.SHUT_WR)  # done sending, still reading
            received = b""
            for _ in range(1000):
                chunk = one_shot.recv(65536)
                if not chunk:
                    break  # the daemon closes after the last answer
                received += chunk
        answer_bytes = 11  # header, function, count, one register
        self.assertEqual(len(received), requests * answer_bytes)
        answers = [struct.unpack(">HHHBBBH", received[i:i + answer_bytes])
                   for i in range(0, len(received), answer_bytes)]
        self.assertEqual([a[0] for a in answers], list(range(requests)))
        self.assertEqual({a[6] for a in answers}, {16})
        self.assertTrue(daemon.alive())

    def test_sigterm_stops_cleanly_and_closes_every_subscription(self):
        daemon, client = self.start()
        self.ok(client.read_input_registers(61, 1, slave=1))
        client.close()
        status, log = daemon.stop()
        self.assertEqual(status, 0, log)
        self.assertIn("received Terminated; stopping", log)
        self.assertIn("data-store subscriptions still open: 0", log)


if __name__ == "__main__":
    unittest.main()
