"""The command line of tarsel-modbusd: map checks, --describe, --help."""
import csv
import io
import json
import os
import subprocess
import tempfile
import unittest

from harness import DAEMON, Daemon, shipped_map

REFERENCE_COLUMNS = ["table", "address", "size", "name", "wire", "unit", "scale", "offset",
                     "access", "unavailable", "representation", "value", "source", "image",
                     "pushes", "note"]


def csv_text(*args):
    """The daemon's standard output as sent: line breaks untranslated."""
    out = subprocess.run([DAEMON, *args], capture_output=True, timeout=30)
    return out.returncode, out.stdout.decode("utf-8")


def float_layouts():
    out = run("--describe=json", "--scenario", "none")
    return json.loads(out.stdout)["floatLayout"]["layouts"]


def write_json(directory, name, content):
    path = os.path.join(directory, name)
    with open(path, "w", encoding="utf-8") as f:
        json.dump(content, f)
    return path


def run(*args, timeout=30):
    return subprocess.run([DAEMON, *args], capture_output=True, text=True, timeout=timeout)


class CliTest(unittest.TestCase):
    def test_bad_map_is_refused_before_serving_with_every_error_listed(self):
        bad = shipped_map()
        bad["entries"][0]["encoder"] = "double"
        bad["entries"].append(dict(bad["entries"][5], name="copy"))
        bad["entries"].append({"name": "f", "table": "coils", "address": 100, "encoder": "float",
                               "source": {"device": 2, "channel": "X"}})
        with tempfile.TemporaryDirectory() as directory:
            path = os.path.join(directory, "bad.json")
            with open(path, "w", encoding="utf-8") as f:
                json.dump(bad, f)
            out = run("--map", path, "--port", "0", "--run-seconds", "5")
        self.assertEqual(out.returncode, 2)
        self.assertIn('the register map "%s" cannot be served:' % path, out.stderr)
        self.assertIn('entries[0].encoder: unknown encoder "double"', out.stderr)
        self.assertIn('"copy" at input-registers 42..42 overlaps entries[5]', out.stderr)
        self.assertIn('encoder "float" cannot be served from coils', out.stderr)
        self.assertNotIn("listening on", out.stderr)

    def test_check_validates_the_shipped_files(self):
        out = run("--check")
        self.assertEqual(out.returncode, 0, out.stderr)
        self.assertIn("entries, valid", out.stderr)
        self.assertNotIn('encoder "float"', out.stderr)

    def test_check_warns_about_library_floats_that_do_not_round_trip_naming_the_entries(self):
        layouts = float_layouts()
        ups_map = shipped_map()
        ups_map["entries"] += [
            {"name": "card-float-%d" % order, "table": "holding-registers",
             "address": 100 + 2 * order, "encoder": "float", "byteOrder": order,
             "source": {"device": 2, "channel": "Battery.Charge"}} for order in (0, 1)]
        with tempfile.TemporaryDirectory() as directory:
            out = run("--check", "--map", write_json(directory, "map.json", ups_map))
        self.assertEqual(out.returncode, 0, out.stderr)
        for layout in layouts:
            order = layout["byteOrder"]
            line = [l for l in out.stderr.splitlines()
                    if 'encoder "float" in byte order %d:' % order in l]
            if layout["roundTrips"]:
                self.assertEqual(line, [], out.stderr)
                continue
            self.assertEqual(len(line), 1, out.stderr)
            self.assertIn("warning: map:", line[0])
            self.assertIn('"card-float-%d"' % order, line[0])
            self.assertIn("serves layout %s but decodes writes as %s"
                          % (layout["readLayout"], layout["writeLayout"]), line[0])

    def test_describe_json_lists_the_map_and_the_float_layout(self):
        out = run("--describe=json", "--describe-at", "10")
        self.assertEqual(out.returncode, 0, out.stderr)
        description = json.loads(out.stdout)
        self.assertTrue(description["available"])
        self.assertEqual(len(description["entries"]), len(shipped_map()["entries"]))
        location = [e for e in description["entries"] if e["name"] == "input.voltage"][0]
        self.assertEqual(location["representation"], "Float32 (ABCD)")
        self.assertEqual(location["wire"], "float32 ABCD")
        self.assertEqual(location["unit"], "V")
        self.assertEqual(location["access"], "R")
        self.assertEqual(location["unavailable"], "0x7FC0 0x0000 (NaN)")
        self.assertEqual(location["source"], 'device 2 channel "Input.L1.Voltage"')
        self.assertGreater(location["pushes"], 0)
        layouts = description["floatLayout"]["layouts"]
        self.assertEqual([l["byteOrder"] for l in layouts], [0, 1])
        self.assertEqual(layouts[0]["probe"], 12.5)

    def test_describe_defaults_to_markdown_and_offers_csv(self):
        markdown = run("--describe")
        self.assertEqual(markdown.returncode, 0, markdown.stderr)
        self.assertIn("| " + " | ".join(REFERENCE_COLUMNS) + " |", markdown.stdout)
        self.assertIn("Map available: no", markdown.stdout)
        status, text = csv_text("--describe=csv")
        self.assertEqual(status, 0)
        self.assertTrue(text.startswith(",".join(REFERENCE_COLUMNS) + "\r\n"))

    def test_describe_csv_parses_back_with_labels_holding_commas_quotes_and_line_breaks(self):
        label = 'Volts, "L1"\nphase'
        ups_map = shipped_map()
        ups_map["entries"][4]["name"] = label
        with tempfile.TemporaryDirectory() as directory:
            status, text = csv_text("--describe=csv", "--describe-at", "10", "--map",
                                    write_json(directory, "map.json", ups_map))
        self.assertEqual(status, 0)
        rows = list(csv.reader(io.StringIO(text, newline=""), strict=True))
        self.assertEqual(rows[0], REFERENCE_COLUMNS)
        self.assertEqual(len(rows), len(ups_map["entries"]) + 1)
        self.assertTrue(all(len(row) == len(REFERENCE_COLUMNS) for row in rows))
        by_name = {row[3]: dict(zip(REFERENCE_COLUMNS, row)) for row in rows[1:]}
        voltage = by_name[label]
        self.assertEqual(voltage["wire"], "float32 ABCD")
        self.assertEqual(int(voltage["address"]), 40)
        self.assertEqual(float(voltage["scale"]), 1.0)
        offset = by_name["battery.temperature.offset"]
        self.assertEqual((float(offset["scale"]), float(offset["offset"])), (0.1, -40.0))
        self.assertEqual(by_name["battery.temperature"]["unavailable"], "0x8000")
        self.assertEqual(by_name["ups.location"]["access"], "RW")
        self.assertEqual(by_name["ups.model"]["access"], "R")
        # Numbers are plain: no thousands separators anywhere a spreadsheet reads one.
        self.assertEqual(by_name["config.battery-test-interval"]["value"], "604800")

    def test_help_lists_every_option(self):
        out = run("--help")
        self.assertEqual(out.returncode, 0)
        for option in ("--map", "--scenario", "--listen", "--port", "--unit-id", "--run-seconds",
                       "--verbose", "--describe", "--help"):
            self.assertIn(option, out.stdout)

    def test_bad_option_exits_with_status_2(self):
        self.assertEqual(run("--port", "99999").returncode, 2)

    def test_run_seconds_bounds_the_run(self):
        daemon = Daemon(args=("--scenario", "none", "--run-seconds", "0.5"))
        status = daemon.process.wait(timeout=20)
        _, log = daemon.stop()
        self.assertEqual(status, 0)
        self.assertIn("run time of 0.5 s is over; stopping", log)


if __name__ == "__main__":
    unittest.main()
