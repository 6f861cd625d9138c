"""The command line of tarsel-modbusd: map checks, --describe, --help."""
import json
import os
import subprocess
import tempfile
import unittest

from harness import DAEMON, Daemon, shipped_map


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
        self.assertIn("the register map cannot be served:", out.stderr)
        self.assertIn('entries[0].encoder: unknown encoder "double"', out.stderr)
        self.assertIn('"copy" at input-registers 42..42 overlaps entries[5]', out.stderr)
        self.assertIn('encoder "float" cannot be served from coils', out.stderr)
        self.assertNotIn("listening on", out.stderr)

    def test_check_validates_the_shipped_files(self):
        out = run("--check")
        self.assertEqual(out.returncode, 0, out.stderr)
        self.assertIn("entries, valid", out.stderr)

    def test_describe_json_lists_the_map_and_the_float_layout(self):
        out = run("--describe=json", "--describe-at", "10")
        self.assertEqual(out.returncode, 0, out.stderr)
        description = json.loads(out.stdout)
        self.assertTrue(description["available"])
        self.assertEqual(len(description["entries"]), len(shipped_map()["entries"]))
        location = [e for e in description["entries"] if e["name"] == "input.voltage"][0]
        self.assertEqual(location["representation"], "Float (Standard)")
        self.assertEqual(location["source"], 'device 2 channel "Input.L1.Voltage"')
        self.assertGreater(location["pushes"], 0)
        layouts = description["floatLayout"]["layouts"]
        self.assertEqual([l["byteOrder"] for l in layouts], [0, 1])
        self.assertEqual(layouts[0]["probe"], 12.5)

    def test_describe_defaults_to_markdown_and_offers_csv(self):
        markdown = run("--describe")
        self.assertEqual(markdown.returncode, 0, markdown.stderr)
        self.assertIn("| table | address | size | name | representation | value |", markdown.stdout)
        self.assertIn("Map available: no", markdown.stdout)
        csv = run("--describe=csv")
        self.assertTrue(csv.stdout.startswith("table,address,size,name,representation,value"))

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
        self.assertIn("run time of 0.500000 s is over; stopping", log)


if __name__ == "__main__":
    unittest.main()
