"""--audit-log: every write a client attempts, kept line by line in a file of
its own, while the daemon's log summarises repeated writes."""
import os
import tempfile
import unittest

from harness import Daemon, running_ups
from test_logging import string_registers

LABEL = 60  # config.label, an 8-register string kept in a channel


class AuditTrailTest(unittest.TestCase):
    """--audit-log keeps every write, where the log summarises."""

    def setUp(self):
        self.directory = tempfile.TemporaryDirectory(prefix="tarsel-audit-")
        self.trail = os.path.join(self.directory.name, "audit.log")
        self.daemon = Daemon(None, running_ups(), args=["--audit-log", self.trail])
        self.client = self.daemon.client()

    def tearDown(self):
        self.client.close()
        if self.daemon.alive():
            self.daemon.stop()
        self.directory.cleanup()

    def test_every_write_is_in_the_audit_trail_while_the_log_summarises_them(self):
        for i in range(50):
            response = self.client.write_registers(LABEL, string_registers(b"Label %d" % i, 8),
                                                   slave=1)
            self.assertFalse(response.isError(), "write %d: %s" % (i, response))
        _, log = self.daemon.stop()
        with open(self.trail, encoding="utf-8") as trail:
            lines = trail.read().splitlines()
        written = [l for l in lines
                   if ' "config.label" holding-registers 60: ' in l and ": written; " in l]
        self.assertEqual(len(written), 50, "\n".join(lines))
        self.assertIn('-> "Label 49": written; client=127.0.0.1:', written[-1])
        self.assertRegex(written[0], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ write ")
        in_log = [l for l in log.splitlines() if ' "config.label" holding-registers 60: ' in l]
        self.assertLessEqual(len(in_log), 10)


if __name__ == "__main__":
    unittest.main()
