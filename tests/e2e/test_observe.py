"""Reload on SIGHUP and the health and metrics endpoint, end to end.

The daemon runs with --http-listen 127.0.0.1:0 (the port is read back from
its log); pymodbus makes the Modbus requests, urllib reads /healthz and
/metrics, and SIGHUP goes to the daemon's own process id.
"""
import json
import os
import re
import signal
import socket
import struct
import subprocess
import time
import unittest
import urllib.error
import urllib.request

from prometheus_client.parser import text_string_to_metric_families

from harness import DAEMON, Daemon, poll_until, running_ups
from nut_harness import NUT_MAP, GatewayWithUpsdTest, Upsd, demo_dev

HTTP_ARGS = ["--http-listen", "127.0.0.1:0"]
# The shipped scenario detects its UPS after about 3 s; a loaded machine
# gets generous bounds.
OPEN_LIMIT_S = 20.0
FAULT_LIMIT_S = 5.0 + 0.5 + 5.0

# The maps of the reload tests serve a string channel "Label" (four
# registers) at a holding address the test chooses, and the operating status.
OPERATING_STATUS = {"name": "status", "table": "input-registers", "address": 0,
                    "encoder": "uint16",
                    "source": {"device": 2, "channel": "PowerDistribution.Status.OperatingStatus"}}


def map_with_label_at(address):
    return {"entries": [
        OPERATING_STATUS,
        {"name": "label", "table": "holding-registers", "address": address, "encoder": "string",
         "size": 4, "source": {"device": 2, "channel": "Label"}}]}


def scenario_with_label():
    return running_ups(channels={"Label": "ABCD"})


def http_port(daemon):
    assert daemon.wait_for_log("health and metrics on http://127.0.0.1:", 10.0), \
        "\n".join(daemon.log_lines)
    for line in daemon.log_lines:
        found = re.search(r"health and metrics on http://127\.0\.0\.1:(\d+)/", line)
        if found:
            return int(found.group(1))
    raise AssertionError("no HTTP port in the log")


def get(port, path):
    """(status, body) of a GET; HTTP errors are answers too."""
    try:
        with urllib.request.urlopen(f"http://127.0.0.1:{port}{path}", timeout=5) as response:
            return response.status, response.read().decode()
    except urllib.error.HTTPError as error:
        return error.code, error.read().decode()


def samples(text):
    """{'name{labels}': value} of a Prometheus text page, comments left out."""
    values = {}
    for line in text.splitlines():
        if line and not line.startswith("#"):
            key, value = line.rsplit(" ", 1)
            values[key] = float(value)
    return values


def parsed_families(test, text):
    """The families of a metrics page, read by a Prometheus text parser of
    its own, with what that parser leaves unchecked checked here: every
    sample belongs to the family whose HELP and TYPE lines came before it,
    and every histogram adds up."""
    families = list(text_string_to_metric_families(text))
    declared = None
    for line in text.splitlines():
        if line.startswith("# TYPE "):
            declared = line.split(" ")[2]
        elif line and not line.startswith("#"):
            name = re.match(r"[a-zA-Z_:][a-zA-Z0-9_:]*", line).group(0)
            test.assertIn(name, [declared, declared + "_bucket", declared + "_sum",
                                 declared + "_count"], line)
    for family in families:
        test.assertIn(family.type, ("counter", "gauge", "histogram"), family.name)
        test.assertTrue(family.documentation, family.name)
        if family.type == "histogram":
            check_histogram(test, family)
    return families


def check_histogram(test, family):
    buckets = [s for s in family.samples if s.name.endswith("_bucket")]
    bounds = [float(s.labels["le"]) for s in buckets]
    test.assertEqual(bounds, sorted(bounds), family.name)
    test.assertEqual(bounds[-1], float("inf"), family.name)
    counts = [s.value for s in buckets]
    test.assertEqual(counts, sorted(counts), family.name + ": buckets not cumulative")
    count = [s.value for s in family.samples if s.name.endswith("_count")]
    total = [s.value for s in family.samples if s.name.endswith("_sum")]
    test.assertEqual(count, [counts[-1]], family.name)
    test.assertEqual(len(total), 1, family.name)
    test.assertGreaterEqual(total[0], 0, family.name)


def counter_values(families):
    """{(sample name, labels): value} of every counter and histogram sample."""
    return {(s.name, tuple(sorted(s.labels.items()))): s.value
            for f in families if f.type in ("counter", "histogram") for s in f.samples}


class ObserveTest(GatewayWithUpsdTest):
    def start(self, **kwargs):
        kwargs["args"] = list(kwargs.get("args", ())) + HTTP_ARGS
        self.daemon = Daemon(**kwargs)
        self.port = http_port(self.daemon)

    def test_metrics_count_exactly_the_requests_a_client_made(self):
        self.start(scenario_json=running_ups())
        self.client = self.daemon.client()
        c = self.client
        for _ in range(3):
            self.assertFalse(c.read_holding_registers(0, 2, slave=1).isError())
        for _ in range(2):
            self.assertFalse(c.read_input_registers(40, 2, slave=1).isError())
        self.assertFalse(c.read_discrete_inputs(0, 5, slave=1).isError())
        self.assertFalse(c.read_coils(0, 3, slave=1).isError())
        # Holding 90 is no entry: Illegal Data Address.
        response = c.read_holding_registers(90, 1, slave=1)
        self.assertTrue(response.isError())
        self.assertEqual(response.exception_code, 2)
        self.assertFalse(c.write_registers(60, [0x4142, 0, 0, 0, 0, 0, 0, 0], slave=1).isError())
        status, page = get(self.port, "/metrics")
        self.assertEqual(status, 200)
        values = samples(page)
        requests = {k: v for k, v in values.items() if k.startswith("tarsel_modbusd_requests_total")}
        self.assertEqual(requests, {
            'tarsel_modbusd_requests_total{function="1"}': 1,
            'tarsel_modbusd_requests_total{function="2"}': 1,
            'tarsel_modbusd_requests_total{function="3"}': 4,
            'tarsel_modbusd_requests_total{function="4"}': 2,
            'tarsel_modbusd_requests_total{function="5"}': 0,
            'tarsel_modbusd_requests_total{function="6"}': 0,
            'tarsel_modbusd_requests_total{function="15"}': 0,
            'tarsel_modbusd_requests_total{function="16"}': 1,
            'tarsel_modbusd_requests_total{function="43"}': 0,
        })
        exceptions = {k: v for k, v in values.items()
                      if k.startswith("tarsel_modbusd_exceptions_total")}
        self.assertEqual(exceptions, {'tarsel_modbusd_exceptions_total{function="3",code="2"}': 1})
        self.assertEqual(values['tarsel_modbusd_writes_total{outcome="written"}'], 1)
        self.assertEqual(values['tarsel_modbusd_writes_total{outcome="refused"}'], 0)
        self.assertEqual(values["tarsel_modbusd_clients"], 1)
        self.assertEqual(values["tarsel_modbusd_map_available"], 1)
        # The write changed config.label: one push at least.
        self.assertGreaterEqual(values["tarsel_modbusd_pushes_total"], 1)

    def test_metrics_count_refused_and_rejected_writes_and_unserved_functions_as_they_happened(self):
        self.start(scenario_json=running_ups(), args=["--allow-write", "127.0.0.2",
                                                         "--allow-write", "coils=127.0.0.1"])
        self.client = self.daemon.client()
        c = self.client
        # Registers are not this client's to write: refused before the map is consulted.
        for _ in range(3):
            self.assertEqual(c.write_registers(60, [0x4142, 0], slave=1).exception_code, 1)
        self.assertEqual(c.write_register(60, 7, slave=1).exception_code, 1)
        # Coil 90 is no entry: Illegal Data Address, a rejected write.
        for _ in range(2):
            self.assertEqual(c.write_coil(90, True, slave=1).exception_code, 2)
        # Diagnostics (function 8) is not served: Illegal Function, counted under its code.
        with socket.create_connection(("127.0.0.1", self.daemon.port), timeout=5) as raw:
            raw.sendall(struct.pack(">HHHBBHH", 1, 0, 6, 1, 8, 0, 0))
            self.assertEqual(raw.recv(9)[7:], bytes([0x88, 0x01]))
        values = samples(get(self.port, "/metrics")[1])
        self.assertEqual(values['tarsel_modbusd_writes_total{outcome="refused"}'], 4)
        self.assertEqual(values['tarsel_modbusd_writes_total{outcome="rejected"}'], 2)
        self.assertEqual(values['tarsel_modbusd_writes_total{outcome="written"}'], 0)
        self.assertEqual(values['tarsel_modbusd_writes_total{outcome="failed"}'], 0)
        self.assertEqual(values['tarsel_modbusd_requests_total{function="16"}'], 3)
        self.assertEqual(values['tarsel_modbusd_requests_total{function="6"}'], 1)
        self.assertEqual(values['tarsel_modbusd_requests_total{function="5"}'], 2)
        self.assertEqual(values['tarsel_modbusd_requests_total{function="8"}'], 1)
        exceptions = {k: v for k, v in values.items()
                      if k.startswith("tarsel_modbusd_exceptions_total")}
        self.assertEqual(exceptions, {
            'tarsel_modbusd_exceptions_total{function="16",code="1"}': 3,
            'tarsel_modbusd_exceptions_total{function="6",code="1"}': 1,
            'tarsel_modbusd_exceptions_total{function="5",code="2"}': 2,
            'tarsel_modbusd_exceptions_total{function="8",code="1"}': 1,
        })

    def test_metrics_count_connections_taken_on_refused_and_closed_and_their_bytes(self):
        self.start(scenario_json=running_ups(),
                   args=["--max-clients", "2", "--idle-timeout", "1"])
        read = struct.pack(">HHHBBHH", 1, 0, 6, 1, 3, 0, 2)  # 12 bytes; answered with 13

        def answered(raw):
            answer = b""
            while len(answer) < 13 and (chunk := raw.recv(13 - len(answer))):
                answer += chunk
            return answer

        self.client = self.daemon.client()
        for _ in range(3):
            self.assertFalse(self.client.read_holding_registers(0, 2, slave=1).isError())
        with socket.create_connection(("127.0.0.1", self.daemon.port), timeout=5) as second:
            second.sendall(read)
            self.assertEqual(len(answered(second)), 13)
            # Both clients were heard from just now: the third is refused.
            with socket.create_connection(("127.0.0.1", self.daemon.port), timeout=5) as third:
                self.assertEqual(third.recv(16), b"")
            # Both are closed once idle for a second.
            self.assertEqual(second.recv(16), b"")
        with socket.create_connection(("127.0.0.1", self.daemon.port), timeout=5) as scanner:
            scanner.sendall(struct.pack(">HHHBBHH", 1, 7, 6, 1, 3, 0, 2))  # protocol 7
            self.assertEqual(scanner.recv(16), b"")
        with socket.create_connection(("127.0.0.1", self.daemon.port), timeout=5) as brief:
            brief.sendall(read)
            self.assertEqual(len(answered(brief)), 13)
        closed = 'tarsel_modbusd_connections_closed_total{reason="%s"}'
        page = {}

        def settled():
            page["text"] = get(self.port, "/metrics")[1]
            values = samples(page["text"])
            return values[closed % "idle_timeout"] == 2 and values[closed % "peer_closed"] == 1
        self.assertTrue(poll_until(settled, attempts=60, interval=0.05), page["text"])
        parsed_families(self, page["text"])
        values = samples(page["text"])
        self.assertEqual(values['tarsel_modbusd_connections_accepted_total{listener="plain"}'], 4)
        self.assertEqual(values['tarsel_modbusd_connections_accepted_total{listener="tls"}'], 0)
        refused = {k: v for k, v in values.items()
                   if k.startswith("tarsel_modbusd_connections_refused_total") and v}
        self.assertEqual(refused,
                         {'tarsel_modbusd_connections_refused_total{reason="client_limit"}': 1})
        closed_now = {k: v for k, v in values.items()
                      if k.startswith("tarsel_modbusd_connections_closed_total") and v}
        self.assertEqual(closed_now, {closed % "idle_timeout": 2, closed % "malformed_frame": 1,
                                      closed % "peer_closed": 1})
        self.assertEqual(values["tarsel_modbusd_clients"], 0)
        # Five reads of 12 bytes and the malformed frame's 12; five answers of 13.
        self.assertEqual(values["tarsel_modbusd_received_bytes_total"], 6 * 12)
        self.assertEqual(values["tarsel_modbusd_sent_bytes_total"], 5 * 13)

    def test_the_metrics_page_is_prometheus_text_whose_counters_survive_a_reload(self):
        self.upsd = Upsd({"bench": ("bench.dev", demo_dev())})
        self.start(args=["--map", NUT_MAP, "--nut-interval", "0.2", "--nut",
                         self.upsd.endpoint("bench")])
        polled = lambda: samples(get(self.port, "/metrics")[1])[
            "tarsel_modbusd_source_polls_total"] >= 3
        self.assertTrue(poll_until(polled, attempts=int(OPEN_LIMIT_S / 0.25), interval=0.25))
        self.client = self.daemon.client()
        for _ in range(3):
            self.client.read_holding_registers(0, 2, slave=1)
        self.client.read_holding_registers(9000, 1, slave=1)
        status, page = get(self.port, "/metrics")
        self.assertEqual(status, 200)
        before = counter_values(parsed_families(self, page))
        self.assertGreater(before[("tarsel_modbusd_source_poll_duration_seconds_count", ())], 0)
        os.kill(self.daemon.process.pid, signal.SIGHUP)
        self.assertTrue(self.daemon.wait_for_log("reload applied: ", 10.0),
                        "\n".join(self.daemon.log_lines))
        after = counter_values(parsed_families(self, get(self.port, "/metrics")[1]))
        for key, value in before.items():
            self.assertGreaterEqual(after[key], value, key)

    def test_healthz_goes_from_503_to_200_when_the_ups_becomes_available(self):
        self.start()  # the shipped scenario: the UPS is detected after ~3 s
        status, body = get(self.port, "/healthz")
        self.assertEqual(status, 503, body)
        health = json.loads(body)
        self.assertFalse(health["map_available"])
        self.assertTrue(any(f.startswith("map not available") for f in health["failed"]))
        self.assertEqual(samples(get(self.port, "/metrics")[1])["tarsel_modbusd_map_available"], 0)
        opened = poll_until(lambda: get(self.port, "/healthz")[0] == 200,
                            attempts=int(OPEN_LIMIT_S / 0.25), interval=0.25)
        self.assertTrue(opened, "/healthz never turned 200")
        self.assertEqual(json.loads(get(self.port, "/healthz")[1])["status"], "ok")

    def test_healthz_follows_the_freshness_of_the_nut_source(self):
        self.upsd = Upsd({"bench": ("bench.dev", demo_dev())})
        self.start(args=["--map", NUT_MAP, "--nut-interval", "0.5", "--nut",
                         self.upsd.endpoint("bench")])
        healthy = lambda: get(self.port, "/healthz")[0] == 200
        self.assertTrue(poll_until(healthy, attempts=int(OPEN_LIMIT_S / 0.25), interval=0.25))
        values = samples(get(self.port, "/metrics")[1])
        self.assertGreater(values["tarsel_modbusd_source_polls_total"], 0)
        self.assertEqual(values["tarsel_modbusd_source_poll_duration_seconds_count"],
                         values["tarsel_modbusd_source_polls_total"])
        self.upsd.stop_driver("bench")
        stale = poll_until(lambda: get(self.port, "/healthz")[0] == 503,
                           attempts=int(FAULT_LIMIT_S / 0.25), interval=0.25)
        self.assertTrue(stale, "/healthz stayed 200 without the driver")
        health = json.loads(get(self.port, "/healthz")[1])
        self.assertFalse(health["source_fresh"])
        self.assertTrue(health["map_available"])  # the gate stays open once opened
        self.assertEqual(samples(get(self.port, "/metrics")[1])["tarsel_modbusd_source_fresh"], 0)
        self.upsd.start_driver("bench")
        self.assertTrue(poll_until(healthy, attempts=int(FAULT_LIMIT_S / 0.25), interval=0.25),
                        "/healthz did not come back with the driver")

    def test_sighup_with_a_good_map_serves_it_to_a_client_that_stays_connected(self):
        self.start(map_json=map_with_label_at(100), scenario_json=scenario_with_label())
        self.client = self.daemon.client()
        first = self.client.read_holding_registers(100, 4, slave=1)
        self.assertEqual(list(first.registers), [0x4142, 0x4344, 0, 0])
        self.daemon._write("map.json", map_with_label_at(200))
        os.kill(self.daemon.process.pid, signal.SIGHUP)
        self.assertTrue(self.daemon.wait_for_log("reload applied: ", 10.0),
                        "\n".join(self.daemon.log_lines))
        # The same connection: its next request is answered from the new map.
        moved = self.client.read_holding_registers(200, 4, slave=1)
        self.assertFalse(moved.isError(), str(moved))
        self.assertEqual(list(moved.registers), [0x4142, 0x4344, 0, 0])
        self.assertEqual(self.client.read_holding_registers(100, 4, slave=1).exception_code, 2)
        values = samples(get(self.port, "/metrics")[1])
        self.assertEqual(values['tarsel_modbusd_reloads_total{outcome="applied"}'], 1)
        self.assertEqual(values["tarsel_modbusd_clients"], 1)
        code, log = self.daemon.stop()
        self.assertEqual(code, 0)
        self.assertIn("data-store subscriptions still open: 0", log)

    def test_sighup_with_a_bad_map_logs_its_errors_and_keeps_the_old_map(self):
        self.start(map_json=map_with_label_at(100), scenario_json=scenario_with_label())
        self.client = self.daemon.client()
        bad = map_with_label_at(200)
        bad["entries"][1]["encoder"] = "no-such-encoder"
        bad["entries"][0]["table"] = "no-such-table"
        self.daemon._write("map.json", bad)
        os.kill(self.daemon.process.pid, signal.SIGHUP)
        self.assertTrue(self.daemon.wait_for_log("reload refused", 10.0))
        log = "\n".join(self.daemon.log_lines)
        map_path = os.path.join(self.daemon._dir.name, "map.json")
        self.assertIn('reload: the register map "%s" cannot be served:' % map_path, log)
        self.assertEqual(log.count("no-such-encoder"), 1, log)
        self.assertIn("no-such-table", log)
        self.assertEqual(list(self.client.read_holding_registers(100, 4, slave=1).registers),
                         [0x4142, 0x4344, 0, 0])
        values = samples(get(self.port, "/metrics")[1])
        self.assertEqual(values['tarsel_modbusd_reloads_total{outcome="refused"}'], 1)
        self.assertEqual(values['tarsel_modbusd_reloads_total{outcome="applied"}'], 0)

    def test_a_write_whose_frame_straddles_a_reload_is_carried_out_by_the_new_map(self):
        self.start(map_json=map_with_label_at(100), scenario_json=scenario_with_label())
        pdu = struct.pack(">BHHB4H", 16, 200, 4, 8, 0x5859, 0x5A00, 0, 0)
        frame = struct.pack(">HHHB", 7, 0, len(pdu) + 1, 1) + pdu
        with socket.create_connection(("127.0.0.1", self.daemon.port), timeout=10) as raw:
            raw.sendall(frame[:9])  # the header and the start of the PDU
            self.daemon._write("map.json", map_with_label_at(200))
            os.kill(self.daemon.process.pid, signal.SIGHUP)
            self.assertTrue(self.daemon.wait_for_log("reload applied: ", 10.0),
                            "\n".join(self.daemon.log_lines))
            raw.sendall(frame[9:])
            answer = b""
            while len(answer) < 12:
                chunk = raw.recv(12 - len(answer))
                self.assertTrue(chunk, "connection closed")
                answer += chunk
        # Wholly the new map's: address 200 is its label, which the old map
        # did not have (it would have answered 0x02).
        self.assertEqual(answer, frame[:4] + struct.pack(">HBBHH", 6, 1, 16, 200, 4))
        self.client = self.daemon.client()
        self.assertEqual(list(self.client.read_holding_registers(200, 4, slave=1).registers),
                         [0x5859, 0x5A00, 0, 0])

    def test_sighup_with_a_map_nested_without_end_is_refused_and_the_old_map_served(self):
        self.start(map_json=map_with_label_at(100), scenario_json=scenario_with_label())
        self.client = self.daemon.client()
        # Quoting the refused element in its error once overflowed the stack:
        # the reload ended the daemon instead of being refused.
        depth = 200000
        self.daemon._write("map.json", '{"entries": [' + "[" * depth + "]" * depth + "]}")
        os.kill(self.daemon.process.pid, signal.SIGHUP)
        self.assertTrue(self.daemon.wait_for_log("reload refused", 10.0),
                        "\n".join(self.daemon.log_lines))
        self.assertTrue(self.daemon.alive())
        log = "\n".join(self.daemon.log_lines)
        self.assertIn("map: not read: arrays and objects nested more than 1024 levels deep", log)
        self.assertEqual(list(self.client.read_holding_registers(100, 4, slave=1).registers),
                         [0x4142, 0x4344, 0, 0])

    def test_a_stalled_http_client_does_not_hold_up_modbus_clients(self):
        self.start(scenario_json=running_ups())
        self.client = self.daemon.client()
        with socket.create_connection(("127.0.0.1", self.port), timeout=5) as stalled:
            stalled.sendall(b"GET /metr")  # and nothing more
            started = time.monotonic()
            for _ in range(20):
                self.assertFalse(self.client.read_holding_registers(0, 2, slave=1).isError())
            self.assertLess(time.monotonic() - started, 3.0)
            self.assertEqual(get(self.port, "/healthz")[0], 200)
            # The stalled client is answered 408 and closed after 5 s.
            stalled.settimeout(15)
            self.assertTrue(stalled.recv(100).startswith(b"HTTP/1.1 408 "))

    def test_a_non_loopback_http_address_is_refused_without_the_explicit_flag(self):
        result = subprocess.run([DAEMON, "--http-listen", "0.0.0.0:0", "--check"],
                                capture_output=True, text=True, timeout=30)
        self.assertEqual(result.returncode, 2)
        self.assertIn("not a loopback address", result.stderr)
        self.assertIn("--http-allow-remote", result.stderr)


if __name__ == "__main__":
    unittest.main()
